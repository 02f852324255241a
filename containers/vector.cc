// Vectors: sparse arrays of 64-bit elements behind one table of pages.
//
// Between two calls:
//   - page 0 is the record's own; the others are null, or blocks of the allocator;
//   - size is one more than the highest index ever written, or 0;
//   - elements at or beyond size are 0 where they have a place, so that a size that grows uncovers
//     zeros.
//
// No locks: the caller keeps calls on one vector apart.

#include "zelrt/vector.h"

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include "containers/internal.h"
#include "runtime/internal.h"
#include "zelrt/memory.h"
#include "zelrt/platform.h"

namespace zelrt {
namespace {

constexpr uint32_t kPages = ZEL_VECTOR_PAGES;
constexpr uint32_t kPageBits = 8;
constexpr uint32_t kPageElements = 1u << kPageBits;
constexpr size_t kPageBytes = kPageElements * sizeof(uint64_t);
constexpr uint32_t kElements = kPages * kPageElements;
constexpr uint32_t kSizeBits = 24;
constexpr uint32_t kSizeMask = (1u << kSizeBits) - 1;
static_assert(kPageElements == ZEL_VECTOR_PAGE_ELEMENTS && kElements == ZEL_VECTOR_ELEMENTS);
static_assert(offsetof(ZelVector, pages) == 0 && offsetof(ZelVector, firstPage) == 4096 &&
              offsetof(ZelVector, sizeAndCategory) == 6144 && sizeof(ZelVector) == 6152);

uint32_t SizeOf(const ZelVector* vector) { return vector->sizeAndCategory & kSizeMask; }
uint32_t CategoryOf(const ZelVector* vector) { return vector->sizeAndCategory >> kSizeBits; }

uint32_t SizeAndCategory(uint32_t size, uint32_t category) { return category << kSizeBits | size; }
void SetSize(ZelVector* vector, uint32_t size) {
  vector->sizeAndCategory = SizeAndCategory(size, CategoryOf(vector));
}

// The contents are indeterminate. Null only in a process that is ending for want of memory.
uint64_t* AddPage(ZelVector* vector, uint32_t number, uint32_t category) {
  return vector->pages[number] = static_cast<uint64_t*>(__ZelMalloc(category, kPageBytes, 0));
}

uint64_t* AddZeroedPage(ZelVector* vector, uint32_t number) {
  uint64_t* const page = AddPage(vector, number, CategoryOf(vector));
  if (page != nullptr) std::memset(page, 0, kPageBytes);
  return page;
}

void GrowTo(ZelVector* vector, uint32_t size) {
  if (size > SizeOf(vector)) SetSize(vector, size);
  ZEL_ASSERT(VectorIsConsistent(vector));
}

// Out of line, so that the common case saves no registers. Returns the previous value as it does.
[[gnu::noinline]] uint64_t WriteToNewPage(ZelVector* vector, uint32_t index, uint64_t value) {
  uint64_t* const page = AddZeroedPage(vector, index >> kPageBits);
  if (page == nullptr) return 0;
  page[index % kPageElements] = value;
  GrowTo(vector, index + 1);
  return 0;
}

// Makes the element's new value of its old one, and returns the old one.
template <typename Change>
[[gnu::always_inline]] inline uint64_t ChangeElement(ZelVector* vector, uint32_t index,
                                                     Change change) {
  if (index >= kElements) [[unlikely]]
    return 0;
  uint64_t* const page = vector->pages[index >> kPageBits];
  if (page == nullptr) [[unlikely]]
    return WriteToNewPage(vector, index, change(0));
  uint64_t& element = page[index % kPageElements];
  const uint64_t before = element;
  element = change(before);
  GrowTo(vector, index + 1);
  return before;
}

// The maximum of elements. Baseline x86-64 cannot compare 64-bit words in vector registers, so
// there is a second version for processors that can. A block lies 8 bytes off a multiple of 16:
// without the step to the destination's next 32-byte boundary every other store would span two
// cache lines.

void RaiseElements(uint64_t* to, const uint64_t* from, size_t count) {
  for (size_t i = 0; i < count; ++i) to[i] = std::max(to[i], from[i]);
}

void RaisePagePortably(uint64_t* to, const uint64_t* from) {
  RaiseElements(to, from, kPageElements);
}

[[gnu::target("avx2")]] void RaisePageWithAvx2(uint64_t* to, const uint64_t* from) {
  constexpr size_t kLanes = sizeof(__m256i) / sizeof(uint64_t);
  const size_t head = -(reinterpret_cast<uintptr_t>(to) / sizeof(uint64_t)) % kLanes;
  const size_t tail = head + kPageElements - kLanes;
  RaiseElements(to, from, head);
  // The comparison is signed; with the highest bits flipped it tells the unsigned order.
  const __m256i flip = _mm256_set1_epi64x(std::numeric_limits<int64_t>::min());
  for (size_t i = head; i < tail; i += kLanes) {
    auto* const place = reinterpret_cast<__m256i*>(to + i);
    const __m256i old = _mm256_load_si256(place);
    const __m256i other = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from + i));
    const __m256i isLarger =
        _mm256_cmpgt_epi64(_mm256_xor_si256(other, flip), _mm256_xor_si256(old, flip));
    _mm256_store_si256(place, _mm256_blendv_epi8(old, other, isLarger));
  }
  RaiseElements(to + tail, from + tail, kLanes - head);
}

