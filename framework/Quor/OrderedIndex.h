// An ordered map from small unsigned keys to non-zero 32-bit values: a B+tree with
// cache-line nodes, for indexes that must stay fast at millions of members.
#pragma once
#include <algorithm>
#include <cstring>

#include <Quor/Assert.h>
#include <Quor/Types.h>

namespace Quor::detail {

/// An ordered map from K (an unsigned integer below ~K(0)) to a non-zero U32, used for
/// the free runs by position and for the jumbo runs by (size, start).
///
/// A B+tree with small nodes: a look-up reads a few cache lines per level and the upper
/// levels stay in cache, where a binary tree would miss on most of its twenty levels at
/// a million runs. The neighbours of a key sit in the same leaf, and the last path
/// taken is kept, so the several look-ups of one free or alloc descend once.
template <class K>
class OrderedIndex {
 public:
  struct Run {
    K start;  // the key
    U32 sz;   // the value; 0: no entry
  };

  OrderedIndex() : root_(new Leaf) {}
  ~OrderedIndex() { destroy(root_, inners_); }
  OrderedIndex(OrderedIndex const&) = delete;
  OrderedIndex& operator=(OrderedIndex const&) = delete;

  U32 size() const { return size_; }
  U32 find(K start) const {
    Leaf const* l = descend(start);
    U32 const i = lowerBound(l->key, start);
    return i < l->n && l->key[i] == start ? l->sz[i] : 0;
  }
  /// The run with the greatest start <= k.
  Run atOrBefore(K k) const {
    k = std::min(k, none - 1);  // no run starts at `none`, and pads must not count
    Leaf const* l = descend(k);
    U32 const i = upperBound(l->key, k);
    if (i > 0) return Run{l->key[i - 1], l->sz[i - 1]};
    for (l = l->prev; l; l = l->prev)  // an underfull leaf may be empty
      if (l->n) return Run{l->key[l->n - 1], l->sz[l->n - 1]};
    return Run{0, 0};
  }
  /// The run with the least start > k.
  Run after(K k) const {
    if (k >= none - 1) return Run{0, 0};
    Leaf const* l = descend(k);
    U32 const i = upperBound(l->key, k);
    if (i < l->n) return Run{l->key[i], l->sz[i]};
    for (l = l->next; l; l = l->next)
      if (l->n) return Run{l->key[0], l->sz[0]};
    return Run{0, 0};
  }
  Run first() const {
    for (Leaf const* l = first_; l; l = l->next)
      if (l->n) return Run{l->key[0], l->sz[0]};
    return Run{0, 0};
  }
  /// Adds a run; precondition: none starts at start.
  void insert(K start, U32 sz) {
    Leaf* l = descend(start);
    U32 const i = lowerBound(l->key, start);
    ++size_;
    if (l->n < cap) {
      shiftUp(l->key, l->n, i, start);
      shiftUp(l->sz, l->n, i, sz);
      ++l->n;
      return;
    }
    // Split the full leaf: the lower half stays, the upper half moves to a new one.
    K key[cap + 1];
    U32 val[cap + 1];
    std::copy(l->key, l->key + cap, key);
    std::copy(l->sz, l->sz + cap, val);
    shiftUp(key, cap, i, start);
    shiftUp(val, cap, i, sz);
    U32 const half = (cap + 1) / 2;
    Leaf* r = new Leaf;
    l->n = half;
    r->n = cap + 1 - half;
    std::copy(key, key + half, l->key);
    std::fill(l->key + half, l->key + cap, none);
    std::copy(val, val + half, l->sz);
    std::copy(key + half, key + cap + 1, r->key);
    std::copy(val + half, val + cap + 1, r->sz);
    r->next = l->next;
    r->prev = l;
    if (r->next) r->next->prev = r;
    l->next = r;
    ++version_;
    insertUp(int(inners_) - 1, r->key[0], r);
  }
  /// Removes the run starting at start; returns its size, 0 when there was none.
  U32 erase(K start) {
    Leaf* l = descend(start);
    U32 const i = lowerBound(l->key, start);
    if (i == l->n || l->key[i] != start) return 0;
    U32 const sz = l->sz[i];
    std::copy(l->key + i + 1, l->key + l->n, l->key + i);
    std::copy(l->sz + i + 1, l->sz + l->n, l->sz + i);
    l->key[--l->n] = none;
    --size_;
    if (inners_ > 0 && l->n < cap / 4) rebalance(int(inners_) - 1, l);
    return sz;
  }

 private:
  static constexpr U32 cap = 32;      // entries per node: 32-bit keys fill two cache lines
  static constexpr U32 maxDepth = 8;  // inner levels; 32^7 leaves is far beyond 2^32 runs
  static constexpr K none = ~K(0);  // pads unused keys: above every key in use

  // Unused keys hold `none`, so searches run over the whole fixed-size array without a
  // branch per key, and the compiler turns them into a few vector compares.
  struct Leaf {
    U32 n = 0;
    Leaf* prev = nullptr;
    Leaf* next = nullptr;
    K key[cap];
    U32 sz[cap];
    Leaf() { std::fill(key, key + cap, none); }
  };
  // child[i] holds the keys in [key[i-1], key[i]); n children, n-1 keys.
  struct Inner {
    U32 n = 0;
    K key[cap];
    void* child[cap];
    Inner() { std::fill(key, key + cap, none); }
  };
  struct Step {
    Inner* node;
    U32 idx;
  };

