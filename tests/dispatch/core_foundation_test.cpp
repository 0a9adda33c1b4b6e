#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

TEST(CoreFoundation, StringsAreUtf8AndConstantsAreOneObject) {
  CFStringRef string = CFStringCreateWithCString(kCFAllocatorDefault, "Zoë", kCFStringEncodingUTF8);
  EXPECT_STREQ(CFStringGetCStringPtr(string, kCFStringEncodingUTF8), "Zoë");
  EXPECT_EQ(CFStringCreateWithCString(kCFAllocatorDefault, "\xff\xfe", kCFStringEncodingUTF8), nullptr);

  EXPECT_EQ(CFSTR("Zoë"), CFSTR("Zoë"));
  EXPECT_TRUE(CFEqual(string, CFSTR("Zoë")));
  EXPECT_FALSE(CFEqual(string, kCFBooleanTrue));
  // A constant outlives any number of releases.
  for (int i = 0; i < 3; ++i) CFRelease(CFSTR("Zoë"));
  EXPECT_STREQ(CFStringGetCStringPtr(CFSTR("Zoë"), kCFStringEncodingUTF8), "Zoë");
  CFRelease(string);
}
