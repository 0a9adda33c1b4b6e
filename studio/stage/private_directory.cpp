#include "stage/private_directory.h"

#include <fmt/format.h>

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

}  // namespace studio
