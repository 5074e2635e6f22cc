// The framework's general containers against simple models, with a walk of the whole
// structure after every step.

#include <map>
#include <unordered_map>

#include <Quor/IndexTable.h>
#include <Quor/ListSort.h>
#include <Quor/OrderedIndex.h>

#include "TestSupport.h"

namespace {

using Quor::U32;
using Quor::U64;

// Every member reachable by walking, in order, and every neighbour query, agree with the model.
template <class K>
void walkOrdered(Quor::detail::OrderedIndex<K> const& t, std::map<K, U32> const& model, std::mt19937_64& rng) {
  ASSERT_EQ(t.size(), model.size());
  auto r = t.first();
  for (auto const& [k, v] : model) {
    ASSERT_EQ(r.start, k);
    ASSERT_EQ(r.sz, v);
    r = t.after(r.start);
  }
  ASSERT_EQ(r.sz, 0u);
  for (int i = 0; i < 20; ++i) {
    K const q = K(rng() % 5000);
    auto it = model.upper_bound(q);
    auto const after = t.after(q);
    ASSERT_EQ(after.sz, it == model.end() ? 0u : it->second) << q;
    if (it != model.end()) {
      ASSERT_EQ(after.start, it->first);
    }
    auto const before = t.atOrBefore(q);
    if (it == model.begin()) {
      ASSERT_EQ(before.sz, 0u);
    } else {
      ASSERT_EQ(before.start, std::prev(it)->first);
      ASSERT_EQ(before.sz, std::prev(it)->second);
    }
    auto const f = model.find(q);
    ASSERT_EQ(t.find(q), f == model.end() ? 0u : f->second);
  }
}

template <class K>
void orderedAgainstModel(unsigned seed) {
  std::mt19937_64 rng(seed);
  Quor::detail::OrderedIndex<K> t;
  std::map<K, U32> model;
  // Grow past several levels of splits, then shrink through the merges, twice.
  for (int phase = 0; phase < 4; ++phase) {
    bool const grow = phase % 2 == 0;
    for (int step = 0; step < 3000; ++step) {
      K const k = K(rng() % 5000);
      if (grow ? rng() % 4 != 0 : rng() % 4 == 0) {
        if (model.count(k)) continue;
        U32 const v = U32(1 + rng() % 1000);
        t.insert(k, v);
        model[k] = v;
      } else {
        auto const it = model.find(k);
        ASSERT_EQ(t.erase(k), it == model.end() ? 0u : it->second);
        if (it != model.end()) model.erase(it);
      }
      if (step % 25 == 0) walkOrdered(t, model, rng);
    }
    walkOrdered(t, model, rng);
  }
}

TEST(Containers, OrderedIndexAgreesWithAnOrderedMap) {
  unsigned const seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  orderedAgainstModel<U32>(seed);
  orderedAgainstModel<U64>(seed + 1);
}

TEST(Containers, IndexTableAgreesWithAHashMap) {
  unsigned const seed = std::random_device{}();
  VELL_SEEDED(rng, seed);
  Quor::detail::IndexTable<U32, Quor::detail::BitReversedHash> t;
  std::unordered_map<U32, U32> model;
  for (int step = 0; step < 40000; ++step) {
    // Keys in runs, as start indexes come, so that probe runs collide and wrap.
    U32 const k = U32(rng() % 2000) * (step < 20000 ? 1 : 64);
    if (rng() % (step < 20000 ? 3 : 2)) {
      U32 const v = U32(rng());
      t.insert(k, v);
      model[k] = v;
    } else {
      ASSERT_EQ(t.erase(k), model.erase(k) == 1);
    }
    if (step % 97 == 0) {
      ASSERT_EQ(t.size(), model.size());
      std::size_t walked = 0;
      for (auto const& slot : t) {
        ++walked;
        ASSERT_EQ(model.at(slot.key), slot.value);
      }
      ASSERT_EQ(walked, model.size());
      for (auto const& [mk, mv] : model) ASSERT_EQ(*t.find(mk), mv);
      if (!model.empty()) {
        ASSERT_TRUE(model.count(t.firstFrom(U32(rng()))));
      }
    }
  }
}

// Sorted like std::stable_sort, whatever the length and the number of equal keys.
TEST(Containers, ListSortIsAStableSort) {
  unsigned const seed = std::random_device{}();
  VELL_SEEDED(rng, seed);
  struct Node {
    int key;
    int id;
    Node* next;
  };
  for (int round = 0; round < 300; ++round) {
    std::vector<Node> nodes(rng() % 70);
    int const keys = 1 + int(rng() % 10);
    bool const presorted = rng() % 4 == 0;
    for (std::size_t i = 0; i < nodes.size(); ++i)
      nodes[i] = Node{presorted ? int(i) / 3 : int(rng() % keys), int(i), i + 1 < nodes.size() ? &nodes[i + 1] : nullptr};
    std::vector<Node> model = nodes;
    std::stable_sort(model.begin(), model.end(), [](Node const& a, Node const& b) { return a.key < b.key; });
    auto before = [](Node const* a, Node const* b) { return a->key < b->key; };
    auto next = [](Node* n) -> Node*& { return n->next; };
    Node* n = Quor::detail::sortList(nodes.empty() ? nullptr : &nodes[0], before, next);
    for (auto const& m : model) {
      ASSERT_NE(n, nullptr);
      ASSERT_EQ(n->id, m.id);
      n = n->next;
    }
    ASSERT_EQ(n, nullptr);
  }
}

}  // namespace
