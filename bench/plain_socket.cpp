#include "plain_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

struct alignas(cmsghdr) Control {
  char bytes[CMSG_SPACE(sizeof(int))];
};

}  // namespace

void sendPlain(int socket, const void* bytes, size_t size, int descriptor) {
  iovec vector{const_cast<void*>(bytes), size};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  Control control{};
  if (descriptor >= 0) {
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  if (sendmsg(socket, &message, MSG_NOSIGNAL) < 0) {
    std::perror("the benchmark's socket");
    std::abort();
  }
}

bool receivePlain(int socket, void* bytes, size_t size) {
  iovec vector{bytes, size};
  Control control{};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof control.bytes;
  const ssize_t received = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  if (const cmsghdr* const header = CMSG_FIRSTHDR(&message)) {
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    close(descriptor);
  }
  return received == static_cast<ssize_t>(size);
}

}  // namespace bench
