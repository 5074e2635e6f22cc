// ReviewTimer: paces a recurring review (a periodic re-examination an agent performs)
// with credits.
//
// While reviews are rare the next one comes after the short minDelay; when they come
// back to back the delay doubles up to maxDelay. One credit is earned per whole second
// since the caller's last review, up to maxCredits; each scheduling spends one, and only
// a return to the ceiling brings minDelay back.
//
// The timer owns no clock reactor: it drives the caller's, by setting that reactor's
// timeMin. The caller's onTime() performs the review, records lastReviewIs(now) and calls
// doUpdateNextReview() again when more work appears. Workload assumed: a handful of
// timers per agent, scheduled a few times a second at most; every operation is O(1).
#pragma once
#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class QUOR_API ReviewTimer : public Quor::PtrInterface {
 public:
  /// Stores the arguments unchecked. `clock` is not owned: it must outlive the timer's
  /// use (or be replaced with clockIs).
  ReviewTimer(Quor::Clock::NotifieeConst* clock, float fillInterval, U32 maxCredits, float minDelay,
              float maxDelay);

  /// The reactor whose timeMin the timer sets.
  Quor::Clock::NotifieeConst* clock() const { return clock_; }
  void clockIs(Quor::Clock::NotifieeConst* c) { clock_ = c; }
  /// Kept as a readable setting; the refill counts whole seconds and does not use it.
  float fillInterval() const { return fillInterval_; }
  void fillIntervalIs(float v) { fillInterval_ = v; }
  /// Credit ceiling.
  U32 maxCredits() const { return maxCredits_; }
  void maxCreditsIs(U32 v) { maxCredits_ = v; }
  /// Delay chosen while credits are at the ceiling, in seconds.
  float minDelay() const { return minDelay_; }
  void minDelayIs(float v) { minDelay_ = v; }
  /// Cap of the doubling delay, in seconds.
  float maxDelay() const { return maxDelay_; }
  void maxDelayIs(float v) { maxDelay_ = v; }
  /// The delay chosen by the last scheduling (0 before the first).
  double delay() const { return delay_; }
  void delayIs(double v) { delay_ = v; }
  /// Credits left.
  U32 credits() const { return credits_; }
  void creditsIs(U32 v) { credits_ = v; }
  /// Time of the caller's last review; only the caller writes it.
  Quor::Seconds lastReview() const { return lastReview_; }
  void lastReviewIs(Quor::Seconds v) { lastReview_ = v; }

  /// True while the reactor's timeMin is finite (a review is scheduled).
  /// Precondition: clock() is not null.
  bool reviewPending() const;

  /// Schedules the next review by the credit rule, unless one is pending.
  /// Postcondition: reviewPending(), unless delay() is infinite.
  /// Precondition: clock() is not null, minDelay and maxDelay are not NaN.
  void doUpdateNextReview();

  /// Sets the reactor's timeMin to now, overriding any pending review; credits and
  /// delay are left alone. Precondition: clock() is not null.
  void doUpdateNextReviewImmediately();

  QUOR_ENTITY_TYPE(ReviewTimer, "Vell::ReviewTimer", Quor::attr("fillInterval", &ReviewTimer::fillInterval),
                   Quor::attr("maxCredits", &ReviewTimer::maxCredits), Quor::attr("minDelay", &ReviewTimer::minDelay),
                   Quor::attr("maxDelay", &ReviewTimer::maxDelay), Quor::attr("credits", &ReviewTimer::credits),
                   Quor::attr("lastReview", &ReviewTimer::lastReview), Quor::attr("delay", &ReviewTimer::delay))

 private:
  Quor::Clock::NotifieeConst* clock_;
  float fillInterval_;
  U32 maxCredits_;
  float minDelay_;
  float maxDelay_;
  double delay_ = 0.0;
  U32 credits_ = 0;
  Quor::Seconds lastReview_ = 0.0;
};

/// A new review timer driving `clock`; the arguments are stored unchecked.
QUOR_API Quor::Ptr<ReviewTimer> reviewTimerFactory(Quor::Clock::NotifieeConst* clock, float fillInterval,
                                                   unsigned maxCredits, float minDelay, float maxDelay);

}  // namespace Vell
