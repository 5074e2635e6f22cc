// Reactors that forward to an owner through a raw pointer.
//
// An entity keeps its nested reactors alive; a reactor must not keep its owner alive
// (that would be a cycle), so it holds a raw pointer which the owner clears
// (ownerIs(nullptr)) when it is deleted. During a call both are held: the call may end
// the reactor's descriptor or drop the owner's last outside reference.
#pragma once
#include <type_traits>

#include <Quor/Activity.h>

namespace Quor {

/// Calls (owner->*handler)() once each time the clock reaches timeMin.
template <class Owner, void (Owner::*handler)()>
class OwnerClockReactor : public Clock::NotifieeConst {
 public:
  explicit OwnerClockReactor(Owner* owner) : owner_(owner) {}
  Owner* owner() const { return owner_; }
  void ownerIs(Owner* o) { owner_ = o; }
  void onTime() override {
    if (!owner_) return;
    Ptr<OwnerClockReactor> const self(this);
    Ptr<Owner> const owner(owner_);
    (owner.ptr()->*handler)();
  }

 private:
  Owner* owner_;
};

/// Calls onReadable on the owner when the descriptor is readable and onWritable when
/// writable (nullptr: nothing). A handler takes no argument, or this reactor (Self*).
template <class Owner, class Self, auto onReadable, auto onWritable = nullptr>
class OwnerDescriptorReactor : public FileDescriptor::NotifieeConst {
 public:
  explicit OwnerDescriptorReactor(Owner* owner) : owner_(owner) {}
  Owner* owner() const { return owner_; }
  void ownerIs(Owner* o) { owner_ = o; }
  void onReadableCount() override { call<onReadable>(); }
  void onWritableCount() override { call<onWritable>(); }

 private:
  template <auto handler>
  void call() {
    if constexpr (!std::is_null_pointer_v<decltype(handler)>) {
      if (!owner_ || !notifier()) return;
      Ptr<OwnerDescriptorReactor> const self(this);
      Ptr<Owner> const owner(owner_);
      if constexpr (std::is_invocable_v<decltype(handler), Owner*, Self*>) (owner.ptr()->*handler)(static_cast<Self*>(this));
      else (owner.ptr()->*handler)();
    }
  }
  Owner* owner_;
};

/// Detaches an owner's reactor from its owner and its notifier and lets it go; a null
/// reactor is left alone. What every owner does with its reactors when it is deleted.
template <class R>
void releaseOwnerReactor(Ptr<R>& r) {
  if (!r) return;
  r->ownerIs(nullptr);
  r->notifierIs(nullptr);
  r = nullptr;
}

}  // namespace Quor
