#include <CoreFoundation/cf_runtime.h>

#include <cstring>

struct __CFNumber final : platform::CFObject {
  explicit __CFNumber(int64_t number) : value(number) {}

  CFTypeID typeId() const override { return CFNumberGetTypeID(); }
  bool equals(const CFObject& other) const override {
    return value == static_cast<const __CFNumber&>(other).value;
  }
  CFHashCode hash() const override { return static_cast<CFHashCode>(value); }

  const int64_t value;
};

struct __CFBoolean final : platform::CFObject {
  constexpr __CFBoolean() : CFObject(Lifetime::endless) {}

  CFTypeID typeId() const override { return CFBooleanGetTypeID(); }
};

namespace {

constinit platform::Endless<__CFBoolean> yes;
constinit platform::Endless<__CFBoolean> no;

}  // namespace

const CFBooleanRef kCFBooleanTrue = &yes.value;
const CFBooleanRef kCFBooleanFalse = &no.value;

CFTypeID CFNumberGetTypeID(void) {
  return platform::typeIdOf<__CFNumber>();
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType theType, const void* valuePtr) {
  switch (theType) {
    case kCFNumberSInt32Type:
    case kCFNumberIntType:
      return new __CFNumber(*static_cast<const int32_t*>(valuePtr));
    case kCFNumberSInt64Type:
      return new __CFNumber(*static_cast<const int64_t*>(valuePtr));
    default:
      return nullptr;
  }
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr) {
  switch (theType) {
    case kCFNumberSInt32Type:
    case kCFNumberIntType: {
      const auto narrow = static_cast<int32_t>(number->value);
      std::memcpy(valuePtr, &narrow, sizeof narrow);
      return narrow == number->value;
    }
    case kCFNumberSInt64Type:
      std::memcpy(valuePtr, &number->value, sizeof number->value);
      return true;
    default:
      return false;
  }
}

CFTypeID CFBooleanGetTypeID(void) {
  return platform::typeIdOf<__CFBoolean>();
}