using RaisePage = void (*)(uint64_t* to, const uint64_t* from);
constinit RaisePage g_raisePage = nullptr;  // null: not chosen yet

// The processor's word is not enough: the kernel must preserve the wide registers too.
bool CanUseAvx2() {
  constexpr unsigned kOsXsaveAndAvx = 3u << 27;  // leaf 1, ECX
  constexpr unsigned kAvx2 = 1u << 5;            // leaf 7, EBX
  constexpr unsigned kXmmAndYmm = 6;             // of the state that the kernel preserves
  unsigned registers[4];
  __ZelCpuidEx(0, 0, registers);
  if (registers[0] < 7) return false;
  __ZelCpuidEx(1, 0, registers);
  if ((registers[2] & kOsXsaveAndAvx) != kOsXsaveAndAvx) return false;
  unsigned preserved, high;
  asm volatile("xgetbv" : "=a"(preserved), "=d"(high) : "c"(0));
  if ((preserved & kXmmAndYmm) != kXmmAndYmm) return false;
  __ZelCpuidEx(7, 0, registers);
  return (registers[1] & kAvx2) != 0;
}

RaisePage ChosenRaisePage() {
  RaisePage chosen = LoadRelaxed(g_raisePage);
  if (chosen == nullptr) {
    chosen = CanUseAvx2() ? RaisePageWithAvx2 : RaisePagePortably;
    StoreRelaxed(g_raisePage, chosen);  // two first calls at once store the same
  }
  return chosen;
}

// Raises the first `count` elements of a page to those given.
void RaisePrefix(ZelVector* vector, uint32_t number, const uint64_t* from, uint32_t count,
                 RaisePage raisePage) {
  uint64_t* to = vector->pages[number];
  if (to == nullptr) {
    to = count < kPageElements ? AddZeroedPage(vector, number)
                               : AddPage(vector, number, CategoryOf(vector));
    if (to != nullptr) std::memcpy(to, from, count * sizeof(uint64_t));
  } else if (count == kPageElements) {
    raisePage(to, from);
  } else {
    RaiseElements(to, from, count);
  }
}

// Gives the destination its copy of a page that the source has; a new one under the category.
void CopyPage(ZelVector* destination, uint32_t number, const uint64_t* from, uint32_t category) {
  uint64_t* to = destination->pages[number];
  if (to == nullptr) to = AddPage(destination, number, category);
  if (to != nullptr) std::memcpy(to, from, kPageBytes);
}

