// The framework's collections: thin wrappers that give the standard containers the
// semantics the blocks rely on (reads of missing members yield the default, index
// spaces with exact errors). A notifier's list of reactors is Quor::NotifieeList.
#pragma once
#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include <Quor/Exception.h>

namespace Quor {

/// Keyed-map operations over a standard map: missing members read as the default.
template <class Map>
class KeyedMap {
 public:
  using Key = typename Map::key_type;
  using Value = typename Map::mapped_type;
  using Iterator = typename Map::iterator;
  using IteratorConst = typename Map::const_iterator;

  /// Inserts or replaces.
  void memberIs(Key const& k, Value const& v) { m_.insert_or_assign(k, v); }
  /// The member, or a default value when absent.
  Value member(Key const& k) const {
    auto it = m_.find(k);
    return it == m_.end() ? Value() : it->second;
  }
  Value* memberPtr(Key const& k) {
    auto it = m_.find(k);
    return it == m_.end() ? nullptr : &it->second;
  }
  bool contains(Key const& k) const { return m_.count(k) != 0; }
  /// Returns true when a member was removed.
  bool memberDel(Key const& k) { return m_.erase(k) != 0; }
  void deleteAll() { m_.clear(); }
  std::size_t members() const { return m_.size(); }
  bool empty() const { return m_.empty(); }
  Iterator begin() { return m_.begin(); }
  Iterator end() { return m_.end(); }
  IteratorConst begin() const { return m_.begin(); }
  IteratorConst end() const { return m_.end(); }
  Iterator erase(Iterator it) { return m_.erase(it); }
  Map& raw() { return m_; }
  Map const& raw() const { return m_; }

 protected:
  Map m_;
};

/// Ordered map of values by key, ascending. Iterators stay valid across deletion of
/// other members, so an iterator works as a bookmark.
template <class V, class K>
class RbTreeMap : public KeyedMap<std::map<K, V>> {
 public:
  using typename KeyedMap<std::map<K, V>>::IteratorConst;
  IteratorConst lowerBound(K const& k) const { return this->m_.lower_bound(k); }
  IteratorConst upperBound(K const& k) const { return this->m_.upper_bound(k); }
};

/// A queue in insertion order whose members also hold a small integer index, drawn
/// from a bounded space (freed indices are reused, lowest first). Slots are made as
/// indices are first used, so a large space costs nothing until it fills; taking an
/// index is logarithmic in the number of freed ones.
template <class V>
class LinkQueue {
 public:
  explicit LinkQueue(U32 indexSpace = 1024) : space_(indexSpace) {}

  U32 indexSpace() const { return space_; }

  /// Appends v; returns its index. Throws "linkqueue index space full".
  U32 pushBack(V const& v) {
    U32 index;
    if (!holes_.empty()) {
      index = *holes_.begin();
      holes_.erase(holes_.begin());
    } else if (slots_.size() < space_) {
      index = static_cast<U32>(slots_.size());
      slots_.emplace_back();
    } else {
      throwRangeException("linkqueue index space full");
    }
    slots_[index] = Slot{true, v};
    order_.push_back(index);
    return index;
  }
  /// Appends v under the chosen index. Throws "linkqueue index out of range" when the
  /// index is outside the space and "linkqueue index in use" when it holds a member.
  void pushBackAt(U32 index, V const& v) {
    if (index >= space_) throwRangeException("linkqueue index out of range");
    if (index < slots_.size()) {
      if (slots_[index].used) throwRangeException("linkqueue index in use");
      holes_.erase(index);
    } else {
      for (U32 i = static_cast<U32>(slots_.size()); i < index; ++i) holes_.insert(holes_.end(), i);
      slots_.resize(static_cast<std::size_t>(index) + 1);
    }
    slots_[index] = Slot{true, v};
    order_.push_back(index);
  }
  V const& at(U32 index) const {
    check(index);
    return slots_[index].value;
  }
  /// Replaces the value of the member at index, keeping its place in the queue.
  void valueIs(U32 index, V const& v) {
    check(index);
    slots_[index].value = v;
  }
  bool contains(U32 index) const { return index < slots_.size() && slots_[index].used; }
  /// Removes the member at index. Throws "linkqueue index out of range".
  void remove(U32 index) {
    check(index);
    slots_[index] = Slot{};
    if (order_.front() == index) {
      order_.pop_front();
    } else {
      order_.erase(std::find(order_.begin(), order_.end(), index));
    }
    holes_.insert(index);
    // Give back trailing unused slots so a drained queue holds no memory.
    while (!slots_.empty() && !slots_.back().used) {
      holes_.erase(static_cast<U32>(slots_.size() - 1));
      slots_.pop_back();
    }
  }
  bool empty() const { return order_.empty(); }
  std::size_t members() const { return order_.size(); }
  /// The oldest member's index; precondition: not empty.
  U32 front() const { return order_.front(); }
  V popFront() {
    U32 const i = front();
    V v = slots_[i].value;
    remove(i);
    return v;
  }
  template <class F>
  void forEach(F&& f) const {
    for (U32 i : std::vector<U32>(order_.begin(), order_.end()))
      if (i < slots_.size() && slots_[i].used) f(i, slots_[i].value);
  }

 private:
  struct Slot {
    bool used = false;
    V value{};
  };
  void check(U32 index) const {
    if (index >= slots_.size() || !slots_[index].used) throwRangeException("linkqueue index out of range");
  }
  U32 space_;
  std::vector<Slot> slots_;
  std::set<U32> holes_;  // unused indices below slots_.size()
  std::deque<U32> order_;
};

/// A growable array indexed by an integer: reading past the end yields the default
/// value, writing past the end grows it.
template <class V, class I = U32>
class DynArray {
 public:
  V operator[](I i) const { return i < v_.size() ? v_[i] : V(); }
  V at(I i) const { return (*this)[i]; }
  void elementIs(I i, V const& v) {
    if (i >= v_.size()) v_.resize(static_cast<std::size_t>(i) + 1);
    v_[i] = v;
  }
  I size() const { return static_cast<I>(v_.size()); }
  void sizeIs(I n) { v_.resize(n); }
  V* data() { return v_.data(); }
  V const* data() const { return v_.data(); }

 private:
  std::vector<V> v_;
};

}  // namespace Quor
