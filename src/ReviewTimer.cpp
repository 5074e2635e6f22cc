// ReviewTimer: credit-paced scheduling of a caller's clock reactor.
#include <Vell/ReviewTimer.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <limits>

namespace Vell {

namespace {

Quor::TraceHandle traceHandle("ReviewTimer");

// Epoch times need more than the stream's default six digits to be readable.
constexpr int timeDigits = 15;

// Whole seconds, truncated toward zero. Out of range saturates and NaN counts as
// nothing: a lastReview far off (or never sensible) must not reach an undefined
// float-to-integer conversion.
std::int32_t wholeSeconds(double s) {
  if (std::isnan(s)) return 0;
  if (s >= 2147483647.0) return INT32_MAX;
  if (s <= -2147483648.0) return INT32_MIN;
  return static_cast<std::int32_t>(s);
}

}  // namespace

ReviewTimer::ReviewTimer(Quor::Clock::NotifieeConst* clock, float fillInterval, U32 maxCredits,
                         float minDelay, float maxDelay)
    : clock_(clock),
      fillInterval_(fillInterval),
      maxCredits_(maxCredits),
      minDelay_(minDelay),
      maxDelay_(maxDelay) {}

bool ReviewTimer::reviewPending() const {
  QUOR_ASSERT(clock_);
  return clock_->timeMin() <= std::numeric_limits<double>::max();
}

void ReviewTimer::doUpdateNextReview() {
  if (reviewPending()) return;
  Quor::Seconds const now = Quor::now();

  // Refill: one credit per whole second since the last review. The sum wraps in 32
  // bits like the counters it adds, so a lastReview in the future (negative gain)
  // can land anywhere below the ceiling; the ceiling bounds it either way.
  U32 const gained = static_cast<U32>(wholeSeconds(now - lastReview_));
  creditsIs(std::min<U32>(gained + credits_, maxCredits_));

  // At the ceiling reviews have been rare: the short delay. Otherwise back off.
  if (credits_ >= maxCredits_) {
    delayIs(minDelay_);
  } else {
    delayIs(std::min(2 * delay_, static_cast<double>(maxDelay_)));
  }
  if (credits_ > 0) --credits_;

  QUOR_TRACE(traceHandle, 2,
             std::setprecision(timeDigits) << "ReviewTimer scheduling at " << now << " + " << delay_);
  clock_->timeMinIs(now + delay_);
}

void ReviewTimer::doUpdateNextReviewImmediately() {
  QUOR_ASSERT(clock_);
  clock_->timeMinIs(Quor::now());
}

Quor::Ptr<ReviewTimer> reviewTimerFactory(Quor::Clock::NotifieeConst* clock, float fillInterval,
                                          unsigned maxCredits, float minDelay, float maxDelay) {
  return Quor::Ptr<ReviewTimer>(new ReviewTimer(clock, fillInterval, maxCredits, minDelay, maxDelay));
}

}  // namespace Vell
