// File-system watching: the inotify instance, its watchers and the agent's descriptors.
#include <Vell/InotifyMgr.h>

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

namespace Vell {

namespace {
Quor::TraceHandle traceHandle("InotifyMgr");

// One read takes what fits. Never less than one event with the longest name the kernel
// allows: a shorter buffer makes such an event fail the read (EINVAL) for everyone. The
// size was measured with bench/inotify_bench.cpp: beyond a few KiB, fewer reads no longer
// show in the event rate.
constexpr std::size_t readBufferSize = 4096;
static_assert(readBufferSize >= sizeof(inotify_event) + NAME_MAX + 1);

// Storms. A reader that is woken for every event costs the writers one wake-up each
// (measured: a writer closing files as fast as it can runs 20% slower). When a drain
// finds events less than `stormGap` after the previous one, reading pauses for
// `stormPause`, so a storm is taken in batches of a buffer's worth. Cost: up to
// `stormPause` more latency during a storm, none out of one; the kernel queue (16,384
// events by default) outlasts any pause at any rate a writer reaches.
constexpr Quor::Seconds stormGap = 0.001;
constexpr Quor::Seconds stormPause = 0.001;

[[noreturn]] void fail(std::string const& text) {
  QUOR_TRACE(traceHandle, 0, text);
  Quor::throwInternalException(Quor::String8(text));
}
}  // namespace

// ---- the manager -----------------------------------------------------------------------

class InotifyMgrSm::QuorInotifyFd : public Quor::FileDescriptor::NotifieeConst {
 public:
  explicit QuorInotifyFd(InotifyMgrSm* owner) : owner_(owner) {}
  void onReadableCount() override {
    if (owner_) owner_->handleInotify();
  }
  InotifyMgrSm* owner_;  // the manager owns this reactor
};

// Ends a storm pause: reading resumes.
class InotifyMgrSm::QuorStormPause : public Quor::Clock::NotifieeConst {
 public:
  explicit QuorStormPause(InotifyMgrSm* owner) : owner_(owner) {}
  void onTime() override {
    if (!owner_ || !owner_->inotifyFd_) return;
    owner_->inotifyFd_->notifyOnReadableIs(true);
    owner_->handleInotify();
  }
  InotifyMgrSm* owner_;
};

InotifyMgrSm::InotifyMgrSm() : Entity("InotifyMgrSm") {}

InotifyMgrSm::~InotifyMgrSm() {
  if (reactor_) reactor_->owner_ = nullptr;
  if (pause_) {
    pause_->owner_ = nullptr;
    pause_->timeMinIs(Quor::endOfTime);
  }
}

Quor::Ptr<InotifyMgrSm> inotifyMgrSmFactory() {
  auto m = Quor::makeEntity<InotifyMgrSm>();
  m->handleInitialized();
  return m;
}

void InotifyMgrSm::handleInitialized() {
  QUOR_ASSERT(!initialized());
  int const fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) fail(std::string("InotifyMgrSm::handleInitialized() inotify_init() failed: ") + std::strerror(errno));
  QUOR_TRACE(traceHandle, 2, "InotifyMgrSm::handleInitialized() inotify_init() fd:" << fd);
  inotifyFd_ = Quor::fileDescriptorFactory("InotifyMgrSm");
  inotifyFd_->descriptorIs(fd);
  reactor_ = new QuorInotifyFd(this);
  reactor_->notifierIs(inotifyFd_);
  inotifyFd_->notifyOnReadableIs(true);
  pause_ = new QuorStormPause(this);
  pause_->notifierIs(Quor::clockFactory("InotifyMgrSm", inotifyFd_->activity()));
  Entity::handleInitialized();
}

Quor::Ptr<InotifyWatcher> InotifyMgrSm::watcher(int wd) const {
  auto it = watcher_.find(wd);
  return it == watcher_.end() ? nullptr : it->second;
}

