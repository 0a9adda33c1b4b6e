// What the frameworks of this folder build their own CoreFoundation types on.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <utility>

namespace platform {

// A CFTypeRef points to one of these. A type derives from it and from nothing else, so that the address of
// the object is the address of its CFObject.
class CFObject {
 public:
  enum class Lifetime : bool { counted, endless };

  CFObject(const CFObject&) = delete;
  CFObject& operator=(const CFObject&) = delete;

  virtual CFTypeID typeId() const = 0;
  // Asked only of objects of the same type.
  virtual bool equals(const CFObject& other) const { return this == &other; }
  virtual CFHashCode hash() const { return reinterpret_cast<CFHashCode>(this); }

  void retain() const noexcept {
    if (lifetime_ == Lifetime::counted) references_.fetch_add(1, std::memory_order_relaxed);
  }
  void release() const noexcept {
    if (lifetime_ == Lifetime::endless) return;
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  CFIndex retainCount() const noexcept { return references_.load(std::memory_order_relaxed); }

 protected:
  constexpr explicit CFObject(Lifetime lifetime = Lifetime::counted) noexcept : lifetime_(lifetime) {}
  constexpr virtual ~CFObject() = default;

 private:
  mutable std::atomic<CFIndex> references_{1};
  const Lifetime lifetime_;
};

inline const CFObject& object(CFTypeRef cf) {
  return *static_cast<const CFObject*>(cf);
}

// The identity of a type: one address a type.
template <class T>
CFTypeID typeIdOf() {
  static char mark;
  return reinterpret_cast<CFTypeID>(&mark);
}

// Storage for a process-wide object whose destructor never runs: threads may use it while the process ends.
template <class T>
union Endless {
  template <class... Arguments>
  constexpr explicit Endless(Arguments&&... arguments) : value(std::forward<Arguments>(arguments)...) {}
  constexpr ~Endless() {}
  T value;
};

}  // namespace platform
