// Rebinding in images of this processor, whose functions are called, and of the other one, whose tables are
// compared.
#include <gtest/gtest.h>
#include <mach/mach.h>
#include <sys/mman.h>

#include <atomic>
#include <thread>

#include "mapped_image.h"
#include "rebinding_index.h"
#include "symbol_rebinding.h"

using platform::LoadedImage;

// A sanitizer's allocator answers a request that is too large as any other does.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

int replaceOne(int guest) {
  return guest + 1000;
}
int replaceTwo(int guest) {
  return guest + 2000;
}

int32_t rebindIn(const LoadedImage& image, const std::vector<SymbolRebinding>& rebindings) {
  return rebindSymbolsInImage(image.header(), image.slide(), rebindings.data(), rebindings.size());
}

int callStored(void* function, int guest) {
  return reinterpret_cast<GuestFunction*>(function)(guest);
}

// Gives the page of an image's table another protection.
void protectPageOf(const void* entry, int protection) {
  const uintptr_t page = reinterpret_cast<uintptr_t>(entry) / vm_page_size * vm_page_size;
  ASSERT_EQ(mprotect(reinterpret_cast<void*>(page), vm_page_size, protection), 0);
}

std::string layoutName(const testing::TestParamInfo<std::string>& layout) {
  return layout.param;
}

class Rebinding : public testing::TestWithParam<std::string> {};

TEST_P(Rebinding, RedirectsStubsAndPointersAndKeepsTheOriginal) {
  const auto image = loadDoorman(GetParam());
  ASSERT_EQ(call(*image, "callOpen", 1), 101);
  ASSERT_EQ(image->function<int()>("bellCount")(), 7);
  void* opened = nullptr;
  void* rang = nullptr;
  EXPECT_EQ(rebindIn(*image, {{"open_door", address(replaceOne), &opened},
                              {"ring_bell", address(replaceTwo), &rang}}),
            0);
  EXPECT_EQ(call(*image, "callOpen", 1), 1001);
  EXPECT_EQ(call(*image, "callRing", 1), 2001);
  EXPECT_EQ(callStored(image->function<void*()>("bellAddress")(), 1), 2001);
  ASSERT_NE(opened, nullptr);
  ASSERT_NE(rang, nullptr);
  EXPECT_EQ(callStored(opened, 1), 101);
  EXPECT_EQ(callStored(rang, 1), 201);
  // The image's own tables are data like any other.
  EXPECT_EQ(image->function<int(int, int)>("callTable")(0, 1), 101);
  EXPECT_EQ(image->function<int(int, int)>("callTable")(2, 1), -1);
  EXPECT_EQ(image->function<int(int, int)>("callConstantTable")(0, 1), 201);
}

TEST_P(Rebinding, ChangesOnlyTheNamedSlotsOfEitherProcessor) {
  for (const auto& processor : {kThisProcessor, kOtherProcessor}) {
    const auto image = loadDoorman(GetParam(), processor);
    const auto slots = slotsOf(*image);
    std::vector<void*> before;
    for (const auto& slot : slots) before.push_back(*slot.address);

    void* original = nullptr;
    rebindIn(*image, {{"ring_bell", address(replaceOne), &original}});
    EXPECT_EQ(original, address(ringBell)) << processor;
    size_t named = 0;
    for (size_t i = 0; i < slots.size(); ++i) {
      const bool isNamed = slots[i].symbol == "_ring_bell";
      named += isNamed;
      EXPECT_EQ(*slots[i].address, isNamed ? address(replaceOne) : before[i])
          << processor << " " << slots[i].section << " " << slots[i].symbol;
    }
    // Classic images call through a lazy pointer and take the address from another.
    EXPECT_EQ(named, GetParam() == "lazy" || GetParam() == "const" ? 2U : 1U);
  }
}

TEST_P(Rebinding, LeavesProtectionsAsTheyWere) {
  for (const int madeBefore : {0, PROT_READ | PROT_WRITE, PROT_READ | PROT_EXEC}) {
    const auto image = loadDoorman(GetParam());
    std::map<void**, vm_prot_t> before;
    for (const auto& slot : slotsOf(*image)) {
      // Only a read-only section may be found without the right to write.
      if (slot.segment != "__DATA" && madeBefore != 0) protectPageOf(slot.address, madeBefore);
      before[slot.address] = protectionAt(slot.address);
      if (slot.segment == "__DATA_CONST" && madeBefore == 0) {
        EXPECT_EQ(before[slot.address], VM_PROT_READ);
      }
    }
    rebindIn(*image, {{"open_door", address(replaceOne), nullptr}});
    EXPECT_EQ(call(*image, "callOpen", 1), 1001);
    for (const auto& [slot, protection] : before) EXPECT_EQ(protectionAt(slot), protection);
  }
}

