// A service as a process: how it starts, how it ends, and what its clients see of that.
#include <sys/stat.h>

#include <list>

#include "child.h"
#include "link.h"

namespace {

constexpr char kName[] = "xpc-echo-service";  // what it is called if nothing else is said

class ServiceTest : public testing::Test {
 protected:
  // The service, once it listens.
  Child& startService() {
    Child& service = children_.emplace_back(std::vector<std::string>{ECHO_SERVICE});
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

  TemporaryFolder folder_;
  std::list<Child> children_;
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
  EXPECT_EQ(ask(connection, "there"), (Texts{{"there", "yes"}})) << "its transaction is still open";
  xpc_connection_send_message(connection, message("end", "yes"));
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(service.waitForEnd(), 0);
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
