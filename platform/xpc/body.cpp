#include "body.h"

#include <glib.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>

#include "datagram.h"

namespace platform::xpc {
namespace {

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

constexpr size_t aligned(size_t position) {
  return (position + 7) & ~size_t{7};
}

// The size of a container's framing offsets follows from its size as a whole.
constexpr size_t offsetSize(size_t total) {
  return total <= 0xff ? 1 : total <= 0xffff ? 2 : 4;
}

// The size as a whole of contents followed by as many framing offsets.
constexpr size_t totalSize(size_t contents, size_t offsets) {
  for (size_t size : {size_t{1}, size_t{2}})
    if (offsetSize(contents + offsets * size) <= size) return contents + offsets * size;
  return contents + offsets * 4;
}

// Of the containers of a usual message, those within each other.
constexpr size_t kUsualEnds = 24;

class Writer {
 public:
  Writer(Bytes& bytes, Descriptors& descriptors)
      : bytes_(bytes), descriptors_(descriptors), ends_(bytes.get_allocator()) {
    ends_.reserve(kUsualEnds);
  }

  void dictionary(const Dictionary& dictionary) {
    const size_t start = bytes_.size();
    const size_t mark = ends_.size();
    for (const Dictionary::Entry& entry : dictionary.entries) {
      align();
      const size_t entryStart = bytes_.size();
      text(entry.key);
      const auto keyEnd = static_cast<uint32_t>(bytes_.size() - entryStart);
      align();
      variant(*entry.value);
      offsets(entryStart, {&keyEnd, 1});
      ends_.push_back(static_cast<uint32_t>(bytes_.size() - start));
    }
    endArray(start, mark);
  }

  const char* problem = nullptr;

 private:
  void array(const Array& array) {
    const size_t start = bytes_.size();
    const size_t mark = ends_.size();
    for (const Ref<>& value : array.values) {
      align();
      variant(*value);
      ends_.push_back(static_cast<uint32_t>(bytes_.size() - start));
    }
    endArray(start, mark);
  }

  void variant(const Object& object) {
    std::string_view type;
    if (object.type == XPC_TYPE_STRING) {
      text(value<Text>(object));
      type = "s";
    } else if (object.type == XPC_TYPE_INT64) {
      append(value<int64_t>(object));
      type = "x";
    } else if (object.type == XPC_TYPE_UINT64) {
      append(value<uint64_t>(object));
      type = "t";
    } else if (object.type == XPC_TYPE_DOUBLE) {
      append(value<double>(object));
      type = "d";
    } else if (object.type == XPC_TYPE_BOOL) {
      append(static_cast<uint8_t>(value<bool>(object)));
      type = "b";
    } else if (object.type == XPC_TYPE_DATA) {
      copy(value<Data>(object).bytes);
      type = "ay";
    } else if (object.type == XPC_TYPE_FD) {
      append(static_cast<int32_t>(descriptors_.size()));
      descriptors_.push_back(
          Ref<Descriptor>::retained(const_cast<Descriptor*>(static_cast<const Descriptor*>(&object))));
      type = "h";
    } else if (object.type == XPC_TYPE_DICTIONARY || object.type == XPC_TYPE_ARRAY) {
      if (++depth_ == kDeepest) {
        problem = "its containers are nested too deeply";
      } else if (object.type == XPC_TYPE_DICTIONARY) {
        dictionary(static_cast<const Dictionary&>(object));
        type = "a{sv}";
      } else {
        array(static_cast<const Array&>(object));
        type = "av";
      }
      depth_--;
    } else {
      problem = "it holds an object that cannot be sent";
    }
    bytes_.push_back(0);
    bytes_.insert(bytes_.end(), type.begin(), type.end());
  }

  template <class T>
  static const T& value(const Object& object) {
    return static_cast<const Box<T>&>(object).value;
  }

  void text(const Text& text) { copy({text.c_str(), text.size() + 1}); }

  void copy(std::string_view bytes) {
    auto* first = reinterpret_cast<const uint8_t*>(bytes.data());
    bytes_.insert(bytes_.end(), first, first + bytes.size());
  }

  template <class T>
  void append(T value) {
    const auto raw = std::bit_cast<std::array<uint8_t, sizeof(T)>>(value);
    bytes_.insert(bytes_.end(), raw.begin(), raw.end());
  }

  void align() { bytes_.resize(aligned(bytes_.size())); }

