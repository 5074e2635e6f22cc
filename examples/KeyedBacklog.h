// A keyed backlog on Vell::CodefBase: the model to copy for a reactor that coalesces.
//
// updateIs(key, value) notes the latest value of a key; a later update to a key that
// is still waiting replaces its value in place (one entry, one handling), so a burst
// of updates to a few hot keys costs one handler call per key. Entries are served in
// the order their keys first arrived, so a key that keeps changing cannot push the
// others back. The handler runs in slices of backlogQuantum on the clock's loop; at
// least one entry is handled per slice, however small the quantum.
//
//   auto backlog = VellExample::keyedBacklogFactory<std::string, int>(
//       clock, 0.002, [](std::string const& key, int const& value) { ... });
//   backlog->updateIs("eth0", 1);  // the loop calls the handler later
//
// The handler may call updateIs (on any key, the one being handled included: that
// queues a fresh entry) and may drop the last reference to the backlog. If it throws,
// the entry goes back to the front, unless a newer value for its key has arrived
// meanwhile, and the exception leaves the loop.
#pragma once
#include <functional>
#include <list>
#include <unordered_map>
#include <utility>

#include <Vell/CodefBase.h>

namespace VellExample {

template <class Key, class Value, class Hash = std::hash<Key>>
class KeyedBacklog : public Vell::CodefBase {
 public:
  using Handler = std::function<void(Key const&, Value const&)>;

  /// Notes the latest value of `key` and wakes the slice loop.
  void updateIs(Key const& key, Value const& value) {
    updatesSeenInc(1);
    auto it = index_.find(key);
    if (it != index_.end()) {
      it->second->second = value;  // coalesced: the entry keeps its place
    } else {
      order_.emplace_back(key, value);
      index_.emplace(key, std::prev(order_.end()));
    }
    doArmClock();
  }
  /// True when `key` has an entry waiting.
  bool isPending(Key const& key) const { return index_.count(key) != 0; }
  /// The value waiting for `key`, or null.
  Value const* pendingValue(Key const& key) const {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &it->second->second;
  }

  Vell::U64 backlogSize() override { return order_.size(); }

  Vell::U64 processBacklog(double const& start) override {
    Vell::U64 handled = 0;
    while (!order_.empty()) {
      if (handled > 0 && Quor::now() - start >= backlogQuantum()) break;
      // Take the entry out before the call: an update from inside the handler then
      // queues a new entry instead of being erased with this one.
      std::pair<Key, Value> entry = std::move(order_.front());
      index_.erase(entry.first);
      order_.pop_front();
      try {
        handler_(entry.first, entry.second);
      } catch (...) {
        if (!index_.count(entry.first)) {
          order_.push_front(std::move(entry));
          index_.emplace(order_.front().first, order_.begin());
        }
        throw;
      }
      ++handled;
    }
    return handled;
  }

  /// Use keyedBacklogFactory.
  KeyedBacklog(Quor::Ptr<Quor::Clock const> const& clock, Quor::Seconds quantum, Handler handler)
      : CodefBase(clock), handler_(std::move(handler)) {
    Quor::checkNotNull("VellExample::KeyedBacklog", "handler", handler_);
    backlogQuantumIs(quantum);
  }

 private:
  using Order = std::list<std::pair<Key, Value>>;
  Handler handler_;
  Order order_;                                                 // first-arrival order
  std::unordered_map<Key, typename Order::iterator, Hash> index_;  // key -> its entry
};

/// A keyed backlog on `clock` with slices of `quantum` seconds, handing each entry's
/// key and latest value to `handler`. Throws Quor::RangeException on a null clock or
/// handler, or a quantum outside [0, 3600].
template <class Key, class Value, class Hash = std::hash<Key>>
Quor::Ptr<KeyedBacklog<Key, Value, Hash>> keyedBacklogFactory(
    Quor::Ptr<Quor::Clock const> const& clock, Quor::Seconds quantum,
    typename KeyedBacklog<Key, Value, Hash>::Handler handler) {
  return Quor::makeEntity<KeyedBacklog<Key, Value, Hash>>(clock, quantum, std::move(handler));
}

}  // namespace VellExample
