// Size classes: powers of two from 16 bytes to 1 GiB, and one for all above.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace heapscope {

inline constexpr uint32_t kSmallestClassBits = 4;
inline constexpr uint32_t kLargestClassBits = 30;
inline constexpr uint32_t kSizeClasses = kLargestClassBits - kSmallestClassBits + 2;

inline constexpr uint32_t SizeClassOf(size_t size) {
  constexpr size_t kSmallest = size_t{1} << kSmallestClassBits;
  if (size <= kSmallest) return 0;
  const auto bits = static_cast<uint32_t>(std::bit_width(size - 1));
  return std::min(bits - kSmallestClassBits, kSizeClasses - 1);
}
static_assert(SizeClassOf(0) == 0 && SizeClassOf(16) == 0 && SizeClassOf(17) == 1 &&
              SizeClassOf(32) == 1 && SizeClassOf(33) == 2);
static_assert(SizeClassOf(size_t{1} << kLargestClassBits) == kSizeClasses - 2 &&
              SizeClassOf((size_t{1} << kLargestClassBits) + 1) == kSizeClasses - 1);

// The largest size of a class that is not the last.
inline constexpr size_t LargestInClass(uint32_t sizeClass) {
  return size_t{1} << (kSmallestClassBits + sizeClass);
}

}  // namespace heapscope
