#include <fmt/format.h>

#include <cstring>

#include "fixups.h"

namespace platform {
namespace {

// One stream of opcodes, with the numbers and strings between them.
class OpcodeStream {
 public:
  explicit OpcodeStream(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  bool atEnd() const { return position_ == bytes_.size(); }

  uint8_t byte() {
    if (atEnd()) throw ImageRefused("fixup opcodes: they break off");
    return bytes_[position_++];
  }

  uint64_t unsignedNumber() {
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const uint8_t part = byte();
      value |= uint64_t{part & 0x7fU} << shift;
      if ((part & 0x80) == 0) return value;
    }
    throw ImageRefused("fixup opcodes: a number of more than 64 bits");
  }

  uint64_t signedNumber() {  // in two's complement
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const uint8_t part = byte();
      value |= uint64_t{part & 0x7fU} << shift;
      if ((part & 0x80) == 0)
        return (part & 0x40) != 0 && shift < 57 ? value | ~uint64_t{0} << (shift + 7) : value;
    }
    throw ImageRefused("fixup opcodes: a number of more than 64 bits");
  }

  std::string string() {
    std::string text = stringAt(bytes_, position_, "fixup opcodes");
    position_ += text.size() + 1;
    return text;
  }

 private:
  std::span<const uint8_t> bytes_;
  size_t position_ = 0;
};

// Where the next pointer of a stream is.
struct Place {
  const segment_command_64* segment = nullptr;
  uint64_t offset = 0;

  void set(const FixupTarget& target, uint64_t index, uint64_t newOffset) {
    segment = &target.segment(index);
    offset = newOffset;
  }

  const segment_command_64& in() const {
    if (segment == nullptr) throw ImageRefused("fixup opcodes: a fixup in no segment");
    return *segment;
  }

