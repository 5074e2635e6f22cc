// Activities (one event loop each), clocks with one-shot reactors, and file
// descriptors with level-triggered readiness reactors.
//
// Workload assumed: one thread, tens of thousands of armed clock reactors at most (the
// timer wheel multiplexes more onto one), a few hundred descriptors. Due reactors run in
// timeMin order, equal times in arming order; a reactor armed in the past runs on the
// next turn. Under virtual time the loop never sleeps: when nothing is due and no
// descriptor is ready it jumps to the earliest armed timeMin.
//
// Costs: armed clock reactors sit in a binary heap keyed by (timeMin, arming sequence),
// with each reactor's heap position stored in the reactor, so arming, re-arming and
// disarming are O(log n) and allocate nothing once the heap has grown to its peak. A
// turn costs O(log n) per reactor it runs, also when those reactors re-arm themselves
// in the past (they are set aside for the turn and put back after it).
//
// Exceptions: an exception that escapes a reactor (onTime, onReadableCount, ...) is not
// caught by the loop; it leaves runOnce()/run() and reaches the caller. The loop stays
// consistent: the reactor that threw has already been disarmed (a clock reactor is
// one-shot) or simply stays registered (a descriptor), the rest of the turn is skipped,
// and the next runOnce() carries on with whatever is still armed or ready.
#pragma once
#include <functional>
#include <unordered_map>
#include <vector>

#include <Quor/Entity.h>
#include <Quor/Time.h>

namespace Quor {

class ActivitySm;
class Clock;
class FileDescriptor;

/// Names an activity; factories of reacting entities take one.
class QUOR_API ActivityConfig : public Entity {
 public:
  explicit ActivityConfig(Name const& name) : Entity(name) {}
  ~ActivityConfig() override;
  /// The loop of this activity, made on first use.
  Ptr<ActivitySm> activitySm() const;

 private:
  mutable Ptr<ActivitySm> sm_;
};

/// The process's main activity.
QUOR_API Ptr<ActivityConfig> defaultActivityConfig();
/// The activity of that name, made on first use.
QUOR_API Ptr<ActivityConfig> activityConfigFactory(Name const& name);
/// The loop of an activity (null config: the default activity).
QUOR_API Ptr<ActivitySm> quorActivitySmFor(Ptr<ActivityConfig> const& config);

/// A clock: the source of onTime() calls for the reactors attached to it.
class QUOR_API Clock : public Entity {
 public:
  /// A one-shot clock reactor. When the clock's time reaches timeMin, the loop sets
  /// timeMin back to endOfTime and then calls onTime(). endOfTime means never.
  class QUOR_API NotifieeConst : public PtrInterface {
   public:
    NotifieeConst() = default;
    ~NotifieeConst() override;
    NotifieeConst(NotifieeConst const&) = delete;
    NotifieeConst& operator=(NotifieeConst const&) = delete;

    Ptr<Clock const> const& notifier() const { return clock_; }
    /// Attaches to a clock (null detaches); an armed timeMin moves with it.
    void notifierIs(Ptr<Clock const> const& clock);
    Seconds timeMin() const { return timeMin_; }
    /// Arms (or re-arms, or with endOfTime disarms) the reactor. Unchanged: no-op.
    /// Precondition: t is not NaN.
    void timeMinIs(Seconds t);
    /// Called once per arming when timeMin has come.
    virtual void onTime() {}

   private:
    friend class ActivitySm;
    void arm();
    void disarm();
    Ptr<Clock const> clock_;
    Seconds timeMin_ = endOfTime;
    ActivitySm* armedIn_ = nullptr;
    U32 slot_ = 0;           // position in the loop's heap, or in its set-aside list
    bool setAside_ = false;  // due but armed during the running turn: waits for the next
  };

  Clock(Name const& name, Ptr<ActivityConfig> const& activity);
  Ptr<ActivityConfig> const& activity() const { return activity_; }
  /// The loop of its activity (activities live as long as the process).
  ActivitySm* loop() const { return loop_; }
  /// The time of its activity's current loop turn (ActivitySm::time()): the cheap "now"
  /// to add a delay to from a reactor.
  Seconds time() const;

 private:
  Ptr<ActivityConfig> activity_;
  ActivitySm* loop_;
};

QUOR_API Ptr<Clock> clockFactory(Name const& name,
                                 Ptr<ActivityConfig> const& activity = defaultActivityConfig());

/// Owns one Unix descriptor and reports its readiness to reactors, level-triggered:
/// while notification is on and the descriptor is ready, every loop turn increments
/// the count and calls the reactors.
class QUOR_API FileDescriptor : public Entity {
 public:
  class QUOR_API NotifieeConst : public BaseNotifiee<FileDescriptor, NotifieeConst> {
   public:
    virtual void onReadableCount() {}
    virtual void onWritableCount() {}
  };

