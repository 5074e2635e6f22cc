// ReviewTimer under virtual time: the credit rule against a reference model, and the
// sequences a caller sees (back-off, refill, a pending review, the immediate override).

#include <cmath>
#include <tuple>

#include <Vell/ReviewTimer.h>

#include "TestSupport.h"

namespace {

using Quor::Seconds;
using Vell::U32;

constexpr Seconds t0 = 1000.0;

// The caller's side: a reactor whose onTime() performs a review and records it.
struct Reviewer : Quor::Clock::NotifieeConst {
  Vell::ReviewTimer* timer = nullptr;
  std::vector<Seconds> reviews;
  bool moreWork = false;  // ask for the next review after each one
  void onTime() override {
    reviews.push_back(Quor::now());
    timer->lastReviewIs(Quor::now());
    if (moreWork) timer->doUpdateNextReview();
  }
};

// The credit rule written plainly in wide signed arithmetic; valid while lastReview
// is not in the future, which these tests keep.
struct Model {
  long maxCredits;
  double minDelay, maxDelay, delay = 0;
  long credits = 0;
  Seconds schedule(Seconds now, Seconds lastReview) {
    credits = std::min(credits + static_cast<long>(now - lastReview), maxCredits);
    delay = credits >= maxCredits ? minDelay : std::min(2 * delay, maxDelay);
    if (credits > 0) --credits;
    return now + delay;
  }
};

class ReviewTimerTest : public VellTest::LoopFixture {
 protected:
  Quor::Ptr<Reviewer> reviewer{new Reviewer};
  Quor::Ptr<Vell::ReviewTimer> timer;
  void TearDown() override {
    reviewer->notifierIs(nullptr);
    LoopFixture::TearDown();
  }

  void make(U32 maxCredits, float minDelay, float maxDelay) {
    timer = Vell::reviewTimerFactory(reviewer.ptr(), 1.0f, maxCredits, minDelay, maxDelay);
    reviewer->timer = timer.ptr();
    reviewer->notifierIs(clock);
  }
  // The scheduled review, the credits left and the last delay.
  std::tuple<Seconds, U32, double> state() const { return {reviewer->timeMin(), timer->credits(), timer->delay()}; }
};

// The documented back-off; refills, pending reviews and the override are the model's.
TEST_F(ReviewTimerTest, BackOffDoublesTheDelayUpToItsCeiling) {
  make(3, 1, 8);
  VellTest::TraceCapture traces("ReviewTimer");
  reviewer->moreWork = true;
  timer->doUpdateNextReview();
  EXPECT_EQ(traces.texts(), std::vector<std::string>{"ReviewTimer scheduling at 1000 + 1"});
  // Each review schedules the next with no whole second earned: 1, 2, 4, 8, 8, ...
  loop->runUntil(t0 + 40);
  EXPECT_EQ(reviewer->reviews, (std::vector<Seconds>{t0 + 1, t0 + 3, t0 + 7, t0 + 15, t0 + 23, t0 + 31, t0 + 39}));
  EXPECT_EQ(state(), std::tuple(t0 + 47, 0u, 8.0));
}

// Random schedulings, pauses, reviews and overrides, compared step by step with the
// model; the ceiling, delays and pause lengths vary per seed.
TEST_F(ReviewTimerTest, MatchesTheCreditRuleOverManySchedulings) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    VELL_SEEDED(rng, seed);
    auto pick = [&](int n) { return rng.pick(n); };
    reviewer->reviews.clear();
    reviewer->timeMinIs(Quor::endOfTime);
    make(U32(pick(6)), 0.25f * float(1 + pick(4)), float(1 << (1 + pick(4))));
    Model m{timer->maxCredits(), timer->minDelay(), timer->maxDelay()};
    Seconds modelTimeMin = Quor::endOfTime, lastReview = 0;
    for (int step = 0; step < 400; ++step) {
      Seconds const now = Quor::now();
      int const op = pick(8);
      if (op == 0) {
        timer->doUpdateNextReviewImmediately();
        modelTimeMin = now;
      } else if (op < 4) {
        Seconds const until = now + 0.125 * (1 + pick(8 * (int(m.maxCredits) + 2)));
        loop->runUntil(until);
        if (modelTimeMin <= until) lastReview = std::exchange(modelTimeMin, Quor::endOfTime);
      } else {
        timer->doUpdateNextReview();
        if (modelTimeMin == Quor::endOfTime) modelTimeMin = m.schedule(now, lastReview);
      }
      ASSERT_EQ(std::tuple_cat(state(), std::tuple(timer->lastReview())),
                std::tuple(modelTimeMin, U32(m.credits), m.delay, lastReview))
          << "step " << step;
    }
  }
}

// A lastReview far off either way saturates to the ceiling and NaN earns nothing, with
// no out-of-range float-to-integer conversion on the way.
TEST_F(ReviewTimerTest, SurvivesAbsurdLastReview) {
  make(5, 1, 8);
  for (Seconds last : {1e300, -1e300, Quor::endOfTime, -Quor::endOfTime, std::nan("")}) {
    timer->creditsIs(3);
    timer->lastReviewIs(last);
    timer->doUpdateNextReview();
    EXPECT_EQ(timer->credits(), std::isnan(last) ? 2u : 4u) << last;  // NaN earns nothing
    reviewer->timeMinIs(Quor::endOfTime);
  }
}

}  // namespace
