#include "datagram.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace platform::xpc {
namespace {

constexpr uint8_t kVersion = 1;
constexpr uint8_t kLargeBody = 1;  // of the flags
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

struct Header {
  uint8_t magic[3] = {'X', 'P', 'C'};
  uint8_t version = kVersion;
  uint8_t kind = 0;
  uint8_t flags = 0;
  uint16_t descriptors = 0;
  uint32_t bodyLength = 0;
  uint32_t serial = 0;
};
static_assert(sizeof(Header) == kHeaderSize);

// A body in a memfd that nobody can change any more; null if that cannot be had.
Ref<Descriptor> sealed(std::span<const uint8_t> body) {
  FileDescriptor file(memfd_create("xpc-body", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  while (file && !body.empty()) {
    const ssize_t count = write(file.get(), body.data(), body.size());
    if (count < 0) return {};
    body = body.subspan(static_cast<size_t>(count));
  }
  if (!file || fcntl(file.get(), F_ADD_SEALS, kSeals) < 0) return {};
  return makeIn<Descriptor>(nullptr, std::move(file));
}

// A large body, copied out of its memfd: a mapping could be made to fault. The seals say that it is a memfd,
// so that reading it does not wait, and that it stays what it is meanwhile.
bool read(int fd, Bytes& body) {
  struct stat status;
  const int seals = fcntl(fd, F_GET_SEALS);
  return seals >= 0 && (seals & kSeals) == kSeals && fstat(fd, &status) == 0 &&
         status.st_size == static_cast<off_t>(body.size()) &&
         pread(fd, body.data(), body.size(), 0) == static_cast<ssize_t>(body.size());
}

// What is wrong with the header, or null.
const char* problemOf(const Header& header, size_t inlineLength, size_t descriptors) {
  const Header good;
  if (memcmp(header.magic, good.magic, sizeof good.magic) != 0) return "not a message";
  if (header.version != kVersion) return "a message of another version";
  if (header.kind > static_cast<uint8_t>(Kind::reply)) return "a message of a kind that is not known";
  if (header.flags & ~kLargeBody) return "flags that are not known";
  if ((header.kind == static_cast<uint8_t>(Kind::message)) != (header.serial == 0))
    return "a serial where there is none, or none where there is one";
  if (header.descriptors != descriptors || descriptors > kMostDescriptors)
    return "too many or missing descriptors";
  if (header.flags & kLargeBody) {
    if (inlineLength != 0 || descriptors == 0) return "a large body that is not where it should be";
    if (header.bodyLength <= kLargestInline || header.bodyLength > kLargestBody)
      return "a large body of a size that is none";
  } else if (header.bodyLength != inlineLength) {
    return "a body of another length than said";
  }
  return nullptr;
}

}  // namespace

const char* encode(const Dictionary& message, Outgoing& datagram) {
  datagram.bytes.resize(kHeaderSize);
  if (const char* problem = writeBody(message, datagram.bytes, datagram.descriptors)) return problem;

  datagram.bodyLength = datagram.bytes.size() - kHeaderSize;
  if (datagram.bodyLength > kLargestBody) return "it is larger than 8 MiB";
  Header header;
  header.bodyLength = static_cast<uint32_t>(datagram.bodyLength);
  if (datagram.bodyLength > kLargestInline) {
    Ref<Descriptor> body = sealed(std::span(datagram.bytes).subspan(kHeaderSize));
    if (!body) return "its body could not be put into shared memory";
    datagram.descriptors.push_back(std::move(body));
    datagram.bytes.resize(kHeaderSize);
    header.flags = kLargeBody;
  }
  if (datagram.descriptors.size() > kMostDescriptors) return "it carries more than 64 descriptors";
  header.descriptors = static_cast<uint16_t>(datagram.descriptors.size());
  memcpy(datagram.bytes.data(), &header, sizeof header);
  return nullptr;
}

void setKind(Outgoing& datagram, Kind kind, uint32_t serial) {
  datagram.bytes[offsetof(Header, kind)] = static_cast<uint8_t>(kind);
  memcpy(datagram.bytes.data() + offsetof(Header, serial), &serial, sizeof serial);
}

bool hasLargeBody(std::span<const uint8_t> datagram) {
  return datagram.size() >= kHeaderSize && (datagram[offsetof(Header, flags)] & kLargeBody);
}

Incoming decode(std::span<const uint8_t> datagram, std::span<FileDescriptor> descriptors) {
  Incoming incoming;
  Header header;
  if (datagram.size() < sizeof header) {
    incoming.problem = "a message without a whole header";
    return incoming;
  }
  memcpy(&header, datagram.data(), sizeof header);
  std::span<const uint8_t> body = datagram.subspan(sizeof header);
  incoming.problem = problemOf(header, body.size(), descriptors.size());
  if (incoming.problem) return incoming;

  incoming.kind = static_cast<Kind>(header.kind);
  incoming.serial = header.serial;
  incoming.bodyLength = header.bodyLength;
  if (header.flags & kLargeBody) {
    Bytes large(header.bodyLength);
    if (read(descriptors.back().get(), large))
      incoming.dictionary = readBody(large, descriptors.first(descriptors.size() - 1), incoming.problem);
    else
      incoming.problem = "a large body that is not sealed or of another size";
  } else {
    incoming.dictionary = readBody(body, descriptors, incoming.problem);
  }
  return incoming;
}

}  // namespace platform::xpc
