// Entities: named objects with attributes, made by factories and held by Ptr.
#pragma once
#include <Quor/Assert.h>
#include <Quor/Notifiee.h>
#include <Quor/String.h>

namespace Quor {

class QUOR_API Entity : public PtrInterface {
 public:
  explicit Entity(Name name = Name()) : name_(std::move(name)) {}
  Name const& name() const { return name_; }
  Ptr<Entity const> parent() const { return parent_; }
  void parentIs(Ptr<Entity const> const& p) { parent_ = p; }

  /// True once handleInitialized() has run.
  bool initialized() const { return initialized_; }
  /// Notification delivery for this entity's reactors.
  bool hasNotificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool b) override { notificationActive_ = b; }

 protected:
  /// Set-up after construction; each entity runs it once.
  virtual void handleInitialized() {
    QUOR_ASSERT(!initialized());
    initialized_ = true;
  }
  void initializedIs(bool b) { initialized_ = b; }

 private:
  Name name_;
  Ptr<Entity const> parent_;
  bool initialized_ = false;
  bool notificationActive_ = false;
};

/// The factory's common steps: construct (bounds are checked there; an exception frees
/// the memory and returns nothing), take the reference, switch notification on.
template <class T, class... A>
Ptr<T> makeEntity(A&&... args) {
  Ptr<T> p(new T(std::forward<A>(args)...));
  p->hasNotificationActiveIs(true);
  return p;
}

}  // namespace Quor
