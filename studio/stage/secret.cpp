#include "stage/secret.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <array>
#include <stdexcept>

namespace studio {

std::string unguessable() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("the system gives no random numbers");
  }
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

}  // namespace studio
