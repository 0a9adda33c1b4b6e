#include <Foundation/ns_log.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <string>

namespace {

// What the call logs, in one write, without what stands before its text.
std::string logged(const std::function<void()>& call) {
  // A socket that keeps every write apart stands in for standard error.
  std::array<int, 2> sockets;
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets.data()), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(sockets[1], STDERR_FILENO);
  call();
  dup2(saved, STDERR_FILENO);
  std::string line(64 * 1024, '\0');
  line.resize(static_cast<std::size_t>(recv(sockets[0], line.data(), line.size(), MSG_DONTWAIT)));
  EXPECT_LT(recv(sockets[0], nullptr, 0, MSG_DONTWAIT), 0) << "a second write";
  for (const int descriptor : {saved, sockets[0], sockets[1]}) close(descriptor);

  EXPECT_EQ(line.find('\n'), line.size() - 1);
  line.pop_back();
  const std::string process =
      std::string(" ") + program_invocation_short_name + "[" + std::to_string(getpid()) + "] ";
  const std::size_t start = line.find(process);
  EXPECT_EQ(start, std::string("2000-01-01 00:00:00.000").size()) << line;
  return line.substr(start + process.size());
}

}  // namespace

TEST(NSLog, WritesOneLineForACallWhateverTheTextHolds) {
  EXPECT_EQ(logged([] { NSLog(CFSTR("%d x %5.1f %s of %@ %y%"), -480, 2.0 / 3, "buffers", CFSTR("Zoë")); }),
            "-480 x   0.7 buffers of Zoë %y%");
  CFStringRef hostile =
      CFStringCreateWithCString(nullptr, "a%s%n\n2026-01-01 forged\r\x1b[2J", kCFStringEncodingUTF8);
  EXPECT_EQ(logged([&] { NSLog(CFSTR("%@"), hostile); }), "a%s%n\\n2026-01-01 forged\\x0d\\x1b[2J");
  CFRelease(hostile);
  EXPECT_EQ(logged([] { NSLog(CFSTR("%s"), std::string(1'000'000, 'x').c_str()); }),
            std::string(32 * 1024, 'x'));
}