void InotifyMgrSm::watcherIs(Quor::Ptr<InotifyWatcher> const& w) {
  Quor::checkNotNull("Vell::InotifyMgrSm", "watcher", w);
  watcher_[w->wd()] = w;
}

void InotifyMgrSm::watcherDel(int wd) { watcher_.erase(wd); }

void InotifyMgrSm::watcherDelAll() { watcher_.clear(); }

void InotifyMgrSm::handleInotify() {
  if (!initialized()) {
    QUOR_TRACE(traceHandle, 1, "InotifyMgrSm::handleInotify() Not initialized yet");
    return;
  }
  Quor::Ptr<InotifyMgrSm> const keep(this);  // a reactor may drop the manager
  alignas(inotify_event) char buf[readBufferSize];
  bool found = false;
  while (inotifyFd_) {
    ssize_t const n = ::read(inotifyFd_->descriptor(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        if (found) pauseInStorm();
        return;
      }
      fail(std::string("InotifyMgr::handleInotify() Error while reading inotify: ") + std::strerror(errno));
    }
    for (ssize_t off = 0; off + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      auto const* e = reinterpret_cast<inotify_event const*>(buf + off);
      Quor::String8 const name = e->len ? Quor::String8(std::string(e->name, ::strnlen(e->name, e->len))) : "";
      QUOR_TRACE(traceHandle, 5,
                 "InotifyMgrSm::handleInotify() watch:" << e->wd << " mask:" << std::hex << e->mask << std::dec
                                                        << " cookie:" << e->cookie << " len:" << e->len
                                                        << " name:" << (e->len ? name.charPtr() : "(null)"));
      off += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      dispatch(InotifyEvent(e->wd, e->mask, e->cookie, name));
    }
    found = true;
  }
}

void InotifyMgrSm::pauseInStorm() {
  if (!inotifyFd_ || !pause_) return;
  Quor::Seconds const now = pause_->notifier()->time();
  bool const storm = now - lastDrain_ < stormGap;
  lastDrain_ = now;
  if (!storm) return;
  inotifyFd_->notifyOnReadableIs(false);
  pause_->timeMinIs(now + stormPause);
}

// Who gets an event, by its watch descriptor: everyone (no watch), the watch's group
// (an entry's event), the group one last time (the directory itself went), nobody (the
// kernel confirming a removal), or the kernel is told to drop a watch nobody owns.
void InotifyMgrSm::dispatch(InotifyEvent const& event) {
  int const wd = event.wd();
  if (wd < 0) {
    std::vector<Quor::Ptr<InotifyWatcher>> all;
    for (auto const& [w, watcher] : watcher_) all.push_back(watcher);
    for (auto const& w : all) w->notifyWatchers(event, "error");
    return;
  }
  Quor::Ptr<InotifyWatcher> const w = watcher(wd);
  bool const selfGone = event.mask() & (IN_DELETE_SELF | IN_MOVE_SELF);
  switch ((w ? 2 : 0) | (event.name().str().empty() ? 0 : 1)) {
    case 3:  // a known watch, an entry's event
      w->notifyWatchers(event, event.name());
      return;
    case 2:  // a known watch, the directory's own event
      if (!selfGone) return;
      QUOR_TRACE(traceHandle, 4, "InotifyMgr::handleInotify() inode deleted wd: " << wd);
      watcherDel(wd);
      doRemoveWatch(wd);
      w->notifyWatchers(event, "deleted inode");
      w->watchDescriptorDelAll();
      return;
    default:  // no watcher
      if (event.mask() & IN_IGNORED) return;
      QUOR_TRACE(traceHandle, 1,
                 "InotifyMgrSm::handleInotify() inotifyFd:" << inotifyFd_->descriptor() << " wd:" << wd
                                                           << " missing watcher!  Removing wd:" << wd);
      doRemoveWatch(wd);
      return;
  }
}