TEST_P(Rebinding, PassesOverLocalAndAbsoluteEntries) {
  for (const uint32_t mark : {INDIRECT_SYMBOL_LOCAL, static_cast<uint32_t>(INDIRECT_SYMBOL_ABS),
                              INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS}) {
    const auto image = loadDoorman(GetParam());
    for (const auto& slot : slotsOf(*image)) {
      if (slot.symbol != "_ring_bell") continue;
      protectPageOf(slot.indirectEntry, PROT_READ | PROT_WRITE);
      *slot.indirectEntry = mark;
    }
    rebindIn(*image,
             {{"ring_bell", address(replaceOne), nullptr}, {"open_door", address(replaceTwo), nullptr}});
    EXPECT_EQ(call(*image, "callRing", 1), 201);
    EXPECT_EQ(call(*image, "callOpen", 1), 2001);
  }
}

TEST_P(Rebinding, TakesNamesOfTwoCharactersButNotOfOne) {
  const auto image = loadDoorman(GetParam());
  rebindIn(*image, {{"", address(replaceOne), nullptr},
                    {"Q", address(replaceOne), nullptr},
                    {"z", address(replaceTwo), nullptr}});
  EXPECT_EQ(call(*image, "callOneLetter", 1), 301);
  EXPECT_EQ(call(*image, "callNoUnderscore", 1), 2001);
}

TEST_P(Rebinding, KeepsTheOriginalWhenTheSlotHoldsTheReplacementAlready) {
  const auto image = loadDoorman(GetParam());
  void* original = nullptr;
  for (int i = 0; i < 2; ++i) rebindIn(*image, {{"ring_bell", address(replaceOne), &original}});
  EXPECT_EQ(original, address(ringBell));
  EXPECT_EQ(call(*image, "callRing", 1), 1001);
}

INSTANTIATE_TEST_SUITE_P(Layouts, Rebinding, testing::ValuesIn(kLayouts), layoutName);

// Tests that record rebindings for the whole process, and make them good again with a newer one.
class RebindingSets : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override { first_ = second_ = third_ = nullptr; }
  void TearDown() override {
    const SymbolRebinding restored[] = {{"open_door", address(openDoor), nullptr},
                                        {"ring_bell", address(ringBell), nullptr}};
    rebindSymbols(restored, std::size(restored));
  }

  // Recorded rebindings store there for good.
  static inline void* first_;
  static inline void* second_;
  static inline void* third_;
};

TEST_P(RebindingSets, RewritesNothingWhileToldNotTo) {
  dontRebindImages = true;
  const auto loaded = loadDoorman(GetParam());
  const SymbolRebinding rebinding{"open_door", address(replaceOne), &first_};
  EXPECT_EQ(rebindSymbols(&rebinding, 1), 0);
  rebindIn(*loaded, {rebinding});
  const auto later = loadDoorman(GetParam());
  EXPECT_EQ(call(*loaded, "callOpen", 1), 101);
  EXPECT_EQ(call(*later, "callOpen", 1), 101);
  EXPECT_EQ(first_, nullptr);

  // What was recorded meanwhile counts from now on.
  dontRebindImages = false;
  EXPECT_EQ(rebindSymbols(nullptr, 0), 0);
  EXPECT_EQ(call(*loaded, "callOpen", 1), 1001);
  EXPECT_EQ(call(*loadDoorman(GetParam()), "callOpen", 1), 1001);
  EXPECT_EQ(first_, address(openDoor));
}

INSTANTIATE_TEST_SUITE_P(Layouts, RebindingSets, testing::ValuesIn(kLayouts), layoutName);

TEST_F(RebindingSets, TheNewestOneOfANameWinsAndTheFirstInASet) {
  const auto loaded = loadDoorman("const");
  const SymbolRebinding older{"ring_bell", address(replaceOne), &first_};
  const SymbolRebinding newer[] = {{"ring_bell", address(replaceTwo), &second_},
                                   {"ring_bell", address(replaceOne), &third_}};
  ASSERT_EQ(rebindSymbols(&older, 1), 0);
  EXPECT_EQ(call(*loaded, "callRing", 1), 1001);
  EXPECT_EQ(first_, address(ringBell));

  first_ = nullptr;
  ASSERT_EQ(rebindSymbols(newer, 2), 0);
  EXPECT_EQ(call(*loaded, "callRing", 1), 2001);
  EXPECT_EQ(second_, address(replaceOne));

  // An image that comes later never sees the older one.
  EXPECT_EQ(call(*loadDoorman("chained"), "callRing", 1), 2001);
  EXPECT_EQ(second_, address(ringBell));
  EXPECT_EQ(first_, nullptr);
  EXPECT_EQ(third_, nullptr);
}

