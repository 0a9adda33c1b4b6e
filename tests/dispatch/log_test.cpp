#include <Foundation/NSLog.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

namespace {

// Standard error in a socket that keeps every write apart.
class CapturedLog {
 public:
  CapturedLog() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets_.data()), 0);
    saved_ = dup(STDERR_FILENO);
    dup2(sockets_[1], STDERR_FILENO);
  }
  ~CapturedLog() {
    dup2(saved_, STDERR_FILENO);
    for (const int descriptor : {saved_, sockets_[0], sockets_[1]}) close(descriptor);
  }

  // The next write without what stands before its text.
  std::string text() {
    std::string line(64 * 1024, '\0');
    const ssize_t size = recv(sockets_[0], line.data(), line.size(), MSG_DONTWAIT);
    if (size < 0) return "no line";
    line.resize(static_cast<std::size_t>(size));
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    const std::string process =
        std::string(" ") + program_invocation_short_name + "[" + std::to_string(getpid()) + "] ";
    const std::size_t start = line.find(process);
    EXPECT_EQ(start, std::string("2000-01-01 00:00:00.000").size()) << line;
    line.pop_back();
    return line.substr(start + process.size());
  }

 private:
  std::array<int, 2> sockets_;
  int saved_;
};

}  // namespace

TEST(NSLog, WritesOneLineForACallWhateverTheTextHolds) {
  CapturedLog log;
  NSLog(CFSTR("Failed creating %d x %d pixel buffer pool for %@ (%d)"), 640, -480, CFSTR("buffers for Zoë"),
        -6661);
  EXPECT_EQ(log.text(), "Failed creating 640 x -480 pixel buffer pool for buffers for Zoë (-6661)");

  CFStringRef hostile =
      CFStringCreateWithCString(nullptr, "a%s%n\n2026-01-01 forged\r\x1b[2J", kCFStringEncodingUTF8);
  NSLog(CFSTR("%@"), hostile);
  EXPECT_EQ(log.text(), "a%s%n\\n2026-01-01 forged\\x0d\\x1b[2J");
  CFRelease(hostile);

  const std::string endless(1'000'000, 'x');
  NSLog(CFSTR("%s"), endless.c_str());
  EXPECT_EQ(log.text(), std::string(32 * 1024, 'x'));
  EXPECT_EQ(log.text(), "no line");
}

TEST(NSLog, KnowsPrintfsConversions) {
  CapturedLog log;
  NSLog(CFSTR("%5d|%-5u|%05x|%lld|%zu|%hhd|%c|100%%"), -42, 42u, 0xbeefu, -5'000'000'000ll,
        std::size_t{1} << 40, 300, 'z');
  EXPECT_EQ(log.text(), "  -42|42   |0beef|-5000000000|1099511627776|44|z|100%");
  NSLog(CFSTR("%.2f|%*d|%.3s|%s|%@|%@"), 2.0 / 3, 4, 7, "abcdef", static_cast<const char*>(nullptr),
        static_cast<CFStringRef>(nullptr), CFSTR("end"));
  EXPECT_EQ(log.text(), "0.67|   7|abc|(null)|(null)|end");
  NSLog(CFSTR("an unknown %y and a last %"));
  EXPECT_EQ(log.text(), "an unknown %y and a last %");
}