Quor::Ptr<InotifyWatcher> InotifyMgrSm::doAddWatch(WatchDescriptor* d) {
  std::string const path = d->path().str();
  // IN_ONLYDIR: a path that is not a directory is refused (ENOTDIR) rather than watched
  // as a file, whose events would never carry a name.
  int const wd = ::inotify_add_watch(inotifyFd_->descriptor(), path.c_str(), watchMask | IN_ONLYDIR);
  if (wd < 0 && errno == ENOENT) {
    QUOR_TRACE(traceHandle, 0, "InotifyMgrSm::doAddWatch() must create " << path);
    d->eventIs(InotifyEvent(-1, 0, 0, ""));
    d->watchCountInc(1);
    return nullptr;
  }
  if (wd < 0) fail("InotifyMgrSm::watch() inotify_add_watch() " + path + " failed: " + std::strerror(errno));
  Quor::Ptr<InotifyWatcher> w = watcher(wd);
  char const* const kind = w ? "existing" : "new";
  if (!w) {
    w = inotifyWatcherFactory(Quor::Name(std::to_string(wd)), wd);
    watcherIs(w);
  }
  QUOR_TRACE(traceHandle, 4, "InotifyMgrSm::doAddWatch() adding " << path << " to " << kind << " watcher wd:" << wd);
  w->watchDescriptorIs(d, true);
  return w;
}

void InotifyMgrSm::doRemoveWatch(int wd) {
  if (::inotify_rm_watch(inotifyFd_->descriptor(), wd) != 0)
    QUOR_TRACE(traceHandle, 0,
               "InotifyMgrSm::doRemoveWatch() inotify_rm_watch() failed inotifyFd:"
                   << inotifyFd_->descriptor() << " watcher wd:" << wd << ", reason: " << std::strerror(errno));
}

void InotifyMgrSm::doCleanupWatch(WatchDescriptor* d) {
  Quor::Ptr<InotifyWatcher> const w = d->watcher();
  if (!w) {
    QUOR_TRACE(traceHandle, 4, "InotifyMgrSm::doCleanupWatch() removing watch from null watcher");
    return;
  }
  if (!w->watchDescriptorDel(d)) return;
  QUOR_TRACE(traceHandle, 4,
             "InotifyMgrSm::doCleanupWatch() removing watch " << d->path() << " from watcher wd:" << w->wd()
                                                              << " with watchDescriptors:" << w->watchDescriptors());
  if (w->watchDescriptors()) {
    QUOR_TRACE(traceHandle, 4, "InotifyMgrSm::doCleanupWatch() keeping watcher wd:" << w->wd());
    return;
  }
  QUOR_TRACE(traceHandle, 4, "InotifyMgrSm::doCleanupWatch() removing watcher wd:" << w->wd());
  // Only when it is still the watcher of that number: after "deleted inode" the kernel
  // may already have given the number to another directory.
  if (watcher(w->wd()) == w) {
    watcherDel(w->wd());
    doRemoveWatch(w->wd());
  }
}

void InotifyMgr::handleInitialized() {
  QUOR_ASSERT(!initialized());
  mgrSmIs(inotifyMgrSmFactory());
  Entity::handleInitialized();
}

Quor::Ptr<InotifyMgr> inotifyMgrFactory(Quor::Name const& name) {
  auto m = Quor::makeEntity<InotifyMgr>(name);
  m->handleInitialized();
  return m;
}

// ---- watchers ----------------------------------------------------------------------------

Quor::Ptr<InotifyWatcher> inotifyWatcherFactory(Quor::Name const& name, int wd) {
  return Quor::makeEntity<InotifyWatcher>(name, wd);
}

bool InotifyWatcher::watchDescriptor(WatchDescriptor const* d) const {
  return std::find(watchDescriptor_.begin(), watchDescriptor_.end(), d) != watchDescriptor_.end();
}

