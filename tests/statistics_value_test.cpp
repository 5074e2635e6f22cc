// Statistics accumulators against a model that walks the condition through every
// transition a sample implies, counting in 64 bits and reducing modulo 2^32.

#include <cstdint>

#include <Vell/ValueTypes.h>

#include "TestSupport.h"

using namespace Vell;

namespace {

using Rng = std::mt19937_64;

struct Model {
  bool state = false;
  std::uint64_t changes = 0;  // transitions or events, unreduced
  double last = 0.0;
  U32 reduced() const { return static_cast<U32>(changes); }
  void flip(double t) { state = !state, ++changes, last = t; }
  void moveTo(bool v, double t) { if (state != v) flip(t); }
  void add(std::uint64_t events, double t) { if (events != 0) changes += events, last = t; }
};

// Starts near the top of the U32 range so that every run crosses the wrap.
Model startModel(Rng& r) { return Model{(r() & 1) != 0, 0xffffffffu - r() % 4, static_cast<double>(r() % 10)}; }

TEST(Statistics, EveryAccumulatorAgainstTheModel) {
  Rng r(0x57a75);
  Model mc = startModel(r), mcc = startModel(r), mch = startModel(r), me = startModel(r), mco = startModel(r),
        meo = startModel(r);
  ConditionStat cs(mc.state, mc.reduced(), mc.last);
  ConditionOrCountStat ccs(mcc.state, mcc.reduced(), mcc.last);
  ConditionOrChangedStat chs(mch.state, mch.reduced(), mch.last);
  EventStat es(me.state, me.reduced(), me.last);
  CountStat cos(mco.reduced(), mco.last);
  EventOrCountStat eos(meo.reduced(), meo.last);
  for (int i = 0; i < 200000; ++i) {
    bool const v = r() & 1, viaUpdateIs = r() & 1, changed = r() % 3 == 0;
    U32 const rises = (r() % 3 == 0) ? static_cast<U32>(r() % 4) : 0;
    U32 const n = (r() % 2) ? 0 : (r() % 8 == 0) ? static_cast<U32>(r()) : static_cast<U32>(r() % 5);
    double const t = i;

    mc.moveTo(v, t);
    viaUpdateIs ? cs.updateIs(Event(v, t)) : cs.doUpdate(v, t);
    ASSERT_EQ(cs, ConditionStat(mc.state, mc.reduced(), mc.last)) << i;

    // Each rise since the last sample goes up from false; then settle at v.
    for (U32 k = 0; k < rises; ++k) {
      if (mcc.state) mcc.flip(t);
      mcc.flip(t);
    }
    mcc.moveTo(v, t);
    viaUpdateIs ? ccs.updateIs(EventOrCount(v, rises, t)) : ccs.doUpdate(v, rises, t);
    ASSERT_EQ(ccs, ConditionOrCountStat(mcc.state, mcc.reduced(), mcc.last)) << i;

    // A flagged change moves away at least once; then settle at v.
    if (changed) mch.flip(t);
    mch.moveTo(v, t);
    viaUpdateIs ? chs.updateIs(ConditionOrChanged(v, changed, t)) : chs.doUpdate(v, changed, t);
    ASSERT_EQ(chs, ConditionOrChangedStat(mch.state, mch.reduced(), mch.last)) << i;

    me.state = v;
    me.add(v, t);
    viaUpdateIs ? es.updateIs(Event(v, t)) : es.doUpdate(v, t);
    ASSERT_EQ(es, EventStat(me.state, me.reduced(), me.last)) << i;

    mco.add(n, t);
    viaUpdateIs ? cos.updateIs(Count(n, t)) : cos.doUpdate(n, t);
    ASSERT_EQ(cos, CountStat(mco.reduced(), mco.last)) << i;

    // A count stands for its events; with none, the value is one event or none.
    meo.add(n != 0 ? n : v, t);
    viaUpdateIs ? eos.updateIs(EventOrCount(v, n, t)) : eos.doUpdate(v, n, t);
    ASSERT_EQ(eos, EventOrCountStat(meo.reduced(), meo.last)) << i;
  }
}

// Too many rises for the model to walk: 2n - 1 transitions with n = 2^31 + 1 wrap to 1.
TEST(Statistics, LargeRiseCountWraps) {
  ConditionOrCountStat big(false, 7, 0.0);
  big.doUpdate(true, 0x80000001u, 1.0);
  EXPECT_EQ(big, ConditionOrCountStat(true, 8, 1.0));
}

}  // namespace
