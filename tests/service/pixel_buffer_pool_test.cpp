// What the pool manager says when there is no buffer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "streams/pixel_buffer_pool_manager.h"

using testing::EndsWith;
using testing::IsEmpty;

namespace {

constexpr OSType kBiplanar = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

TEST(PixelBufferPoolManager, NamesSizePurposeAndStatusOfWhatFailed) {
  const auto manager = ZVPixelBufferPoolManager::newManagerForPurpose("buffers for Ann");
  std::vector<Ref<CVPixelBufferRef>> buffers;
  const auto logged = [&](int32_t width, int32_t height, OSType format) {
    testing::internal::CaptureStderr();
    auto* const buffer = manager->pixelBufferFromPoolWithWidth(width, height, format, false);
    if (buffer != nullptr) buffers.push_back(Ref<CVPixelBufferRef>::adopt(buffer));
    return testing::internal::GetCapturedStderr();
  };
  const auto status = [](CVReturn answer) {
    return " for buffers for Ann (" + std::to_string(answer) + ")\n";
  };

  EXPECT_THAT(logged(0, 0, kBiplanar),
              EndsWith("Failed creating 0 x 0 pixel buffer" + status(kCVReturnInvalidArgument)));
  EXPECT_THAT(logged(64, 48, 0x20202020),
              EndsWith("Failed creating 64 x 48 pixel buffer pool" + status(kCVReturnInvalidPixelFormat)));
  std::string last;
  while (last.empty()) last = logged(64, 48, kBiplanar);
  EXPECT_THAT(last, EndsWith("Failed creating 64 x 48 pixel buffer" + status(kCVReturnPoolAllocationFailed)));

  // The pool is there still, and all that it handed out.
  const size_t all = buffers.size();
  buffers.pop_back();
  EXPECT_THAT(logged(64, 48, kBiplanar), IsEmpty());
  EXPECT_EQ(buffers.size(), all);
}

}  // namespace
