#include "app/private_directory.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace studio {

PrivateDirectory::PrivateDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zarvo-studio-XXXXXX").string();
  if (!mkdtemp(pattern.data())) {
    throw std::runtime_error(fmt::format("{} cannot be made: {}", pattern, std::strerror(errno)));
  }
  path_ = pattern;
}

PrivateDirectory::~PrivateDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void PrivateDirectory::write(const std::string& name, std::string_view content) const {
  std::ofstream file(path_ / name);
  file << content;
  file.close();
  if (!file) throw std::runtime_error(fmt::format("{} cannot be written", (path_ / name).string()));
}

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
