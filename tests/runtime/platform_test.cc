#include "zelrt/platform.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "runtime/internal.h"

namespace {

class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& content) {
    close(mkstemp(path_));
    std::ofstream(path_) << content;
  }
  ~TemporaryFile() { unlink(path_); }
  const char* Path() const { return path_; }

 private:
  char path_[32] = "/tmp/zelrt-platform-XXXXXX";
};

TEST(ProcessorCountTest, CountsNumberedLinesUpToTheFirstOtherSubject) {
  const TemporaryFile cpuinfo("processor : 0\n");
  const struct {
    std::string stat;
    uint32_t count;
  } rows[] = {
      {"cpu  47 0\ncpu0 1 2\ncpu1 1 2\nintr 5\ncpu2 late\n", 2},
      {"cpu  47 0\ncpu0 1 2\ncpuset x\ncpu12 1 2", 2},
      {"intr 1\ncpu0 1\n", 0},
      {"cpu  " + std::string(3000, '7') + "\ncpu0 1\n", 0},  // an over-long line comes in pieces
      {"", 0},
  };
  for (const auto& row : rows) {
    const TemporaryFile stat(row.stat);
    EXPECT_EQ(row.count, zelrt::CountProcessors(stat.Path(), cpuinfo.Path())) << row.stat;
  }
}

TEST(ProcessorCountTest, FallsBackToTheSecondFileAndThenToNothing) {
  const TemporaryFile cpuinfo("processor : 0\nmodel : x\n\nprocessor : 1\nno processor : 2\n");
  EXPECT_EQ(2u, zelrt::CountProcessors("/nonexistent", cpuinfo.Path()));
  EXPECT_EQ(0u, zelrt::CountProcessors("/nonexistent", "/nonexistent"));
}

TEST(ProcessorCountTest, LeavesClosedStandardDescriptorsClosed) {
  close(STDIN_FILENO);
  EXPECT_EQ(static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)), __ZelGetNProcsInternal());
  EXPECT_EQ(-1, close(STDIN_FILENO));
}

unsigned g_highestLeaf;
unsigned g_areaSize;
void FakeCpuid(unsigned leaf, unsigned, unsigned registers[4]) {
  for (int i = 0; i < 4; ++i) registers[i] = 0;
  if (leaf == 0) registers[0] = g_highestLeaf;
  if (leaf == 13) registers[2] = g_areaSize;
}

TEST(XsaveTest, FallsBackToTheLegacyArea) {
  const struct {
    unsigned highestLeaf, areaSize, expected;
  } rows[] = {{12, 2696, 512}, {13, 2696, 2696}, {32, 0, 512}};
  for (const auto& row : rows) {
    g_highestLeaf = row.highestLeaf;
    g_areaSize = row.areaSize;
    EXPECT_EQ(row.expected, zelrt::XsaveAreaSize(FakeCpuid)) << row.highestLeaf;
  }
  const uint32_t first = __ZelGetXsaveAreaMaxSize();
  EXPECT_EQ(zelrt::XsaveAreaSize(__ZelCpuidEx), first);
  EXPECT_EQ(first, __ZelGetXsaveAreaMaxSize());
}

TEST(PlatformTest, PageSizeIsTheSystems) {
  EXPECT_EQ(static_cast<uint32_t>(sysconf(_SC_PAGESIZE)), __ZelGetNativePageSize());
  EXPECT_EQ(static_cast<uint32_t>(sysconf(_SC_PAGESIZE)), __ZelGetNativePageSize());
}

TEST(PlatformTest, CpuidStoresRegistersInOrder) {
  unsigned registers[4];
  __ZelCpuidEx(0, 0, registers);
  // The vendor's twelve letters are in EBX, EDX, ECX.
  std::string vendor;
  for (const int i : {1, 3, 2}) vendor.append(reinterpret_cast<const char*>(&registers[i]), 4);
  std::ifstream cpuinfo("/proc/cpuinfo");
  const std::string text(std::istreambuf_iterator<char>(cpuinfo), {});
  EXPECT_NE(std::string::npos, text.find(vendor)) << vendor;
}

}  // namespace
