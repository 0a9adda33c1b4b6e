// Maps a linked Mach-O library into this process, as the system's own loader would on macOS.
#pragma once

#include <mach-o/loader.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace platform {

// A file that the loader does not trust. what() names the file and the fault.
class ImageRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One mapped image. It is announced to the registry (mach-o/images.h) when its pointers are filled in and its
// protections set, taken out of the registry and unmapped when this object goes. An object is used by one
// thread at a time; different ones by any threads.
class LoadedImage {
 public:
  // Answers the address that an imported name (less a leading underscore) is bound to; nullptr: unknown,
  // which refuses the image unless the import is weak. All imports are bound before the image is announced.
  using Resolver = std::function<void*(const std::string& name)>;

  // Images of another processor are mapped and bound like any other, but nothing in them can be called.
  enum class Processor { ThisOne, Any };

  // Loads a file, or the bytes of one (of which nothing is kept; `path` is then only its name). Libraries and
  // bundles of 64 bits, with classic fixups or chained ones of unsigned pointers. Throws ImageRefused.
  static std::unique_ptr<LoadedImage> load(const std::string& path, const Resolver& resolve,
                                           Processor processor = Processor::ThisOne);
  static std::unique_ptr<LoadedImage> load(const std::string& path, std::span<const uint8_t> file,
                                           const Resolver& resolve, Processor processor = Processor::ThisOne);

  ~LoadedImage();
  LoadedImage(const LoadedImage&) = delete;
  LoadedImage& operator=(const LoadedImage&) = delete;

  const mach_header_64* header() const { return header_; }
  intptr_t slide() const { return slide_; }

  // The address of a name (without its leading underscore) that the image exports; nullptr if it does not.
  void* symbol(const std::string& name) const;

  template <typename Function>
  Function* function(const std::string& name) const {
    return reinterpret_cast<Function*>(symbol(name));
  }

 private:
  LoadedImage(void* reserved, size_t reservedSize, const mach_header_64* header, intptr_t slide);

  void* reserved_;  // the image with an unreadable page on either side
  size_t reservedSize_;
  const mach_header_64* header_;
  intptr_t slide_;
};

}  // namespace platform
