// Intrusive reference counting: the base of every shared object and its smart pointer.
//
// One 32-bit reference word per object. The low bits count references; bits 31 and 29
// are flags and never count (hence the 0x5fffffff mask). An object whose word has the
// top byte 0x1f is static: taking and dropping references leaves it alone and it is
// never freed.
#pragma once
#include <atomic>
#include <cstddef>
#include <utility>

#include <Quor/Types.h>

namespace Quor {

struct TypeRecord;

class QUOR_API PtrInterface {
 public:
  static constexpr U32 countMask = 0x5fffffff;
  static constexpr U32 destroyingBit = 0x80000000u;
  static constexpr U32 staticMarker = 0x1f000000u;

  PtrInterface() = default;
  PtrInterface(PtrInterface const&) : ref_(0) {}  // a copy starts with its own count
  PtrInterface& operator=(PtrInterface const&) { return *this; }
  virtual ~PtrInterface() = default;

  /// The reference count, flags masked off.
  U32 references() const { return ref_.load(std::memory_order_relaxed) & countMask; }
  /// True while the last reference has gone and the object is being destroyed.
  bool isDestroying() const { return ref_.load(std::memory_order_relaxed) & destroyingBit; }
  bool isStatic() const { return (ref_.load(std::memory_order_relaxed) >> 24) == (staticMarker >> 24); }
  /// Marks a statically allocated object: it is never counted nor freed.
  void staticIs() { ref_.store(staticMarker, std::memory_order_relaxed); }

  void newRef() const {
    if (isStatic()) return;
    ref_.fetch_add(1, std::memory_order_relaxed);
  }
  void deleteRef() const {
    if (isStatic()) return;
    U32 const now = (ref_.fetch_sub(1, std::memory_order_acq_rel) - 1) & countMask;
    if (now == 0) const_cast<PtrInterface*>(this)->handleZeroRef();
  }

  /// Switches delivery of notifications to this object's reactors on or off.
  virtual void hasNotificationActiveIs(bool) {}
  /// The class's type record (Quor/Type.h), or null for a class that declares none.
  virtual TypeRecord const* fwkType() const { return nullptr; }

 protected:
  /// Called once when the last reference goes, before the object is freed. An
  /// entity releases what it holds here. It must not make new Ptrs to itself.
  virtual void handleDel() {}

 private:
  void handleZeroRef() {
    ref_.fetch_or(destroyingBit, std::memory_order_acq_rel);
    handleDel();
    delete this;
  }
  mutable std::atomic<U32> ref_{0};
};

/// Intrusive smart pointer; T may be const. A null Ptr is allowed.
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) : p_(p) { if (p_) p_->newRef(); }
  Ptr(Ptr const& o) : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(Ptr<U> const& o) : Ptr(o.ptr()) {}
  ~Ptr() { if (p_) p_->deleteRef(); }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  template <class U>
  bool operator==(Ptr<U> const& o) const { return p_ == o.ptr(); }
  bool operator==(T const* o) const { return p_ == o; }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) { return Ptr<T>(dynamic_cast<T*>(p.ptr())); }

}  // namespace Quor
