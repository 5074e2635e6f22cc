// Hierarchical timer wheel: placement of timers in buckets and slots, and the clock
// handling that fires them, cascades coarser buckets down and puts the wheel to rest.
#include <Vell/HTimerWheel.h>

#include <Vell/HBitmap.h>

#include <Quor/ListSort.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <optional>
#include <vector>

namespace Vell {

namespace {

Quor::TraceHandle traceHandle("TimerWheel");

constexpr U32 invalidIndex = TimerWheel::InvalidWheelIndex;

// The arming path is a dozen small steps; as separate calls their entries and exits
// outnumber the work.
#define HOT [[gnu::always_inline]] inline

// How far ahead of a list walk the slot's hints are prefetched.
constexpr std::size_t hintWindow = 24;

// Times print with microseconds; the default stream format would show an epoch time as
// 1.7e+09.
struct Secs {
  Quor::Seconds s;
};
std::ostream& operator<<(std::ostream& o, Secs t) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.6f", t.s);
  return o << buf;
}

void const* id(TimerWheel::NotifieeConst const* n) { return n; }

// Whole milliseconds in a non-negative duration, to nearest with an exact half rounding
// down. Saturates far beyond any wheel's reach instead of converting an out-of-range
// (or infinite) double, which would be undefined.
U64 roundedMsecs(Quor::Seconds seconds) {
  constexpr double cap = 0x1p62;
  double const ms = seconds * 1000.0;
  if (!(ms < cap)) return U64(1) << 62;
  if (!(ms > 0)) return 0;
  Quor::S64 m = static_cast<Quor::S64>(ms);  // below 2^62: the signed conversion is exact and cheaper
  if (ms - static_cast<double>(m) > 0.5) ++m;
  return static_cast<U64>(m);
}

}  // namespace

// ---- BucketSize ---------------------------------------------------------------------------

BucketSize::BucketSize(U32 v) : value_(QUOR_CHECK_RANGE("BucketSize", "value", v, 2, 0xfffffffe)) {}

void BucketSize::valueIs(U32 v) { value_ = QUOR_CHECK_RANGE("BucketSize", "value", v, 2, 0xfffffffe); }

void BucketSize::quorWrite(std::string& out) const { Quor::TextForm<U32>::write(out, value_); }

BucketSize BucketSize::quorReadNbo(Quor::NboAttrLog::In& in) {
  U32 const v = in.u32();
  if (v < 2 || v > 0xfffffffe) in.fail("BucketSize::value < 2 or > 0xfffffffe not allowed");
  BucketSize b;
  b.value_ = v;
  return b;
}

BucketSize BucketSize::quorParse(Quor::StrepIt& it, Quor::StrepIt end) {
  Quor::StrepIt const start = it;
  U32 const v = Quor::TextForm<U32>::parse(it, end);
  try {
    return BucketSize(v);
  } catch (...) {
    it = start;
    throw;
  }
}

// Where a slot's timers are, for prefetching only. A cascade walks one slot's list, a
// single chain of cache misses when timers are many; with their addresses at hand the
// misses can be in flight together. The ring keeps the timers most recently placed in the
// slot, bounded by the slot's live timers plus a few, so re-arming churn cannot grow it. An
// entry may name a timer that has left the slot or been freed since: entries are only
// ever handed to __builtin_prefetch, which does not fault, and are never read through.
struct TimerWheel::SlotHints {
  std::vector<NotifieeConst const*> ring;
  U32 next = 0;  // where the ring overwrites once full
  U32 live = 0;  // timers in the slot now

  [[gnu::always_inline]] void placed(NotifieeConst const* n) {
    // A lone timer is the slot's head, which a walk reads first: its hint would come too
    // late to help, and most slots of a sparse wheel hold one timer (no ring, no allocation).
    if (++live == 1) return;
    if (ring.size() < U64(live) + 16) {
      try {
        ring.push_back(n);  // grows only while the slot does: no allocation in a steady state
      } catch (std::bad_alloc const&) {
        // A hint is only ever an optimisation: without memory, go without it.
      }
    } else {
      ring[next] = n;
      next = next + 1 == ring.size() ? 0 : next + 1;
    }
  }
};

