// Statistics accumulators against a model that walks the condition through every
// transition a sample implies, counting in 64 bits and reducing modulo 2^32.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include <Vell/ValueTypes.h>

using namespace Vell;

namespace {

using Rng = std::mt19937_64;

struct Model {
  bool state = false;
  std::uint64_t changes = 0;  // transitions or events, unreduced
  double last = 0.0;
  U32 reduced() const { return static_cast<U32>(changes); }
  void flip(double t) {
    state = !state;
    ++changes;
    last = t;
  }
  void moveTo(bool v, double t) {
    if (state != v) flip(t);
  }
};

// Starts near the top of the U32 range so that every run crosses the wrap.
Model startModel(Rng& r) { return Model{(r() & 1) != 0, 0xffffffffu - r() % 4, static_cast<double>(r() % 10)}; }

constexpr int kSteps = 200000;

TEST(Statistics, ConditionsCountEveryTransition) {
  Rng r(0x57a75);
  Model mc = startModel(r), mcc = startModel(r), mch = startModel(r);
  ConditionStat cs(mc.state, mc.reduced(), mc.last);
  ConditionOrCountStat ccs(mcc.state, mcc.reduced(), mcc.last);
  ConditionOrChangedStat chs(mch.state, mch.reduced(), mch.last);
  for (int i = 0; i < kSteps; ++i) {
    bool const v = r() & 1, viaUpdateIs = r() & 1, changed = r() % 3 == 0;
    U32 const n = (r() % 3 == 0) ? static_cast<U32>(r() % 4) : 0;
    double const t = i;

    mc.moveTo(v, t);
    viaUpdateIs ? cs.updateIs(Event(v, t)) : cs.doUpdate(v, t);
    ASSERT_EQ(cs, ConditionStat(mc.state, mc.reduced(), mc.last)) << i;

    // n rises since the last sample: each one from false, then settle at v.
    for (U32 k = 0; k < n; ++k) {
      if (mcc.state) mcc.flip(t);
      mcc.flip(t);
    }
    mcc.moveTo(v, t);
    viaUpdateIs ? ccs.updateIs(EventOrCount(v, n, t)) : ccs.doUpdate(v, n, t);
    ASSERT_EQ(ccs, ConditionOrCountStat(mcc.state, mcc.reduced(), mcc.last)) << i;

    // A flagged change moves away at least once; then settle at v.
    if (changed) mch.flip(t);
    mch.moveTo(v, t);
    viaUpdateIs ? chs.updateIs(ConditionOrChanged(v, changed, t)) : chs.doUpdate(v, changed, t);
    ASSERT_EQ(chs, ConditionOrChangedStat(mch.state, mch.reduced(), mch.last)) << i;
  }
}

TEST(Statistics, EventsAndCountsAddUp) {
  Rng r(0xc0de);
  Model me = startModel(r), mco = startModel(r), meo = startModel(r);
  EventStat es(me.state, me.reduced(), me.last);
  CountStat cos(mco.reduced(), mco.last);
  EventOrCountStat eos(meo.reduced(), meo.last);
  for (int i = 0; i < kSteps; ++i) {
    bool const v = r() & 1, viaUpdateIs = r() & 1;
    U32 const n = (r() % 2) ? 0 : (r() % 8 == 0) ? static_cast<U32>(r()) : static_cast<U32>(r() % 5);
    double const t = i;

    me.state = v;
    if (v) me.changes += 1, me.last = t;
    viaUpdateIs ? es.updateIs(Event(v, t)) : es.doUpdate(v, t);
    ASSERT_EQ(es, EventStat(me.state, me.reduced(), me.last)) << i;

    if (n != 0) mco.changes += n, mco.last = t;
    viaUpdateIs ? cos.updateIs(Count(n, t)) : cos.doUpdate(n, t);
    ASSERT_EQ(cos, CountStat(mco.reduced(), mco.last)) << i;

    // A count stands for its events; with none, the value is one event or none.
    std::uint64_t const events = n != 0 ? n : v ? 1 : 0;
    if (events != 0) meo.changes += events, meo.last = t;
    viaUpdateIs ? eos.updateIs(EventOrCount(v, n, t)) : eos.doUpdate(v, n, t);
    ASSERT_EQ(eos, EventOrCountStat(meo.reduced(), meo.last)) << i;
  }
}

TEST(Statistics, WorkedExamples) {
  ConditionOrCountStat cc(true, 0, 0.0);
  cc.updateIs(EventOrCount(false, 2, 9.0));
  EXPECT_EQ(cc, ConditionOrCountStat(false, 5, 9.0));
  // Large counts wrap like everything else: 2n - 1 with n = 2^31 + 1.
  ConditionOrCountStat big(false, 7, 0.0);
  big.doUpdate(true, 0x80000001u, 1.0);
  EXPECT_EQ(big.changes(), 7u + 1u);
  EXPECT_EQ(valueToStrep(EventStat(true, 4294967295u, 1.5)),
            "Value('Vell::EventStat', ** {'current': 1, 'count': 4294967295, 'last': 1.5})");
}

}  // namespace
