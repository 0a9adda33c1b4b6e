#include <Foundation/line_limit.h>
#include <Foundation/ns_log.h>
#include <fmt/chrono.h>
#include <fmt/printf.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace {

// journald ends a record after 48 KiB by its default.
constexpr std::size_t kLongestText = std::size_t{32} * 1024;
// Some texts may come with every frame or every connection. Each is written so often in a minute.
constexpr unsigned kSameTexts = 10;

// The analyser loses sight of a va_list that is a member.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized)

// Walks a format and takes the arguments that it names.
class Formatter {
 public:
  explicit Formatter(const char* format) : rest_(format) {}

  std::string format(va_list arguments) {
    va_copy(arguments_, arguments);
    while (!rest_.empty()) {
      const std::size_t percent = rest_.find('%');
      text_ += rest_.substr(0, percent);
      if (percent == std::string_view::npos) break;
      rest_.remove_prefix(percent + 1);
      conversion();
    }
    va_end(arguments_);
    return std::move(text_);
  }

 private:
  char next() {
    if (rest_.empty()) return '\0';
    const char character = rest_.front();
    rest_.remove_prefix(1);
    return character;
  }

  // One conversion, after its '%'. The flags, width and precision go on to fmt; the length says what the
  // caller passed, and fmt sees that in the type of its argument.
  void conversion() {
    std::string spec = "%";
    std::string length;
    for (;;) {
      const char character = next();
      switch (character) {
        case '\0':
          text_ += spec;
          return;
        case '*':
          spec += std::to_string(va_arg(arguments_, int));
          break;
        case 'h':
        case 'l':
        case 'q':
        case 'j':
        case 'z':
        case 't':
        case 'L':
          length += character;
          break;
        case '%':
          text_ += '%';
          return;
        case '@':
          object(spec + 's');
          return;
        case 'd':
        case 'i':
          text_ += fmt::sprintf(spec + 'd', signedArgument(length));
          return;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
          text_ += fmt::sprintf(spec + character, unsignedArgument(length));
          return;
        case 'c':
          text_ += fmt::sprintf(spec + 'c', static_cast<char>(va_arg(arguments_, int)));
          return;
        case 's':
          string(spec + 's', va_arg(arguments_, const char*));
          return;
        case 'p':
          text_ += fmt::sprintf(spec + 'p', va_arg(arguments_, void*));
          return;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
          text_ += length == "L" ? fmt::sprintf(spec + character, va_arg(arguments_, long double))
                                 : fmt::sprintf(spec + character, va_arg(arguments_, double));
          return;
        default:
          spec += character;
          if (std::string_view("-+ #0123456789.").find(character) == std::string_view::npos) {
            text_ += spec;
            return;
          }
      }
    }
  }

  std::int64_t signedArgument(const std::string& length) {
    if (length.empty()) return va_arg(arguments_, int);
    if (length == "h") return static_cast<short>(va_arg(arguments_, int));
    if (length == "hh") return static_cast<signed char>(va_arg(arguments_, int));
    return va_arg(arguments_, std::int64_t);
  }

  std::uint64_t unsignedArgument(const std::string& length) {
    if (length.empty()) return va_arg(arguments_, unsigned);
    if (length == "h") return static_cast<unsigned short>(va_arg(arguments_, unsigned));
    if (length == "hh") return static_cast<unsigned char>(va_arg(arguments_, unsigned));
    return va_arg(arguments_, std::uint64_t);
  }

  void object(const std::string& spec) {
    const void* value = va_arg(arguments_, const void*);
    const bool isString = value && CFGetTypeID(value) == CFStringGetTypeID();
    if (value && !isString) {
      text_ += fmt::sprintf("<object %p>", value);
    } else {
      string(spec,
             value ? CFStringGetCStringPtr(static_cast<CFStringRef>(value), kCFStringEncodingUTF8) : nullptr);
    }
  }

  void string(const std::string& spec, const char* value) {
    text_ += fmt::sprintf(spec, value ? value : "(null)");
  }

  std::string_view rest_;
  std::string text_;
  va_list arguments_;
};

// NOLINTEND(clang-analyzer-valist.Uninitialized)

void appendOnOneLine(std::string& line, std::string_view text) {
  for (const char character : text.substr(0, kLongestText)) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '\n') {
      line += "\\n";
    } else if ((byte < 0x20 && character != '\t') || byte == 0x7f) {
      line += fmt::format("\\x{:02x}", byte);
    } else {
      line += character;
    }
  }
}

void writeLine(const std::string& text) {
  const auto now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::string line =
      fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03} {}[{}] ", fmt::localtime(seconds),
                  now.time_since_epoch().count() % 1000, program_invocation_short_name, getpid());
  appendOnOneLine(line, text);
  line += '\n';
  // A log that cannot be written has nowhere to complain.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

void NSLog(CFStringRef format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Formatter(CFStringGetCStringPtr(format, kCFStringEncodingUTF8)).format(arguments);
  va_end(arguments);

  static auto& limit = *new platform::LineLimit(kSameTexts);
  const auto [allowed, leftOut] =
      limit.ask(std::hash<std::string>()(text), platform::LineLimit::Clock::now());
  if (leftOut > 0) writeLine(fmt::format("The following line was left out {} times", leftOut));
  if (allowed) writeLine(text);
}
