// The two hooks, called through images that import what they replace, and looked up by name in the built
// service.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "mapped_image.h"
#include "process_hooks.h"

using platform::LoadedImage;

namespace {

int realDuck(unsigned, float, const void*, float) {
  return 42;
}
int realSetPriority(void*, int, const void*) {
  return 43;
}

void* systemFunctions(const std::string& name) {
  if (name == "AudioDeviceDuck") return reinterpret_cast<void*>(&realDuck);
  if (name == "pthread_setschedparam") return reinterpret_cast<void*>(&realSetPriority);
  return nullptr;
}

std::unique_ptr<LoadedImage> loadAudience() {
  return LoadedImage::load(imagePath("audience_" + kThisProcessor), systemFunctions);
}

// The very first rebinding in this process.
TEST(ProcessHooks, NothingDucksOnceTheDucksAreEleven) {
  const auto before = loadAudience();
  EXPECT_EQ(before->function<int()>("duck")(), 42);
  duckExactlyElevenDucks();
  const auto after = loadAudience();
  testing::internal::CaptureStdout();
  EXPECT_EQ(before->function<int()>("duck")(), 0);
  EXPECT_EQ(after->function<int()>("duck")(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unduck\nUnduck\n");
}

// The kernel's own structure; see sched_getattr(2).
struct SchedAttr {
  uint32_t size;
  uint32_t policy;
  uint64_t flags;
  int32_t nice;
  uint32_t priority;
  uint64_t runtime;
  uint64_t deadline;
  uint64_t period;
};

SchedAttr callersPolicy() {
  SchedAttr attributes{};
  EXPECT_EQ(syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0), 0);
  return attributes;
}

TEST(ProcessHooks, PriorityRequestsBecomeATimeConstraint) {
  const auto image = loadAudience();
  auto* const setPriority = image->function<int(void*, int, const void*)>("setPriority");
  EXPECT_EQ(setPriority(nullptr, SCHED_RR, nullptr), 43);
  patchThreadPriority();

  const auto someThread = reinterpret_cast<void*>(pthread_self());
  testing::internal::CaptureStdout();
  SchedAttr swallowed{};
  SchedAttr granted{};
  std::thread([&] {
    const sched_param fifty{.sched_priority = 50};
    const sched_param zero{.sched_priority = 0};
    EXPECT_EQ(setPriority(someThread, SCHED_RR, &fifty), 0);
    EXPECT_EQ(setPriority(someThread, SCHED_RR, nullptr), 0);
    EXPECT_EQ(setPriority(someThread, SCHED_OTHER, &zero), 0);
    swallowed = callersPolicy();
    // The thread that is named is another one.
    EXPECT_EQ(setPriority(someThread, SCHED_RR, &zero), 0);
    granted = callersPolicy();
  }).join();
  const std::string printed = testing::internal::GetCapturedStdout();

  EXPECT_EQ(swallowed.policy, static_cast<uint32_t>(SCHED_OTHER));
  EXPECT_EQ(callersPolicy().policy, static_cast<uint32_t>(SCHED_OTHER));
  constexpr uint32_t kDeadline = 6;
  if (granted.policy == kDeadline) {
    EXPECT_EQ(granted.runtime, 2'000'000U);
    EXPECT_EQ(granted.deadline, 4'000'000U);
    EXPECT_EQ(granted.period, 1'000'000'000U);
    EXPECT_EQ(printed, "");
  } else {
    // This kernel, or this user's rights, do not allow it.
    EXPECT_TRUE(printed == "thread_policy_set 8\n" || printed == "thread_policy_set 6\n") << printed;
  }
}

TEST(ProcessHooks, AHostFindsThemInTheService) {
  const std::string command =
      "LD_PRELOAD=" HOOKS_HOST " ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0 " SERVICE_PROGRAM
      " 2>&1";
  FILE* const service = popen(command.c_str(), "r");
  ASSERT_NE(service, nullptr);
  std::string printed;
  for (std::array<char, 256> line{}; fgets(line.data(), line.size(), service) != nullptr;)
    printed += line.data();
  EXPECT_EQ(pclose(service), 0);
  EXPECT_EQ(printed, "Unduck\nrebinding is on\n");
}

}  // namespace
