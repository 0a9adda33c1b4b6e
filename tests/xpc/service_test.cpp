// A service as a process: how it starts, how it ends, and what its clients see of that.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <vector>

#include "link.h"

namespace {

constexpr char kName[] = "xpc-echo-service";  // what it is called if nothing else is said

class ServiceTest : public testing::Test {
 protected:
  ~ServiceTest() override {
    for (pid_t pid : m_running) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }

  // Starts a program and answers its process; with a socket, passes it as systemd does.
  pid_t start(const std::vector<std::string>& command, int socket = -1) {
    const pid_t pid = fork();
    if (pid == 0) {
      if (socket >= 0) {
        dup2(dup(socket), 3);  // by another number, since a descriptor is not copied onto itself
        setenv("LISTEN_FDS", "1", 1);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
      }
      std::vector<char*> arguments;
      for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
      arguments.push_back(nullptr);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    m_running.push_back(pid);
    return pid;
  }
  pid_t startService() {
    const pid_t pid = start({ECHO_SERVICE});
    EXPECT_TRUE(eventually([&] {
      const int fd = bareClient(m_folder / kName);
      if (fd >= 0) close(fd);
      return fd >= 0;
    }));
    return pid;
  }
  // The exit status, or minus the signal.
  int statusOf(pid_t pid) {
    int status = 0;
    const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) return -1000;
    std::erase(m_running, pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  TemporaryFolder m_folder;
  std::vector<pid_t> m_running;
};

std::string ask(const Connection& connection, const char* key) {
  return describe(connection.ask(message(key, "yes")));
}

TEST_F(ServiceTest, KilledAndStartedAnewItIsReachedAgain) {
  const pid_t first = startService();
  struct stat status;
  ASSERT_EQ(stat((m_folder / kName).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));

  // A second one finds the first alive.
  EXPECT_EQ(statusOf(start({ECHO_SERVICE})), 1);

  Connection connection(client(kName));
  const std::string reply = describe(message("there", "yes"));
  EXPECT_EQ(ask(connection, "there"), reply);
  EXPECT_EQ(xpc_connection_get_pid(connection), first);

  kill(first, SIGKILL);
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(statusOf(first), -SIGKILL);
  const pid_t second = startService();
  EXPECT_EQ(ask(connection, "there"), reply);
  EXPECT_EQ(xpc_connection_get_pid(connection), second);

  EXPECT_EQ(ask(connection, "die"), "error: Connection interrupted");
  EXPECT_EQ(statusOf(second), 3);
  EXPECT_EQ(ask(connection, "there"), "error: Connection invalid");
}

TEST_F(ServiceTest, AskedToEndItTellsItsClientsAndEnds) {
  const pid_t service = startService();
  Connection connection(client(kName));
  ask(connection, "begin");
  kill(service, SIGTERM);
  const Object last = connection.events.next();
  ASSERT_EQ(xpc_get_type(last), XPC_TYPE_DICTIONARY);
  EXPECT_STREQ(xpc_dictionary_get_string(last, "ending"), "yes");
  EXPECT_EQ(ask(connection, "there"), describe(message("there", "yes"))) << "its transaction is still open";
  xpc_connection_send_message(connection, message("end", "yes"));
  EXPECT_EQ(connection.events.next(), XPC_ERROR_CONNECTION_INTERRUPTED);
  EXPECT_EQ(statusOf(service), 0);
}

TEST_F(ServiceTest, StartedOnDemandItEndsWhenItIsIdle) {
  // A socket that another process, here this one, holds is no stale one.
  const int listening = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = socketAddress(m_folder / kName);
  ASSERT_EQ(bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listening, 8), 0);
  EXPECT_EQ(statusOf(start({ECHO_SERVICE})), 1);
  close(accept(listening, nullptr, nullptr));

  const pid_t service = start({ECHO_SERVICE}, listening);
  {
    Connection connection(client(kName));
    EXPECT_EQ(ask(connection, "begin"), describe(message("begin", "yes")));
  }
  // The open transaction has kept it.
  {
    Connection connection(client(kName));
    EXPECT_EQ(ask(connection, "end"), describe(message("end", "yes")));
    EXPECT_EQ(waitpid(service, nullptr, WNOHANG), 0);
  }
  EXPECT_EQ(statusOf(service), 0);

  // A socket of another kind is refused.
  const int stream = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(statusOf(start({ECHO_SERVICE}, stream)), 1);
  close(stream);
  close(listening);
}

// A client in another language, written from docs/host-link.md alone.
TEST_F(ServiceTest, AClientWrittenFromTheDocumentIsUnderstood) {
  startService();
  EXPECT_EQ(statusOf(start({"/usr/bin/python3", WIRE_CLIENT, m_folder / kName})), 0);
}

}  // namespace
