// Notifiees (reactors) and the notifier's list of them.
//
// A notifier keeps raw pointers to its reactors: a reactor does not keep itself alive
// through the list, but it holds a Ptr to its notifier. Delivery is synchronous and
// walks the list under an iterating guard: a reactor may attach or detach itself or
// others while being called. Detached members are nulled and swept when the outermost
// walk ends; members attached during a walk are first called by the next one.
#pragma once
#include <algorithm>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include <Quor/Ptr.h>

namespace Quor {

/// A reference to a value of a type known only at run time: how a tap sees a reaction
/// (a member-function pointer) and its argument without a reactor class of its own.
struct Erased {
  void const* p = nullptr;
  std::type_info const* type = nullptr;
  template <class X>
  X const* as() const { return type && *type == typeid(X) ? static_cast<X const*>(p) : nullptr; }
};

/// Hears every notification of one notifier, after its reactors: mirrors and logs follow
/// an entity this way. Taps are rare, so a list without taps pays one empty check.
class NotifieeTap {
 public:
  virtual ~NotifieeTap() = default;
  /// reaction holds the reactor's member-function pointer; key the first argument (if any).
  virtual void onTap(Erased reaction, Erased key) = 0;
};

template <class N>
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(NotifieeList const&) = delete;
  NotifieeList& operator=(NotifieeList const&) = delete;

  void add(N* n) {
    if (std::find(v_.begin(), v_.end(), n) == v_.end()) v_.push_back(n);
  }
  /// Returns false when n was not a member.
  bool remove(N* n) {
    auto it = std::find(v_.begin(), v_.end(), n);
    if (it == v_.end()) return false;
    if (depth_) {
      *it = nullptr;
      swept_ = true;
    } else {
      v_.erase(it);
    }
    return true;
  }
  std::size_t size() const {
    return static_cast<std::size_t>(std::count_if(v_.begin(), v_.end(), [](N* n) { return n; }));
  }
  bool empty() const { return v_.empty() || size() == 0; }

  /// Calls f(n) on each member present when the walk starts and still present when
  /// its turn comes.
  template <class F>
  void forEach(F&& f) {
    std::size_t const n = v_.size();
    ++depth_;
    struct Guard {
      NotifieeList* l;
      ~Guard() {
        if (--l->depth_ == 0 && l->swept_) {
          l->v_.erase(std::remove(l->v_.begin(), l->v_.end(), nullptr), l->v_.end());
          l->swept_ = false;
        }
      }
    } guard{this};
    for (std::size_t i = 0; i < n && i < v_.size(); ++i)
      if (N* m = v_[i]) f(m);
  }
  /// Calls the reaction (a member function of N) on every member, then every tap.
  template <class... P, class... A>
  void notify(void (N::*reaction)(P...), A const&... args) {
    forEach([&](N* m) { (m->*reaction)(args...); });
    if (!taps_.empty()) tell(reaction, args...);
  }

  void tapIs(NotifieeTap* t) {
    if (std::find(taps_.begin(), taps_.end(), t) == taps_.end()) taps_.push_back(t);
  }
  void tapDel(NotifieeTap* t) { taps_.erase(std::remove(taps_.begin(), taps_.end(), t), taps_.end()); }

 private:
  // The key is passed as the reaction's own parameter type, whatever the caller passed.
  template <class... P, class... A>
  void tell(void (N::*const& reaction)(P...), A const&... args) {
    Erased const r{&reaction, &typeid(reaction)};
    if constexpr (sizeof...(P) > 0) {
      using K = std::decay_t<std::tuple_element_t<0, std::tuple<P...>>>;
      K const key(std::get<0>(std::forward_as_tuple(args...)));
      tellAll(r, Erased{&key, &typeid(K)});
    } else {
      tellAll(r, Erased{});
    }
  }
  void tellAll(Erased r, Erased k) {
    std::vector<NotifieeTap*> const snapshot = taps_;  // a tap may remove itself
    for (NotifieeTap* t : snapshot)
      if (std::find(taps_.begin(), taps_.end(), t) != taps_.end()) t->onTap(r, k);
  }
  std::vector<NotifieeTap*> taps_;
  std::vector<N*> v_;
  unsigned depth_ = 0;
  bool swept_ = false;
};

/// Base of a reactor on notifier type Notifier; Self is the derived NotifieeConst class.
/// The notifier exposes `NotifieeList<Self>& notifiees() const`.
template <class Notifier, class Self>
class BaseNotifiee : public PtrInterface {
 public:
  ~BaseNotifiee() override { detach(); }

  Ptr<Notifier const> const& notifier() const { return notifier_; }
  /// Attaches to n (null detaches). Attaching to the present notifier does nothing.
  void notifierIs(Ptr<Notifier const> const& n) {
    if (n == notifier_) return;
    detach();
    notifier_ = n;
    if (notifier_) {
      self_ = static_cast<Self*>(this);
      notifier_->notifiees().add(self_);
    }
  }

 private:
  // Detaching uses the pointer recorded at attach time: in the destructor the derived
  // part is gone and a downcast would be undefined.
  void detach() {
    if (notifier_) notifier_->notifiees().remove(self_);
    notifier_ = nullptr;
  }
  Ptr<Notifier const> notifier_;
  Self* self_ = nullptr;
};

/// Sets an attribute and notifies: unchanged values do nothing and notify nobody.
/// Returns true when the value changed.
template <class T, class U, class L, class N, class... P>
bool attrIs(T& field, U const& value, L& list, void (N::*reaction)(P...)) {
  if (field == value) return false;
  field = value;
  list.notify(reaction);
  return true;
}

}  // namespace Quor
