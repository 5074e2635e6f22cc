// File-system watching over inotify: many watch descriptors, shared kernel watches.
//
// An agent makes one InotifyMgr (which owns the process's inotify instance through its
// InotifyMgrSm) and one WatchDescriptor per directory it cares about. A descriptor's
// `event` holds the last event delivered to it and `watchCount` counts them; reactors on
// those attributes do the agent's work. Descriptors on the same directory share one
// kernel watch and one InotifyWatcher, which fans each event out to all of them, in no
// particular order. Watched are entries closed after writing and deleted, and the
// directory's own deletion or move ("deleted inode": the watch is gone, set the path
// again to resume). A kernel queue overflow reaches every watcher as "error".
//
// Workload assumed: tens to thousands of watched directories, bursts of events. Costs:
// one non-blocking read per few dozen events into a fixed buffer, O(1) dispatch per
// event plus one notification per descriptor of its directory. In a storm (events
// found again within a millisecond of the last drain) reading pauses for a millisecond
// between drains, so the writers are not slowed by a wake-up per event: up to 1 ms more
// latency then, none otherwise.
//
// Ownership: a descriptor holds its watcher and the manager; a watcher holds only raw
// pointers to its descriptors, so dropping a descriptor's last reference releases its
// share of the watch (and the kernel watch with the last one). No reference cycles.
#pragma once
#include <unordered_map>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class InotifyWatcher;
class InotifyMgrSm;
class WatchDescriptor;

/// One kernel event as delivered: wd -1 for events tied to no watch (queue overflow)
/// and for the event that tells a descriptor its path does not exist.
class QUOR_API InotifyEvent {
 public:
  InotifyEvent() = default;
  InotifyEvent(int wd, U32 mask, U32 cookie, Quor::String8 name)
      : wd_(wd), mask_(mask), cookie_(cookie), name_(std::move(name)) {}
  int wd() const { return wd_; }
  U32 mask() const { return mask_; }
  U32 cookie() const { return cookie_; }
  Quor::String8 const& name() const { return name_; }
  QUOR_VALUE_TYPE(InotifyEvent, "Vell::InotifyEvent", QUOR_FIELD(InotifyEvent, wd), QUOR_FIELD(InotifyEvent, mask),
                  QUOR_FIELD(InotifyEvent, cookie), QUOR_FIELD(InotifyEvent, name))

 private:
  int wd_ = 0;
  U32 mask_ = 0;
  U32 cookie_ = 0;
  Quor::String8 name_;
};

/// What every watch asks for: IN_CLOSE_WRITE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF.
inline constexpr U32 watchMask = 3592;

/// Owns the inotify instance (non-blocking, close-on-exec) and one watcher per kernel
/// watch; reads and dispatches events when the instance is readable.
class QUOR_API InotifyMgrSm : public Quor::Entity {
 public:
  InotifyMgrSm();
  ~InotifyMgrSm() override;

  Quor::Ptr<Quor::FileDescriptor> const& inotifyFd() const { return inotifyFd_; }
  /// The watcher of kernel watch wd, or null.
  Quor::Ptr<InotifyWatcher> watcher(int wd) const;
  std::size_t watchers() const { return watcher_.size(); }
  /// Throws "null _watcher parameter to mutator for Vell::InotifyMgrSm::watcher not allowed\"".
  void watcherIs(Quor::Ptr<InotifyWatcher> const& w);
  void watcherDel(int wd);
  void watcherDelAll();

  /// Opens the instance; throws Quor::InternalException if it cannot (assertion
  /// "!initialized()" when run twice).
  void handleInitialized() override;
  /// Reads and dispatches until the kernel has nothing more. Throws
  /// Quor::InternalException on a read failure other than EAGAIN.
  void handleInotify();
  /// Adds the kernel watch for wd's path and links wd to its watcher, which it returns;
  /// null when the path does not exist (wd then got the event with wd -1 and one
  /// count). Other failures (not a directory, name too long, no watches left) throw
  /// Quor::InternalException and change nothing.
  Quor::Ptr<InotifyWatcher> doAddWatch(WatchDescriptor* wd);
  /// Removes a kernel watch; a failure is only traced.
  void doRemoveWatch(int wd);
  /// Unlinks wd from its watcher, dropping watcher and kernel watch with the last one.
  void doCleanupWatch(WatchDescriptor* wd);

  QUOR_ENTITY_TYPE(InotifyMgrSm, "Vell::InotifyMgrSm",
                   Quor::attr("watchers", &InotifyMgrSm::watchers))

 private:
  void dispatch(InotifyEvent const& event);
  void pauseInStorm();
  Quor::Ptr<Quor::FileDescriptor> inotifyFd_;
  std::unordered_map<int, Quor::Ptr<InotifyWatcher>> watcher_;
  class QuorInotifyFd;
  Quor::Ptr<QuorInotifyFd> reactor_;
  class QuorStormPause;
  Quor::Ptr<QuorStormPause> pause_;
  Quor::Seconds lastDrain_ = -Quor::endOfTime;  // end of the last drain that found events
};

