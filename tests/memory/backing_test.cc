#include <gtest/gtest.h>

#include <cstdio>

#include "memory/internal.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "tests/support/leaks.h"
#include "tests/support/recorded_log.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

namespace {

namespace backing = zeltest::backing;

constexpr size_t kBucketTable = size_t{64} * 2046 * sizeof(zelrt::ZelSizeClassBucket);

TEST(BackingTest, EverythingComesFromTheInstalledPair) {
  backing::Install();
  __ZelInitializeMemoryCollectorAndReserveMemory(1);
  void* const small = __ZelMalloc(0, 10, 0);
  void* const large = __ZelMalloc(0, 100'000, 0);
  EXPECT_EQ((std::vector<size_t>{kBucketTable, 33'554'416, 65'520, 100'008}), backing::Requests());
  EXPECT_NE(nullptr, zelrt::FindBucket(0, 64)) << "set up with the others of its run";
  EXPECT_EQ(nullptr, zelrt::FindBucket(0, 65)) << "as is no run that nobody uses";
  __ZelFree(large);
  __ZelFree(small);
  __ZelDeinitializeSubAllocator();
  EXPECT_EQ(2u, backing::LiveBlocks()) << "the retained page and the reserve stay where they are";
}

TEST(BackingTest, HalfAPairIsNoneAndOneThatComesTooLateIsNotUsed) {
  __ZelInitializeSubAllocator(backing::Allocate, nullptr);
  __ZelFree(__ZelMalloc(0, 100'000, 0));
  backing::Install();
  __ZelFree(__ZelMalloc(0, 100'000, 0));
  EXPECT_EQ(0u, backing::RequestCount());
}

TEST(BackingTest, AFreshRecordIsBuiltAfterTheEnd) {
  zeltest::IgnoreLeaks();
  backing::Install();
  __ZelInitializeMemoryCollector();
  static_cast<void>(__ZelMalloc(5, 10, 0));
  __ZelDeinitializeSubAllocator();
  __ZelDeinitializeSubAllocator();
  const size_t requests = backing::RequestCount();
  const size_t live = backing::LiveBlocks();

  for (const size_t size : {10, 100'000}) __ZelFree(__ZelMalloc(5, size, 0));  // from malloc now
  EXPECT_EQ(requests, backing::RequestCount());
  EXPECT_EQ(live, backing::LiveBlocks());
  __ZelDeinitializeSubAllocator();

  backing::OnRequest([] { __ZelAsynchronousCollectMemory(1); });  // is ignored
  backing::Install();
  __ZelFree(__ZelMalloc(5, 10, 0));
  EXPECT_EQ(requests + 2, backing::RequestCount()) << "a new table and a new page";
  __ZelInitializeMemoryCollectorAndReserveMemory(1);
  EXPECT_EQ(requests + 3, backing::RequestCount()) << "initialised anew, reserve and all";
}

// The reserve of a pair that is gone must not be given to its successor, which would abort.
TEST(BackingTest, TheReserveEndsWithItsPair) {
  zeltest::IgnoreLeaks();
  __ZelInitializeMemoryCollectorAndReserveMemory(2);  // from malloc
  __ZelDeinitializeSubAllocator();
  backing::Install();
  const auto runOut = [] {
    zeltest::EchoLog(true);
    backing::RefuseIf([](size_t, size_t) { return true; });
    __ZelMalloc(0, 10, 0);
  };
  zeltest::ExpectFatalInChild(runOut, "ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n");
}

TEST(BackingTest, WithoutABucketTableTheProcessEnds) {
  const struct {
    ZelExitHook hook;
    const char* output;
  } rows[] = {{nullptr, ""},
              {[](int32_t code) {
                 const bool refused = __ZelMalloc(0, 10, 0) == nullptr;
                 std::printf("exit hook %d %s\n", code, refused ? "refused" : "served");
                 __ZelExitHandler(5);
               },
               "exit hook -1 refused\n"}};
  for (const auto& row : rows) {
    const auto child = zeltest::RunInChild([&row] {
      __ZelSetExitHandler(row.hook);
      backing::RefuseIf([](size_t, size_t) { return true; });
      backing::Install();
    });
    EXPECT_EQ(255, child.exitStatus);
    EXPECT_EQ(row.output, child.output);
  }
}

}  // namespace
