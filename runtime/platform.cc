// Questions to the machine: processors, OS page, cpuid, XSAVE area.

#include "zelrt/platform.h"

#include <cpuid.h>
#include <unistd.h>

#include <cstring>

#include "runtime/internal.h"
#include "runtime/line_reader.h"

namespace zelrt {
namespace {

constexpr size_t kLineSize = 1024;
constexpr uint32_t kUsualPageSize = 4096;
constexpr uint32_t kLegacyFxsaveArea = 512;
constexpr unsigned kXsaveLeaf = 13;

constinit uint32_t g_pageSize = 0;       // 0: not asked yet
constinit uint32_t g_xsaveAreaSize = 0;  // 0: not asked yet

bool StartsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }  // isdigit would ask the host's locale

}  // namespace

uint32_t CountProcessors(const char* statPath, const char* cpuinfoPath) {
  char line[kLineSize];
  uint32_t count = 0;
  if (LineReader stat(statPath); stat.IsOpen()) {
    // "cpu  4705 ...", the sum of all, then "cpu0 1393 ...", "cpu1 ...", then other subjects.
    while (stat.Next(line, sizeof line) && StartsWith(line, "cpu")) {
      if (IsDigit(line[3])) ++count;
    }
    return count;
  }
  LineReader cpuinfo(cpuinfoPath);
  while (cpuinfo.IsOpen() && cpuinfo.Next(line, sizeof line)) {
    if (StartsWith(line, "processor")) ++count;
  }
  return count;
}

uint32_t XsaveAreaSize(void (*cpuid)(unsigned, unsigned, unsigned[4])) {
  unsigned registers[4];
  cpuid(0, 0, registers);
  if (registers[0] < kXsaveLeaf) return kLegacyFxsaveArea;
  cpuid(kXsaveLeaf, 0, registers);
  const unsigned allFeatures = registers[2];
  return allFeatures != 0 ? allFeatures : kLegacyFxsaveArea;
}

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelGetNProcsInternal() { return CountProcessors("/proc/stat", "/proc/cpuinfo"); }

uint32_t __ZelGetNativePageSize() {
  uint32_t size = LoadRelaxed(g_pageSize);
  if (size != 0) return size;
  const long answer = sysconf(_SC_PAGESIZE);
  size = answer > 0 ? static_cast<uint32_t>(answer) : kUsualPageSize;
  StoreRelaxed(g_pageSize, size);  // two first calls at once store the same
  return size;
}

void __ZelCpuidEx(unsigned int leaf, unsigned int subleaf, unsigned int registers[4]) {
  __cpuid_count(leaf, subleaf, registers[0], registers[1], registers[2], registers[3]);
}

uint32_t __ZelGetXsaveAreaMaxSize() {
  // An exchange of 0 for 0 changes nothing and reads the word behind a full barrier.
  const uint32_t known = AtomicCompareExchange(g_xsaveAreaSize, 0, 0);
  if (known != 0) return known;
  const uint32_t size = XsaveAreaSize(__ZelCpuidEx);
  AtomicCompareExchange(g_xsaveAreaSize, size, 0);
  return size;
}
