#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <sstream>

#include "tests/log/log_text.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt.h"

namespace {

constexpr uint64_t kOsPage = 4096;
using Frames = std::vector<uint64_t>;

Frames Walk(uint64_t base, uint64_t limit, uint64_t framePointer, uint64_t first = 0) {
  Frames frames(ZEL_MAX_STACK_FRAMES);
  frames.resize(__ZelCaptureStackBackTrace(base, limit, framePointer, first, 0, frames.data()));
  return frames;
}

// A page of stack, laid out by hand, between two pages that nobody may touch.
class StackWalkTest : public testing::Test {
 protected:
  StackWalkTest() { mprotect(pages_ + kOsPage, kOsPage, PROT_READ | PROT_WRITE); }
  static void Put(uint64_t record, uint64_t caller, uint64_t returnAddress) {
    const uint64_t words[] = {caller, returnAddress};
    std::memcpy(reinterpret_cast<void*>(record), words, sizeof words);
  }

  char* const pages_ =
      static_cast<char*>(mmap(nullptr, 3 * kOsPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  const uint64_t limit_ = reinterpret_cast<uint64_t>(pages_) + kOsPage;
  const uint64_t base_ = limit_ + kOsPage;
};

TEST_F(StackWalkTest, AFramePointerCountsWhenItsRecordLiesInTheStack) {
  const uint64_t middle = limit_ + kOsPage / 2;
  const struct {
    uint64_t framePointer;
    bool counts;
  } rows[] = {{limit_, true},      {limit_ - 1, false}, {base_ - 16, true}, {base_ - 15, false},
              {middle + 99, true}, {base_, false},      {base_ + 8, false}, {0, false},
              {-16ull, false},     {-15ull, false},     {-1ull, false},     {1ull << 63, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(static_cast<int64_t>(row.framePointer - limit_));
    if (row.counts) Put(row.framePointer, 0, 7);
    EXPECT_EQ(row.counts ? Frames{7} : Frames{}, Walk(base_, limit_, row.framePointer));
    Put(middle, row.framePointer, 6);  // the same one level up
    EXPECT_EQ(row.counts ? Frames({5, 6, 7}) : Frames({5, 6}), Walk(base_, limit_, middle, 5));
  }
  for (const uint64_t base : {uint64_t{0}, uint64_t{15}, limit_, middle + 15})
    EXPECT_EQ(Frames{1}, Walk(base, 0, middle, 1)) << base;
  EXPECT_EQ(Frames{}, Walk(limit_, base_, middle));  // its ends exchanged
  EXPECT_EQ(Frames{}, Walk(-1ull, 0, 0));
}

TEST_F(StackWalkTest, TwentyFiveFramesAreTheMost) {
  Put(limit_, limit_, 7);  // leads to itself
  EXPECT_EQ(Frames(25, 7), Walk(base_, limit_, limit_));
  Frames expected(25, 7);
  expected[0] = 5;
  EXPECT_EQ(expected, Walk(base_, limit_, limit_, 5));
}

[[gnu::noinline]] Frames CaptureHere() {
  Frames frames(ZEL_MAX_STACK_FRAMES);
  __ZelCaptureCurrentStackBackTrace(frames.data());
  return frames;
}

TEST(CurrentStackTest, ItBeginsInTheCaller) {
  const Frames frames = CaptureHere();
  EXPECT_GT(1000u, frames[0] - reinterpret_cast<uint64_t>(&CaptureHere));
  EXPECT_EQ(reinterpret_cast<uint64_t>(__builtin_return_address(0)), frames[2]);
}

TEST(CallStackLogTest, LinesGoToTheConsoleBeforeStartUpAndToTheLogAfterIt) {
  const zeltest::TemporaryDirectory directory;
  const std::string longName(1500, 'x');
  __ZelLoadModule("/bin/app", 0x400000, 0x500000);
  __ZelLoadModule(longName.c_str(), 0x500000, 0x600000);
  __ZelLoadModule(nullptr, 0x600000, 0x700000);
  const auto log = [] {
    const uint64_t frames[] = {0x401234, 0x400000, 0x500001, 0x612345, 0x401234};
    __ZelLogCallstack("some", frames, std::size(frames));
    __ZelLogCallstack("no", frames, 0);
  };
  const std::string lines =
      "Frames of some call stack:\n=> /bin/app!0x1234 (0x401234)\n=> 0x400000\n=> " + longName +
      "!0x1 (0x500001)\n=> (null)!0x12345 (0x612345)\n=> /bin/app!0x1234 (0x401234)\n"
      "Unable to unwind no call stack.\n";
  EXPECT_EQ(lines, zeltest::RunInChild(log).output);
  __ZelRtStartup();
  EXPECT_EQ("", zeltest::RunInChild(log).output);
  std::string inLog = zeltest::LogStart("zelrt");
  std::istringstream all(lines);
  for (std::string line; std::getline(all, line);) inLog += "\n\t<!-- " + line + " -->";
  EXPECT_EQ(inLog, zeltest::ReadLog("zellog.log"));
}

}  // namespace