ZelVector* Initialize(ZelVector* vector, uint32_t category) {
  std::memset(vector->firstPage, 0, kPageBytes);
  vector->pages[0] = vector->firstPage;
  std::fill(vector->pages + 1, vector->pages + kPages, nullptr);
  vector->sizeAndCategory = SizeAndCategory(0, category);
  return vector;
}

}  // namespace

bool VectorIsConsistent(const ZelVector* vector) {
  const uint32_t size = SizeOf(vector);
  if (vector->pages[0] != vector->firstPage || size > kElements) return false;
  for (uint32_t number = size >> kPageBits; number < kPages; ++number) {
    const uint64_t* const page = vector->pages[number];
    const uint32_t used = number == size >> kPageBits ? size % kPageElements : 0;
    if (page != nullptr &&
        std::any_of(page + used, page + kPageElements, [](uint64_t e) { return e != 0; }))
      return false;
  }
  return true;
}

}  // namespace zelrt

using namespace zelrt;

ZelVector* __ZelInitializeVector(ZelVector* vector, uint32_t memoryCategory) {
  return Initialize(vector, memoryCategory);
}

ZelVector* __ZelCreateVector(uint32_t memoryCategory) {
  auto* const vector = static_cast<ZelVector*>(__ZelMalloc(memoryCategory, sizeof(ZelVector), 0));
  return vector != nullptr ? Initialize(vector, memoryCategory) : nullptr;
}

void __ZelDestroyVector(ZelVector* vector) {
  for (uint32_t number = 1; number < kPages; ++number) __ZelFree(vector->pages[number]);
  __ZelFree(vector);
}

uint64_t __ZelGetVectorElement(const ZelVector* vector, uint32_t index) {
  if (index >= SizeOf(vector)) [[unlikely]]
    return 0;
  const uint64_t* const page = vector->pages[index >> kPageBits];
  if (page == nullptr) [[unlikely]]
    return 0;
  return page[index % kPageElements];
}

uint64_t __ZelSetVectorElement(ZelVector* vector, uint32_t index, uint64_t value) {
  return ChangeElement(vector, index, [value](uint64_t) { return value; });
}

uint64_t __ZelIncrementVectorElement(ZelVector* vector, uint32_t index) {
  return ChangeElement(vector, index, [](uint64_t before) { return before + 1; });
}

void __ZelMaxVector(ZelVector* destination, const ZelVector* source) {
  const uint32_t size = std::max(SizeOf(destination), SizeOf(source));
  SetSize(destination, size);
  const RaisePage raisePage = ChosenRaisePage();
  // The last page may be used in part; with all elements in use there is none behind the 512th.
  for (uint32_t number = 0; number * kPageElements < size; ++number) {
    const uint64_t* const from = source->pages[number];
    const uint32_t count = std::min(size - number * kPageElements, kPageElements);
    if (from != nullptr) RaisePrefix(destination, number, from, count, raisePage);
  }
  ZEL_ASSERT(VectorIsConsistent(destination));
}

ZelVector* __ZelDuplicateVector(const ZelVector* source, uint32_t memoryCategory) {
  ZelVector* const vector = __ZelCreateVector(memoryCategory);
  if (vector == nullptr) return nullptr;
  for (uint32_t number = 0; number < kPages; ++number) {
    const uint64_t* const from = source->pages[number];
    if (from != nullptr) CopyPage(vector, number, from, CategoryOf(source));
  }
  SetSize(vector, SizeOf(source));
  ZEL_ASSERT(VectorIsConsistent(vector));
  return vector;
}

void __ZelCopyVector(ZelVector* destination, const ZelVector* source) {
  if (destination == source) return;
  for (uint32_t number = 0; number < kPages; ++number) {
    const uint64_t* const from = source->pages[number];
    uint64_t* const to = destination->pages[number];
    if (from != nullptr) {
      CopyPage(destination, number, from, CategoryOf(destination));
    } else if (to != nullptr) {
      std::memset(to, 0, kPageBytes);
    }
  }
  SetSize(destination, SizeOf(source));
  ZEL_ASSERT(VectorIsConsistent(destination));
}
