#include <CoreFoundation/CFRunLoopSource.h>
#include <gtest/gtest.h>

#include <array>
#include <thread>

namespace {

CFStringRef makeString(const char* text) {
  return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8);
}

}  // namespace

TEST(CoreFoundation, StringsAreUtf8AndConstantsAreOneObject) {
  CFStringRef string = makeString("Zoë");
  EXPECT_STREQ(CFStringGetCStringPtr(string, kCFStringEncodingUTF8), "Zoë");
  std::array<char, 5> exact;
  EXPECT_TRUE(CFStringGetCString(string, exact.data(), exact.size(), kCFStringEncodingUTF8));
  EXPECT_STREQ(exact.data(), "Zoë");
  EXPECT_FALSE(CFStringGetCString(string, exact.data(), exact.size() - 1, kCFStringEncodingUTF8));
  EXPECT_EQ(makeString("\xff\xfe"), nullptr);

  EXPECT_EQ(CFSTR("Zoë"), CFSTR("Zoë"));
  EXPECT_TRUE(CFEqual(string, CFSTR("Zoë")));
  EXPECT_EQ(CFHash(string), CFHash(CFSTR("Zoë")));
  EXPECT_FALSE(CFEqual(string, kCFBooleanTrue));
  // A constant outlives any number of releases.
  for (int i = 0; i < 3; ++i) CFRelease(CFSTR("Zoë"));
  EXPECT_STREQ(CFStringGetCStringPtr(CFSTR("Zoë"), kCFStringEncodingUTF8), "Zoë");
  CFRelease(string);
}

TEST(CoreFoundation, NumbersSayWhetherTheyFit) {
  for (const int64_t value : {int64_t{0x1'0000'0005}, int64_t{-7}}) {
    CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value);
    int32_t narrow = 0;
    int64_t wide = 0;
    EXPECT_EQ(CFNumberGetValue(number, kCFNumberSInt32Type, &narrow), value < 0);
    EXPECT_EQ(narrow, static_cast<int32_t>(value));
    EXPECT_TRUE(CFNumberGetValue(number, kCFNumberSInt64Type, &wide));
    EXPECT_EQ(wide, value);
    CFRelease(number);
  }
}

TEST(CoreFoundation, DictionariesFindEqualKeysAndKeepTheirObjects) {
  CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
  CFStringRef key = makeString("Width");
  CFStringRef value = makeString("wide");
  CFDictionarySetValue(dictionary, key, value);
  EXPECT_EQ(CFGetRetainCount(key), 2);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, CFSTR("Width")), value);
  CFDictionarySetValue(dictionary, CFSTR("Width"), kCFBooleanTrue);
  EXPECT_EQ(CFDictionaryGetCount(dictionary), 1);
  EXPECT_EQ(CFGetRetainCount(value), 1);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, key), kCFBooleanTrue);
  EXPECT_EQ(CFDictionaryGetValue(dictionary, CFSTR("Height")), nullptr);
  CFDictionarySetValue(dictionary, CFSTR("Name"), value);
  CFRelease(dictionary);
  for (CFStringRef object : {key, value}) {
    EXPECT_EQ(CFGetRetainCount(object), 1);
    CFRelease(object);
  }
}

TEST(CoreFoundation, RunLoopsRunTheirSourcesOnTheirThreadUntilTheyAreStopped) {
  struct Source final : __CFRunLoopSource {
    ~Source() override { g_main_context_unref(context); }
    void schedule(GMainContext* runLoopContext) override { context = g_main_context_ref(runLoopContext); }
    GMainContext* context = nullptr;
  };

  CFRunLoopRun();  // Returns: there is nothing to wait for.

  auto* source = new Source;
  CFRunLoopRef runLoop = CFRunLoopGetCurrent();
  EXPECT_EQ(runLoop, CFRunLoopGetCurrent());
  CFRunLoopAddSource(runLoop, source, kCFRunLoopCommonModes);
  EXPECT_EQ(CFGetRetainCount(source), 2);

  std::thread::id ranOn;
  std::thread other([&] {
    EXPECT_NE(CFRunLoopGetCurrent(), runLoop);
    const auto callback = [](gpointer result) -> gboolean {
      *static_cast<std::thread::id*>(result) = std::this_thread::get_id();
      CFRunLoopStop(CFRunLoopGetCurrent());
      return G_SOURCE_REMOVE;
    };
    g_main_context_invoke(source->context, callback, &ranOn);
  });
  CFRunLoopRun();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  other.join();

  std::thread stopper([&] { CFRunLoopStop(runLoop); });
  CFRunLoopRun();
  stopper.join();
  CFRelease(source);
}
