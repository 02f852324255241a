// The machine's memory, as "/proc/meminfo" tells it.
#ifndef ZELRT_SYSTEM_INFORMATION_HPP
#define ZELRT_SYSTEM_INFORMATION_HPP

#include "zelrt/base.h"

namespace zelrt {

// A reading of the machine's memory. An object is not synchronised; distinct objects are
// independent. Nothing here throws.
class ZEL_API SystemInformation {
 public:
  enum MetricType { TotalMemory, FreeMemory };

  // Stores the size of an OS page and takes a first reading.
  SystemInformation();
  ~SystemInformation();

  // Reads again. What cannot be read keeps its value (0 at first).
  void Update();

  // `value` rounded up to a multiple of the OS page size.
  unsigned long getPageSizeAlignedValue(unsigned long value) const;

  // The metric in kilobytes, as last read; 0 for a metric that does not exist.
  uint64_t getValue(const MetricType& metric) const;

 private:
  uint64_t totalMemory_;
  uint64_t freeMemory_;
  int64_t pageSize_;
};

}  // namespace zelrt

#endif
