#include "zelrt/platform.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "runtime/internal.h"
#include "tests/support/temporary_directory.h"

namespace {

TEST(ProcessorCountTest, CountsTheLinesOfTheFirstFileThereIs) {
  const zeltest::TemporaryDirectory directory;
  zeltest::WriteFile("cpuinfo", "processor : 0\nmodel : x\n\nprocessor : 1\nno processor : 2\n");
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
    zeltest::WriteFile("stat", row.stat);
    EXPECT_EQ(row.count, zelrt::CountProcessors("stat", "cpuinfo")) << row.stat;
  }
  EXPECT_EQ(2u, zelrt::CountProcessors("missing", "cpuinfo"));
  EXPECT_EQ(0u, zelrt::CountProcessors("missing", "missing"));
}

TEST(ProcessorCountTest, LeavesClosedStandardDescriptorsClosed) {
  close(STDIN_FILENO);
  EXPECT_EQ(static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)), __ZelGetNProcsInternal());
  EXPECT_EQ(-1, close(STDIN_FILENO));
}

unsigned g_highestLeaf, g_areaSize;

TEST(XsaveTest, FallsBackToTheLegacyArea) {
  const auto cpuid = [](unsigned leaf, unsigned, unsigned registers[4]) {
    std::fill_n(registers, 4, 0);
    if (leaf == 0) registers[0] = g_highestLeaf;
    if (leaf == 13) registers[2] = g_areaSize;
  };
  const struct {
    unsigned highestLeaf, areaSize, expected;
  } rows[] = {{12, 2696, 512}, {13, 2696, 2696}, {32, 0, 512}};
  for (const auto& row : rows) {
    g_highestLeaf = row.highestLeaf;
    g_areaSize = row.areaSize;
    EXPECT_EQ(row.expected, zelrt::XsaveAreaSize(cpuid)) << row.highestLeaf;
  }
  for (int call = 0; call < 2; ++call)
    EXPECT_EQ(zelrt::XsaveAreaSize(__ZelCpuidEx), __ZelGetXsaveAreaMaxSize());
}

TEST(CpuidTest, RegistersAreStoredInOrder) {
  unsigned registers[4];
  __ZelCpuidEx(0, 0, registers);
  // The vendor's twelve letters are in EBX, EDX, ECX.
  std::string vendor;
  for (const int i : {1, 3, 2}) vendor.append(reinterpret_cast<const char*>(&registers[i]), 4);
  EXPECT_NE(std::string::npos, zeltest::ReadFile("/proc/cpuinfo").find(vendor)) << vendor;
}

}  // namespace
