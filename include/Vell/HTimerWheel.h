// Hierarchical timer wheel: very many one-shot timers multiplexed onto one framework clock.
//
// Workload assumed: an agent holding thousands to millions of timers (keep-alives,
// retransmissions, lease checks), most of them re-armed or cancelled long before they
// fire, all on one activity thread. Arming, re-arming and cancelling are O(1) and
// allocate nothing in a steady state: a timer is an intrusive member of one slot's list,
// and each bucket keeps an occupancy bitmap (an HBitmap) so the next used slot is a range
// search of a few word operations. Each slot also keeps the addresses of the timers placed in it (a
// bounded ring, about 8 bytes per timer), only to prefetch them: walking a slot's list
// to fire or cascade it is otherwise one cache miss after another once timers are many.
//
// Layout: time is cut into ticks of `tickMsecs`. Bucket 0 has one slot per tick; one
// full turn of bucket b is one slot of bucket b+1. The wheel keeps exactly one clock
// reactor armed at the time of the next used slot of bucket 0, or, when only coarser
// buckets hold timers, at the moment bucket 0 wraps (the "ghost" index). When bucket 0
// wraps, the next slot of the coarser buckets is cascaded down.
//
// Precision: a timer never fires before its timeMin (to the rounding of distances to whole
// milliseconds, so at most half a millisecond) and, when the loop is on time, less than
// one tick after it. Distances are measured from the time of the wheel's current slot,
// not from the present: the present lies up to a tick (more when the loop was late)
// after that slot, and a distance counted from the slot but measured from the present
// would fire up to a tick early. A timer beyond the wheel's capacity (`maxTicks`) is
// parked in the farthest slot and placed again from there, so capacity bounds the
// slots' memory, not the range.
//
// The present: the wheel brings its current slot up to the time of its loop's current
// turn (Quor::ActivitySm::time(), read once per turn) instead of reading the clock on
// every arming; outside a turn it reads Quor::now(). From a reactor, arm with
// `clock->time() + delay` for the same saving: the turn's time is never later than
// now(), so such a timer is never early, at worst late by the time the turn has taken.
//
// Usage:
//   auto tw = Vell::timerWheelFactory(activity, clock, 10, 1 << 20, false, 256);
//   struct Retransmit : Vell::TimerWheel::NotifieeConst { void onTime() override; };
//   Quor::Ptr<Retransmit> r = new Retransmit;
//   r->notifierIs(tw);
//   r->timeMinIs(Quor::now() + 0.2);   // arm; re-arm with another time; endOfTime cancels
#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

/// The number of slots of one bucket, 2 to 0xfffffffe. Its text form is the plain
/// decimal number ("256").
class QUOR_API BucketSize {
 public:
  /// The smallest bucket: 2 slots (also what an unrecorded bucket reads as).
  BucketSize() = default;
  /// Throws Quor::RangeException "BucketSize::value < 2 or > 0xfffffffe not allowed".
  explicit BucketSize(U32 v);
  U32 value() const { return value_; }
  /// Bounded as the constructor; the value is unchanged when the check fails.
  void valueIs(U32 v);

  void quorWrite(std::string& out) const;
  /// Parses a decimal number; out-of-bounds values throw as valueIs() does.
  static BucketSize quorParse(Quor::StrepIt& it, Quor::StrepIt end);
  /// Binary: the 32-bit value, bounded when read.
  void quorWriteNbo(Quor::NboAttrLog::Out& out) const { out.u32(value_); }
  static BucketSize quorReadNbo(Quor::NboAttrLog::In& in);

  QUOR_VALUE_TYPE(BucketSize, "Vell::BucketSize", QUOR_FIELD(BucketSize, value))

 private:
  U32 value_ = 2;
};

struct HeadNTail;

class QUOR_API TimerWheel : public Quor::Entity {
 public:
  /// Slot marks of a timer that is in no slot.
  static constexpr U32 InvalidWheelIndex = 0xcafefeed;
  static constexpr U32 InvalidBucketIndex = 0xcafefeed;

