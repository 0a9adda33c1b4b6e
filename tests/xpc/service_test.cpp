// A service as a process: how it starts, how it ends, and what its clients see of that.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <list>

#include "child.h"
#include "link.h"

namespace {

constexpr char kName[] = "xpc-echo-service";  // what it is called if nothing else is said

class ServiceTest : public testing::Test {
 protected:
  // The service, once it listens.
  Child& startService() {
    Child& service =
        children_.emplace_back(std::vector<std::string>{ECHO_SERVICE}, std::map{std::pair(2, log_)}, [] {
          const rlimit descriptors{64, 256};
          setrlimit(RLIMIT_NOFILE, &descriptors);
        });
    EXPECT_TRUE(eventually([&] {
      const int fd = bareClient(folder_ / kName);
      if (fd >= 0) close(fd);
      return fd >= 0;
    }));
    return service;
  }
  // How another service process ends.
  static int statusOfAnother(const std::map<int, int>& descriptors = {}) {
    return Child({ECHO_SERVICE}, descriptors).waitForEnd();
  }

  // How many lines of the services' log hold the text.
  long logged(const std::string& text) {
    std::ifstream log(folder_ / "log");
    const std::istream_iterator<Line> first(log);
    return std::count_if(first, std::istream_iterator<Line>(),
                         [&](const Line& line) { return line.find(text) != std::string::npos; });
  }

  TemporaryFolder folder_;
  std::list<Child> children_;

 private:
  struct Line : std::string {
    friend std::istream& operator>>(std::istream& stream, Line& line) { return std::getline(stream, line); }
  };

  const int log_ = open((folder_ / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
};

Texts ask(const Connection& connection, const char* key) {
  return textsOf(connection.ask(message(key, "yes")));
}

TEST_F(ServiceTest, KilledAndStartedAnewItIsReachedAgain) {
  Child& first = startService();
  struct stat status;
  ASSERT_EQ(stat((folder_ / kName).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));

  // A second one finds the first alive.
  EXPECT_EQ(statusOfAnother(), 1);

  Connection connection(client(kName));
  const Texts reply = {{"there", "yes"}};
  EXPECT_EQ(ask(connection, "there"), reply);
  first.sendSignal(SIGKILL);
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(first.waitForEnd(), -SIGKILL);
  Child& second = startService();
  EXPECT_EQ(ask(connection, "there"), reply);
  EXPECT_EQ(xpc_connection_get_pid(connection), second.pid());
}

TEST_F(ServiceTest, AskedToEndItTellsItsClientsAndEnds) {
  Child& service = startService();
  Connection connection(client(kName));
  ask(connection, "begin");
  service.sendSignal(SIGTERM);
  const Object last = connection.events.next();
  ASSERT_EQ(xpc_get_type(last), XPC_TYPE_DICTIONARY);
  EXPECT_STREQ(xpc_dictionary_get_string(last, "ending"), "yes");
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(service.waitForEnd(std::chrono::seconds(4)), 0) << "nothing is left to wait for";
  EXPECT_EQ(logged(""), 0) << "an ordinary end";

  // A handler that does not return has five seconds.
  Child& stuck = startService();
  Connection other(client(kName));
  ask(other, "hang");
  stuck.sendSignal(SIGTERM);
  EXPECT_EQ(stuck.waitForEnd(std::chrono::seconds(3)), Child::kRuns);
  EXPECT_EQ(stuck.waitForEnd(), 0);
}

TEST_F(ServiceTest, OneProcessesConnectionsLeaveRoomForOthers) {
  startService();
  for (int i = 0; i < 40; i++) {  // more than may be open at once
    Connection connection(client(kName));
    EXPECT_EQ(ask(connection, "there"), (Texts{{"there", "yes"}}));
  }
  std::array<int, 2> done;
  ASSERT_EQ(pipe2(done.data(), O_CLOEXEC), 0);
  const Child greedy({"/usr/bin/python3", "-c", R"(
import os, signal, socket, sys
sockets = [socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) for _ in range(300)]
for each in sockets: each.connect(sys.argv[1])
for each in sockets[32:]: assert each.recv(1) == b''
for each in sockets[:32]: each.setblocking(False)
for each in sockets[:32]:
    try: assert not each.recv(1)
    except BlockingIOError: os.write(5, b'.')
signal.pause()
)",
                      folder_ / kName},
                     {{5, done[1]}});
  close(done[1]);
  char dots[32];
  for (size_t count = 0; count < sizeof dots;) {
    const ssize_t more = read(done[0], dots, sizeof dots - count);
    ASSERT_GT(more, 0) << "32 are held, the others turned away";
    count += static_cast<size_t>(more);
  }
  close(done[0]);

  Connection connection(client(kName));
  Object files(xpc_dictionary_create_empty());
  for (int i = 0; i < 60; i++) xpc_dictionary_set_fd(files, std::to_string(i).c_str(), STDIN_FILENO);
  const Object answer = connection.ask(files);
  ASSERT_EQ(xpc_get_type(answer), XPC_TYPE_DICTIONARY);
  EXPECT_TRUE(xpc_dictionary_get_value(answer, "59"));
  EXPECT_EQ(logged("XPC: refusing process " + std::to_string(greedy.pid())), 1);
  EXPECT_EQ(logged(""), 1);
}

TEST_F(ServiceTest, StartedOnDemandItEndsWhenItIsIdle) {
  // A socket that another process, here this one, holds is no stale one.
  const int listening = listeningSocket(folder_ / kName);
  EXPECT_EQ(statusOfAnother(), 1);
  close(accept(listening, nullptr, nullptr));

  Child service({ECHO_SERVICE}, {{3, listening}});
  {
    Connection connection(client(kName));
    EXPECT_EQ(ask(connection, "begin"), (Texts{{"begin", "yes"}}));
  }
  // The open transaction has kept it.
  {
    Connection connection(client(kName));
    EXPECT_EQ(ask(connection, "end"), (Texts{{"end", "yes"}}));
    EXPECT_EQ(service.waitForEnd(std::chrono::seconds(0)), Child::kRuns);
  }
  EXPECT_EQ(service.waitForEnd(), 0);

  // A socket of another kind is refused.
  const int stream = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(statusOfAnother({{3, stream}}), 1);
  close(stream);
  close(listening);
}

// A client in another language, written from docs/host-link.md alone.
TEST_F(ServiceTest, AClientWrittenFromTheDocumentIsUnderstood) {
  startService();
  EXPECT_EQ(Child({"/usr/bin/python3", WIRE_CLIENT, folder_ / kName}).waitForEnd(), 0);
}

}  // namespace