// A walk of one slot's list with its hints prefetched a fixed distance ahead. It takes the
// slot's ring and gives the slot the spare buffer, so that timers placed in the slot
// during the walk (a callback re-arming into it) start a fresh ring; the taken buffer is
// the next spare. Buffers only change hands: no allocation in a steady state.
class TimerWheel::HintWalk {
 public:
  HintWalk(SlotHints& slot, std::vector<NotifieeConst const*>& spare)
      : spare_(spare), start_(slot.next), took_(!slot.ring.empty()) {
    if (!took_) return;  // nothing to prefetch: the buffers stay where they are
    hints_.swap(slot.ring);
    slot.ring.swap(spare);
    slot.next = 0;
    prefetchUpTo(hintWindow);
  }
  ~HintWalk() {
    if (!took_) return;
    hints_.clear();
    spare_.swap(hints_);
  }
  HintWalk(HintWalk const&) = delete;
  HintWalk& operator=(HintWalk const&) = delete;

  /// One timer of the list was handled.
  void stepped() { prefetchUpTo(++done_ + hintWindow); }
  void prefetchAll() { prefetchUpTo(hints_.size()); }

 private:
  // Oldest first, which is about the list's order.
  void prefetchUpTo(std::size_t end) {
    std::size_t const count = hints_.size();
    for (; ahead_ < count && ahead_ < end; ++ahead_) {
      std::size_t k = start_ + ahead_;
      if (k >= count) k -= count;
      // A timer spans two lines at most; the walk writes its links.
      __builtin_prefetch(hints_[k], 1);
      __builtin_prefetch(reinterpret_cast<char const*>(hints_[k]) + 63, 1);
    }
  }

  std::vector<NotifieeConst const*> hints_;
  std::vector<NotifieeConst const*>& spare_;
  std::size_t start_;
  bool took_;
  std::size_t ahead_ = 0;
  std::size_t done_ = 0;
};

struct TimerWheel::Bucket {
  explicit Bucket(U32 n)
      : size(n),
        pow2((n & (n - 1)) == 0),
        shift(static_cast<U32>(__builtin_ctz(n))),
        slots(new HeadNTail[n]),
        hints(new SlotHints[n]),
        occupancy(hBitmapFactory(0, n, HBitmap::Clear)) {}
  // Turns of this bucket in a distance, and the slot a distance wraps to: a shift and a
  // mask for the usual power-of-two sizes instead of a 64-bit division.
  U64 turns(U64 d) const { return pow2 ? d >> shift : d / size; }
  U64 wrap(U64 d) const { return pow2 ? d & (size - 1) : d % size; }
  U32 size;
  bool pow2;
  U32 shift;
  U32 current = 0;
  U32 timers = 0;
  std::unique_ptr<HeadNTail[]> slots;
  std::unique_ptr<SlotHints[]> hints;
  // Which slots hold timers: the next used slot is a range search from the current one.
  Quor::Ptr<HBitmap> occupancy;
};

// ---- the wheel's clock reactor ------------------------------------------------------------

// A timer's callback may drop the last reference to the wheel: the reactor holds it
// during the call, and never otherwise.
class TimerWheel::QuorSystemClock
    : public Quor::OwnerClockReactor<TimerWheel, &TimerWheel::handleSystemClock> {
  using OwnerClockReactor::OwnerClockReactor;
};

// ---- construction -----------------------------------------------------------------------------

TimerWheel::TimerWheel(Quor::Ptr<Quor::ActivityConfig> const& activity, Quor::Ptr<Quor::Clock const> const& clock,
                       U32 tickMsecs, U32 initialMaxTicks, bool preserveOrder, U32 defaultBucketSize)
    : Entity("TimerWheel"),
      quorFwkActivity_(activity),
      systemClock_(clock),
      loop_(Quor::quorActivitySmFor(clock ? clock->activity() : activity).ptr()),
      tickMsecs_(QUOR_CHECK_RANGE("TimerWheel", "tickMsecs", tickMsecs, 1, 3600000)),
      initialMaxTicks_(QUOR_CHECK_RANGE("TimerWheel", "initialMaxTicks", initialMaxTicks, 2, 0xffffffff)),
      preserveOrder_(preserveOrder),
      defaultBucketSize_(QUOR_CHECK_RANGE("TimerWheel", "defaultBucketSize", defaultBucketSize, 2, 0x10000)) {
  quorSystemClock_ = new QuorSystemClock(this);
  quorSystemClock_->notifierIs(systemClock_);
  handleInitialized();
}