void InotifyWatcher::watchDescriptorIs(WatchDescriptor* d, bool linked) {
  if (!linked) {
    watchDescriptorDel(d);
  } else if (!watchDescriptor(d)) {
    watchDescriptor_.push_back(d);
  }
}

bool InotifyWatcher::watchDescriptorDel(WatchDescriptor* d) {
  auto it = std::find(watchDescriptor_.begin(), watchDescriptor_.end(), d);
  if (it == watchDescriptor_.end()) return false;
  watchDescriptor_.erase(it);
  return true;
}

void InotifyWatcher::watchDescriptorDelAll() {
  Quor::Ptr<InotifyWatcher> const keep(references() ? this : nullptr);
  std::vector<WatchDescriptor*> gone;
  gone.swap(watchDescriptor_);
  for (WatchDescriptor* d : gone) {
    Quor::Ptr<WatchDescriptor> const hold(d);
    if (d->watcher().ptr() == this) d->watcherIs(nullptr);
  }
}

void InotifyWatcher::notifyWatchers(InotifyEvent const& event, Quor::String8 const& reason) {
  Quor::Ptr<InotifyWatcher> const keep(references() ? this : nullptr);
  std::vector<WatchDescriptor*> const snapshot = watchDescriptor_;
  for (WatchDescriptor* d : snapshot) {
    if (!watchDescriptor(d)) continue;  // unlinked (or gone) by an earlier descriptor's reactor
    Quor::Ptr<WatchDescriptor> const hold(d);
    QUOR_TRACE(traceHandle, 4, "InotifyWatcher::notifyWatchers() notifying watch " << d->path() << " of " << reason);
    d->eventIs(event);
    d->watchCountInc(1);
  }
}

// ---- descriptors ---------------------------------------------------------------------------

WatchDescriptor::WatchDescriptor(Quor::Name const& name, Quor::Ptr<InotifyMgrSm> const& mgr)
    : Entity(name), mgr_(mgr) {
  Quor::checkNotNull("Vell::WatchDescriptor", "mgr", mgr);
}

Quor::Ptr<WatchDescriptor> watchDescriptorFactory(Quor::Name const& name, Quor::Ptr<InotifyMgr> const& mgr) {
  Quor::checkNotNull("Vell::WatchDescriptor", "mgr", mgr);
  return Quor::makeEntity<WatchDescriptor>(name, mgr->mgrSm());
}

Quor::Ptr<WatchDescriptor> WatchDescriptor::hold() {
  return Quor::Ptr<WatchDescriptor>(references() ? this : nullptr);
}

void WatchDescriptor::pathIs(Quor::String8 const& path) {
  QUOR_TRACE(traceHandle, 5, "WatchDescriptor::pathIs() new path:" << path);
  if (path == path_ && watcher_ && mgr_->watcher(watcher_->wd()) == watcher_) return;  // watched already
  auto const keep = hold();
  mgr_->doCleanupWatch(this);
  watcherIs(nullptr);
  if (!(path == path_)) {
    path_ = path;
    notifiees_.notify(&NotifieeConst::onPath);
  }
  watcherIs(mgr_->doAddWatch(this));
}

void WatchDescriptor::eventIs(InotifyEvent const& e) {
  auto const keep = hold();
  Quor::attrIs(event_, e, notifiees_, &NotifieeConst::onEvent);
}

void WatchDescriptor::watchCountIs(U32 n) {
  auto const keep = hold();
  Quor::attrIs(watchCount_, n, notifiees_, &NotifieeConst::onWatchCount);
}

void WatchDescriptor::watcherIs(Quor::Ptr<InotifyWatcher> const& w) {
  auto const keep = hold();
  Quor::attrIs(watcher_, w, notifiees_, &NotifieeConst::onWatcher);
}

void WatchDescriptor::handleDel() {
  QUOR_TRACE(traceHandle, 4, "WatchDescriptor::handleDel() path:" << path_);
  mgr_->doCleanupWatch(this);
}

}  // namespace Vell