  void endArray(size_t start, size_t mark) {
    offsets(start, std::span(ends_).subspan(mark));
    ends_.resize(mark);
  }

  void offsets(size_t start, std::span<const uint32_t> ends) {
    const size_t contents = bytes_.size() - start;
    const size_t size = offsetSize(totalSize(contents, ends.size()));
    for (uint32_t end : ends) {
      const auto raw = std::bit_cast<std::array<uint8_t, 4>>(end);
      bytes_.insert(bytes_.end(), raw.begin(), raw.begin() + static_cast<ptrdiff_t>(size));
    }
  }

  Bytes& bytes_;
  Descriptors& descriptors_;
  std::pmr::vector<uint32_t> ends_;  // of the containers that are being written, the innermost last
  unsigned depth_ = 0;
};

constexpr size_t kLeastRoom = 64;
constexpr size_t kMostOfSmallValues = 1024;
constexpr size_t kLeastElement = 8;  // bytes that an element of a container takes at least, but for the last

// Every position is checked against the span that it lies in; every container begins at a multiple of 8.
class Reader {
 public:
  explicit Reader(std::span<FileDescriptor> descriptors) : descriptors_(descriptors) {}

  Ref<Dictionary> message(std::span<const uint8_t> body) {
    Ref<Dictionary> result = Dictionary::create(roomFor(body.size()));
    arena_ = result->arena;
    read(body, *result);
    return result;
  }

  bool allDescriptorsTaken() const { return taken_ == descriptors_.size(); }

  const char* problem = nullptr;

 private:
  // Numbers and short texts take up to four times what they take on the wire, long texts and data as much as
  // there.
  static size_t roomFor(size_t length) {
    return kLeastRoom + length + 3 * std::min(length, kMostOfSmallValues);
  }

  void read(std::span<const uint8_t> bytes, Dictionary& result) {
    const auto entry = [&](std::span<const uint8_t> entry) { return this->entry(entry, result); };
    forEachElement(bytes, result.entries, entry);
  }

  bool fail(const char* what) {
    if (!problem) problem = what;
    return false;
  }

  template <class Elements, class Each>
  bool forEachElement(std::span<const uint8_t> bytes, Elements& elements, Each each) {
    if (bytes.empty()) return true;
    const size_t size = offsetSize(bytes.size());
    if (bytes.size() < size) return fail("a container without its offsets");
    const size_t contents = offset(bytes, bytes.size() - size, size);
    if (contents > bytes.size() - size || (bytes.size() - contents) % size != 0)
      return fail("a container's offsets point outside it");
    const size_t count = (bytes.size() - contents) / size;
    if (totalSize(contents, count) != bytes.size()) return fail("offsets of the wrong size");
    // No more than what can be there: the count is the peer's word.
    elements.reserve(std::min(count, contents / kLeastElement + 1));
    size_t end = 0;
    for (size_t i = 0; i < count; i++) {
      const size_t start = aligned(end);
      const size_t next = offset(bytes, contents + i * size, size);
      if (next < start || next > contents)
        return fail("elements that overlap or lie outside their container");
      if (!isPadding(bytes, end, start)) return fail("padding that is not zero");
      if (!each(bytes.subspan(start, next - start))) return false;
      end = next;
    }
    return true;
  }

  bool entry(std::span<const uint8_t> bytes, Dictionary& dictionary) {
    const size_t size = offsetSize(bytes.size());
    if (bytes.size() < size) return fail("an entry without its offset");
    const size_t valueEnd = bytes.size() - size;
    const size_t keyEnd = offset(bytes, valueEnd, size);
    const size_t valueStart = aligned(keyEnd);
    if (valueStart > valueEnd || totalSize(valueEnd, 1) != bytes.size())
      return fail("an entry's offset points outside it");
    if (!isPadding(bytes, keyEnd, valueStart)) return fail("padding that is not zero");
    std::string_view key;
    if (!text(bytes.first(keyEnd), key)) return false;
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the analyzer loses count of references
    Ref<> value = variant(bytes.subspan(valueStart, valueEnd - valueStart));
    if (!value) return false;
    dictionary.add(key, std::move(value));
    return true;
  }