TimerWheel::~TimerWheel() = default;

void TimerWheel::handleDel() {
  // Attached timers hold a reference, so every slot is empty by now; only the clock
  // reactor may still be armed.
  quorSystemClock_->ownerIs(nullptr);
  quorSystemClock_->timeMinIs(Quor::endOfTime);
  quorSystemClock_->notifierIs(nullptr);
}

Quor::Ptr<TimerWheel> timerWheelFactory(Quor::Ptr<Quor::ActivityConfig> const& activity,
                                        Quor::Ptr<Quor::Clock const> const& clock, U32 tickMsecs, U32 initialMaxTicks,
                                        bool preserveOrder, U32 defaultBucketSize) {
  return Quor::makeEntity<TimerWheel>(activity, clock, tickMsecs, initialMaxTicks, preserveOrder,
                                      defaultBucketSize);
}

void TimerWheel::handleInitialized() {
  QUOR_ASSERT(!initialized());
  maxTicks_ = 1;
  initializedIs(true);
  do {
    doAddNewBucket(defaultBucketSize_);
  } while (maxTicks_ < initialMaxTicks_);
  if (bucketCount() == 1) doAddNewBucket(defaultBucketSize_);  // always a coarser bucket to carry into
  QUOR_TRACE(traceHandle, 0,
             "TimerWheel::handleInitialized: Total buckets created " << bucketCount() << " of " << defaultBucketSize_
                                                                     << " each.");
}

void TimerWheel::doAddNewBucket(U32 size) {
  U32 const b = bucketCount();
  QUOR_TRACE(traceHandle, 0, " ## Add a new bucket to index " << b << " of size " << size);
  QUOR_ASSERT(timers() == 0);
  BucketSize const checked(size);
  buckets_.emplace_back(checked.value());  // allocates before anything changes
  bucketCount_ = static_cast<U32>(buckets_.size());
  ghostTimerIndex_ = buckets_[0].size;
  maxTicks_ = 0xffffffffu / size >= maxTicks_ ? maxTicks_ * size : 0xffffffffu;
  QUOR_TRACE(traceHandle, 1, "Total number of buckets now is " << bucketCount());
}

void TimerWheel::processTimeLimitIs(Quor::Seconds s) {
  processTimeLimit_ = QUOR_CHECK_RANGE("TimerWheel", "processTimeLimit", s, 0, 0.5);
}

// ---- readers ----------------------------------------------------------------------------------

BucketSize TimerWheel::bucketSize(U32 b) const { return b < bucketCount() ? BucketSize(buckets_[b].size) : BucketSize(); }

U64 TimerWheel::wheelBase(U32 b) const {
  return b < bucketCount() ? reinterpret_cast<U64>(buckets_[b].slots.get()) : 0;
}

U32 TimerWheel::currentWheelIndex(U32 b) const { return b < bucketCount() ? buckets_[b].current : 0; }

U32 TimerWheel::timer(U32 b) const { return b < bucketCount() ? buckets_[b].timers : 0; }

Quor::Seconds TimerWheel::systemClockTimeMin() const { return quorSystemClock_->timeMin(); }

TimerWheel::NotifieeConst const* TimerWheel::slotHead(U32 b, U32 i) const {
  return b < bucketCount() && i < buckets_[b].size ? buckets_[b].slots[i].h : nullptr;
}

TimerWheel::NotifieeConst const* TimerWheel::slotTail(U32 b, U32 i) const {
  return b < bucketCount() && i < buckets_[b].size ? buckets_[b].slots[i].t : nullptr;
}

bool TimerWheel::slotOccupied(U32 b, U32 i) const {
  return b < bucketCount() && i < buckets_[b].size && buckets_[b].occupancy->isBitSet(i);
}

HeadNTail& TimerWheel::wheelAt(U32 b, U32 i) { return buckets_[b].slots[i]; }

// ---- the timer ------------------------------------------------------------------------------

