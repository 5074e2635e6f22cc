// EventClock: a deadline poll driven by a nested clock reactor.
#include <Vell/EventClock.h>

#include <iomanip>
#include <utility>

namespace Vell {

namespace {

Quor::TraceHandle traceHandle("EventClock");

// Epoch times need more than the stream's default six digits to be readable.
constexpr int timeDigits = 15;
// Bounds, named so that the range messages read "< 0 or > inf".
constexpr Quor::Seconds inf = Quor::endOfTime;

Quor::Seconds checkPollingInterval(Quor::Seconds v) {
  // NaN would reach the reactor's timeMin; a negative period is a caller's mistake.
  return QUOR_CHECK_RANGE("EventClock", "pollingInterval", v, 0, inf);
}

Quor::Seconds checkTimeout(Quor::Seconds v) {
  // Any real timeout is meaningful (negative expires at once, inf never); NaN is not.
  return QUOR_CHECK_RANGE("EventClock", "timeout", v, -inf, inf);
}

}  // namespace

void EventClock::QuorClock::onTime() {
  if (eventClock_) eventClock_->handleClock();
}

EventClock::EventClock(Quor::Ptr<Quor::ActivityConfig> const& activity, Quor::Ptr<Quor::Clock const> const& clock,
                       Quor::Seconds pollingInterval, Quor::Seconds timeout)
    : quorFwkActivity_(activity ? activity : Quor::defaultActivityConfig()),
      pollingInterval_(checkPollingInterval(pollingInterval)),
      timeout_(checkTimeout(timeout)) {
  if (clock) {
    clock_ = new QuorClock(this);
    clock_->notifierIs(clock);
  }
}

// Done here rather than at the last reference so that an event clock that no Ptr ever
// held also leaves no reactor pointing at it.
EventClock::~EventClock() { releaseClock(); }

Quor::Ptr<EventClock> EventClock::hold() {
  // An observer may drop the last outside reference while we are still walking the
  // list or about to touch a field. An object no Ptr holds (made directly, or already
  // being destroyed) is left alone: taking a reference would free it on release.
  return Quor::Ptr<EventClock>(references() ? this : nullptr);
}

template <class T>
void EventClock::notifyingSet(T& field, T const& value, void (NotifieeConst::*reaction)()) {
  if (field == value) return;
  auto const keep = hold();
  Quor::attrIs(field, value, notifiees_, reaction);
}

void EventClock::quorFwkActivityIs(Quor::Ptr<Quor::ActivityConfig> const& activity) {
  notifyingSet(quorFwkActivity_, activity ? activity : Quor::defaultActivityConfig(),
               &NotifieeConst::onQuorFwkActivity);
}

void EventClock::releaseClock() {
  if (!clock_) return;
  Quor::Ptr<QuorClock> old = std::exchange(clock_, nullptr);
  // Someone else may still hold the reactor: it must neither tick nor reach us.
  old->eventClock_ = nullptr;
  old->timeMinIs(Quor::endOfTime);
  old->notifierIs(nullptr);
}

void EventClock::clockIs(Quor::Ptr<Quor::Clock const> const& clock) {
  if (!clock) {
    clockDel();
    return;
  }
  if (clock_ && clock_->notifier() == clock) return;
  Quor::Ptr<QuorClock> fresh(new QuorClock(this));
  fresh->notifierIs(clock);
  if (clock_) fresh->timeMinIs(clock_->timeMin());  // a wait in progress goes on
  auto const keep = hold();
  releaseClock();
  clock_ = std::move(fresh);
  notifiees_.notify(&NotifieeConst::onClock);
}

void EventClock::clockDel() {
  if (!clock_) return;
  auto const keep = hold();
  releaseClock();
  notifiees_.notify(&NotifieeConst::onClock);
}

void EventClock::pollingIntervalIs(Quor::Seconds v) { pollingInterval_ = checkPollingInterval(v); }

void EventClock::timeoutIs(Quor::Seconds v) { timeout_ = checkTimeout(v); }

void EventClock::deadlineIs(Quor::Seconds v) { notifyingSet(deadline_, v, &NotifieeConst::onDeadline); }

// Counters wrap rather than saturate: a saturated counter would stop notifying.
void EventClock::eventCheckIs(U32 v) { notifyingSet(eventCheck_, v, &NotifieeConst::onEventCheck); }

void EventClock::timerExpirationIs(U32 v) {
  notifyingSet(timerExpiration_, v, &NotifieeConst::onTimerExpiration);
}

void EventClock::start() {
  auto const keep = hold();
  Quor::Seconds const now = Quor::now();
  Quor::Seconds const deadline = now + timeout_;
  deadlineIs(deadline);
  QUOR_TRACE(traceHandle, 1,
             std::setprecision(timeDigits) << "start" << " Now: " << now << ", deadline: " << deadline
                                           << " polling interval: " << pollingInterval_);
  // The first check comes at once rather than one interval later.
  handleClock();
}

void EventClock::stop() {
  QUOR_TRACE(traceHandle, 1,
             std::setprecision(timeDigits) << "stop" << " TimeMin was: "
                                           << (clock_ ? clock_->timeMin() : Quor::endOfTime));
  if (clock_) clock_->timeMinIs(Quor::endOfTime);
}

void EventClock::handleClock() {
  auto const keep = hold();
  QUOR_TRACE(traceHandle, 1, "handleClock");
  Quor::Seconds const now = Quor::now();
  if (deadline_ >= now) {  // the deadline instant itself is still in time
    // Schedule before notifying, so that an observer's stop() ends the wait.
    if (clock_) {
      Quor::Seconds const next = now + pollingInterval_;
      clock_->timeMinIs(next);
      QUOR_TRACE(traceHandle, 2,
                 std::setprecision(timeDigits) << "handleClock" << " Retriggering timer to " << next);
    }
    eventCheckInc(1);
  } else {
    QUOR_TRACE(traceHandle, 2, "handleClock" << " TIMEOUT!");
    // Stop before notifying, so that an observer's start() begins a fresh wait.
    stop();
    timerExpirationInc(1);
  }
}

Quor::Ptr<EventClock> eventClockFactory(Quor::Ptr<Quor::ActivityConfig> const& activity,
                                        Quor::Ptr<Quor::Clock const> const& clock, Quor::Seconds pollingInterval,
                                        Quor::Seconds timeout) {
  return Quor::makeEntity<EventClock>(activity, clock, pollingInterval, timeout);
}

}  // namespace Vell
