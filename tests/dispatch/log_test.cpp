#include <Foundation/line_limit.h>
#include <Foundation/ns_log.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <string>

namespace {

// What the call logs, in one write if at all, without what stands before its text.
std::string logged(const std::function<void()>& call) {
  // A socket that keeps every write apart stands in for standard error.
  std::array<int, 2> sockets;
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets.data()), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(sockets[1], STDERR_FILENO);
  call();
  dup2(saved, STDERR_FILENO);
  std::string line(64 * 1024, '\0');
  const ssize_t length = recv(sockets[0], line.data(), line.size(), MSG_DONTWAIT);
  line.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  EXPECT_LT(recv(sockets[0], nullptr, 0, MSG_DONTWAIT), 0) << "a second write";
  for (const int descriptor : {saved, sockets[0], sockets[1]}) close(descriptor);

  if (line.empty()) return line;
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

TEST(NSLog, WritesTheSameTextTenTimesAMinute) {
  const auto pool = [] { NSLog(CFSTR("no buffer for %s"), "guest"); };
  for (int i = 0; i < 10; i++) EXPECT_EQ(logged(pool), "no buffer for guest");
  EXPECT_EQ(logged(pool), "");
  EXPECT_EQ(logged([] { NSLog(CFSTR("no buffer for %s"), "another"); }), "no buffer for another");

  platform::LineLimit limit(2);
  const platform::LineLimit::Clock::time_point begin;
  const auto ask = [&](uint64_t kind, std::chrono::seconds at) {
    const auto [allowed, leftOut] = limit.ask(kind, begin + at);
    return allowed ? static_cast<int>(leftOut) : -1;
  };
  using std::chrono::seconds;
  EXPECT_EQ(ask(1, seconds(0)), 0);
  for (const int expected : {0, -1, -1}) EXPECT_EQ(ask(1, seconds(59)), expected);
  EXPECT_EQ(ask(1, seconds(60)), 2) << "as many were left out";
  for (uint64_t kind = 2; kind < 1000; kind++) EXPECT_EQ(ask(kind, seconds(61)), 0);
  EXPECT_EQ(ask(1, seconds(61)), 0) << "the first kind was forgotten for others";
}