// A timer on a const wheel still changes the wheel's bookkeeping (its slot), as a
// notifiee changes a const notifier's list of notifiees.
TimerWheel* TimerWheel::NotifieeConst::wheel() const { return const_cast<TimerWheel*>(notifier_.ptr()); }

TimerWheel::NotifieeConst::~NotifieeConst() { leaveWheel(); }

void TimerWheel::NotifieeConst::leaveWheel() {
  if (notifier_ && wheelIndex_ != InvalidWheelIndex) wheel()->deleteTimer(this);
}

void TimerWheel::NotifieeConst::notifierIs(Quor::Ptr<TimerWheel const> const& w) {
  if (w == notifier_) return;
  leaveWheel();
  notifier_ = w;
  if (notifier_ && timeMin_ != Quor::endOfTime) wheel()->timeUpdateIs(this);
}

void TimerWheel::NotifieeConst::timeMinIs(Quor::Seconds t) {
  if (t == timeMin_) return;
  // Refused at once even when detached, so that the bad value never waits to be found.
  if (!notifier_) QUOR_ASSERT_TEXT(!std::isnan(t), "!isnan( n->timeMin() )");
  timeMin_ = t;
  if (notifier_) wheel()->timeUpdateIs(this);
}

// ---- placement ----------------------------------------------------------------------------------

HOT void TimerWheel::timeUpdateIs(NotifieeConst* n) {
  if (!initialized()) return;
  QUOR_ASSERT(bucketCount() >= 2);
  QUOR_TRACE(traceHandle, 2, "timeUpdateIs: Updating notifiee timeMin of " << id(n) << " to " << Secs{n->timeMin()});
  QUOR_ASSERT_TEXT(!std::isnan(n->timeMin()), "!isnan( n->timeMin() )");
  if (n->wheelIndex_ != InvalidWheelIndex) {
    QUOR_ASSERT_TEXT(n->bucketIndex_ != InvalidBucketIndex, "Vell::bucketIndex( n ) != InvalidBucketIndex");
    deleteTimer(n);
  }
  QUOR_ASSERT_TEXT(n->bucketIndex_ == InvalidBucketIndex, "Vell::bucketIndex( n ) == InvalidBucketIndex");
  if (n->timeMin() == Quor::endOfTime) return;  // never: the timer stays out of the wheel
  // A timeMin of 0 and any other time take the same path: both are placed by distance.
  newTimer(n);
}

HOT void TimerWheel::newTimer(NotifieeConst* n) {
  QUOR_TRACE(traceHandle, 1, "newTimer: " << id(n));
  Quor::Seconds const now = loop_->time();
  if (scheduledWheelIndex_ != InvalidWheelIndex) {
    maybePullUpWheelTime(now);
  } else {
    // At rest: restart from slot 0 at the present.
    QUOR_ASSERT_TEXT(!systemClockHandlerActive(), "!tw->systemClockHandlerActive()");
    for (Bucket& bk : buckets_) bk.current = 0;
    restartTime_ = now;
    elapsedTicks_ = 0;
    currentWheelIndexTime_ = now;
  }
  time_ = currentWheelIndexTime_;  // distances count from the current slot's time
  n->armSeq_ = nextArmSeq_++;
  insertNotifiee(n, forwardTicks(n));
  if (!systemClockHandlerActive_) maybeUpdateSystemClock(n->bucketIndex_, n->wheelIndex_, true);
}

HOT void TimerWheel::deleteTimer(NotifieeConst* n) {
  QUOR_TRACE(traceHandle, 1, "deleteTimer: " << id(n));
  QUOR_ASSERT_TEXT(timers() != 0, "tw->timers()");
  U32 const b = n->bucketIndex_, i = n->wheelIndex_;
  removeNotifiee(n);
  if (!systemClockHandlerActive_) maybeUpdateSystemClock(b, i, false);
}

HOT U32 TimerWheel::forwardTicks(NotifieeConst const* n) const {
  Quor::Seconds const now = time_;
  QUOR_ASSERT(now != Quor::endOfTime);
  Quor::Seconds const t = n->timeMin();
  QUOR_TRACE(traceHandle, 4, "forwardTicks now " << Secs{now} << " n->timeMin " << Secs{t});
  if (now >= t || t == 0) return 0;
  U64 const ticks = msecsToTicks(roundedMsecs(t - now) + tickMsecs_ - 1);
  // Saturated rather than cut to the low 32 bits: a timer too far for 32 bits of ticks
  // must not come back as a near one. It is parked in the farthest slot instead.
  return ticks > 0xffffffffu ? 0xffffffffu : static_cast<U32>(ticks);
}

