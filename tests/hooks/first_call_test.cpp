// The very first call in a process, which is why this is a program of its own.
#include <gtest/gtest.h>
#include <mach-o/dyld.h>

#include "mapped_image.h"
#include "symbol_rebinding.h"

namespace {

int replacement(int guest) {
  return guest + 1000;
}
int newerReplacement(int guest) {
  return guest + 2000;
}

TEST(FirstCall, RegistersAndReachesImagesBeforeAndAfter) {
  const auto before = loadDoorman("lazy");
  const auto constBefore = loadDoorman("const");
  void* original = nullptr;
  const SymbolRebinding rebinding{"open_door", address(replacement), &original};
  ASSERT_EQ(rebindSymbols(&rebinding, 1), 0);
  const auto after = loadDoorman("chained");
  for (const auto* image : {&before, &constBefore, &after}) {
    EXPECT_EQ(call(**image, "callOpen", 1), 1001);
    EXPECT_EQ(call(**image, "callRing", 1), 201);
  }
  EXPECT_EQ(original, address(openDoor));

  // A later call goes over every image with both.
  const SymbolRebinding newer{"ring_bell", address(newerReplacement), nullptr};
  ASSERT_EQ(rebindSymbols(&newer, 1), 0);
  const auto last = loadDoorman("auth");
  for (const auto* image : {&before, &constBefore, &after, &last}) {
    EXPECT_EQ(call(**image, "callOpen", 1), 1001);
    EXPECT_EQ(call(**image, "callRing", 1), 2001);
  }
}

}  // namespace