  /// A timer: the same shape as a framework clock reactor. Attach it to a wheel with
  /// notifierIs(), arm it with timeMinIs(); onTime() is called once per arming when its
  /// slot is reached. timeMin goes back to Quor::endOfTime just before onTime(), so
  /// onTime() may re-arm it (a time already due then fires on the loop's next turn).
  /// Quor::endOfTime, detaching or deleting the timer takes it out of the wheel. The wheel
  /// does not keep a timer alive, a timer keeps its wheel. Like a clock reactor, a timer
  /// is held in Quor::Ptr (or marked static): a reference is held across onTime().
  class QUOR_API NotifieeConst : public Quor::PtrInterface {
   public:
    NotifieeConst() = default;
    ~NotifieeConst() override;
    NotifieeConst(NotifieeConst const&) = delete;
    NotifieeConst& operator=(NotifieeConst const&) = delete;

    Quor::Ptr<TimerWheel const> const& notifier() const { return notifier_; }
    /// Attaches to a wheel (null detaches). An armed timeMin moves to the new wheel.
    void notifierIs(Quor::Ptr<TimerWheel const> const& wheel);

    Quor::Seconds timeMin() const { return timeMin_; }
    /// Arms, re-arms or (with Quor::endOfTime) cancels. Unchanged: no-op. O(1).
    /// Precondition: t is not NaN (assertion "!isnan( n->timeMin() )").
    void timeMinIs(Quor::Seconds t);
    /// Called when the timer's slot is reached.
    virtual void onTime() {}

    /// Slot within its bucket, or InvalidWheelIndex when in no slot.
    U32 wheelIndex() const { return wheelIndex_; }
    /// Its bucket, or InvalidBucketIndex when in no slot.
    U32 bucketIndex() const { return bucketIndex_; }
    /// Neighbours in the slot's list (null at the ends), for inspection.
    NotifieeConst const* next() const { return next_; }
    NotifieeConst const* prev() const { return prev_; }

   private:
    friend class TimerWheel;
    QUOR_LOCAL void leaveWheel();
    QUOR_LOCAL TimerWheel* wheel() const;

    // What placement and firing touch comes first, within one cache line of the base.
    NotifieeConst* next_ = nullptr;
    NotifieeConst* prev_ = nullptr;
    Quor::Seconds timeMin_ = Quor::endOfTime;
    U64 armSeq_ = 0;  // arming order: ties in firing order, and "armed during this pass"
    U32 wheelIndex_ = InvalidWheelIndex;
    U32 bucketIndex_ = InvalidBucketIndex;
    Quor::Ptr<TimerWheel const> notifier_;
  };

  /// Use timerWheelFactory(). Throws Quor::RangeException on a bad setting.
  TimerWheel(Quor::Ptr<Quor::ActivityConfig> const& activity, Quor::Ptr<Quor::Clock const> const& clock,
             U32 tickMsecs, U32 initialMaxTicks, bool preserveOrder, U32 defaultBucketSize);
  ~TimerWheel() override;

  // ---- configuration ----
  Quor::Ptr<Quor::ActivityConfig> const& quorFwkActivity() const { return quorFwkActivity_; }
  Quor::Ptr<Quor::Clock const> const& systemClock() const { return systemClock_; }
  U32 tickMsecs() const { return tickMsecs_; }
  U32 initialMaxTicks() const { return initialMaxTicks_; }
  /// When true, timers due in the same slot fire in timeMin order (ties in arming
  /// order); when false, in the order they entered the slot.
  bool preserveOrder() const { return preserveOrder_; }
  U32 defaultBucketSize() const { return defaultBucketSize_; }
  /// Longest time one clock wake-up spends firing before it yields to the loop.
  Quor::Seconds processTimeLimit() const { return processTimeLimit_; }
  /// Throws "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed".
  void processTimeLimitIs(Quor::Seconds s);