  Ref<> variant(std::span<const uint8_t> bytes) {
    // The value, a zero byte, the type's text.
    const auto zero = std::find(bytes.rbegin(), bytes.rend(), uint8_t{0});
    if (zero == bytes.rend()) return failed("a value without a type");
    const auto length = static_cast<size_t>(bytes.rend() - zero) - 1;
    const std::string_view type(reinterpret_cast<const char*>(bytes.data()) + length + 1,
                                bytes.size() - length - 1);
    const std::span<const uint8_t> value = bytes.first(length);
    if (type == "s") {
      std::string_view string;
      return text(value, string) ? Ref<>(makeIn<Box<Text>>(arena_, string)) : Ref<>();
    }
    if (type == "x") return fixed<int64_t>(value);
    if (type == "t") return fixed<uint64_t>(value);
    if (type == "d") return fixed<double>(value);
    if (type == "b") {
      if (length != 1 || value[0] > 1) return failed("a boolean that is neither 0 nor 1");
      return makeIn<Box<bool>>(arena_, value[0] == 1);
    }
    if (type == "ay") return makeIn<Box<Data>>(arena_, value.data(), value.size());
    if (type == "h") return descriptor(value);
    if (type == "a{sv}" || type == "av") return container(value, type == "av");
    return failed("a value of a type that is not known");
  }

  template <class T>
  Ref<> fixed(std::span<const uint8_t> bytes) {
    T value;
    if (bytes.size() != sizeof value) return failed("a number of the wrong size");
    memcpy(&value, bytes.data(), sizeof value);
    return makeIn<Box<T>>(arena_, value);
  }

  Ref<> descriptor(std::span<const uint8_t> bytes) {
    int32_t index = 0;
    if (bytes.size() != sizeof index) return failed("a number of the wrong size");
    memcpy(&index, bytes.data(), sizeof index);
    // In the order of the body, so each descriptor has exactly one place.
    if (taken_ == descriptors_.size() || index != static_cast<int32_t>(taken_))
      return failed("a descriptor that is missing or out of order");
    return makeIn<Descriptor>(arena_, std::move(descriptors_[taken_++]));
  }

  Ref<> container(std::span<const uint8_t> bytes, bool isArray) {
    if (++depth_ == kDeepest) return failed("containers nested too deeply");
    Ref<> result;
    if (isArray) {
      auto array = makeIn<Array>(arena_);
      forEachElement(bytes, array->values, [&](std::span<const uint8_t> element) {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the analyzer loses count of references
        Ref<> value = variant(element);
        if (value) array->values.push_back(std::move(value));
        return problem == nullptr;
      });
      result = std::move(array);
    } else {
      auto dictionary = makeIn<Dictionary>(arena_);
      read(bytes, *dictionary);
      result = std::move(dictionary);
    }
    depth_--;
    return problem ? Ref<>() : result;
  }

  // A text is UTF-8 and ends with its only zero byte.
  bool text(std::span<const uint8_t> bytes, std::string_view& text) {
    if (bytes.empty() || bytes.back() != 0) return fail("a string without an end");
    text = {reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1};
    return g_utf8_validate_len(text.data(), text.size(), nullptr) || fail("a string that is not UTF-8");
  }

  Ref<> failed(const char* what) {
    fail(what);
    return {};
  }

  static size_t offset(std::span<const uint8_t> bytes, size_t position, size_t size) {
    uint32_t value = 0;
    memcpy(&value, bytes.data() + position, size);
    return value;
  }

  static bool isPadding(std::span<const uint8_t> bytes, size_t from, size_t to) {
    return std::all_of(bytes.data() + from, bytes.data() + to, [](uint8_t byte) { return byte == 0; });
  }

  Arena* arena_ = nullptr;  // the message's
  std::span<FileDescriptor> descriptors_;
  size_t taken_ = 0;
  unsigned depth_ = 0;
};

}  // namespace

const char* writeBody(const Dictionary& dictionary, Bytes& bytes, Descriptors& descriptors) {
  Writer writer(bytes, descriptors);
  writer.dictionary(dictionary);
  return writer.problem;
}

Ref<Dictionary> readBody(std::span<const uint8_t> body, std::span<FileDescriptor> descriptors,
                         const char*& problem) {
  Reader reader(descriptors);
  Ref<Dictionary> dictionary = reader.message(body);
  problem = reader.problem;
  if (!problem && !reader.allDescriptorsTaken()) problem = "a descriptor that no value names";
  return problem ? Ref<Dictionary>() : dictionary;
}

}  // namespace platform::xpc
