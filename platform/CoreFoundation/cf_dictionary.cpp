#include <CoreFoundation/cf_runtime.h>

#include <algorithm>
#include <vector>

namespace {

const void* retain(CFAllocatorRef, const void* value) {
  return CFRetain(value);
}
void release(CFAllocatorRef, const void* value) {
  CFRelease(value);
}

}  // namespace

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {0, retain, release, nullptr, CFEqual, CFHash};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0, retain, release, nullptr, CFEqual};

// Attributes come by the handful, so a pair is found by looking at one after the other.
struct __CFDictionary final : platform::CFObject {
  struct Pair {
    const void* key;
    const void* value;
  };

  __CFDictionary(const CFDictionaryKeyCallBacks* keyCallBacks,
                 const CFDictionaryValueCallBacks* valueCallBacks) {
    if (keyCallBacks) keys = *keyCallBacks;
    if (valueCallBacks) values = *valueCallBacks;
  }
  ~__CFDictionary() override {
    for (const Pair& pair : pairs) {
      if (keys.release) keys.release(nullptr, pair.key);
      if (values.release) values.release(nullptr, pair.value);
    }
  }

  CFTypeID typeId() const override { return CFDictionaryGetTypeID(); }

  const Pair* find(const void* key) const {
    const auto found = std::find_if(pairs.begin(), pairs.end(), [&](const Pair& pair) {
      return pair.key == key || (keys.equal && keys.equal(pair.key, key));
    });
    return found == pairs.end() ? nullptr : &*found;
  }

  void set(const void* key, const void* value) {
    const void* kept = values.retain ? values.retain(nullptr, value) : value;
    if (auto* pair = const_cast<Pair*>(find(key))) {
      const void* former = std::exchange(pair->value, kept);
      if (values.release) values.release(nullptr, former);
    } else {
      pairs.push_back({keys.retain ? keys.retain(nullptr, key) : key, kept});
    }
  }

  std::vector<Pair> pairs;
  CFDictionaryKeyCallBacks keys = {};
  CFDictionaryValueCallBacks values = {};
};

CFTypeID CFDictionaryGetTypeID(void) {
  return platform::typeIdOf<__CFDictionary>();
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex,
                                                 const CFDictionaryKeyCallBacks* keyCallBacks,
                                                 const CFDictionaryValueCallBacks* valueCallBacks) {
  return new __CFDictionary(keyCallBacks, valueCallBacks);
}

const void* CFDictionaryGetValue(CFDictionaryRef theDict, const void* key) {
  const auto* pair = theDict->find(key);
  return pair ? pair->value : nullptr;
}

void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void* key, const void* value) {
  theDict->set(key, value);
}