  // Does something with `count` pointers that lie `skip` bytes apart. Going on always leads upwards, and so
  // out of the segment in the end, whatever the count says.
  template <typename Action>
  void repeat(uint64_t count, uint64_t skip, const Action& act) {
    if (count > 1 && skip > in().vmsize) throw ImageRefused("fixup opcodes: a run that leaves its segment");
    for (uint64_t i = 0; i < count; ++i) {
      act();
      offset += sizeof(uint64_t) + skip;
    }
  }
};

void rebase(std::span<const uint8_t> opcodes, FixupTarget& target) {
  OpcodeStream stream(opcodes);
  Place place;
  const auto rebaseOne = [&] {
    target.write(place.in(), place.offset, target.slid(target.read(place.in(), place.offset)));
  };
  while (!stream.atEnd()) {
    const uint8_t opcode = stream.byte();
    const uint8_t operand = opcode & REBASE_IMMEDIATE_MASK;
    switch (opcode & REBASE_OPCODE_MASK) {
      case REBASE_OPCODE_DONE:
        return;
      case REBASE_OPCODE_SET_TYPE_IMM:
        if (operand != REBASE_TYPE_POINTER) throw ImageRefused(fmt::format("rebase of type {}", operand));
        break;
      case REBASE_OPCODE_SET_SEGMENT_AND_OFFSET_ULEB:
        place.set(target, operand, stream.unsignedNumber());
        break;
      case REBASE_OPCODE_ADD_ADDR_ULEB:
        place.offset += stream.unsignedNumber();
        break;
      case REBASE_OPCODE_ADD_ADDR_IMM_SCALED:
        place.offset += operand * sizeof(uint64_t);
        break;
      case REBASE_OPCODE_DO_REBASE_IMM_TIMES:
        place.repeat(operand, 0, rebaseOne);
        break;
      case REBASE_OPCODE_DO_REBASE_ULEB_TIMES:
        place.repeat(stream.unsignedNumber(), 0, rebaseOne);
        break;
      case REBASE_OPCODE_DO_REBASE_ADD_ADDR_ULEB:
        place.repeat(1, stream.unsignedNumber(), rebaseOne);
        break;
      case REBASE_OPCODE_DO_REBASE_ULEB_TIMES_SKIPPING_ULEB: {
        const uint64_t count = stream.unsignedNumber();
        place.repeat(count, stream.unsignedNumber(), rebaseOne);
        break;
      }
      default:
        throw ImageRefused(fmt::format("unknown rebase opcode {:#x}", opcode));
    }
  }
}

// In the lazy stream a "done" only ends one pointer's opcodes.
enum class Done { EndsStream, EndsPointer };

void bind(std::span<const uint8_t> opcodes, Done done, bool alwaysWeak, FixupTarget& target) {
  OpcodeStream stream(opcodes);
  Place place;
  std::string symbol;
  bool weak = false;
  uint64_t addend = 0;
  uint64_t address = 0;
  bool resolved = false;
  const auto bindOne = [&] {
    if (!resolved) address = target.address(symbol, weak || alwaysWeak);
    resolved = true;
    // A weak definition that nobody overrides stays the image's own.
    const uint64_t unknown = alwaysWeak ? target.read(place.in(), place.offset) : 0;
    target.write(place.in(), place.offset, address == 0 ? unknown : address + addend);
  };
  while (!stream.atEnd()) {
    const uint8_t opcode = stream.byte();
    const uint8_t operand = opcode & BIND_IMMEDIATE_MASK;
    switch (opcode & BIND_OPCODE_MASK) {
      case BIND_OPCODE_DONE:
        if (done == Done::EndsStream) return;
        break;
      case BIND_OPCODE_SET_DYLIB_ORDINAL_IMM:
      case BIND_OPCODE_SET_DYLIB_SPECIAL_IMM:
        break;  // which library: the resolver is the only one
      case BIND_OPCODE_SET_DYLIB_ORDINAL_ULEB:
        stream.unsignedNumber();
        break;
      case BIND_OPCODE_SET_SYMBOL_TRAILING_FLAGS_IMM:
        symbol = stream.string();
        weak = (operand & BIND_SYMBOL_FLAGS_WEAK_IMPORT) != 0;
        resolved = false;
        break;
      case BIND_OPCODE_SET_TYPE_IMM:
        if (operand != BIND_TYPE_POINTER) throw ImageRefused(fmt::format("binding of type {}", operand));
        break;
      case BIND_OPCODE_SET_ADDEND_SLEB:
        addend = stream.signedNumber();
        break;
      case BIND_OPCODE_SET_SEGMENT_AND_OFFSET_ULEB:
        place.set(target, operand, stream.unsignedNumber());
        break;
      case BIND_OPCODE_ADD_ADDR_ULEB:
        place.offset += stream.unsignedNumber();
        break;
      case BIND_OPCODE_DO_BIND:
        place.repeat(1, 0, bindOne);
        break;
      case BIND_OPCODE_DO_BIND_ADD_ADDR_ULEB:
        place.repeat(1, stream.unsignedNumber(), bindOne);
        break;
      case BIND_OPCODE_DO_BIND_ADD_ADDR_IMM_SCALED:
        place.repeat(1, operand * sizeof(uint64_t), bindOne);
        break;
      case BIND_OPCODE_DO_BIND_ULEB_TIMES_SKIPPING_ULEB: {
        const uint64_t count = stream.unsignedNumber();
        place.repeat(count, stream.unsignedNumber(), bindOne);
        break;
      }
      default:
        throw ImageRefused(fmt::format("unknown bind opcode {:#x}", opcode));
    }
  }
}

}  // namespace

void applyClassicFixups(const dyld_info_command& info, std::span<const uint8_t> file, FixupTarget& target) {
  rebase(bytesAt(file, info.rebase_off, info.rebase_size, "rebase opcodes"), target);
  bind(bytesAt(file, info.bind_off, info.bind_size, "bind opcodes"), Done::EndsStream, false, target);
  bind(bytesAt(file, info.weak_bind_off, info.weak_bind_size, "weak bind opcodes"), Done::EndsStream, true,
       target);
  bind(bytesAt(file, info.lazy_bind_off, info.lazy_bind_size, "lazy bind opcodes"), Done::EndsPointer, false,
       target);
}

}  // namespace platform