// Whole ticks in a number of milliseconds, rounded down. Most wheels tick in 1 ms, and a
// 32-bit division is several times cheaper than a 64-bit one.
HOT U64 TimerWheel::msecsToTicks(U64 ms) const {
  if (tickMsecs_ == 1) return ms;
  if (ms <= 0xffffffffu) return static_cast<U32>(ms) / tickMsecs_;
  return ms / tickMsecs_;
}

HOT void TimerWheel::insertNotifiee(NotifieeConst* n, U32 ticks) {
  U32 const last = bucketCount_ - 1;
  U32 bucketIndex = 0, index = 0;
  for (U64 distance = ticks;; ++bucketIndex) {
    Bucket const& bk = buckets_[bucketIndex];
    U64 const S = bk.size, c = bk.current;
    if (distance < S - c) {
      index = static_cast<U32>(c + distance);
      break;
    }
    if (bucketIndex == last) {
      if (S > distance) {
        index = static_cast<U32>(bk.wrap(distance + c));  // wraps within the last bucket
      } else {
        // Parked in the farthest slot: from there it is placed again with what remains.
        QUOR_TRACE(traceHandle, 0, "Reducing timeout to fit the maximum timer capacity");
        index = static_cast<U32>(bk.wrap(S - 1 + c));
      }
      break;
    }
    distance = bk.turns(c + distance);  // turns of this bucket: slots of the next one
  }
  QUOR_ASSERT_TEXT(!lock_, "!lock");
  QUOR_ASSERT_TEXT(bucketIndex < bucketCount_, "bucketIndex < tw->bucketCount()");
  QUOR_ASSERT_TEXT(index < buckets_[bucketIndex].size, "index < tw->bucketSize( bucketIndex )");
  QUOR_ASSERT_TEXT(n->wheelIndex_ == InvalidWheelIndex, "wheelIndex( n ) == InvalidWheelIndex");
  QUOR_ASSERT_TEXT(n->bucketIndex_ == InvalidBucketIndex, "Vell::bucketIndex( n ) == InvalidBucketIndex");
  lock_ = true;
  Bucket& bk = buckets_[bucketIndex];
  HeadNTail& slot = bk.slots[index];
  n->prev_ = slot.t;
  n->next_ = nullptr;
  if (slot.t) {
    slot.t->next_ = n;
  } else {
    slot.h = n;
    bk.occupancy->setBit(index);
  }
  slot.t = n;
  bk.hints[index].placed(n);
  n->bucketIndex_ = bucketIndex;
  n->wheelIndex_ = index;
  if (bk.timers++ == 0) ++remainingNonEmptyBuckets_;
  ++timers_;
  lock_ = false;
  QUOR_TRACE(traceHandle, 3,
             "Inserting " << id(n) << " in bucket " << bucketIndex << " at index " << index << " head " << id(slot.h)
                          << " tail " << id(slot.t) << " current " << buckets_[0].current << " sched "
                          << scheduledWheelIndex_);
}

HOT void TimerWheel::removeNotifiee(NotifieeConst* n) {
  U32 const bucketIndex = n->bucketIndex_, index = n->wheelIndex_;
  Bucket& bk = buckets_[bucketIndex];
  HeadNTail& slot = bk.slots[index];
  NotifieeConst* const next = n->next_;
  NotifieeConst* const prev = n->prev_;
  // A timer without a predecessor must have been the head (and without a successor the
  // tail); anything else means the slot's list is broken.
  if (prev) {
    prev->next_ = next;
  } else if (slot.h == n) {
    slot.h = next;
  }
  QUOR_ASSERT_TEXT(prev || slot.h == next, "wheelAt( tw, bucketIndex, index )->h == next( n )");
  if (next) {
    next->prev_ = prev;
  } else if (slot.t == n) {
    slot.t = prev;
  }
  QUOR_ASSERT_TEXT(next || slot.t == prev, "wheelAt( tw, bucketIndex, index )->t == prev( n )");
  if (!slot.h) bk.occupancy->clearBit(index);
  --bk.hints[index].live;
  n->next_ = n->prev_ = nullptr;
  n->wheelIndex_ = InvalidWheelIndex;
  n->bucketIndex_ = InvalidBucketIndex;
  if (--bk.timers == 0) --remainingNonEmptyBuckets_;
  --timers_;
}