  // ---- structure ----
  U32 bucketCount() const { return bucketCount_; }
  /// Product of all bucket sizes, saturated at 0xffffffff: the farthest distance in
  /// ticks the wheel holds without parking. 0 before initialisation.
  U32 maxTicks() const { return maxTicks_; }
  /// Size of bucket b (BucketSize() when there is no such bucket).
  BucketSize bucketSize(U32 b) const;
  /// Handle of bucket b's slot array (0 when there is no such bucket).
  U64 wheelBase(U32 b) const;
  /// The slot of bucket b that stands for the present; InvalidWheelIndex at rest.
  U32 currentWheelIndex(U32 b) const;

  // ---- state ----
  /// The wheel's present: the time of its current slot once it has been brought up to
  /// the present before a placement or a wake-up. Distances are measured from it.
  Quor::Seconds time() const { return time_; }
  /// The time currentWheelIndex(0) stands for; Quor::endOfTime at rest.
  Quor::Seconds currentWheelIndexTime() const { return currentWheelIndexTime_; }
  /// Number of timers in the wheel (zero exactly when no timer is in a slot).
  U32 timers() const { return timers_; }
  /// Number of timers in bucket b.
  U32 timer(U32 b) const;
  /// Number of buckets that hold at least one timer.
  U32 remainingNonEmptyBuckets() const { return remainingNonEmptyBuckets_; }
  /// Slot of bucket 0 at whose time the clock is armed, bucketSize(0) for "when bucket 0
  /// wraps", InvalidWheelIndex at rest.
  U32 scheduledWheelIndex() const { return scheduledWheelIndex_; }
  /// bucketSize(0): the slot one past the end of bucket 0.
  U32 ghostTimerIndex() const { return ghostTimerIndex_; }
  bool systemClockHandlerActive() const { return systemClockHandlerActive_; }
  /// The time the wheel's clock reactor is armed at (Quor::endOfTime at rest).
  Quor::Seconds systemClockTimeMin() const;

  // ---- slots, for inspection ----
  NotifieeConst const* slotHead(U32 b, U32 i) const;
  NotifieeConst const* slotTail(U32 b, U32 i) const;
  /// The occupancy bit of slot (b, i).
  bool slotOccupied(U32 b, U32 i) const;

  // ---- operations ----
  /// Builds the buckets; run once, by the constructor (assertion "!initialized()").
  void handleInitialized() override;
  /// Appends a bucket of `size` slots. Precondition: timers() == 0. Throws the
  /// BucketSize range text for a bad size and then changes nothing.
  void doAddNewBucket(U32 size);
  /// Fires what is due; called by the wheel's clock reactor. An owner that gave the
  /// wheel no clock calls it itself at systemClockTimeMin().
  void handleSystemClock();

  QUOR_ENTITY_TYPE(TimerWheel, "Vell::TimerWheel",
                   Quor::attr("tickMsecs", &TimerWheel::tickMsecs),
                   Quor::attr("initialMaxTicks", &TimerWheel::initialMaxTicks),
                   Quor::attr("preserveOrder", &TimerWheel::preserveOrder),
                   Quor::attr("defaultBucketSize", &TimerWheel::defaultBucketSize),
                   Quor::attr("processTimeLimit", &TimerWheel::processTimeLimit, &TimerWheel::processTimeLimitIs),
                   Quor::attr("bucketCount", &TimerWheel::bucketCount),
                   Quor::attr("maxTicks", &TimerWheel::maxTicks),
                   Quor::attr("time", &TimerWheel::time),
                   Quor::attr("timers", &TimerWheel::timers),
                   Quor::attr("remainingNonEmptyBuckets", &TimerWheel::remainingNonEmptyBuckets))

 protected:
  void handleDel() override;

 private:
  class QuorSystemClock;
  struct SlotHints;
  class HintWalk;
  struct Bucket;
  friend class NotifieeConst;

