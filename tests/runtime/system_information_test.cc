#include "zelrt/system_information.hpp"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

using zelrt::SystemInformation;

TEST(SystemInformationTest, ReadsTheMachinesMemoryInKilobytes) {
  SystemInformation information;
  struct sysinfo machine;
  ASSERT_EQ(0, sysinfo(&machine));
  const uint64_t total = information.getValue(SystemInformation::TotalMemory);
  EXPECT_EQ(machine.totalram * machine.mem_unit / 1024, total);
  const uint64_t free = information.getValue(SystemInformation::FreeMemory);
  EXPECT_GT(free, 0u);
  EXPECT_LT(free, total);
  information.Update();
  EXPECT_EQ(total, information.getValue(SystemInformation::TotalMemory));
}

TEST(SystemInformationTest, AlignsToPages) {
  const SystemInformation information;
  const auto page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(0u, information.getPageSizeAlignedValue(0));
  EXPECT_EQ(page, information.getPageSizeAlignedValue(1));
  EXPECT_EQ(page, information.getPageSizeAlignedValue(page));
  EXPECT_EQ(3 * page, information.getPageSizeAlignedValue(2 * page + 1));
}

TEST(SystemInformationTest, LeavesClosedStandardDescriptorsClosed) {
  close(STDIN_FILENO);
  const SystemInformation information;
  EXPECT_GT(information.getValue(SystemInformation::TotalMemory), 0u);
  EXPECT_EQ(-1, close(STDIN_FILENO));
}

}  // namespace