// ---- clock handling ------------------------------------------------------------------------------

Quor::Seconds TimerWheel::slotTime(U32 index) const {
  U64 const ticks = elapsedTicks_ + (index - buckets_[0].current);
  // 64-bit product: a long tick times a large bucket does not fit 32 bits.
  return restartTime_ + static_cast<double>(ticks * tickMsecs_) / 1000.0;
}

void TimerWheel::advanceCurrentIndex(U32 to) {
  elapsedTicks_ += to - buckets_[0].current;
  buckets_[0].current = to;
  currentWheelIndexTime_ = restartTime_ + static_cast<double>(elapsedTicks_ * tickMsecs_) / 1000.0;
}

HOT U32 TimerWheel::findNextUsedIndex(U32 startIndex) const {
  QUOR_ASSERT_TEXT(startIndex >= buckets_[0].current, "startIndex >= tw->currentWheelIndex( 0 )");
  Bucket const& b0 = buckets_[0];
  U32 const i = b0.occupancy->seekBitInRange(startIndex, b0.size, HBitmap::Set, HBitmap::preferLo);
  return i == HBitmap::notFound ? invalidIndex : i;
}

void TimerWheel::doUpdateSystemClock(Quor::Seconds t, U32 index) {
  QUOR_ASSERT(!systemClockHandlerActive());
  quorSystemClock_->timeMinIs(t);
  scheduledWheelIndex_ = index;
}

HOT void TimerWheel::maybeUpdateSystemClock(U32 bucketIndex, U32 wheelIndex, bool added) {
  QUOR_ASSERT_TEXT(buckets_[0].current != InvalidWheelIndex, "tw->currentWheelIndex( 0 ) != InvalidWheelIndex");
  QUOR_ASSERT_TEXT(!systemClockHandlerActive(), "!tw->systemClockHandlerActive()");
  U32 newIndex;
  if (added) {
    QUOR_ASSERT_TEXT(wheelAt(bucketIndex, wheelIndex).h, "wheelAt( tw, bucketIndex, wheelIndex )");
    if (scheduledWheelIndex_ != InvalidWheelIndex) {
      if (bucketIndex != 0 || wheelIndex >= scheduledWheelIndex_) return;
      newIndex = wheelIndex;  // earlier than the scheduled slot
    } else {
      QUOR_ASSERT_TEXT(timers() == 1, "tw->timers() == 1");
      newIndex = bucketIndex == 0 ? wheelIndex : ghostTimerIndex();
    }
  } else {
    QUOR_ASSERT_TEXT(scheduledWheelIndex_ != InvalidWheelIndex, "tw->scheduledWheelIndex() != InvalidWheelIndex");
    if (timers() == 0) {
      shutdownWheel();
      return;
    }
    if (bucketIndex != 0 || wheelAt(0, wheelIndex).h) return;
    if (wheelIndex == scheduledWheelIndex_) {
      U32 nextUsed = findNextUsedIndex(wheelIndex);
      QUOR_ASSERT(nextUsed != wheelIndex);
      if (nextUsed == InvalidWheelIndex) {
        QUOR_ASSERT_TEXT(buckets_[0].timers == 0, "tw->timer( 0 ) == 0");
        nextUsed = ghostTimerIndex();
      }
      newIndex = nextUsed;
    } else {
      QUOR_ASSERT_TEXT(scheduledWheelIndex_ < wheelIndex, "tw->scheduledWheelIndex() < wheelIndex");
      return;
    }
  }
  doUpdateSystemClock(slotTime(newIndex), newIndex);
}

