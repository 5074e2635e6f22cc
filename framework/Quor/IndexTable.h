// A hash table keyed by 32-bit index with open addressing, and the hashes it is used
// with: one array, no node per member.
#pragma once
#include <vector>

#include <Quor/Types.h>

namespace Quor::detail {

/// Spreads consecutive start indexes over the whole hash range: the index with its
/// 32 bits reversed.
struct BitReversedHash {
  U32 operator()(U32 i) const {
    i = ((i >> 1) & 0x55555555u) | ((i & 0x55555555u) << 1);
    i = ((i >> 2) & 0x33333333u) | ((i & 0x33333333u) << 2);
    i = ((i >> 4) & 0x0f0f0f0fu) | ((i & 0x0f0f0f0fu) << 4);
    i = ((i >> 8) & 0x00ff00ffu) | ((i & 0x00ff00ffu) << 8);
    return (i >> 16) | (i << 16);
  }
};
struct IdentityHash {
  U32 operator()(U32 i) const { return i; }
};

/// A hash table keyed by index, with open addressing: one array, no node per member, so
/// a look-up is usually one cache line and a member costs a slot of 4 to 16 bytes.
/// 0xFFFFFFFF is not a valid key (no index reaches it). Kept between 1/8 and 1/2 full,
/// so a walk from any slot meets a member within a few.
template <class V, class H>
class IndexTable {
 public:
  static constexpr U32 none = 0xFFFFFFFFu;
  struct Slot {
    U32 key = none;
    [[no_unique_address]] V value{};
  };
  class IteratorConst {
   public:
    IteratorConst(Slot const* p, Slot const* end) : p_(p), end_(end) { skip(); }
    Slot const& operator*() const { return *p_; }
    IteratorConst& operator++() {
      ++p_;
      skip();
      return *this;
    }
    bool operator==(IteratorConst const& o) const { return p_ == o.p_; }

   private:
    void skip() {
      while (p_ != end_ && p_->key == none) ++p_;
    }
    Slot const* p_;
    Slot const* end_;
  };

  IndexTable() { rehash(minSlots); }
  U32 size() const { return size_; }
  bool empty() const { return size_ == 0; }
  IteratorConst begin() const { return IteratorConst(slots_.data(), slots_.data() + slots_.size()); }
  IteratorConst end() const { return IteratorConst(slots_.data() + slots_.size(), slots_.data() + slots_.size()); }

  V const* find(U32 k) const {
    for (U32 i = home(k);; i = (i + 1) & mask_) {
      if (slots_[i].key == k) return &slots_[i].value;
      if (slots_[i].key == none) return nullptr;
    }
  }
  bool contains(U32 k) const { return find(k) != nullptr; }
  /// Starts loading k's home slot, for a look-up that comes a little later.
  void prefetch(U32 k) const { __builtin_prefetch(&slots_[home(k)]); }
  /// Inserts or replaces; returns the slot index.
  U32 insert(U32 k, V const& v) {
    if ((size_ + 1) * 2 > slots_.size()) rehash(U32(slots_.size() * 2));
    U32 i = home(k);
    while (slots_[i].key != none && slots_[i].key != k) i = (i + 1) & mask_;
    size_ += slots_[i].key == none;
    slots_[i] = Slot{k, v};
    return i;
  }
  /// Returns false when k was absent.
  bool erase(U32 k) {
    U32 i = home(k);
    while (slots_[i].key != k) {
      if (slots_[i].key == none) return false;
      i = (i + 1) & mask_;
    }
    // Backward shift: pull later members of the probe run into the hole, so that no
    // tombstones are left behind.
    for (U32 j = (i + 1) & mask_; slots_[j].key != none; j = (j + 1) & mask_) {
      U32 const h = home(slots_[j].key);
      if (((j - h) & mask_) >= ((j - i) & mask_)) {
        slots_[i] = slots_[j];
        i = j;
      }
    }
    slots_[i].key = none;
    --size_;
    if (size_ * 8 < slots_.size() && slots_.size() > minSlots) rehash(U32(slots_.size() / 2));
    return true;
  }
  /// The first key met walking the slots from slot `from`; precondition: not empty.
  U32 firstFrom(U32 from) const {
    for (U32 i = from & mask_;; i = (i + 1) & mask_)
      if (slots_[i].key != none) return slots_[i].key;
  }

 private:
  static constexpr U32 minSlots = 8;
  U32 home(U32 k) const { return U32((U64(H()(k)) * 0x9E3779B97F4A7C15ull) >> shift_); }
  void rehash(U32 n) {
    std::vector<Slot> old(n);
    old.swap(slots_);
    mask_ = n - 1;
    shift_ = 64 - static_cast<U32>(__builtin_ctz(n));
    size_ = 0;
    for (Slot const& s : old)
      if (s.key != none) {
        U32 i = home(s.key);
        while (slots_[i].key != none) i = (i + 1) & mask_;
        slots_[i] = s;
        ++size_;
      }
  }
  std::vector<Slot> slots_;
  U32 size_ = 0;
  U32 mask_ = 0;
  U32 shift_ = 64;
};

}  // namespace Quor::detail
