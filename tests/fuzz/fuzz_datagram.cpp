// The decoder of the host link's datagrams. The first byte says how many descriptors come along.
#include <sys/eventfd.h>
#include <xpc/body.h>
#include <xpc/datagram.h>

#include <cstdlib>
#include <vector>

namespace xpc = platform::xpc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<xpc::FileDescriptor> descriptors;
  for (int i = 0; i < data[0] % 4; i++) descriptors.emplace_back(eventfd(0, EFD_CLOEXEC));
  const std::span datagram(data + 1, size - 1);
  const xpc::Incoming incoming = xpc::decode(datagram, descriptors);
  if (!incoming.dictionary) return incoming.problem ? 0 : (abort(), 0);

  // A body has one form only: what was taken is written the same again.
  xpc::Bytes bytes;
  xpc::Descriptors again;
  const auto body = datagram.subspan(xpc::kHeaderSize);
  if (xpc::writeBody(*incoming.dictionary, bytes, again) || again.size() != descriptors.size() ||
      !std::equal(bytes.begin(), bytes.end(), body.begin(), body.end()))
    abort();
  return 0;
}
