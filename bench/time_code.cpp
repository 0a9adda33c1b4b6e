#include "time_code.h"

#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstring>

namespace bench {

namespace {

constexpr unsigned kCells = 24;
constexpr unsigned kCheckBits = 4;
constexpr double kRange = 1 << (kCells - kCheckBits);  // milliseconds
constexpr std::size_t kPartOfHeight = 8;
constexpr std::uint8_t kBright = 128;

double milliseconds() {
  return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The complement of the sum of the other bits in fours: no picture of one colour has it right.
unsigned check(unsigned time) {
  unsigned sum = 0;
  for (; time != 0; time >>= kCheckBits) sum += time;
  return ~sum & ((1U << kCheckBits) - 1);
}

}  // namespace

void paintTime(IOSurfaceRef surface) {
  const auto time = static_cast<unsigned>(std::fmod(milliseconds(), kRange));
  const unsigned code = time << kCheckBits | check(time);
  auto* const picture = static_cast<std::uint8_t*>(IOSurfaceGetBaseAddress(surface));
  const std::size_t stride = IOSurfaceGetBytesPerRow(surface);
  const std::size_t width = IOSurfaceGetWidth(surface);
  for (std::size_t row = 0; row < IOSurfaceGetHeight(surface) / kPartOfHeight; ++row) {
    for (std::size_t cell = 0; cell < kCells; ++cell) {
      const std::size_t from = width * cell / kCells;
      const std::size_t to = width * (cell + 1) / kCells;
      const bool bright = (code >> (kCells - 1 - cell) & 1) != 0;
      std::memset(picture + row * stride + 4 * from, bright ? 0xFF : 0, 4 * (to - from));
    }
  }
}

std::optional<double> ageOf(const studio::Plane& luma) {
  const std::uint8_t* const row = luma.data + luma.height / kPartOfHeight / 2 * luma.bytesPerRow;
  unsigned code = 0;
  for (std::size_t cell = 0; cell < kCells; ++cell) {
    code = code << 1 | (row[luma.width * (2 * cell + 1) / (2 * kCells)] >= kBright ? 1 : 0);
  }
  const unsigned time = code >> kCheckBits;
  if ((code & ((1U << kCheckBits) - 1)) != check(time)) return std::nullopt;
  return std::fmod(milliseconds() - time, kRange);
}

}  // namespace bench