  // placement (timers come and go)
  QUOR_LOCAL void timeUpdateIs(NotifieeConst* n);
  QUOR_LOCAL void newTimer(NotifieeConst* n);
  QUOR_LOCAL void deleteTimer(NotifieeConst* n);
  QUOR_LOCAL U32 forwardTicks(NotifieeConst const* n) const;
  QUOR_LOCAL U64 msecsToTicks(U64 ms) const;
  QUOR_LOCAL void insertNotifiee(NotifieeConst* n, U32 ticks);
  QUOR_LOCAL void removeNotifiee(NotifieeConst* n);
  QUOR_LOCAL HeadNTail& wheelAt(U32 b, U32 i);
  // clock handling
  QUOR_LOCAL void maybeUpdateSystemClock(U32 bucketIndex, U32 wheelIndex, bool added);
  QUOR_LOCAL void doUpdateSystemClock(Quor::Seconds t, U32 index);
  QUOR_LOCAL U32 findNextUsedIndex(U32 startIndex) const;
  QUOR_LOCAL void fireSlot(U32 index);
  QUOR_LOCAL static void prefetchAfterHead(HeadNTail const& slot);
  QUOR_LOCAL void sortSlot(HeadNTail& slot);
  QUOR_LOCAL void rearrangeTimers();
  QUOR_LOCAL void cascadeSlot(U32 b, U32 i);
  /// Moves the current slot up to the present, never past a used or the scheduled slot.
  /// Returns the next used slot of bucket 0 (InvalidWheelIndex for none) when it looked.
  QUOR_LOCAL std::optional<U32> maybePullUpWheelTime(Quor::Seconds now);
  QUOR_LOCAL void advanceCurrentIndex(U32 to);
  QUOR_LOCAL void shutdownWheel();
  QUOR_LOCAL Quor::Seconds slotTime(U32 index) const;

  Quor::Ptr<Quor::ActivityConfig> quorFwkActivity_;
  Quor::Ptr<Quor::Clock const> systemClock_;
  Quor::ActivitySm* loop_;  // whose turn time is the present; activities live for the process
  U32 tickMsecs_;
  U32 initialMaxTicks_;
  bool preserveOrder_;
  U32 defaultBucketSize_;
  Quor::Seconds processTimeLimit_ = 0.05;
  U32 maxTicks_ = 0;
  std::vector<Bucket> buckets_;
  U32 bucketCount_ = 0;
  U32 ghostTimerIndex_ = InvalidWheelIndex;
  Quor::Seconds time_ = 0.0;
  Quor::Seconds currentWheelIndexTime_ = Quor::endOfTime;
  // currentWheelIndexTime is derived from these so that it never drifts: adding one
  // tick at a time to an epoch-sized double loses a few seconds a day.
  Quor::Seconds restartTime_ = 0.0;
  U64 elapsedTicks_ = 0;
  U32 timers_ = 0;
  U32 remainingNonEmptyBuckets_ = 0;
  U32 scheduledWheelIndex_ = InvalidWheelIndex;
  U64 nextArmSeq_ = 1;
  bool systemClockHandlerActive_ = false;
  bool lock_ = false;  // placement is not re-entrant
  std::vector<NotifieeConst const*> spareHints_;  // an empty buffer for the next slot walk
  Quor::Ptr<QuorSystemClock> quorSystemClock_;
};

/// Makes a wheel with at least two buckets of `defaultBucketSize` slots, enough for
/// `initialMaxTicks` ticks. `clock` may be null (then the owner calls handleSystemClock).
/// Throws Quor::RangeException, checked in this order:
///   "TimerWheel::tickMsecs < 1 or > 3600000 not allowed"
///   "TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed"
///   "TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed"
QUOR_API Quor::Ptr<TimerWheel> timerWheelFactory(Quor::Ptr<Quor::ActivityConfig> const& activity,
                                                 Quor::Ptr<Quor::Clock const> const& clock, U32 tickMsecs,
                                                 U32 initialMaxTicks, bool preserveOrder,
                                                 U32 defaultBucketSize);

/// One slot: the head and tail of its list of timers.
struct HeadNTail {
  TimerWheel::NotifieeConst* h = nullptr;
  TimerWheel::NotifieeConst* t = nullptr;
};

}  // namespace Vell
