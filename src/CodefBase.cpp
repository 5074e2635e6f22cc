// The backlog base: statistics and the slice loop.
#include <cstdio>

#include <Vell/CodefBase.h>

namespace Vell {

namespace {
Quor::TraceHandle& traceHandle() {
  static Quor::TraceHandle* t = new Quor::TraceHandle("CodefBase");
  return *t;
}
}  // namespace

void CodefBase::codefAssert(Quor::String8 const& message) {
  std::fprintf(stderr, "%s\n", message.charPtr());
  std::fflush(stderr);
  QUOR_ASSERT(0);
  __builtin_unreachable();
}

CodefBase::CodefBase(Quor::Ptr<Quor::Clock const> const& clock) { clockIs(clock); }

CodefBase::~CodefBase() { releaseClock(); }

Quor::Ptr<CodefBase> codefBaseFactory(Quor::Ptr<Quor::Clock const> const& clock) {
  Quor::Ptr<CodefBase> p(new CodefBase(clock));
  p->hasNotificationActiveIs(true);
  return p;
}

U64 CodefBase::backlogSize() { codefAssert("Call to unimplemented function CodefBase::backlogs"); }

U64 CodefBase::processBacklog(double const&) {
  codefAssert("Call to unimplemented function CodefBase::doProcessBacklog");
}

void CodefBase::backlogQuantumIs(Quor::Seconds const& quantum) {
  // Bounded so that a NaN or negative budget is refused at the mutator rather than
  // silently turning every slice into one entry or an endless one.
  backlogQuantum_ = QUOR_CHECK_RANGE("CodefBase", "backlogQuantum", quantum, 0, 3600);
}

void CodefBase::clockIs(Quor::Ptr<Quor::Clock const> const& clock) {
  Quor::checkNotNull("Vell::CodefBase", "clock", clock);
  bool const fresh = !clock_;
  if (fresh) clock_ = new QuorClock(this);
  clock_->notifierIs(clock);  // an armed timeMin moves with the reactor
  if (fresh && resumeOnClock_) {
    // Work was left when the last clock went: it resumes now, not at the next update.
    // (Never true in the constructor, where backlogSize() is not the subclass's yet.)
    resumeOnClock_ = false;
    if (backlogSize() != 0) clock_->timeMinIs(0.0);
  }
}

void CodefBase::clockDel() { releaseClock(); }

void CodefBase::quorDoZombieReactors() { releaseClock(); }

void CodefBase::handleDel() { quorDoZombieReactors(); }

// The loop may still hold the reactor (it is running its onTime): cutting the back
// pointer is what makes a late call harmless.
void CodefBase::releaseClock() {
  if (!clock_) return;
  Quor::Ptr<QuorClock> c = std::move(clock_);
  clock_ = nullptr;
  resumeOnClock_ = resumeOnClock_ || c->timeMin() != Quor::endOfTime;
  c->codefBaseIs(nullptr);
  c->timeMinIs(Quor::endOfTime);
  c->notifierIs(nullptr);
}

void CodefBase::doArmClock() {
  if (clock_ && clock_->timeMin() > 0.0) clock_->timeMinIs(0.0);
}

U64 CodefBase::updatesCoalesced() {
  U64 const gone = updatesProcessed_ + backlogSize();
  return updatesSeen_ > gone ? updatesSeen_ - gone : 0;
}

void CodefBase::doProcessBacklog() {
  QUOR_TRACE(traceHandle(), 1, "CodefBase::doProcessBacklog");
  if (isDestroying()) return;
  Quor::Ptr<CodefBase> hold(this);  // processBacklog may drop the last outside reference
  Quor::Seconds const start = Quor::now();
  U64 const n = processBacklog(start);
  Quor::Seconds const end = Quor::now();
  updatesProcessedInc(n);
  // The wall clock may step back; time used only ever grows.
  timeUsedInc(end > start ? end - start : 0.0);
  dispatchCountInc(1);
  U64 const left = backlogSize();
  QUOR_TRACE(traceHandle(), 5, "processed " << n << " in " << (end - start) << " s, " << left << " left");
  if (left != 0) {
    // Time 0 is always past: the next slice runs after the reactors already due.
    if (clock_) {
      clock_->timeMinIs(0.0);
    } else {
      resumeOnClock_ = true;
    }
    yieldBeforeFinishingCountInc(1);
  }
}

void CodefBase::QuorClock::onTime() {
  if (codefBase_) codefBase_->doProcessBacklog();
}

}  // namespace Vell
