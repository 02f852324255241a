#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "memory/internal.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "tests/support/recorded_log.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

namespace {

std::atomic<void (*)()> g_onYield = nullptr;

}  // namespace

// The library's pause of millions of yields passes in a moment, and a test can act in the middle.
extern "C" int sched_yield() noexcept {
  if (void (*const action)() = g_onYield.load(std::memory_order_relaxed)) action();
  return 0;
}

namespace {

namespace backing = zeltest::backing;
using Lines = std::vector<std::string>;

constexpr char kFreeingReserves[] = "WARNING FREEING_RESERVES 33554416";
constexpr char kRetrying[] = "Memory collection 1 failed.  Retrying after a few seconds...";
constexpr char kTight[] = "WARNING MEMORY_IS_TIGHT";

bool Everything(size_t, size_t) { return true; }

class PressureTest : public testing::Test {
 protected:
  void SetUp() override { backing::Install(); }

  static void ExpectAllLocksFree() {
    EXPECT_EQ(0u, __ZelIsSpinLockInAcquiredState(&zelrt::g_systemAllocationLock));
    // From elsewhere, since this thread would get a lock again that it holds.
    std::thread([] {
      __ZelWaitForPreVirtualAllocThread();
      __ZelPostVirtualAllocCheck(1);
    }).join();
  }
};

TEST_F(PressureTest, TheReserveIsWhatCanBeHad) {
  const struct {
    int wanted;
    size_t requests, blocks;
  } rows[] = {{-1, 1, 1}, {2, 3, 3}, {4, 4, 3}};  // the table's too; stops at the first refusal
  for (const auto& row : rows) {
    zeltest::ExpectSuccessInChild([&row] {
      backing::RefuseIf([](size_t, size_t number) { return number > 2; });
      __ZelInitializeMemoryCollectorAndReserveMemory(row.wanted);
      EXPECT_EQ(row.requests, backing::RequestCount());
      EXPECT_EQ(row.blocks, backing::LiveBlocks());
      EXPECT_TRUE(zeltest::LoggedLines().empty());
    });
  }
}

TEST_F(PressureTest, TheFirstInitialisationResetsTheStatistics) {
  __ZelEnableMemoryStatisticsCollection();
  static_cast<void>(__ZelMalloc(0, 10, 0));
  __ZelInitializeMemoryCollector();
  ZelMemoryCategoryInfo info;
  ASSERT_EQ(1u, __ZelGetMemoryInfoByCategory(0, &info));
  EXPECT_STREQ("ZEL_MISC", info.name);
  EXPECT_EQ(0, info.allocated + info.allocatedAtPeak);
  EXPECT_EQ(0u, __zelTotalMemoryAllocated + __ZelGetPeakTotalMemoryAllocated());
  static_cast<void>(__ZelMalloc(0, 100, 0));
  const size_t requests = backing::RequestCount();
  __ZelInitializeMemoryCollectorAndReserveMemory(3);
  EXPECT_EQ(requests, backing::RequestCount());
  EXPECT_EQ(65'536u, __zelTotalMemoryAllocated);
}

// Small and large blocks, of whose requests each one in turn is the first that is refused.
TEST_F(PressureTest, EachRequestMayFail) {
  constexpr size_t kRequests = 8;  // four large blocks, four pages
  constexpr size_t kForever = 99;
  for (size_t first = 1; first <= kRequests; ++first) {
    for (const size_t reserve : {0, 1, 2}) {
      for (const size_t refusals : {size_t{1}, size_t{2}, kForever}) {
        const auto child = zeltest::RunInChild([=] {
          zeltest::EchoLog(true);
          __ZelInitializeMemoryCollectorAndReserveMemory(static_cast<int>(reserve));
          backing::RefuseIf(
              [=](size_t, size_t number) { return number >= first && number < first + refusals; });
          void* blocks[12];
          for (int i = 0; i < 12; ++i) blocks[i] = __ZelMalloc(0, i % 3 == 0 ? 40'000 : 32'000, 0);
          for (void* block : blocks) __ZelFree(block);
          std::printf("left %zu\n", backing::LiveBlocks());
          ExpectAllLocksFree();
        });
        const bool survives = refusals <= reserve;
        std::string expected;
        for (size_t i = 0; i < std::min(refusals, reserve); ++i)
          expected += std::string(kFreeingReserves) + "\n";
        expected += survives ? "left " + std::to_string(2 + reserve - refusals) + "\n"
                             : "ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n";
        EXPECT_EQ(expected, child.output) << first << " " << reserve << " " << refusals;
        EXPECT_EQ(survives ? 0 : 255, child.exitStatus);
      }
    }
  }
}

TEST_F(PressureTest, ExhaustionIsReportedOnceWhenTheReportNeedsMemoryItself) {
  const auto child = zeltest::RunInChild([] {
    zeltest::EchoLog(true);
    __ZelEnableMemoryStatisticsCollection();
    __ZelInitializeMemoryCollectorAndReserveMemory(2);
    __ZelSetExitHandler([](int32_t code) {
      const bool refused = __ZelMalloc(0, 100'000, 0) == nullptr;
      std::printf("exit hook %d %s\n", code, refused ? "refused" : "served");
    });
    backing::RefuseIf(Everything);
    zeltest::OnLogging([] { __ZelFree(__ZelMalloc(1, 200, 0)); });
    __ZelMalloc(0, 10, 0);
  });
  EXPECT_EQ(255, child.exitStatus);
  // The notes on the reserve need memory too: the inner one comes first.
  EXPECT_EQ(
      "Allocation status for ZEL_MISC                 :              0\n"
      "ERROR OUT_OF_MEMORY\n"
      "ERROR ABNORMAL_TERMINATE\n"
      "exit hook -1 refused\n",
      child.output);
}

TEST_F(PressureTest, OtherThreadsDoNotRunOnWithoutMemoryWhileTheProcessEnds) {
  const auto child = zeltest::RunInChild([] {
    zeltest::EchoLog(true);
    backing::RefuseIf(Everything);
    static std::atomic<int> refused = 0;
    // Long enough for the others to be refused meanwhile.
    __ZelSetExitHandler([](int32_t) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      std::printf("%d\n", refused.load());
      std::fflush(stdout);
      _exit(255);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([] {
        if (__ZelMalloc(0, 10, 0) == nullptr) ++refused;
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(255, child.exitStatus);
  EXPECT_EQ("ERROR OUT_OF_MEMORY\nERROR ABNORMAL_TERMINATE\n0\n", child.output);
}

std::string g_calls;
void* g_cache = nullptr;

void CollectCache() {
  g_calls += 'c';
  // Allocates and frees inside a collection, on the thread that is asking for memory.
  void* const scratch = __ZelMalloc(2, 100'000, 0);
  __ZelFree(__ZelMalloc(2, 50, 0));
  __ZelFree(g_cache);
  g_cache = nullptr;
  __ZelFree(scratch);
}

TEST_F(PressureTest, CollectorsRunInTheOrderOfRegistrationUpTo16) {
  EXPECT_EQ(-1, __ZelRegisterMemoryCollector(nullptr));
  EXPECT_EQ(
      Lines{"ERROR A valid memory collector hook must be specified to register it with ZELRT"},
      zeltest::LoggedLines());
  static const ZelMemoryCollector late = [] { g_calls += 'l'; };
  EXPECT_EQ(0, __ZelRegisterMemoryCollector([] { g_calls += 'a'; }));
  EXPECT_EQ(0, __ZelRegisterMemoryCollector([] {
              g_calls += 'r';
              __ZelRegisterMemoryCollector(late);
            }));
  for (int i = 2; i < 15; ++i) {
    EXPECT_EQ(0, __ZelRegisterMemoryCollector([] { g_calls += '.'; }));
  }
  __ZelInitializeMemoryCollector();
  backing::OnRequest([] {
    backing::OnRequest(nullptr);
    __ZelAsynchronousCollectMemory(5);
  });
  __ZelFree(__ZelMalloc(0, 100'000, 0));
  EXPECT_EQ("ar.............l", g_calls);
  EXPECT_EQ(-1, __ZelRegisterMemoryCollector(late));
}

TEST_F(PressureTest, ShortageInsideARequestCollectsAtOnce) {
  __ZelEnableMemoryStatisticsCollection();
  __ZelInitializeMemoryCollector();
  __ZelRegisterMemoryCollector(CollectCache);
  zeltest::SetLogOpen(true);
  // Two listed pages, one of which falls empty when the collector frees its block.
  std::vector<void*> blocks;
  for (int i = 0; i < 3; ++i) blocks.push_back(__ZelMalloc(0, 32'000, 0));
  __ZelFree(blocks[1]);
  g_cache = blocks[0];
  g_calls.clear();

  backing::OnRequest([] {
    if (g_calls.empty()) {
      __ZelAsynchronousCollectMemory(12'345);
      __ZelAsynchronousCollectMemory(12'346);
    }
  });
  zeltest::ClearLog();
  __ZelFree(__ZelMalloc(0, 70'000, 0));
  EXPECT_EQ("cc", g_calls);
  EXPECT_EQ(2u, __ZelGetTotalTimesMemoryCollected());
  const Lines lines = zeltest::LoggedLines();
  const Lines expected = {
      "Tav requested at least 12345 bytes", "WARNING COLLECT_MEMORY",
      "Start collecting memory: __zelTotalMemoryAllocated=131072",
      "MemoryAllocated by ZEL_MISC                 :         131072",
      "Stop collecting memory: __zelTotalMemoryAllocated=131072",
      "MemoryAllocated by ZEL_MISC                 :          65536", "We freed 0 bytes",
      "Tav requested at least 12346 bytes",
      // The collector's own request has begun a new turn of warnings.
      "WARNING COLLECT_MEMORY", "Start collecting memory: __zelTotalMemoryAllocated=131072",
      "MemoryAllocated by ZEL_MISC                 :          65536",
      "Stop collecting memory: __zelTotalMemoryAllocated=131072",
      "MemoryAllocated by ZEL_MISC                 :          65536", "We freed 0 bytes"};
  EXPECT_EQ(expected, lines);
  ExpectAllLocksFree();
}

TEST_F(PressureTest, AShortageIsIgnoredBeforeInitialisationAndWhileReservesGo) {
  __ZelRegisterMemoryCollector(CollectCache);
  __ZelAsynchronousCollectMemory(1 << 20);
  EXPECT_EQ(1u, backing::RequestCount()) << "not even a probe";
  __ZelInitializeMemoryCollectorAndReserveMemory(1);
  backing::RefuseIf([](size_t, size_t number) { return number == 1; });
  zeltest::OnLogging([] { __ZelAsynchronousCollectMemory(1); });
  __ZelFree(__ZelMalloc(0, 70'000, 0));
  EXPECT_EQ(Lines{kFreeingReserves}, zeltest::LoggedLines());
  EXPECT_EQ("", g_calls);
  backing::OnRequest([] { __ZelAsynchronousCollectMemory(1); });
  __ZelFree(__ZelMalloc(0, 70'000, 0));
  EXPECT_EQ("c", g_calls);
}

TEST_F(PressureTest, CollectionsOfOneRequestWarnOnceAndNeverNest) {
  __ZelInitializeMemoryCollector();
  __ZelRegisterMemoryCollector([] {
    g_calls += 'c';
    __ZelAsynchronousCollectMemory(1);
  });
  zeltest::SetLogOpen(true);
  backing::OnRequest([] {
    for (int i = 0; i < 3; ++i) __ZelAsynchronousCollectMemory(1);
  });
  for (size_t requests = 1; requests <= 2; ++requests) {
    __ZelFree(__ZelMalloc(0, 70'000, 0));
    EXPECT_EQ(std::string(3 * requests, 'c'), g_calls);
    EXPECT_EQ(Lines(requests, "WARNING COLLECT_MEMORY"), zeltest::LoggedLines());
  }
}

TEST(SwapWatchTest, ASixteenthOfTheTotalIsTooMuch) {
  zelrt::SwapWatch watch;
  EXPECT_FALSE(watch.HasFallen(1000, 1600));
  EXPECT_FALSE(watch.HasFallen(900, 1600)) << "exactly a sixteenth";
  EXPECT_FALSE(watch.HasFallen(950, 1600)) << "a rise below the high mark changes nothing";
  EXPECT_TRUE(watch.HasFallen(899, 1600));
  EXPECT_FALSE(watch.HasFallen(899, 1600)) << "starts anew from here";
  EXPECT_FALSE(watch.HasFallen(1200, 1600)) << "a rise moves both marks";
  EXPECT_FALSE(watch.HasFallen(1100, 1600));
  EXPECT_TRUE(watch.HasFallen(1099, 1600));

  zelrt::SwapWatch none;
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(none.HasFallen(0, 0));
}

TEST_F(PressureTest, ProbesAreWholeGranules) {
  const struct {
    size_t size, probe;
  } rows[] = {{0, 65'520},       {1, 65'520},       {65'520, 65'520},
              {65'521, 131'056}, {65'536, 131'056}, {size_t{1} << 30, (size_t{1} << 30) + 65'520}};
  for (const auto& row : rows) {
    __ZelPreVirtualAllocCheck(row.size);
    EXPECT_EQ(row.probe, backing::Requests().back()) << row.size;
  }
  __ZelInitializeMemoryCollector();
  __ZelAsynchronousCollectMemory(65'521);  // outside a request this makes the check
  EXPECT_EQ(131'056u, backing::Requests().back());
  EXPECT_EQ(1u, backing::LiveBlocks());
  EXPECT_TRUE(zeltest::LoggedLines().empty());
  ExpectAllLocksFree();
}

TEST_F(PressureTest, EachRoadThroughTheCheckLeavesNothingBehind) {
  const struct {
    const char* what;
    int reserve;
    size_t size;
    size_t refused;  // requests until one is served
    Lines log;
    size_t probes;
  } rows[] = {
      {"second attempt", 1, 10, 1, {kRetrying}, 2},
      {"from the reserve", 2, 10, 3, {kRetrying, kFreeingReserves, kFreeingReserves}, 4},
      {"tight", 1, 10, 99, {kRetrying, kFreeingReserves, kTight}, 3},
      {"tight without reserve", 0, 10, 99, {kRetrying, kTight}, 2},
      {"not to be asked for", 0, SIZE_MAX - 5, 99, {kRetrying, kTight}, 0},
  };
  for (const auto& row : rows) {
    zeltest::ExpectSuccessInChild([&row] {
      __ZelInitializeMemoryCollectorAndReserveMemory(row.reserve);
      const size_t before = backing::RequestCount();
      backing::RefuseIf([&row](size_t, size_t number) { return number <= row.refused; });
      __ZelPreVirtualAllocCheck(row.size);
      EXPECT_EQ(row.log, zeltest::LoggedLines()) << row.what;
      EXPECT_EQ(row.probes, backing::RequestCount() - before) << row.what;
      ExpectAllLocksFree();
    });
  }
}

TEST_F(PressureTest, TightnessIsReportedOnce) {
  backing::RefuseIf(Everything);
  __ZelEnableMemoryStatisticsCollection();
  for (int i = 0; i < 2; ++i) __ZelPreVirtualAllocCheck(10);
  EXPECT_EQ((Lines{kRetrying, "Allocation status for ZEL_MISC                 :              0",
                   kTight, kRetrying}),
            zeltest::LoggedLines());
}

TEST_F(PressureTest, MoreThanTenFailuresInARowSkipTheCheck) {
  for (int i = 0; i < 10; ++i) __ZelPostVirtualAllocCheck(0);
  const size_t before = backing::RequestCount();
  __ZelPreVirtualAllocCheck(1);
  EXPECT_EQ(before + 1, backing::RequestCount());
  __ZelPostVirtualAllocCheck(0);
  __ZelPreVirtualAllocCheck(1);
  EXPECT_EQ(before + 1, backing::RequestCount());
  ExpectAllLocksFree();  // reports a success
  __ZelPreVirtualAllocCheck(1);
  EXPECT_EQ(before + 2, backing::RequestCount());
}

std::atomic<int> g_yields;
std::atomic<bool> g_waiterIsThrough;
std::thread* g_waiter;

TEST_F(PressureTest, WaitersWaitForAsLongAsACheckPauses) {
  backing::RefuseIf(Everything);
  g_onYield = [] {
    if (g_yields++ != 0) return;  // the first yield is the pause's
    g_waiter = new std::thread([] {
      __ZelWaitForPreVirtualAllocThread();
      g_waiterIsThrough = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(g_waiterIsThrough);
  };
  __ZelPreVirtualAllocCheck(1);
  ASSERT_NE(nullptr, g_waiter);
  g_waiter->join();
  EXPECT_TRUE(g_waiterIsThrough);
}

}  // namespace
