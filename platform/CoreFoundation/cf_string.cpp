#include <CoreFoundation/cf_runtime.h>
#include <glib.h>

#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

struct __CFString final : platform::CFObject {
  explicit __CFString(std::string_view content, Lifetime lifetime = Lifetime::counted)
      : CFObject(lifetime), text(content) {}

  CFTypeID typeId() const override { return CFStringGetTypeID(); }
  bool equals(const CFObject& other) const override {
    return text == static_cast<const __CFString&>(other).text;
  }
  CFHashCode hash() const override { return std::hash<std::string>{}(text); }

  const std::string text;
};

CFTypeID CFStringGetTypeID(void) {
  return platform::typeIdOf<__CFString>();
}

CFStringRef __CFStringMakeConstantString(const char* cStr) {
  static auto& lock = *new std::mutex;
  static auto& constants = *new std::unordered_map<std::string_view, CFStringRef>;

  const std::lock_guard guard(lock);
  if (const auto known = constants.find(cStr); known != constants.end()) return known->second;
  const auto* made = new __CFString(cStr, platform::CFObject::Lifetime::endless);
  return constants.emplace(made->text, made).first->second;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* cStr, CFStringEncoding encoding) {
  if (encoding != kCFStringEncodingUTF8 || g_utf8_validate(cStr, -1, nullptr) == FALSE) return nullptr;
  return new __CFString(cStr);
}

const char* CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding) {
  return encoding == kCFStringEncodingUTF8 ? theString->text.c_str() : nullptr;
}