QUOR_API Quor::Ptr<InotifyMgrSm> inotifyMgrSmFactory();

/// The agent's handle on watching: makes and holds the InotifyMgrSm.
class QUOR_API InotifyMgr : public Quor::Entity {
 public:
  explicit InotifyMgr(Quor::Name const& name) : Entity(name) {}
  Quor::Ptr<InotifyMgrSm> const& mgrSm() const { return mgrSm_; }
  void mgrSmIs(Quor::Ptr<InotifyMgrSm> const& m) { mgrSm_ = m; }
  /// Makes the state machine (assertion "!initialized()" when run twice).
  void handleInitialized() override;

  QUOR_ENTITY_TYPE(InotifyMgr, "Vell::InotifyMgr",
                   Quor::attr("mgrSm", &InotifyMgr::mgrSm))

 private:
  Quor::Ptr<InotifyMgrSm> mgrSm_;
};

/// A manager, ready to use. Throws Quor::InternalException when inotify cannot be opened.
QUOR_API Quor::Ptr<InotifyMgr> inotifyMgrFactory(Quor::Name const& name);

/// Kernel watch wd's group of descriptors.
class QUOR_API InotifyWatcher : public Quor::Entity {
 public:
  InotifyWatcher(Quor::Name const& name, int wd) : Entity(name), wd_(wd) {}
  /// The kernel watch descriptor it stands for.
  int wd() const { return wd_; }
  std::size_t watchDescriptors() const { return watchDescriptor_.size(); }
  bool watchDescriptor(WatchDescriptor const* d) const;
  /// Links (true) or unlinks (false) a descriptor; not owned.
  void watchDescriptorIs(WatchDescriptor* d, bool linked);
  /// Unlinks d; false when it was not linked.
  bool watchDescriptorDel(WatchDescriptor* d);
  /// Unlinks every descriptor, and clears the watcher of those that still name this one
  /// (the kernel watch is gone).
  void watchDescriptorDelAll();
  /// Gives every descriptor the event and one more count; they may unlink themselves
  /// or others meanwhile (those not yet told are then skipped).
  void notifyWatchers(InotifyEvent const& event, Quor::String8 const& reason);
  QUOR_ENTITY_TYPE(InotifyWatcher, "Vell::InotifyWatcher",
                   Quor::attr("wd", &InotifyWatcher::wd),
                   Quor::attr("watchDescriptors", &InotifyWatcher::watchDescriptors))

 private:
  int const wd_;

  std::vector<WatchDescriptor*> watchDescriptor_;
};

QUOR_API Quor::Ptr<InotifyWatcher> inotifyWatcherFactory(Quor::Name const& name, int wd);

/// One watched directory, as the agent sees it.
class QUOR_API WatchDescriptor : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<WatchDescriptor, NotifieeConst> {
   public:
    virtual void onPath() {}
    virtual void onEvent() {}
    virtual void onWatchCount() {}
    virtual void onWatcher() {}
  };

  /// Use watchDescriptorFactory(): the manager comes with the descriptor, before any path.
  WatchDescriptor(Quor::Name const& name, Quor::Ptr<InotifyMgrSm> const& mgr);

  Quor::String8 const& path() const { return path_; }
  /// Moves the watch: releases the old one, then adds one for `path`. The same path
  /// again does nothing while it is watched, and resumes a watch that ended ("deleted
  /// inode", or a path that did not exist). Throws as doAddWatch(); the path is then
  /// stored but unwatched.
  void pathIs(Quor::String8 const& path);
  InotifyEvent const& event() const { return event_; }
  void eventIs(InotifyEvent const& e);
  U32 watchCount() const { return watchCount_; }
  void watchCountIs(U32 n);
  void watchCountInc(U32 n) { watchCountIs(watchCount_ + n); }
  Quor::Ptr<InotifyWatcher> const& watcher() const { return watcher_; }
  void watcherIs(Quor::Ptr<InotifyWatcher> const& w);
  Quor::Ptr<InotifyMgrSm> const& mgrSm() const { return mgr_; }

  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }

  QUOR_ENTITY_TYPE(WatchDescriptor, "Vell::WatchDescriptor",
                   Quor::attr("path", &WatchDescriptor::path, &WatchDescriptor::pathIs),
                   Quor::attr("event", &WatchDescriptor::event),
                   Quor::attr("watchCount", &WatchDescriptor::watchCount),
                   Quor::attr("watcher", &WatchDescriptor::watcher))

 protected:
  void handleDel() override;

 private:
  Quor::Ptr<WatchDescriptor> hold();
  Quor::Ptr<InotifyMgrSm> mgr_;
  Quor::String8 path_;
  InotifyEvent event_;
  U32 watchCount_ = 0;
  Quor::Ptr<InotifyWatcher> watcher_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

/// A descriptor served by `mgr`. Throws "null _mgr parameter to mutator for
/// Vell::WatchDescriptor::mgr not allowed\"" for a null manager.
QUOR_API Quor::Ptr<WatchDescriptor> watchDescriptorFactory(Quor::Name const& name, Quor::Ptr<InotifyMgr> const& mgr);

}  // namespace Vell
