// The loader and the registry of images: what they tell of a good image, and what becomes of bad ones.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mach-o/dyld.h>
#include <mach-o/fixup-chains.h>

#include <algorithm>
#include <functional>
#include <map>
#include <thread>

#include "mapped_image.h"
#include "symbol_rebinding.h"

using platform::ImageRefused;
using platform::LoadedImage;
using testing::HasSubstr;

namespace {

using Bytes = std::vector<uint8_t>;

std::string refusalOf(const Bytes& file, const LoadedImage::Resolver& definitions = theOriginal) {
  try {
    LoadedImage::load("image", file, definitions, LoadedImage::Processor::Any);
  } catch (const ImageRefused& refused) {
    return refused.what();
  }
  return "taken";
}

TEST(MachOLoader, MapsAndFillsInImagesOfEitherProcessor) {
  for (const auto& layout : kLayouts) {
    for (const auto& processor : {kThisProcessor, kOtherProcessor}) {
      const auto image = loadDoorman(layout, processor);
      for (const auto& slot : slotsOf(*image)) {
        if (slot.symbol == "dyld_stub_binder" || slot.symbol.empty()) continue;
        const std::string name = slot.symbol[0] == '_' ? slot.symbol.substr(1) : slot.symbol;
        EXPECT_EQ(*slot.address, theOriginal(name)) << layout << " " << processor << " " << slot.symbol;
      }
      auto** const table = static_cast<void**>(image->symbol("table"));
      EXPECT_EQ(table[0], address(openDoor));
      EXPECT_EQ(table[1], address(ringBell));
      Dl_info own{};
      ASSERT_NE(dladdr(table[2], &own), 0) << "a pointer to the image itself";
      EXPECT_EQ(own.dli_fbase, image->header());

      EXPECT_EQ(protectionAt(image->header()), VM_PROT_READ | VM_PROT_EXECUTE);
      EXPECT_EQ(protectionAt(table), VM_PROT_READ | VM_PROT_WRITE);
      const bool readOnly = layout == "const" || layout == "chained";
      EXPECT_EQ(protectionAt(image->symbol("constantTable")),
                readOnly ? VM_PROT_READ : VM_PROT_READ | VM_PROT_WRITE);
      EXPECT_EQ(image->symbol("open_door"), nullptr) << "imported, not exported";
      EXPECT_EQ(image->symbol("stayOutside"), nullptr) << "not exported";
    }
  }
}

TEST(Registry, KnowsImagesWhileTheyAreMapped) {
  const uint32_t before = _dyld_image_count();
  auto first = loadDoorman("lazy");
  const auto second = loadDoorman("const");
  ASSERT_EQ(_dyld_image_count(), before + 2);
  EXPECT_EQ(_dyld_get_image_header(before), reinterpret_cast<const mach_header*>(first->header()));
  EXPECT_EQ(_dyld_get_image_vmaddr_slide(before + 1), second->slide());
  EXPECT_EQ(_dyld_get_image_header(before + 2), nullptr);

  Dl_info info{};
  const auto* const firstByte = reinterpret_cast<const char*>(first->header());
  ASSERT_NE(dladdr(firstByte, &info), 0);
  EXPECT_EQ(info.dli_fbase, first->header());
  EXPECT_EQ(info.dli_fname, doorman("lazy"));
  EXPECT_EQ(dladdr(firstByte - 1, &info), 0);
  ASSERT_NE(dladdr(address(openDoor), &info), 0) << "the system's own images";
  EXPECT_NE(info.dli_fbase, first->header());

  first.reset();
  EXPECT_EQ(_dyld_image_count(), before + 1);
  EXPECT_EQ(dladdr(firstByte, &info), 0);
}

TEST(Registry, TellsOfEveryImageOnce) {
  static auto& timesTold = *new std::map<const mach_header*, int>;
  std::vector<std::unique_ptr<LoadedImage>> images(8);
  // Images are loaded while the function is registered; it is called for one image at a time.
  std::thread loading([&] {
    for (auto& image : images) image = loadDoorman("lazy");
  });
  _dyld_register_func_for_add_image([](const mach_header* header, intptr_t) { ++timesTold[header]; });
  loading.join();
  for (const auto& image : images) {
    EXPECT_EQ(timesTold[reinterpret_cast<const mach_header*>(image->header())], 1);
  }
}

auto* headerOf(Bytes& file) {
  return reinterpret_cast<mach_header_64*>(file.data());
}
segment_command_64* segmentOf(Bytes& file, const std::string& name) {
  const auto segments = commandsOf<segment_command_64>(headerOf(file), LC_SEGMENT_64);
  return *std::ranges::find(segments, name, [](const auto* segment) { return segment->segname; });
}
auto* classicOf(Bytes& file) {
  return commandsOf<dyld_info_command>(headerOf(file), LC_DYLD_INFO_ONLY).at(0);
}
auto* chainsOf(Bytes& file) {
  const auto* const command = commandsOf<linkedit_data_command>(headerOf(file), LC_DYLD_CHAINED_FIXUPS).at(0);
  return reinterpret_cast<dyld_chained_fixups_header*>(file.data() + command->dataoff);
}

using Change = std::function<void(Bytes&)>;

// Another value in a field of what `holder` finds.
template <typename Holder, typename Record, typename Value>
Change set(Holder* (*holder)(Bytes&), Value Record::*field, uint64_t value) {
  return [=](Bytes& file) { holder(file)->*field = static_cast<Value>(value); };
}
template <typename Value>
Change set(const char* segment, Value segment_command_64::*field, uint64_t value) {
  return [=](Bytes& file) { segmentOf(file, segment)->*field = static_cast<Value>(value); };
}
// Rebase opcodes of the test's own, in the place of the image's.
Change rebase(const Bytes& stream) {
  return [=](Bytes& file) {
    classicOf(file)->rebase_off = static_cast<uint32_t>(file.size());
    classicOf(file)->rebase_size = static_cast<uint32_t>(stream.size());
    file.insert(file.end(), stream.begin(), stream.end());
  };
}

using Segment = segment_command_64;
using Classic = dyld_info_command;
using Chains = dyld_chained_fixups_header;
// What the loader says, and the change that makes it say so.
using Faults = std::vector<std::pair<std::string, Change>>;

const Faults kFaults = {
    {"not a 64-bit Mach-O file", set(headerOf, &mach_header_64::magic, 0xfeedface)},
    {"neither a library nor a bundle", set(headerOf, &mach_header_64::filetype, 1)},
    {"load command 3: its size is 47", set(classicOf, &Classic::cmdsize, 47)},
    {"segment __DATA: is larger in the file", set("__DATA", &Segment::vmsize, 8)},
    {"segment __DATA: does not start on a page", set("__DATA", &Segment::vmaddr, 0x4008)},
    {"segment __LINKEDIT: is empty or too large", set("__LINKEDIT", &Segment::vmsize, ~uint64_t{0})},
    {"lies outside the address space", set("__LINKEDIT", &Segment::vmaddr, ~uint64_t{0xffff})},
    {"the image is too large", set("__LINKEDIT", &Segment::vmaddr, uint64_t{1} << 40)},
    {"lies in or before segment __TEXT", set("__DATA", &Segment::vmaddr, 0)},
    {"segment __LINKEDIT: cannot be read", set("__LINKEDIT", &Segment::initprot, 0)},
    {"segment __TEXT: is both writable and executable", set("__TEXT", &Segment::initprot, 7)},
    {"segment __DATA: cannot be written", set("__DATA", &Segment::initprot, 1)},
    {"does not hold the header", set("__TEXT", &Segment::filesize, 64)},

    {"does not end", set(classicOf, &Classic::bind_size, 4)},
    {"they break off", rebase({0x22})},
    {"more than 64 bits", rebase({0x22, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 1})},
    {"unknown rebase opcode 0xf0", rebase({0xf0})},
    {"a fixup in no segment", rebase({0x51})},
    {"fixups in segment 9", rebase({0x29, 0x00, 0x51})},
    {"segment of the load commands", rebase({0x20, 0x00, 0x51})},
    // Two to the power of 62 times, eight bytes and minus eight bytes on.
    {"a run that leaves its segment",
     rebase({0x21, 0x00, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
             0x40, 0xf8, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01})},
    {"segment __DATA: a fixup at ",
     rebase({0x21, 0x00, 0x60, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x40})},
};

const Faults kFaultsOfChains = {
    {"chained fixups: version 7", set(chainsOf, &Chains::fixups_version, 7)},
    {"chained fixups: imports of format 9", set(chainsOf, &Chains::imports_format, 9)},
    {"compressed symbol names", set(chainsOf, &Chains::symbols_format, 1)},
    {"chained fixups: import 1 of 1", set(chainsOf, &Chains::imports_count, 1)},
};

TEST(HostileImages, AreRefusedWithTheirFault) {
  const uint32_t images = _dyld_image_count();
  for (const auto& [layout, faults] : {std::pair("lazy", kFaults), std::pair("chained", kFaultsOfChains)}) {
    for (const auto& [message, make] : faults) {
      Bytes file = fileBytes(doorman(layout, "x86_64"));
      make(file);
      EXPECT_THAT(refusalOf(file), HasSubstr(message));
    }
    const auto nobody = [](const std::string&) -> void* { return nullptr; };
    EXPECT_THAT(refusalOf(fileBytes(doorman(layout)), nobody), HasSubstr("nobody has \"_"));
  }
  EXPECT_THROW(LoadedImage::load(doorman("lazy", kOtherProcessor), theOriginal), ImageRefused);
  EXPECT_THROW(LoadedImage::load(imagePath("nothing"), theOriginal), ImageRefused);
  EXPECT_EQ(_dyld_image_count(), images) << "none of them is known";
}

// Loads an image, and rebinds in it if it is taken. Whatever is wrong with it, nothing else is touched:
// around the image lie pages that nobody may read.
bool loadAndRebind(const Bytes& file) {
  try {
    const auto image = LoadedImage::load("image", file, theOriginal, LoadedImage::Processor::Any);
    const SymbolRebinding rebindings[] = {{"ring_bell", address(openDoor), nullptr},
                                          {"z", address(openDoor), nullptr}};
    rebindSymbolsInImage(image->header(), image->slide(), rebindings, std::size(rebindings));
    image->symbol("table");
    return true;
  } catch (const ImageRefused&) {
    return false;
  }
}

TEST(HostileImages, NoSingleFaultDoesHarm) {
  for (const std::string layout : {"const", "chained"}) {
    Bytes file = fileBytes(doorman(layout, "x86_64"));
    const uint32_t commandsEnd = sizeof(mach_header_64) + headerOf(file)->sizeofcmds;
    const auto linkEdit = static_cast<size_t>(segmentOf(file, "__LINKEDIT")->fileoff);
    int outcomes[2] = {};
    for (size_t at = 0; at + 4 <= file.size(); at += 4) {
      if (at == commandsEnd) at = linkEdit;
      auto* const word = reinterpret_cast<uint32_t*>(&file[at]);
      const uint32_t good = *word;
      for (const uint32_t wrong : {0U, ~0U, good - 1, good + 8, good ^ 0x80000000U}) {
        *word = wrong;
        ++outcomes[loadAndRebind(file)];
      }
      *word = good;
    }
    EXPECT_GT(std::min(outcomes[0], outcomes[1]), 100) << layout << ": many taken, many refused";

    for (; file.size() > commandsEnd; file.resize(file.size() - 111)) loadAndRebind(file);
    for (; file.size() >= 8; file.resize(file.size() - 8)) loadAndRebind(file);
  }
}

}  // namespace
