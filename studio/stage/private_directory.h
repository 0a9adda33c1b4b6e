// A directory of the studio's own.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace studio {

/// A new directory that only this user may enter; removed with all that it holds at the end.
class PrivateDirectory {
 public:
  PrivateDirectory();
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /// Writes a file in it. Throws std::runtime_error.
  void write(const std::string& name, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

}  // namespace studio
