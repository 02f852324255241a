#include "zelrt/system_information.hpp"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

using zelrt::SystemInformation;

TEST(SystemInformationTest, ReadsKilobytesAndLeavesClosedStandardDescriptorsClosed) {
  close(STDIN_FILENO);
  SystemInformation information;
  EXPECT_EQ(-1, close(STDIN_FILENO));
  struct sysinfo machine;
  ASSERT_EQ(0, sysinfo(&machine));
  for (int update = 0; update < 2; ++update) {
    const uint64_t total = information.getValue(SystemInformation::TotalMemory);
    EXPECT_EQ(machine.totalram * machine.mem_unit / 1024, total);
    const uint64_t free = information.getValue(SystemInformation::FreeMemory);
    EXPECT_TRUE(0 < free && free < total);
    information.Update();
  }
}

TEST(SystemInformationTest, AlignsToPages) {
  const SystemInformation information;
  const auto page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  const std::pair<unsigned long, unsigned long> rows[] = {
      {0, 0}, {1, page}, {page, page}, {2 * page + 1, 3 * page}};
  for (const auto& [value, aligned] : rows)
    EXPECT_EQ(aligned, information.getPageSizeAlignedValue(value));
}

}  // namespace