TEST_F(RebindingSets, AnImageAloneIsNotAddedToTheList) {
  const auto image = loadDoorman("lazy");
  rebindIn(*image, {{"qz", address(replaceOne), nullptr}, {"z", address(replaceOne), nullptr}});
  EXPECT_EQ(call(*loadDoorman("lazy"), "callNoUnderscore", 1), 401);
}

TEST_F(RebindingSets, WithoutMemoryNothingChanges) {
  const auto image = loadDoorman("lazy");
  const int before = call(*image, "callOpen", 1);
  const SymbolRebinding rebinding{"open_door", address(replaceTwo), nullptr};
  EXPECT_EQ(rebindSymbols(&rebinding, SIZE_MAX / sizeof(SymbolRebinding)), -1);
  EXPECT_EQ(rebindSymbolsInImage(image->header(), image->slide(), &rebinding, SIZE_MAX / 4096), -1);
  EXPECT_EQ(call(*image, "callOpen", 1), before);
}

TEST_F(RebindingSets, GrowWhileThreadsLoadImages) {
  constexpr int kLoaders = 3;
  constexpr int kRounds = 30;
  // Nothing is redirected away again, so whichever is the newest when an image comes, its calls go to one of
  // them.
  static void* originals[2 * kRounds];
  std::atomic<int> wrong = 0;
  const auto redirect = [&](GuestFunction* to, int first) {
    for (int i = 0; i < kRounds; ++i) {
      const SymbolRebinding rebinding{"ring_bell", address(to), &originals[first + i]};
      wrong += rebindSymbols(&rebinding, 1) != 0;
    }
  };
  redirect(replaceOne, 0);

  // An image stays until no thread goes over the images any more.
  std::vector<std::unique_ptr<LoadedImage>> images(static_cast<size_t>(kLoaders * kRounds));
  std::vector<std::thread> threads;
  for (int loader = 0; loader < kLoaders; ++loader) {
    threads.emplace_back([&, loader] {
      for (int i = 0; i < kRounds; ++i) {
        auto image = loadDoorman(kLayouts[static_cast<size_t>(i) % kLayouts.size()]);
        const int answer = call(*image, "callRing", 1);
        wrong += answer != 1001 && answer != 2001;
        images[static_cast<size_t>(loader * kRounds + i)] = std::move(image);
      }
    });
  }
  threads.emplace_back([&] { redirect(replaceTwo, kRounds); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  for (const auto& image : images) {
    EXPECT_EQ(call(*image, "callRing", 1), 2001);
    for (const auto& slot : slotsOf(*image)) {
      if (slot.segment == "__DATA_CONST") {
        EXPECT_EQ(protectionAt(slot.address), VM_PROT_READ);
      }
    }
  }
  // Nobody's original is the function that its own redirection leads to.
  for (int i = 0; i < 2 * kRounds; ++i)
    EXPECT_NE(originals[i], address(i < kRounds ? replaceOne : replaceTwo));
}

// Against the rule in its plain form, over names that share beginnings, hold each other or end early.
TEST(RebindingIndex, FindsWhatGoingThroughTheSetsWouldFind) {
  std::vector<std::string> names = {"\xc3\xa9tage", "\xc3\xa9tages", "import_", "import_1", "import_1"};
  for (int i = 0; i < 2000; ++i) names.push_back("import_" + std::to_string(i * 7919 % 4001));
  for (size_t i = 1; i < 40; ++i) names.push_back(std::string(i, 'a'));

  static RebindingIndex index;
  std::vector<std::vector<IndexedRebinding>> sets;
  std::map<std::string, const SymbolRebinding*> expected;
  for (size_t start = 0; start < names.size(); start += 13) {
    auto& set = sets.emplace_back(std::min<size_t>(13, names.size() - start));
    for (size_t i = set.size(); i-- > 0;) {
      set[i].rebinding.name = names[start + i].c_str();
      expected[names[start + i]] = &set[i].rebinding;
    }
    index.add(set.data(), set.size());
  }
  const auto find = [](const std::string& text, size_t size) { return index.find(text.c_str(), size); };
  for (const auto& [name, rebinding] : expected) {
    EXPECT_EQ(find(name + '\0' + "zzzzzzzz", name.size() + 9), rebinding) << name;
    EXPECT_EQ(find(name, name.size() + 1), rebinding) << name;
    EXPECT_EQ(find(name, name.size()), nullptr) << name << ", its end left out";
    EXPECT_EQ(find(name + "~", name.size() + 2), nullptr) << name << "~";
  }
}

}  // namespace
