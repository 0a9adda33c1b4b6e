// The kernel calls that platform/ supplies: the process's map and its threads' policies.
#include <gtest/gtest.h>
#include <mach/mach.h>
#include <mach/task_map.h>
#include <sys/mman.h>

namespace {

kern_return_t regionAt(vm_address_t& address, vm_size_t& size, vm_region_basic_info_data_64_t& info) {
  mach_msg_type_number_t count = VM_REGION_BASIC_INFO_COUNT_64;
  mach_port_t object = 1;
  return vm_region_64(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                      reinterpret_cast<vm_region_info_t>(&info), &count, &object);
}

TEST(VmRegion, TellsThePagesAsTheyAreMapped) {
  // read and write, none, read, none
  auto* const pages =
      static_cast<char*>(mmap(nullptr, 4 * vm_page_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  mprotect(pages, vm_page_size, PROT_READ | PROT_WRITE);
  mprotect(pages + 2 * vm_page_size, vm_page_size, PROT_READ);

  const auto start = reinterpret_cast<vm_address_t>(pages);
  vm_size_t size = 0;
  vm_region_basic_info_data_64_t info{};
  auto address = start + 2 * vm_page_size + 17;
  EXPECT_EQ(regionAt(address, size, info), KERN_SUCCESS);
  EXPECT_EQ(address, start + 2 * vm_page_size);
  EXPECT_EQ(size, vm_page_size);
  EXPECT_EQ(info.protection, VM_PROT_READ);

  // Nothing is mapped at an address: the next region above answers.
  munmap(pages, vm_page_size);
  munmap(pages + vm_page_size, vm_page_size);
  address = start + vm_page_size;
  EXPECT_EQ(regionAt(address, size, info), KERN_SUCCESS);
  EXPECT_EQ(address, start + 2 * vm_page_size);

  for (const uint64_t wanted : {uint64_t{start}, reinterpret_cast<uint64_t>(&size), uint64_t{0}}) {
    const auto fast = platform::regionAtOrAbove(wanted);
    const auto slow = platform::regionFromMapsText(wanted);
    ASSERT_TRUE(fast && slow);
    EXPECT_EQ(fast->start, slow->start);
    EXPECT_EQ(fast->end, slow->end);
    EXPECT_EQ(fast->protection, slow->protection);
    EXPECT_EQ(fast->offset, slow->offset);
  }
  munmap(pages + 2 * vm_page_size, 2 * vm_page_size);
}

TEST(VmRegion, RefusesWhatItDoesNotKnow) {
  vm_address_t address = UINTPTR_MAX - 4095;
  vm_size_t size = 0;
  vm_region_basic_info_data_64_t info{};
  EXPECT_EQ(regionAt(address, size, info), KERN_INVALID_ADDRESS);
  mach_msg_type_number_t tooFew = VM_REGION_BASIC_INFO_COUNT_64 - 1;
  mach_port_t object = MACH_PORT_NULL;
  EXPECT_EQ(vm_region_64(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                         reinterpret_cast<vm_region_info_t>(&info), &tooFew, &object),
            KERN_INVALID_ARGUMENT);
}

TEST(ThreadPolicy, TheKernelsRefusalComesBack) {
  // More of the processor than the period has: refused to every user.
  thread_time_constraint_policy_data_t times{
      .period = 1'000'000, .computation = 3'000'000, .constraint = 2'000'000, .preemptible = 1};
  const auto set = [&](mach_port_t thread, thread_policy_flavor_t flavor) {
    return thread_policy_set(thread, flavor, reinterpret_cast<thread_policy_t>(&times),
                             THREAD_TIME_CONSTRAINT_POLICY_COUNT);
  };
  const mach_port_t self = pthread_mach_thread_np(pthread_self());
  EXPECT_NE(set(self, THREAD_TIME_CONSTRAINT_POLICY), KERN_SUCCESS);
  EXPECT_EQ(set(MACH_PORT_NULL, THREAD_TIME_CONSTRAINT_POLICY), KERN_INVALID_ARGUMENT);
  EXPECT_EQ(set(self, 1), KERN_INVALID_ARGUMENT);
}

}  // namespace