void TimerWheel::handleSystemClock() {
  if (!initialized()) return;
  Quor::Seconds const start = Quor::now();
  for (;;) {
    U32 const schedIndex = scheduledWheelIndex_;
    QUOR_ASSERT(schedIndex != InvalidWheelIndex);
    QUOR_TRACE(traceHandle, 1, "In handleSystemClock at " << Secs{Quor::now()} << " schedIndex " << schedIndex);
    QUOR_ASSERT(!systemClockHandlerActive());
    systemClockHandlerActive_ = true;
    U32 served = schedIndex;
    if (schedIndex == ghostTimerIndex()) {
      advanceCurrentIndex(schedIndex);
      rearrangeTimers();
      served = buckets_[0].current;
    }
    fireSlot(served);
    systemClockHandlerActive_ = false;
    if (timers() == 0) {
      shutdownWheel();
      QUOR_TRACE(traceHandle, 1, "Completed handleSystemClock at " << Secs{Quor::now()});
      return;
    }
    // One clock read per served slot: nothing from here to the checks below runs user
    // code, and on the real clock a read costs about what serving a lone timer does.
    Quor::Seconds const now = Quor::now();
    std::optional<U32> nextUsed = maybePullUpWheelTime(now);
    if (buckets_[0].current == ghostTimerIndex()) {
      rearrangeTimers();
      served = InvalidWheelIndex;  // slot 0 now stands for a new turn, cascaded timers in it are due
      nextUsed.reset();
    }
    U32 next = nextUsed ? *nextUsed : findNextUsedIndex(buckets_[0].current);
    if (next == InvalidWheelIndex) next = ghostTimerIndex();
    scheduledWheelIndex_ = next;
    if (now - start >= processTimeLimit_) break;
    // Timers armed into the slot just served wait for the next turn of the loop, as a
    // clock reactor re-armed in the past does: a timer that always re-arms itself for
    // now cannot hold the loop. (Only they can be there: firing took every older one.)
    if (next == served) break;
    if (!(slotTime(next) < now)) break;
  }
  doUpdateSystemClock(slotTime(scheduledWheelIndex_), scheduledWheelIndex_);
  QUOR_TRACE(traceHandle, 1, "Completed handleSystemClock at " << Secs{Quor::now()});
}

// Walking a slot's list is a chain of cache misses when timers are many: unlinking the
// head writes its successor at once, so fetch the one after that early, while the
// current timer is placed or called.
void TimerWheel::prefetchAfterHead(HeadNTail const& slot) {
  if (slot.h) __builtin_prefetch(slot.h->next_, 1);
}

void TimerWheel::fireSlot(U32 index) {
  HintWalk walk(buckets_[0].hints[index], spareHints_);
  if (preserveOrder_) {
    walk.prefetchAll();  // sorting reads every timer of the slot first
    sortSlot(wheelAt(0, index));
  }
  U64 const passSeq = nextArmSeq_;
  // Taken from the live list one at a time: a callback may cancel or re-arm any timer,
  // this slot's included. Timers armed during this pass sit behind the older ones.
  while (NotifieeConst* n = wheelAt(0, index).h) {
    if (n->armSeq_ >= passSeq) break;
    removeNotifiee(n);
    prefetchAfterHead(wheelAt(0, index));
    walk.stepped();
    n->timeMin_ = Quor::endOfTime;  // one-shot: onTime may arm it again
    if (n->isDestroying()) continue;
    Quor::Ptr<NotifieeConst const> const hold(n);  // the timer may drop its last reference
    QUOR_TRACE(traceHandle, 5, "call onTime of " << id(n));
    n->onTime();
    QUOR_TRACE(traceHandle, 5, "call onTime completed");
  }
}

// Sorts a slot's list by (timeMin, arming order): a slot collects timers armed at
// different times and cascaded from coarser buckets. O(k) when the slot is already in
// order, which is the common case; then the back links are redone.
void TimerWheel::sortSlot(HeadNTail& slot) {
  auto before = [](NotifieeConst const* x, NotifieeConst const* y) {
    return x->timeMin_ < y->timeMin_ || (x->timeMin_ == y->timeMin_ && x->armSeq_ < y->armSeq_);
  };
  auto next = [](NotifieeConst* x) -> NotifieeConst*& { return x->next_; };
  if (Quor::detail::listSorted(slot.h, before, next)) return;
  NotifieeConst* const list = Quor::detail::sortList(slot.h, before, next);
  NotifieeConst* prev = nullptr;
  for (NotifieeConst* n = list; n; n = n->next_) {
    n->prev_ = prev;
    prev = n;
  }
  slot.h = list;
  slot.t = prev;
}

