// Peers that do not keep to the protocol, and peers that should not be there.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <vector>

#include "link.h"

namespace {

constexpr char kName[] = "echo";
constexpr int kSealed = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

std::string number(uint64_t value, int size) {
  return std::string(reinterpret_cast<const char*>(&value), static_cast<size_t>(size));
}

struct Header {
  std::string magic = "XPC";
  uint8_t version = 1;
  uint8_t kind = 0;
  uint8_t flags = 0;
  uint16_t descriptors = 0;
  int64_t length = -1;  // the body's own
  uint32_t serial = 0;
};

std::string datagram(const std::string& body, const Header& h = {}) {
  return h.magic + number(h.version, 1) + number(h.kind, 1) + number(h.flags, 1) + number(h.descriptors, 2) +
         number(h.length < 0 ? body.size() : static_cast<uint64_t>(h.length), 4) + number(h.serial, 4) + body;
}

// What a container is followed by: where its one element ends.
std::string withOffset(const std::string& bytes, size_t offset) {
  return bytes + number(offset, bytes.size() < 0xff ? 1 : bytes.size() < 0xfffe ? 2 : 4);
}
// An entry of a dictionary: the key "k" and a value, or what stands in place of the value.
std::string entry(const std::string& value, const std::string& key = std::string("k\0", 2)) {
  std::string bytes = key;
  bytes.resize((bytes.size() + 7) / 8 * 8);
  return withOffset(bytes + value, key.size());
}
std::string dictionary(const std::string& entry) {
  return withOffset(entry, entry.size());
}
std::string value(const std::string& bytes, const std::string& type) {
  return bytes + '\0' + type;
}
std::string handle(uint32_t index) {
  return dictionary(entry(value(number(index, 4), "h")));
}
std::string deep(int levels) {
  std::string inner;
  for (int i = 0; i < levels; i++) inner = dictionary(entry(value(inner, "a{sv}")));
  return inner;
}
// A datagram whose body of that length is told to be its one descriptor.
std::string large(int64_t length, const std::string& body = "") {
  return datagram(body, {.flags = 1, .descriptors = 1, .length = length});
}

int memory(const std::string& bytes, int seals) {
  const int fd = memfd_create("body", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(fcntl(fd, F_ADD_SEALS, seals), 0);
  return fd;
}
int memory(size_t size, int seals) {
  return memory(std::string(size, '\0'), seals);
}

bool sendBare(int socket, const std::string& bytes, const std::vector<int>& descriptors) {
  iovec vector{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
  if (!descriptors.empty()) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    *header = {CMSG_LEN(descriptors.size() * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
  }
  return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// Whether the service answers or hangs up: 1 or 0 as recv has it.
ssize_t answer(int socket) {
  timeval deadline{kDeadline.count(), 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  char buffer[1 << 17];
  return std::min<ssize_t>(recv(socket, buffer, sizeof buffer, 0), 1);
}

class HostileTest : public testing::Test {
 protected:
  HostileTest() {
    EXPECT_TRUE(eventually([&] { return access((folder_ / kName).c_str(), F_OK) == 0; }));
    expectServed();
  }
  void expectServed() {
    EXPECT_EQ(textsOf(witness_.ask(message("still", "there"))), (Texts{{"still", "there"}}));
  }

  TemporaryFolder folder_;
  Connection service_{listener(kName), acceptingEcho()};
  Connection witness_{client(kName)};
};

TEST_F(HostileTest, ABadDatagramCostsItsSenderTheConnectionAndNothingElse) {
  const std::string good = dictionary(entry(value(number(1, 8), "x")));
  const std::string whole = datagram(good);
  const std::string goodLarge = dictionary(entry(value(std::string(70'000, 'x'), "ay")));
  const auto goodLength = static_cast<int64_t>(goodLarge.size());
  const auto file = [] { return memory(4096, 0); };
  struct Case {
    const char* name;
    std::string bytes;
    std::vector<int> descriptors = {};  // closed when sent
    bool isGood = false;
  };
  const std::vector<Case> cases = {
      {"a good one", datagram(good, {.kind = 1, .serial = 1}), {}, true},
      {"a good descriptor", datagram(handle(0), {.kind = 1, .descriptors = 1, .serial = 1}), {file()}, true},
      {"a good large one",
       datagram("", {.kind = 1, .flags = 1, .descriptors = 1, .length = goodLength, .serial = 1}),
       {memory(goodLarge, kSealed)},
       true},
      {"31 containers deep", datagram(deep(31), {.kind = 1, .serial = 1}), {}, true},
      {"32 containers deep", datagram(deep(32))},
      {"empty", ""},
      {"half a header", whole.substr(0, 9)},
      {"truncated", whole.substr(0, whole.size() - 1)},
      {"longer than said", whole + '\0'},
      {"other magic", datagram(good, {.magic = "GET"})},
      {"other version", datagram(good, {.version = 2})},
      {"unknown kind", datagram(good, {.kind = 3, .serial = 1})},
      {"unknown flags", datagram(good, {.flags = 2})},
      {"serial without a reply", datagram(good, {.serial = 1})},
      {"awaited reply without a serial", datagram(good, {.kind = 1})},
      {"reply that nobody awaits", datagram(good, {.kind = 2, .serial = 77})},
      {"oversized", datagram(std::string(65'537, '\0'))},
      {"missing descriptor", datagram(handle(0), {.descriptors = 1})},
      {"descriptor not counted", datagram(handle(0)), {file()}},
      {"descriptor not named", datagram(good, {.descriptors = 1}), {file()}},
      {"descriptor named twice", datagram(handle(1), {.descriptors = 1}), {file()}},
      {"negative handle", datagram(handle(UINT32_MAX), {.descriptors = 1}), {file()}},
      {"65 descriptors", datagram(good, {.descriptors = 65}), std::vector<int>(65, file())},
      {"253 descriptors", datagram(good, {.descriptors = 253}), std::vector<int>(253, file())},
      {"large body without its memory", datagram("", {.flags = 1, .length = 70'000})},
      {"large body that is small", large(100), {memory(100, kSealed)}},
      {"large body above the limit", large(9 << 20), {memory(9 << 20, kSealed)}},
      {"large body not sealed", large(goodLength), {memory(goodLarge, F_SEAL_SHRINK | F_SEAL_GROW)}},
      {"large body of another size", large(70'000), {memory(69'999, kSealed)}},
      {"large body in no memfd", large(70'000), {open("/dev/null", O_RDONLY | O_CLOEXEC)}},
      {"large body of nonsense", large(70'000), {memory(70'000, kSealed)}},
      {"large body inline too", large(70'000, good), {memory(70'000, kSealed)}},
      {"unknown type", datagram(dictionary(entry(value("\1", "y"))))},
      {"no type", datagram(dictionary(entry("kkkkkkkk")))},
      {"empty value", datagram(dictionary(entry("")))},
      {"number too short", datagram(dictionary(entry(value(number(1, 7), "x"))))},
      {"boolean 2", datagram(dictionary(entry(value("\2", "b"))))},
      {"string not UTF-8", datagram(dictionary(entry(value(std::string("\xff\0", 2), "s"))))},
      {"string with a zero", datagram(dictionary(entry(value(std::string("a\0b\0", 4), "s"))))},
      {"string without end", datagram(dictionary(entry(value("a", "s"))))},
      {"key not UTF-8", datagram(dictionary(entry(value("\1", "b"), std::string("\xc3\0", 2))))},
      {"padding not zero", datagram(std::string("k\0\0\0\1\0\0\0", 8) + value("\1", "b") + "\2\14")},
      {"key's offset outside",
       datagram(dictionary(std::string("k\0\0\0\0\0\0\0", 8) + value("\1", "b") + "\x60"))},
      {"entry's offset outside", datagram(entry(value("\1", "b")) + "\x60")},
      {"entries overlap", datagram(entry(value("\1", "b")) + "\4\14")},
      {"noise", datagram("\x01\x02\x03\x04\x05\x06\x07\x08\x09")},
  };
  std::promise<void> started;  // the pool, which takes descriptors of its own
  dispatch_async(dispatch_get_global_queue(0, 0), [&] { started.set_value(); });
  started.get_future().wait();
  size_t opened = 0;
  for (const Case& each : cases) opened += each.descriptors.empty() ? 0 : 1;
  const size_t before = openDescriptors() - opened;

  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    const int socket = bareClient(folder_ / kName);
    ASSERT_GE(socket, 0);
    EXPECT_TRUE(sendBare(socket, each.bytes, each.descriptors));
    if (!each.descriptors.empty()) close(each.descriptors.front());
    EXPECT_EQ(answer(socket), each.isGood ? 1 : 0);
    close(socket);
  }
  expectServed();
  EXPECT_TRUE(eventually([&] { return openDescriptors() == before; })) << "a descriptor leaks";
}

// The order tells, not the clock: the answer comes before most of the bodies that were sent earlier.
TEST_F(HostileTest, LargeBodiesDelayNobodyElse) {
  constexpr int kPeers = 16, kEach = 4;
  std::atomic<int> handled{0};
  Connection service(
      listener("large"), accepting([&](xpc_connection_t peer) {
        xpc_connection_set_event_handler(peer, [&](xpc_object_t event) {
          if (xpc_get_type(event) == XPC_TYPE_DICTIONARY && xpc_dictionary_get_value(event, "k")) handled++;
          echo(event);
        });
      }));
  Connection witness(client("large"));
  EXPECT_EQ(textsOf(witness.ask(message("first", "one"))), (Texts{{"first", "one"}}));

  const std::string body = dictionary(entry(value(std::string(4 << 20, 'x'), "ay")));
  const int file = memory(body, kSealed);
  std::vector<int> sockets(kPeers);
  for (int& socket : sockets) {
    ASSERT_GE(socket = bareClient(folder_ / "large"), 0);
    for (int i = 0; i < kEach; i++)
      ASSERT_TRUE(sendBare(socket, large(static_cast<int64_t>(body.size())), {file}));
  }
  EXPECT_EQ(textsOf(witness.ask(message("still", "there"))), (Texts{{"still", "there"}}));
  EXPECT_LT(handled, kPeers * kEach / 2);
  EXPECT_TRUE(eventually([&] { return handled == kPeers * kEach; }));
  for (const int socket : sockets) close(socket);
  close(file);
}

TEST_F(HostileTest, WhatIsNotHandledWaitsAtItsSenderAndIsReadThoughThatHasGone) {
  Events peers, ends;
  std::atomic<int> handled{0};
  Connection service(listener("slow"), accepting([&](xpc_connection_t peer) {
                       xpc_connection_set_event_handler(peer, [&](xpc_object_t event) {
                         xpc_get_type(event) == XPC_TYPE_ERROR ? ends.put(event) : void(handled++);
                       });
                       xpc_connection_suspend(peer);
                       peers.put(peer);
                     }));
  int eager = -1;
  ASSERT_TRUE(eventually([&] { return (eager = bareClient(folder_ / "slow")) >= 0; }));
  const Object peer = peers.next();
  timeval second{1, 0};
  setsockopt(eager, SOL_SOCKET, SO_SNDTIMEO, &second, sizeof second);
  const std::string whole = datagram(dictionary(entry(value(std::string(60'000, 'x'), "ay"))));
  int sent = 0;
  while (sent < 300 && sendBare(eager, whole, {})) sent++;
  EXPECT_GE(sent, (8 << 20) / 60'000);
  EXPECT_LT(sent, 200);
  xpc_connection_send_message(asConnection(peer), message("never", "read"));
  close(eager);
  xpc_connection_resume(asConnection(peer));
  EXPECT_EQ(ends.next(), XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(handled, sent);
}

TEST_F(HostileTest, ClientsThatDescriptorsWereMissingForAreServedLater) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "UBSan looks at objects through a pipe, and takes it for a fault when it gets none";
#endif
  std::array<int, 3> clients;
  for (int& each : clients) each = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit low{256, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> taken;
  for (int fd; (fd = dup(clients[0])) >= 0;) taken.push_back(fd);

  const sockaddr_un address = socketAddress(folder_ / kName);
  for (const int each : clients) {
    ASSERT_EQ(connect(each, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_TRUE(sendBare(each, datagram("", {.kind = 1, .serial = 1}), {}));
  }
  EXPECT_EQ(answer(clients[0]), 1) << "one is let in by the reserve";
  expectServed();
  for (const int fd : taken) close(fd);
  for (size_t i = 1; i < clients.size(); i++) EXPECT_EQ(answer(clients[i]), 1) << i;
  setrlimit(RLIMIT_NOFILE, &limit);
  for (const int each : clients) close(each);
}

TEST_F(HostileTest, AnotherUsersPeerIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  // Let the stranger as far as the socket itself.
  ASSERT_EQ(chmod((folder_ / "").c_str(), 0711), 0);
  ASSERT_EQ(chmod((folder_ / kName).c_str(), 0666), 0);
  const std::string hello = datagram("", {.kind = 1, .serial = 1});
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(9);
    const int socket = bareClient(folder_ / kName);
    if (socket < 0) _exit(8);
    sendBare(socket, hello, {});
    _exit(answer(socket) > 0 ? 7 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  expectServed();
}

}  // namespace
