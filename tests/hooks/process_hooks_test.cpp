// The two hooks, called through images that import what they replace, and looked up by name in the built
// service.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

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

std::unique_ptr<LoadedImage> loadAudience() {
  return LoadedImage::load(imagePath("audience_" + kThisProcessor), [](const std::string& name) {
    return name == "AudioDeviceDuck" ? reinterpret_cast<void*>(&realDuck)
                                     : reinterpret_cast<void*>(&realSetPriority);
  });
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
  SchedAttr granted{};
  std::thread([&] {
    const sched_param fifty{.sched_priority = 50};
    const sched_param zero{.sched_priority = 0};
    EXPECT_EQ(setPriority(someThread, SCHED_RR, &fifty), 0);
    EXPECT_EQ(setPriority(someThread, SCHED_RR, nullptr), 0);
    EXPECT_EQ(setPriority(someThread, SCHED_OTHER, &zero), 0);
    EXPECT_EQ(callersPolicy().policy, uint32_t{SCHED_OTHER});
    // The thread that is named is another one.
    EXPECT_EQ(setPriority(someThread, SCHED_RR, &zero), 0);
    granted = callersPolicy();
  }).join();
  const std::string printed = testing::internal::GetCapturedStdout();

  EXPECT_EQ(callersPolicy().policy, uint32_t{SCHED_OTHER});
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

// Nothing in the service refers to them; and a host finds no more than is meant for it.
TEST(ProcessHooks, AHostFindsThemInTheService) {
  const auto isFound = [](const std::string& name) {
    return std::system(("nm -D --defined-only " SERVICE_PROGRAM " | grep -q '" + name + "'").c_str()) == 0;
  };
  for (const std::string name : {" duckExactlyElevenDucks$", " patchThreadPriority$", " dontRebindImages$"})
    EXPECT_TRUE(isFound(name)) << name;
  for (const std::string name :
       {"myDuck", "mySetSchedParam", "rebindSymbols", "rewriteImage", "RebindingIndex"})
    EXPECT_FALSE(isFound(name)) << name;
}

}  // namespace