void TimerWheel::rearrangeTimers() {
  QUOR_TRACE(traceHandle, 1, "rearrange timers");
  QUOR_ASSERT_TEXT(scheduledWheelIndex_ == ghostTimerIndex(), "tw->scheduledWheelIndex() == tw->ghostTimerIndex()");
  U32 const current = buckets_[0].current;
  QUOR_ASSERT_TEXT(current == ghostTimerIndex(), "current == tw->ghostTimerIndex()");
  buckets_[0].current = 0;
  time_ = currentWheelIndexTime_;  // cascaded distances count from the new turn's first slot
  U32 const last = bucketCount_ - 1;
  for (U32 b = 1; b <= last; ++b) {
    Bucket& bk = buckets_[b];
    bool const wrapped = bk.current + 1 == bk.size;
    bk.current = wrapped ? 0 : bk.current + 1;
    // Slot 0 of a bucket with a coarser one above is never used: its turn is carried up.
    // The last bucket has none above, and its slot 0 may hold wrapped timers.
    if (wrapped && b != last) {
      QUOR_ASSERT_TEXT(!wheelAt(b, 0).h, "wheelAt( tw, iter.key(), current ) == 0");
      continue;
    }
    cascadeSlot(b, bk.current);
    if (!wrapped) break;
  }
}

// Moves every timer of slot (b, i) down by its remaining distance. None can land in this
// same slot: a coarser bucket only takes distances of at least one slot past its current.
void TimerWheel::cascadeSlot(U32 b, U32 i) {
  HintWalk walk(buckets_[b].hints[i], spareHints_);
  while (NotifieeConst* n = wheelAt(b, i).h) {
    removeNotifiee(n);
    prefetchAfterHead(wheelAt(b, i));
    insertNotifiee(n, forwardTicks(n));
    walk.stepped();
  }
}

HOT std::optional<U32> TimerWheel::maybePullUpWheelTime(Quor::Seconds now) {
  QUOR_ASSERT_TEXT(currentWheelIndexTime_ != Quor::endOfTime, "tw->currentWheelIndexTime() != Quor::endOfTime");
  Quor::Seconds const elapsed = now - currentWheelIndexTime_;
  if (!(elapsed > 0)) return std::nullopt;
  U64 const ticks = msecsToTicks(roundedMsecs(elapsed));  // whole ticks passed: rounded down
  if (ticks == 0) return std::nullopt;
  QUOR_ASSERT_TEXT(scheduledWheelIndex_ != InvalidWheelIndex, "tw->scheduledWheelIndex() != InvalidWheelIndex");
  Bucket const& b0 = buckets_[0];
  U32 const current = b0.current;
  QUOR_TRACE(traceHandle, 4,
             "PullingUp current index " << current << " sched index " << scheduledWheelIndex_ << " now dist " << ticks
                                        << " schedDistTicks " << (scheduledWheelIndex_ - current));
  // Never past the scheduled slot nor past a slot that still holds a timer: those must
  // keep the time they were placed for.
  U32 const nextUsed = findNextUsedIndex(current);
  U64 target = std::min<U64>(U64(current) + ticks, b0.size);
  target = std::min<U64>(target, scheduledWheelIndex_);
  if (nextUsed != invalidIndex) target = std::min<U64>(target, nextUsed);
  if (target != current) {
    advanceCurrentIndex(static_cast<U32>(target));
    QUOR_TRACE(traceHandle, 4, "Pulling current up to index " << target);
  }
  return nextUsed;  // no slot between current and it holds a timer, so it is still the next
}

void TimerWheel::shutdownWheel() {
  QUOR_TRACE(traceHandle, 1, "Wheel being shut down");
  QUOR_ASSERT_TEXT(timers() == 0, "tw->timers() == 0");
  QUOR_ASSERT_TEXT(!systemClockHandlerActive(), "!tw->systemClockHandlerActive()");
  currentWheelIndexTime_ = Quor::endOfTime;
  for (Bucket& bk : buckets_) bk.current = InvalidWheelIndex;
  doUpdateSystemClock(Quor::endOfTime, InvalidWheelIndex);
}

}  // namespace Vell
