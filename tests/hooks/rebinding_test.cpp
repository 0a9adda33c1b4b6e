// Rebinding in images of this processor, whose functions are called, and of the other one, whose tables are
// compared.
#include <gtest/gtest.h>
#include <mach/mach.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <map>
#include <thread>

#include "mapped_image.h"
#include "rebinding_index.h"
#include "symbol_rebinding.h"

using platform::LoadedImage;

namespace {

constexpr GuestFunction* replaceOne = add<1000>;
constexpr GuestFunction* replaceTwo = add<2000>;

int32_t rebindIn(const LoadedImage& image, const std::vector<SymbolRebinding>& rebindings) {
  return rebindSymbolsInImage(image.header(), image.slide(), rebindings.data(), rebindings.size());
}

class Rebinding : public testing::TestWithParam<std::string> {};

TEST_P(Rebinding, RedirectsStubsAndPointersAndKeepsTheOriginal) {
  const auto image = loadDoorman(GetParam());
  ASSERT_EQ(call(*image, "callOpen", 1), 101);
  void* opened = nullptr;
  void* rang = nullptr;
  const std::vector<SymbolRebinding> rebindings = {{"open_door", address(replaceOne), &opened},
                                                   {"ring_bell", address(replaceTwo), &rang}};
  // The second time the slots hold the replacements, which are nobody's originals.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(rebindIn(*image, rebindings), 0);
  EXPECT_EQ(opened, address(openDoor));
  EXPECT_EQ(rang, address(ringBell));
  EXPECT_EQ(call(*image, "callOpen", 1), 1001);
  EXPECT_EQ(call(*image, "callRing", 1), 2001);
  EXPECT_EQ(image->function<void*()>("bellAddress")(), address(replaceTwo));
  EXPECT_EQ(image->function<int()>("bellCount")(), 7);
  // The image's own tables are data like any other.
  EXPECT_EQ(*static_cast<void**>(image->symbol("table")), address(openDoor));
  EXPECT_EQ(*static_cast<void**>(image->symbol("constantTable")), address(ringBell));
  EXPECT_EQ(call(*loadDoorman(GetParam()), "callOpen", 1), 101) << "an image alone is not added to the list";
}

TEST_P(Rebinding, ChangesOnlyTheNamedSlotsAndNoProtection) {
  for (const auto& processor : {kThisProcessor, kOtherProcessor}) {
    const auto image = loadDoorman(GetParam(), processor);
    const auto slots = slotsOf(*image);
    std::vector<std::pair<void*, vm_prot_t>> before;
    for (const auto& slot : slots) before.emplace_back(*slot.address, protectionAt(slot.address));

    void* original = nullptr;
    rebindIn(*image, {{"ring_bell", address(replaceOne), &original}});
    EXPECT_EQ(original, address(ringBell)) << processor;
    size_t named = 0;
    for (size_t i = 0; i < slots.size(); ++i) {
      const bool isNamed = slots[i].symbol == "_ring_bell";
      named += isNamed;
      EXPECT_EQ(*slots[i].address, isNamed ? address(replaceOne) : before[i].first)
          << processor << " " << slots[i].symbol;
      EXPECT_EQ(protectionAt(slots[i].address), before[i].second) << processor << " " << slots[i].symbol;
    }
    // Classic images call through a lazy pointer and take the address from another.
    EXPECT_EQ(named, GetParam() == "lazy" || GetParam() == "const" ? 2U : 1U);
  }
}

TEST_P(Rebinding, PassesOverLocalAndAbsoluteEntries) {
  for (const uint32_t mark : {INDIRECT_SYMBOL_LOCAL, static_cast<uint32_t>(INDIRECT_SYMBOL_ABS),
                              INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS}) {
    const auto image = loadDoorman(GetParam());
    for (const auto& slot : slotsOf(*image)) {
      if (slot.symbol != "_ring_bell") continue;
      openPage(slot.indirectEntry);
      *slot.indirectEntry |= mark;
    }
    rebindIn(*image,
             {{"ring_bell", address(replaceOne), nullptr}, {"open_door", address(replaceTwo), nullptr}});
    EXPECT_EQ(call(*image, "callRing", 1), 201);
    EXPECT_EQ(call(*image, "callOpen", 1), 2001);
  }
}

TEST_P(Rebinding, WritesWholeSlotsOnly) {
  for (const uint64_t most : {uint64_t{7}, uint64_t{9}, UINT64_MAX}) {
    const auto image = loadDoorman(GetParam());
    const auto slots = slotsOf(*image);
    openPage(image->header());
    std::map<section_64*, uint64_t> sizes;
    for (const auto& slot : slots) sizes[slot.section] = slot.section->size;
    for (const auto& [section, size] : sizes) section->size = std::min(size - 1, most);

    std::vector<SymbolRebinding> rebindings;
    for (const char* name : {"open_door", "ring_bell", "bell_count", "z", "dyld_stub_binder", "table"})
      rebindings.push_back({name, address(replaceOne), nullptr});
    std::map<section_64*, uint64_t> reached;
    rebindIn(*image, rebindings);
    for (const auto& slot : slots) {
      const bool isWhole = (reached[slot.section] += sizeof(void*)) <= slot.section->size;
      const bool isNamed = !slot.symbol.empty() && slot.symbol != "Q";
      EXPECT_EQ(*slot.address == address(replaceOne), isWhole && isNamed) << slot.symbol;
    }
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

// A section's pages may be anything when its image comes, and are that again afterwards.
TEST(ReadOnlySections, GetTheirProtectionBack) {
  for (const std::string layout : {"const", "chained", "auth"}) {
    for (const vm_prot_t protection :
         {VM_PROT_READ, VM_PROT_READ | VM_PROT_EXECUTE, VM_PROT_READ | VM_PROT_WRITE}) {
      auto file = fileBytes(doorman(layout));
      auto* const header = reinterpret_cast<mach_header_64*>(file.data());
      for (auto* segment : commandsOf<segment_command_64>(header, LC_SEGMENT_64)) {
        if (std::string(segment->segname).find("_CONST") == std::string::npos) continue;
        segment->initprot = segment->maxprot = protection;
        segment->flags = 0;
      }
      const auto image = LoadedImage::load("image", file, theOriginal);
      ASSERT_EQ(protectionAt(image->symbol("constantTable")), protection);
      rebindIn(*image, {{"ring_bell", address(replaceOne), nullptr}});
      EXPECT_EQ(image->function<void*()>("bellAddress")(), address(replaceOne));
      EXPECT_EQ(protectionAt(image->symbol("constantTable")), protection);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, Rebinding, testing::ValuesIn(kLayouts),
                         [](const auto& layout) { return layout.param; });

// Tests that record rebindings for the whole process, and make them good again with a newer one. Recorded
// rebindings store the originals for good.
class RebindingSets : public testing::Test {
 protected:
  void TearDown() override {
    const SymbolRebinding restored[] = {{"open_door", address(openDoor), nullptr},
                                        {"ring_bell", address(ringBell), nullptr}};
    rebindSymbols(restored, std::size(restored));
  }
};

TEST_F(RebindingSets, RewritesNothingWhileToldNotTo) {
  const auto loaded = loadDoorman("const");
  static void* original;
  const SymbolRebinding rebinding{"open_door", address(replaceOne), &original};
  dontRebindImages = true;
  EXPECT_EQ(rebindSymbols(&rebinding, 1), 0);
  rebindIn(*loaded, {rebinding});
  EXPECT_EQ(call(*loaded, "callOpen", 1), 101);
  EXPECT_EQ(call(*loadDoorman("chained"), "callOpen", 1), 101);
  EXPECT_EQ(original, nullptr);

  // What was recorded meanwhile counts from now on.
  dontRebindImages = false;
  EXPECT_EQ(rebindSymbols(nullptr, 0), 0);
  EXPECT_EQ(call(*loaded, "callOpen", 1), 1001);
  EXPECT_EQ(call(*loadDoorman("chained"), "callOpen", 1), 1001);
  EXPECT_EQ(original, address(openDoor));
}

TEST_F(RebindingSets, TheNewestOneOfANameWinsAndTheFirstInASet) {
  const auto loaded = loadDoorman("const");
  static void* first;
  static void* second;
  static void* third;
  const SymbolRebinding older{"ring_bell", address(replaceOne), &first};
  const SymbolRebinding newer[] = {{"ring_bell", address(replaceTwo), &second},
                                   {"ring_bell", address(replaceOne), &third}};
  ASSERT_EQ(rebindSymbols(&older, 1), 0);
  EXPECT_EQ(call(*loaded, "callRing", 1), 1001);
  EXPECT_EQ(first, address(ringBell));

  first = nullptr;
  ASSERT_EQ(rebindSymbols(newer, 2), 0);
  EXPECT_EQ(call(*loaded, "callRing", 1), 2001);
  EXPECT_EQ(second, address(replaceOne));

  // An image that comes later never sees the older one.
  EXPECT_EQ(call(*loadDoorman("chained"), "callRing", 1), 2001);
  EXPECT_EQ(second, address(ringBell));
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(third, nullptr);
}

TEST_F(RebindingSets, WithoutMemoryNothingChanges) {
  const auto image = loadDoorman("lazy");
  const SymbolRebinding rebinding{"open_door", address(replaceTwo), nullptr};
  constexpr size_t kTooMany = SIZE_MAX / sizeof rebinding;
  EXPECT_EQ(rebindSymbols(&rebinding, kTooMany), -1);
  EXPECT_EQ(rebindSymbolsInImage(image->header(), image->slide(), &rebinding, kTooMany), -1);
  EXPECT_EQ(call(*image, "callOpen", 1), 101);
}

TEST_F(RebindingSets, GrowWhileThreadsLoadImages) {
  constexpr size_t kRounds = 30;
  static constexpr GuestFunction* kReplacements[] = {replaceOne, replaceTwo};
  static void* originals[2][kRounds];
  std::atomic<int> wrong = 0;
  const auto redirect = [&](int to) {
    for (void*& original : originals[to]) {
      const SymbolRebinding rebinding{"ring_bell", address(kReplacements[to]), &original};
      wrong += rebindSymbols(&rebinding, 1) != 0;
    }
  };
  redirect(0);

  // An image stays until no thread goes over the images any more.
  std::vector<std::unique_ptr<LoadedImage>> images(3 * kRounds);
  std::vector<std::thread> threads;
  for (size_t first = 0; first < images.size(); first += kRounds) {
    threads.emplace_back([&, first] {
      for (size_t i = first; i < first + kRounds; ++i) {
        images[i] = loadDoorman("const");
        // Whichever is the newest when an image comes, its calls go to one of the replacements.
        const int answer = call(*images[i], "callRing", 1);
        wrong += answer != 1001 && answer != 2001;
      }
    });
  }
  threads.emplace_back(redirect, 1);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  for (const auto& image : images) {
    EXPECT_EQ(call(*image, "callRing", 1), 2001);
    EXPECT_EQ(protectionAt(image->symbol("constantTable")), VM_PROT_READ);
  }
  // Nobody's original is the function that its own redirection leads to.
  for (const int to : {0, 1}) EXPECT_EQ(std::ranges::count(originals[to], address(kReplacements[to])), 0);
}

// Against the rule in its plain form, over names that share beginnings, hold each other or end early.
TEST(RebindingIndex, FindsWhatGoingThroughTheSetsWouldFind) {
  std::vector<std::string> names = {"\xc3\xa9tage", "\xc3\xa9tages", "import_", "import_1", "import_1"};
  for (int i = 0; i < 2000; ++i) names.push_back("import_" + std::to_string(i * 7919 % 4001));
  for (size_t i = 1; i < 40; ++i) names.push_back(std::string(i, 'a'));

  static RebindingIndex index;
  std::vector<std::vector<SymbolRebinding>> sets;
  std::map<std::string, const SymbolRebinding*> expected;
  for (size_t start = 0; start < names.size(); start += 13) {
    auto& set = sets.emplace_back(std::min<size_t>(13, names.size() - start));
    for (size_t i = set.size(); i-- > 0;) {
      set[i].name = names[start + i].c_str();
      expected[names[start + i]] = &set[i];
    }
    ASSERT_TRUE(index.reserve(set.size()));
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

TEST(RebindingIndex, ItsSieveLetsThroughWhatIsThere) {
  const std::vector<std::string> names = {"a", "import_", "import_1", "import_12345", "more"};
  std::list<SymbolRebinding> rebindings;
  RebindingIndex index;
  const auto passes = [&](const std::string& name, const std::string& next) {
    const std::string strings = "_" + name + '\0' + next;
    return index.sieve().passes(strings.data(), strings.size(), 1);
  };
  EXPECT_FALSE(passes("a", "_another_that_follows"));
  for (size_t there = 0; there < names.size(); ++there) {
    const SymbolRebinding& added = rebindings.emplace_back(names[there].c_str(), nullptr, nullptr);
    ASSERT_TRUE(index.reserve(1));
    index.add(&added, 1);
    for (size_t i = 0; i < names.size(); ++i) {
      const bool few = there < 4;
      EXPECT_EQ(passes(names[i], "_another_that_follows"), i <= there || !few)
          << names[i] << " of " << there + 1;
      EXPECT_TRUE(passes(names[i], "") || i > there) << names[i];
    }
  }
  index.clear();
}

// What rebinding asks for before it opens a read-only section.
TEST(VmRegion, TellsThePagesAsTheyAreMapped) {
  // nothing, read, none
  auto* const pages =
      static_cast<char*>(mmap(nullptr, 3 * vm_page_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  munmap(pages, vm_page_size);
  mprotect(pages + vm_page_size, vm_page_size, PROT_READ);
  const auto readable = reinterpret_cast<vm_address_t>(pages) + vm_page_size;

  vm_size_t size = 0;
  vm_region_basic_info_data_64_t info{};
  const auto ask = [&](vm_address_t& address, mach_msg_type_number_t count) {
    mach_port_t object = 1;
    return vm_region_64(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                        reinterpret_cast<vm_region_info_t>(&info), &count, &object);
  };
  for (vm_address_t address : {readable - vm_page_size, readable, readable + 17}) {
    const auto fromText = platform::regionFromMapsText(address);
    ASSERT_TRUE(fromText);
    EXPECT_EQ(fromText->start, readable);
    EXPECT_EQ(fromText->end, readable + vm_page_size);
    EXPECT_EQ(fromText->protection, VM_PROT_READ);
    EXPECT_EQ(ask(address, VM_REGION_BASIC_INFO_COUNT_64), KERN_SUCCESS);
    EXPECT_EQ(address, readable);
    EXPECT_EQ(size, vm_page_size);
    EXPECT_EQ(info.protection, VM_PROT_READ);
  }
  const pid_t child = fork();
  if (child == 0) {
    mprotect(pages + vm_page_size, vm_page_size, PROT_READ | PROT_WRITE);
    vm_address_t address = readable;
    ask(address, VM_REGION_BASIC_INFO_COUNT_64);
    _exit(info.protection);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), VM_PROT_READ | VM_PROT_WRITE) << "the child's own map";

  vm_address_t above = UINTPTR_MAX - 4095;
  EXPECT_EQ(ask(above, VM_REGION_BASIC_INFO_COUNT_64), KERN_INVALID_ADDRESS);
  EXPECT_EQ(ask(above, VM_REGION_BASIC_INFO_COUNT_64 - 1), KERN_INVALID_ARGUMENT);
  munmap(pages + vm_page_size, 2 * vm_page_size);
}

}  // namespace
