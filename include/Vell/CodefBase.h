// The backlog base: reactors that note updates now and work them off later, in slices.
//
// A subclass keeps a backlog of pending items, where several updates to one item
// collapse into a single entry (they are coalesced), and hands the work to the base's
// slice loop: each time the clock reactor fires, doProcessBacklog() runs one slice of
// the subclass's processBacklog() and, if entries remain, re-arms the reactor at time 0
// so the next slice runs only after every other ready reactor has had its turn. The
// base measures (updates seen, processed, coalesced, time used, slices, yields); the
// subclass decides what an entry is and how strictly it keeps to backlogQuantum.
//
// Workload assumed: bursts of many updates to a smaller set of items (link state,
// configuration, routes), where handling only the latest state of each item is both
// correct and far cheaper than handling every update, and where one burst must not hold
// the activity thread for longer than one quantum at a time.
//
// Writing a subclass (see examples/KeyedBacklog.h for a complete one):
//   - on each arriving update: updatesSeenInc(1), coalesce into the backlog, doArmClock();
//   - backlogSize(): the entries waiting;
//   - processBacklog(start): handle entries until about start + backlogQuantum(), at
//     least one per slice, and return how many were handled.
#pragma once
#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class QUOR_API CodefBase : public Quor::PtrInterface {
 public:
  /// The clock reactor that runs the slices. It points back at its backlog without
  /// keeping it alive; the backlog clears that pointer when it lets the reactor go.
  class QUOR_API QuorClock : public Quor::Clock::NotifieeConst {
   public:
    explicit QuorClock(CodefBase* codefBase) : codefBase_(codefBase) {}
    CodefBase* codefBase() const { return codefBase_; }
    void codefBaseIs(CodefBase* codefBase) { codefBase_ = codefBase; }
    /// Runs one slice of the backlog, if it still has one.
    void onTime() override;

   private:
    CodefBase* codefBase_;
  };

  ~CodefBase() override;

  // Virtual operations are declared in the framework's slot order.

  // ---- what a subclass supplies ----

  /// Entries waiting. The base version aborts: a subclass must supply it.
  virtual U64 backlogSize();
  /// Handles entries for about backlogQuantum() seconds from `start` (the time the slice
  /// began) and returns how many updates it handled. The base version aborts.
  virtual U64 processBacklog(double const& start);

  // ---- attributes ----

  /// Time budget of one slice, in seconds.
  Quor::Seconds backlogQuantum() const { return backlogQuantum_; }
  /// Throws Quor::RangeException outside [0, 3600] (NaN included); unchanged then.
  virtual void backlogQuantumIs(Quor::Seconds const& quantum);

  U64 updatesSeen() const { return updatesSeen_; }
  U64 updatesProcessed() const { return updatesProcessed_; }
  Quor::Seconds timeUsed() const { return timeUsed_; }
  U64 dispatchCount() const { return dispatchCount_; }
  U64 yieldBeforeFinishingCount() const { return yieldBeforeFinishingCount_; }

  virtual void updatesSeenInc(U64 const& n) { updatesSeen_ += n; }
  virtual void updatesProcessedInc(U64 const& n) { updatesProcessed_ += n; }
  virtual void timeUsedInc(Quor::Seconds const& d) { timeUsed_ += d; }
  virtual void dispatchCountInc(U64 const& n) { dispatchCount_ += n; }
  virtual void yieldBeforeFinishingCountInc(U64 const& n) { yieldBeforeFinishingCount_ += n; }

  /// Detaches this entity's reactors; run when it is deleted.
  virtual void quorDoZombieReactors();

  /// The slice reactor, null after clockDel().
  Quor::Ptr<QuorClock> const& clock() const { return clock_; }
  /// Disarms and releases the slice reactor: no further slices run until clockIs().
  virtual void clockDel();
  /// Attaches the slice reactor to `clock` (making it on first use); an armed reactor
  /// stays armed on the new clock, and work left when clockDel() stopped the slices
  /// resumes on the next turn. Throws Quor::RangeException on a null clock.
  virtual void clockIs(Quor::Ptr<Quor::Clock const> const& clock);

  virtual void updatesSeenIs(U64 const& v) { updatesSeen_ = v; }
  virtual void updatesProcessedIs(U64 const& v) { updatesProcessed_ = v; }
  virtual void timeUsedIs(Quor::Seconds const& v) { timeUsed_ = v; }
  virtual void dispatchCountIs(U64 const& v) { dispatchCount_ = v; }
  virtual void yieldBeforeFinishingCountIs(U64 const& v) { yieldBeforeFinishingCount_ = v; }

  // ---- what the base offers ----

  /// True when nothing is waiting (backlogSize() is 0).
  bool warm() { return backlogSize() == 0; }
  /// Updates absorbed into existing entries: updatesSeen - updatesProcessed -
  /// backlogSize(). A subclass that counts more handled than seen gets 0, not a wrap.
  U64 updatesCoalesced();
  /// One slice: processBacklog(now), the statistics, and a re-arm at time 0 (one more
  /// yield) while entries remain. Run by the clock reactor. The entity stays alive to
  /// the end of the slice even if processBacklog() drops its last outside reference.
  /// Precondition: the entity is held by a Ptr, as every factory's result is.
  void doProcessBacklog();
  /// Writes `message` and a newline to standard error and aborts through a failed
  /// assertion ("0").
  [[noreturn]] static void codefAssert(Quor::String8 const& message);

  QUOR_ENTITY_TYPE(CodefBase, "Vell::CodefBase",
                   Quor::attr("backlogQuantum", &CodefBase::backlogQuantum, &CodefBase::backlogQuantumIs),
                   Quor::attr("updatesSeen", &CodefBase::updatesSeen),
                   Quor::attr("updatesProcessed", &CodefBase::updatesProcessed),
                   Quor::attr("timeUsed", &CodefBase::timeUsed),
                   Quor::attr("dispatchCount", &CodefBase::dispatchCount),
                   Quor::attr("yieldBeforeFinishingCount", &CodefBase::yieldBeforeFinishingCount))

 protected:
  /// For subclasses: the backlog starts idle, its slice reactor attached to `clock`.
  /// Throws Quor::RangeException on a null clock.
  explicit CodefBase(Quor::Ptr<Quor::Clock const> const& clock);
  CodefBase(CodefBase const&) = delete;
  CodefBase& operator=(CodefBase const&) = delete;

  /// Arms the slice reactor for the next loop turn, unless it already is armed (or there
  /// is no clock). Call it when work appears.
  void doArmClock();
  void handleDel() override;

 private:
  void releaseClock();
  friend QUOR_API Quor::Ptr<CodefBase> codefBaseFactory(Quor::Ptr<Quor::Clock const> const& clock);

  Quor::Ptr<QuorClock> clock_;
  Quor::Seconds backlogQuantum_ = 0;
  U64 updatesSeen_ = 0;
  U64 updatesProcessed_ = 0;
  Quor::Seconds timeUsed_ = 0;
  U64 dispatchCount_ = 0;
  U64 yieldBeforeFinishingCount_ = 0;
  bool resumeOnClock_ = false;  // work was pending when the clock went
};

/// A bare base on `clock`. Its backlog operations abort: it is only of use where an
/// object of the base type itself is needed.
QUOR_API Quor::Ptr<CodefBase> codefBaseFactory(Quor::Ptr<Quor::Clock const> const& clock);

}  // namespace Vell
