// Reactors that forward to an owner through a raw pointer.
//
// An entity keeps its nested reactors alive; a reactor must not keep its owner alive
// (that would be a cycle), so it holds a raw pointer which the owner clears
// (ownerIs(nullptr)) when it is deleted. During a call both are held: the call may end
// the reactor's descriptor or drop the owner's last outside reference.
#pragma once
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

/// Calls (owner->*onReadable)(this) when the descriptor is readable and
/// (owner->*onWritable)(this) when writable (either may be null).
template <class Owner, class Self, void (Owner::*onReadable)(Self*), void (Owner::*onWritable)(Self*) = nullptr>
class OwnerDescriptorReactor : public FileDescriptor::NotifieeConst {
 public:
  explicit OwnerDescriptorReactor(Owner* owner) : owner_(owner) {}
  Owner* owner() const { return owner_; }
  void ownerIs(Owner* o) { owner_ = o; }
  void onReadableCount() override { call(onReadable); }
  void onWritableCount() override { call(onWritable); }

 private:
  void call(void (Owner::*h)(Self*)) {
    if (!h || !owner_ || !notifier()) return;
    Ptr<OwnerDescriptorReactor> const self(this);
    Ptr<Owner> const owner(owner_);
    (owner.ptr()->*h)(static_cast<Self*>(this));
  }
  Owner* owner_;
};

}  // namespace Quor
