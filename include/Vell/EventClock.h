// EventClock: polls for an awaited event until a deadline.
//
// Once started, the clock ticks every pollingInterval seconds. A tick at or before the
// deadline increments eventCheck, and the observers check for their event in
// onEventCheck(); the first tick after the deadline stops the clock and increments
// timerExpiration. The order is chosen for the observers: in onEventCheck() the next
// tick is already scheduled, so an observer that has seen its event calls stop(); in
// onTimerExpiration() the clock is already stopped, so an observer may start() again.
//
// The ticks come from a nested reactor on the given framework clock, so they run on
// that clock's activity. Workload assumed: a few clocks per agent, polling at human
// time scales (milliseconds to minutes); every operation is O(observers).
#pragma once
#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class QUOR_API EventClock : public Quor::Entity {
 public:
  /// Observer of an event clock. Each handler runs synchronously when its attribute
  /// changes (never for a write of the value already held) and does nothing by default.
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<EventClock, NotifieeConst> {
   public:
    virtual void onQuorFwkActivity() {}
    virtual void onClock() {}
    virtual void onDeadline() {}
    virtual void onEventCheck() {}
    virtual void onTimerExpiration() {}
  };

  /// The nested tick source: a reactor on the given framework clock whose onTime()
  /// runs the owner's handleClock(). Its back pointer does not keep the owner alive;
  /// the owner clears it when it goes or replaces the reactor, and a reactor whose
  /// owner is gone does nothing.
  class QUOR_API QuorClock : public Quor::Clock::NotifieeConst {
   public:
    EventClock* eventClock() const { return eventClock_; }
    void onTime() override;

   private:
    friend class EventClock;
    explicit QuorClock(EventClock* owner) : eventClock_(owner) {}
    EventClock* eventClock_;
  };

  /// A null activity means the default one; a null clock leaves the event clock
  /// without a tick source (see clockIs). Throws Quor::RangeException for a negative or
  /// NaN pollingInterval and for a NaN timeout. A negative timeout is allowed: it
  /// expires in the check that start() runs.
  EventClock(Quor::Ptr<Quor::ActivityConfig> const& activity, Quor::Ptr<Quor::Clock const> const& clock,
             Quor::Seconds pollingInterval, Quor::Seconds timeout);
  ~EventClock() override;

  Quor::Ptr<Quor::ActivityConfig> const& quorFwkActivity() const { return quorFwkActivity_; }
  /// A null activity means the default one.
  void quorFwkActivityIs(Quor::Ptr<Quor::ActivityConfig> const& activity);

  /// The nested reactor, or null when the event clock has no tick source.
  Quor::Ptr<QuorClock const> clock() const { return clock_; }
  /// Replaces the tick source with a new reactor on `clock`; a scheduled tick moves to
  /// it. The same clock again does nothing; a null clock is clockDel().
  void clockIs(Quor::Ptr<Quor::Clock const> const& clock);
  /// Removes the tick source: no further tick comes until clockIs().
  void clockDel();

  /// Period of the checks, in seconds (>= 0; 0 checks on every loop turn). A change
  /// takes effect from the next tick.
  Quor::Seconds pollingInterval() const { return pollingInterval_; }
  void pollingIntervalIs(Quor::Seconds v);
  /// Time from start() to the deadline, in seconds (not NaN). A change takes effect at
  /// the next start().
  Quor::Seconds timeout() const { return timeout_; }
  void timeoutIs(Quor::Seconds v);

  /// Absolute end of the wait, set by start().
  Quor::Seconds deadline() const { return deadline_; }
  void deadlineIs(Quor::Seconds v);
  /// Ticks at or before the deadline, across restarts. Wraps at 2^32, so that an
  /// increment always notifies.
  U32 eventCheck() const { return eventCheck_; }
  void eventCheckIs(U32 v);
  void eventCheckInc(U32 delta = 1) { eventCheckIs(eventCheck_ + delta); }
  /// Expiries, across restarts.
  U32 timerExpiration() const { return timerExpiration_; }
  void timerExpirationIs(U32 v);
  void timerExpirationInc(U32 delta = 1) { timerExpirationIs(timerExpiration_ + delta); }

  /// True while a tick is scheduled.
  bool polling() const { return clock_ && clock_->timeMin() != Quor::endOfTime; }

  /// Begins a wait, or restarts one: deadline = now + timeout, then checks at once.
  /// Without a tick source that one check is the only one.
  void start();
  /// Ends the wait without expiry. Counters and deadline stay as they are.
  void stop();
  /// One tick: a check (and the next tick scheduled) while the deadline has not
  /// passed, otherwise stop() and an expiry. Run by the nested reactor.
  void handleClock();

  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }

  QUOR_ENTITY_TYPE(EventClock, "Vell::EventClock",
                   Quor::attr("pollingInterval", &EventClock::pollingInterval, &EventClock::pollingIntervalIs),
                   Quor::attr("timeout", &EventClock::timeout, &EventClock::timeoutIs),
                   Quor::attr("deadline", &EventClock::deadline, &EventClock::deadlineIs),
                   Quor::attr("eventCheck", &EventClock::eventCheck, &EventClock::eventCheckIs),
                   Quor::attr("timerExpiration", &EventClock::timerExpiration, &EventClock::timerExpirationIs),
                   Quor::attr("polling", &EventClock::polling))

 private:
  Quor::Ptr<EventClock> hold();
  template <class T>
  void notifyingSet(T& field, T const& value, void (NotifieeConst::*reaction)());
  void releaseClock();

  Quor::Ptr<Quor::ActivityConfig> quorFwkActivity_;
  Quor::Ptr<QuorClock> clock_;
  Quor::Seconds pollingInterval_;
  Quor::Seconds timeout_;
  Quor::Seconds deadline_ = 0.0;
  U32 eventCheck_ = 0;
  U32 timerExpiration_ = 0;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

/// A new event clock, ready to start(); same arguments and checks as the constructor.
QUOR_API Quor::Ptr<EventClock> eventClockFactory(Quor::Ptr<Quor::ActivityConfig> const& activity,
                                                 Quor::Ptr<Quor::Clock const> const& clock,
                                                 Quor::Seconds pollingInterval, Quor::Seconds timeout);

}  // namespace Vell