  FileDescriptor(Name const& name, Ptr<ActivityConfig> const& activity);
  ~FileDescriptor() override;

  int descriptor() const { return fd_; }
  /// Hands over a descriptor, which this object then owns. A previously owned one is
  /// closed, except when the new value is -1: that only forgets it, for a caller that
  /// closed (or passed on) the descriptor itself, so a reused number is never closed.
  void descriptorIs(int fd);
  U64 readableCount() const { return readableCount_; }
  U64 writableCount() const { return writableCount_; }
  bool notifyOnReadable() const { return notifyOnReadable_; }
  bool notifyOnWritable() const { return notifyOnWritable_; }
  void notifyOnReadableIs(bool b);
  void notifyOnWritableIs(bool b);
  Ptr<ActivityConfig> const& activity() const { return activity_; }

  NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }

 private:
  friend class ActivitySm;
  void updateInterest();
  void handleReady(bool readable, bool writable);
  Ptr<ActivityConfig> activity_;
  int fd_ = -1;
  U64 readableCount_ = 0;
  U64 writableCount_ = 0;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  U32 interest_ = 0;       // events registered with epoll
  bool alwaysReady_ = false;  // epoll refuses regular files: they are always ready
  U64 id_ = 0;
  mutable NotifieeList<NotifieeConst> notifiees_;
};

/// A descriptor entity on the default activity.
QUOR_API Ptr<FileDescriptor> fileDescriptorFactory(Name const& name);
QUOR_API Ptr<FileDescriptor> fileDescriptorFactory(Name const& name,
                                                   Ptr<ActivityConfig> const& activity);

/// The event loop of one activity.
class QUOR_API ActivitySm : public Entity {
 public:
  explicit ActivitySm(Name const& name);
  ~ActivitySm() override;

  /// One turn: runs the due clock reactors, then the ready descriptors' reactors;
  /// when nothing ran, waits up to maxWait (or until the next armed timeMin) and runs
  /// what became due. Returns true if any reactor ran.
  bool runOnce(Seconds maxWait = 0);
  /// Turns until now() >= deadline; under virtual time it ends with now() == deadline.
  void runUntil(Seconds deadline);
  /// Turns until done() or the timeout; returns done().
  bool runUntil(std::function<bool()> const& done, Seconds timeout);
  /// Turns until stop() is called.
  void run();
  void stop() { stopped_ = true; }

  /// The present as this loop sees it: while the loop runs a turn, the time read when
  /// the turn started (read again after waiting for descriptors); outside a turn,
  /// Quor::now(). Reactors add delays to it instead of reading the clock each time, as
  /// every timer of one turn is armed from the same present. It is never later than
  /// now(), so a deadline computed from it is never later than one computed from now().
  Seconds time() const { return inTurn_ ? turnTime_ : now(); }
  /// True while runOnce() is running a turn.
  bool inTurn() const { return inTurn_; }

  /// The earliest armed timeMin, or endOfTime.
  Seconds nextTimeMin() const;
  std::size_t armedClockReactors() const { return heap_.size() + setAside_.size(); }
  std::size_t descriptors() const { return fds_.size(); }

 private:
  friend class Clock::NotifieeConst;
  friend class FileDescriptor;
  /// A heap entry carries its key, so sifting compares without touching the reactors.
  struct Armed {
    Seconds time;
    U64 seq;
    Clock::NotifieeConst* reactor;
    bool before(Armed const& o) const { return time < o.time || (time == o.time && seq < o.seq); }
  };
  bool runDueClocks();
  bool pollDescriptors(int timeoutMs);
  void arm(Clock::NotifieeConst* n, Seconds t);
  void disarm(Clock::NotifieeConst* n);
  void heapPush(Armed const& a);
  void heapRemove(U32 slot);
  void heapPlace(U32 slot, Armed const& a);
  void siftUp(U32 slot, Armed const& a);
  void siftDown(U32 slot, Armed const& a);
  U64 addDescriptor(FileDescriptor* fd);
  void removeDescriptor(FileDescriptor* fd);
  bool setInterest(FileDescriptor* fd, U32 events);

  int epoll_ = -1;
  U64 nextSeq_ = 1;
  U64 nextFdId_ = 1;
  bool stopped_ = false;
  bool inTurn_ = false;
  Seconds turnTime_ = 0;
  std::vector<Armed> heap_;      // armed clock reactors, earliest first
  std::vector<Armed> setAside_;  // due, but armed during the running turn
  std::unordered_map<U64, FileDescriptor*> fds_;
  std::vector<U64> alwaysReady_;
  std::size_t registered_ = 0;  // descriptors with an epoll registration
};

inline Seconds Clock::time() const { return loop_->time(); }

}  // namespace Quor