  /// The number of keys below k (the first position >= k) and at most k.
  static U32 lowerBound(K const* a, K k) {
    U32 c = 0;
    for (U32 i = 0; i < cap; ++i) c += a[i] < k;
    return c;
  }
  static U32 upperBound(K const* a, K k) {
    U32 c = 0;
    for (U32 i = 0; i < cap; ++i) c += a[i] <= k;
    return c;
  }
  template <class T>
  static void shiftUp(T* a, U32 n, U32 i, T v) {
    std::copy_backward(a + i, a + n, a + n + 1);
    a[i] = v;
  }

  /// The leaf whose key range holds k, with the path to it in path_. The last path is
  /// reused while no node was split or merged and k routes to the same leaf: the
  /// look-ups of one operation are all near one position.
  Leaf* descend(K k) const {
    if (cachedVersion_ == version_ && k >= cachedLo_ && k < cachedHi_) return cached_;
    void* node = root_;
    K lo = 0;
    K hi = none;  // no key reaches it
    for (U32 d = 0; d < inners_; ++d) {
      Inner* in = static_cast<Inner*>(node);
      U32 const i = upperBound(in->key, k);
      if (i > 0) lo = in->key[i - 1];
      if (i + 1 < in->n) hi = in->key[i];
      path_[d] = Step{in, i};
      node = in->child[i];
    }
    cached_ = static_cast<Leaf*>(node);
    cachedLo_ = lo;
    cachedHi_ = hi;
    cachedVersion_ = version_;
    return cached_;
  }

  /// Adds child (whose keys start at key) right of path_[d]'s child; splits upward.
  void insertUp(int d, K key, void* child) {
    if (d < 0) {  // a new root above the old one
      Inner* root = new Inner;
      root->n = 2;
      root->key[0] = key;
      root->child[0] = root_;
      root->child[1] = child;
      root_ = root;
      ++inners_;
      QUOR_ASSERT(inners_ < maxDepth);
      return;
    }
    Inner* in = path_[d].node;
    U32 const at = path_[d].idx + 1;  // the new child's place
    if (in->n < cap) {
      shiftUp(in->key, in->n - 1, at - 1, key);
      shiftUp(in->child, in->n, at, child);
      ++in->n;
      return;
    }
    K keys[cap];
    void* children[cap + 1];
    std::copy(in->key, in->key + cap - 1, keys);
    std::copy(in->child, in->child + cap, children);
    shiftUp(keys, cap - 1, at - 1, key);
    shiftUp(children, cap, at, child);
    // cap + 1 children: the left keeps `half`, the key between the halves goes up.
    U32 const half = (cap + 1) / 2;
    Inner* r = new Inner;
    in->n = half;
    r->n = cap + 1 - half;
    std::copy(keys, keys + half - 1, in->key);
    std::fill(in->key + half - 1, in->key + cap, none);
    std::copy(children, children + half, in->child);
    std::copy(keys + half, keys + cap, r->key);
    std::copy(children + half, children + cap + 1, r->child);
    insertUp(d - 1, keys[half - 1], r);
  }

  /// After an erase left `node` (a child of path_[d]) sparse: merges it with a sibling
  /// when the two fit in three quarters of a node, so that splits and merges cannot
  /// chase each other on the same boundary. An empty leaf always goes.
  void rebalance(int d, void* node) {
    Inner* parent = path_[d].node;
    U32 const idx = path_[d].idx;
    if (parent->n < 2) return;
    U32 const li = idx + 1 < parent->n ? idx : idx - 1;  // merge children li and li + 1
    if (U32(d) == inners_ - 1) {
      Leaf* l = static_cast<Leaf*>(parent->child[li]);
      Leaf* r = static_cast<Leaf*>(parent->child[li + 1]);
      if (static_cast<Leaf*>(node)->n != 0 && l->n + r->n > cap * 3 / 4) return;
      std::copy(r->key, r->key + r->n, l->key + l->n);
      std::copy(r->sz, r->sz + r->n, l->sz + l->n);
      l->n += r->n;
      l->next = r->next;
      if (l->next) l->next->prev = l;
      delete r;
    } else {
      Inner* l = static_cast<Inner*>(parent->child[li]);
      Inner* r = static_cast<Inner*>(parent->child[li + 1]);
      if (l->n + r->n > cap * 3 / 4) return;
      l->key[l->n - 1] = parent->key[li];  // the separator comes down between them
      std::copy(r->key, r->key + r->n - 1, l->key + l->n);
      std::copy(r->child, r->child + r->n, l->child + l->n);
      l->n += r->n;
      delete r;
    }
    ++version_;
    // Drop child li + 1 and the key left of it from the parent.
    std::copy(parent->key + li + 1, parent->key + parent->n - 1, parent->key + li);
    parent->key[parent->n - 2] = none;
    std::copy(parent->child + li + 2, parent->child + parent->n, parent->child + li + 1);
    --parent->n;
    if (d == 0) {
      if (parent->n == 1) {  // the root has one child left: it becomes the root
        root_ = parent->child[0];
        delete parent;
        --inners_;
      }
    } else if (parent->n < cap / 4) {
      rebalance(d - 1, parent);
    }
  }

  void destroy(void* node, U32 levels) {
    if (levels > 0) {
      Inner* in = static_cast<Inner*>(node);
      for (U32 i = 0; i < in->n; ++i) destroy(in->child[i], levels - 1);
      delete in;
    } else {
      delete static_cast<Leaf*>(node);
    }
  }

  void* root_;
  U32 inners_ = 0;  // levels of inner nodes above the leaves
  U32 size_ = 0;
  Leaf* first_ = static_cast<Leaf*>(root_);  // the leftmost leaf is never merged away
  U64 version_ = 1;                          // counts splits and merges
  mutable Leaf* cached_ = nullptr;
  mutable U64 cachedVersion_ = 0;
  mutable K cachedLo_ = 0;
  mutable K cachedHi_ = 0;
  mutable Step path_[maxDepth];
};

}  // namespace Quor::detail
