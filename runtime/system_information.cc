// The machine's memory, from "/proc/meminfo".

#include "zelrt/system_information.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "runtime/line_reader.h"

namespace zelrt {
namespace {

constexpr size_t kLineSize = 1024;

}  // namespace

SystemInformation::SystemInformation()
    : totalMemory_(0), freeMemory_(0), pageSize_(sysconf(_SC_PAGESIZE)) {
  Update();
}

SystemInformation::~SystemInformation() = default;

void SystemInformation::Update() {
  LineReader meminfo("/proc/meminfo");
  if (!meminfo.IsOpen()) return;
  // "MemTotal:       24689108 kB"
  char line[kLineSize];
  char name[kLineSize];
  unsigned long kilobytes;
  while (meminfo.Next(line, sizeof line) &&
         std::sscanf(line, "%[^:]: %lu", name, &kilobytes) == 2) {
    if (std::strstr(name, "MemTotal") != nullptr) totalMemory_ = kilobytes;
    if (std::strstr(name, "MemFree") != nullptr) freeMemory_ = kilobytes;
  }
}

unsigned long SystemInformation::getPageSizeAlignedValue(unsigned long value) const {
  const auto pageSize = static_cast<unsigned long>(pageSize_);
  const unsigned long beyond = value % pageSize;
  return beyond == 0 ? value : value + (pageSize - beyond);
}

uint64_t SystemInformation::getValue(const MetricType& metric) const {
  switch (metric) {
    case TotalMemory:
      return totalMemory_;
    case FreeMemory:
      return freeMemory_;
  }
  return 0;
}

}  // namespace zelrt
