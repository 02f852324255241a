// CRC-32, by bytes and by folding.
//
// A block is a polynomial over the field of two elements, the checksum its remainder. All is bit-
// reflected: the lowest bit of the first byte is the coefficient of the highest power.
//
// By bytes, the register is divided on for eight bits at a time, with a table.
//
// By folding, a long block is made short without a change of its remainder: 128 bits of it that
// stand d bits in front of others are multiplied by x^d mod P and added to those. Products of 64
// bits come from the processor's multiplication without carries. The 128 bits that are left in the
// end are folded on to 64, and these divided by multiplication with the reciprocal of P.

#include "zelrt/crc32.h"

#include <immintrin.h>

#include <array>
#include <boost/crc.hpp>

#include "modules/internal.h"
#include "runtime/internal.h"
#include "zelrt/platform.h"

namespace zelrt {
namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7;
constexpr uint32_t kReflectedPolynomial = 0xEDB88320;
constexpr uint32_t kAllOnes = 0xFFFFFFFF;  // the register's start, and the final exclusive-or

constexpr uint64_t kLane = 16;  // bytes that are folded at once
constexpr uint64_t kNarrowStride = 4 * kLane;
constexpr uint64_t kWideStride = 8 * kLane;

// Wider registers pay from here on.
constexpr uint64_t kWideFrom = 2 * kWideStride;

// What the processor tells of itself.
constexpr unsigned kMoreFeaturesLeaf = 7;
constexpr int kEbx = 1, kEcx = 2;                       // indexes of __ZelCpuidEx's registers
constexpr unsigned kMultiplication = 1u << 1;           // leaf 1, ECX: PCLMULQDQ
constexpr unsigned kEnabledStateIsTold = 1u << 27;      // leaf 1, ECX: OSXSAVE
constexpr unsigned kAvx2 = 1u << 5;                     // leaf 7, EBX
constexpr unsigned kWideMultiplication = 1u << 10;      // leaf 7, ECX: VPCLMULQDQ
constexpr uint64_t kWideRegisters = 1u << 1 | 1u << 2;  // XCR0: SSE and AVX

bool HasAll(uint64_t word, uint64_t bits) { return (word & bits) == bits; }

// For processors that have OSXSAVE.
[[gnu::target("xsave")]] uint64_t EnabledState() { return _xgetbv(0); }

// What the processor can do, as Folding; asked once.
constexpr uint32_t kNotAsked = ~uint32_t{0};
constinit uint32_t g_folding = kNotAsked;

using ByteTable = std::array<uint32_t, 256>;

// Boost's, taken out of it entry by entry: from a register of 0, a byte leads to its entry. Built
// at the first call.
const ByteTable& TheByteTable() {
  static const ByteTable table = [] {
    ByteTable made{};
    for (uint32_t byte = 0; byte < made.size(); ++byte) {
      boost::crc_optimal<32, kPolynomial, 0, 0, true, true> crc;
      crc.process_byte(static_cast<uint8_t>(byte));
      made[byte] = static_cast<uint32_t>(crc.checksum());
    }
    return made;
  }();
  return table;
}

// What is still to be checked, and the register that it starts with.
struct Rest {
  const uint8_t* data;
  uint64_t length;
  uint32_t crc;

  const uint8_t* Take(uint64_t bytes) {
    length -= bytes;
    data += bytes;
    return data - bytes;
  }
};

// The register after all of it.
uint32_t UpdateByBytes(Rest rest) {
  if (rest.length == 0) return rest.crc;
  const ByteTable& table = TheByteTable();
  while (rest.length > 0) rest.crc = rest.crc >> 8 ^ table[(rest.crc ^ *rest.Take(1)) & 0xFF];
  return rest.crc;
}

// Folding -----------------------------------------------------------------------------------------

// x^power mod P as a factor. The product of two reflected numbers of 64 bits is one of 127 bits,
// which stands one too low: hence a bit more at the low end.
constexpr uint64_t PowerOfX(int power) {
  uint32_t remainder = 0x80000000;  // x^0
  for (; power > 0; --power)
    remainder = remainder >> 1 ^ ((remainder & 1) != 0 ? kReflectedPolynomial : 0);
  return uint64_t{remainder} << 1;
}

// The quotient x^64 / P, rounded down, and P itself, both of 33 bits.
constexpr uint64_t Reciprocal() {
  uint64_t quotient = 1;             // of x^32
  uint32_t remainder = kPolynomial;  // of x^32, not reflected
  for (int bit = 1; bit <= 32; ++bit) {
    const uint64_t next = remainder >> 31;
    quotient |= next << bit;
    remainder = remainder << 1 ^ (next != 0 ? kPolynomial : 0);
  }
  return quotient;
}
constexpr uint64_t kReciprocal = Reciprocal();
constexpr uint64_t kDivisor = uint64_t{kReflectedPolynomial} << 1 | 1;

// Factors for the two halves of a lane.
struct Factors {
  uint64_t first, second;
};

// Those that move a lane over others. The half that comes first has 64 bits more to go, and a
// factor of 32 bits stands at the high end of its 64.
template <int kLanes>
constexpr Factors kMoveOver = {PowerOfX(kLanes * 128 + 32), PowerOfX(kLanes * 128 - 32)};

constexpr Factors kFrom128To96 = {0, PowerOfX(96)};
constexpr Factors kFrom96To64 = {PowerOfX(64), 0};
constexpr Factors kDivision = {kDivisor, kReciprocal};

inline __m128i Load(const uint8_t* data) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
}
inline __m128i Load(const Factors& factors) {
  return _mm_set_epi64x(static_cast<int64_t>(factors.second), static_cast<int64_t>(factors.first));
}

[[gnu::target("pclmul")]] inline __m128i Fold(__m128i lane, __m128i factors, __m128i onto) {
  const __m128i first = _mm_clmulepi64_si128(lane, factors, 0x00);
  const __m128i second = _mm_clmulepi64_si128(lane, factors, 0x11);
  return _mm_xor_si128(_mm_xor_si128(first, second), onto);
}

// The register after a lane, from a register of 0.
[[gnu::target("pclmul")]] inline uint32_t Divide(__m128i lane) {
  const __m128i low32 = _mm_set_epi64x(0, 0xFFFFFFFF);
  // 128 bits, and 32 zeros that the register's width asks for: to 96, to 64.
  __m128i rest = _mm_clmulepi64_si128(lane, Load(kFrom128To96), 0x10);
  lane = _mm_xor_si128(_mm_srli_si128(lane, 8), rest);
  rest = _mm_clmulepi64_si128(_mm_and_si128(lane, low32), Load(kFrom96To64), 0x00);
  lane = _mm_xor_si128(_mm_srli_si128(lane, 4), rest);
  // The quotient by P is the product with the reciprocal; what is left of the rest is the
  // remainder.
  const __m128i factors = Load(kDivision);
  rest = _mm_clmulepi64_si128(_mm_and_si128(lane, low32), factors, 0x10);
  rest = _mm_clmulepi64_si128(_mm_and_si128(rest, low32), factors, 0x00);
  lane = _mm_xor_si128(lane, rest);
  return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(lane, 4)));
}

// Folds a lane onto those that come after it, while they are whole, and divides.
[[gnu::target("pclmul")]] inline void FoldOn(__m128i lane, Rest& rest) {
  const __m128i overOne = Load(kMoveOver<1>);
  while (rest.length >= kLane) lane = Fold(lane, overOne, Load(rest.Take(kLane)));
  rest.crc = Divide(lane);
}

// Four lanes abreast. For at least kNarrowStride bytes; leaves less than a lane.
[[gnu::target("pclmul")]] void FoldNarrow(Rest& rest) {
  const uint8_t* from = rest.Take(kNarrowStride);
  __m128i a = _mm_xor_si128(Load(from), _mm_cvtsi32_si128(static_cast<int32_t>(rest.crc)));
  __m128i b = Load(from + kLane);
  __m128i c = Load(from + 2 * kLane);
  __m128i d = Load(from + 3 * kLane);
  const __m128i overFour = Load(kMoveOver<4>);
  while (rest.length >= kNarrowStride) {
    from = rest.Take(kNarrowStride);
    a = Fold(a, overFour, Load(from));
    b = Fold(b, overFour, Load(from + kLane));
    c = Fold(c, overFour, Load(from + 2 * kLane));
    d = Fold(d, overFour, Load(from + 3 * kLane));
  }
  const __m128i overTwo = Load(kMoveOver<2>);
  a = Fold(a, overTwo, c);
  b = Fold(b, overTwo, d);
  FoldOn(Fold(a, Load(kMoveOver<1>), b), rest);
}

// The same with pairs of lanes.

[[gnu::target("avx2")]] inline __m256i LoadPair(const uint8_t* data) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data));
}
[[gnu::target("avx2")]] inline __m256i LoadForBoth(const Factors& factors) {
  return _mm256_broadcastsi128_si256(Load(factors));
}

[[gnu::target("avx2,vpclmulqdq")]] inline __m256i FoldPair(__m256i pair, __m256i factors,
                                                           __m256i onto) {
  const __m256i first = _mm256_clmulepi64_epi128(pair, factors, 0x00);
  const __m256i second = _mm256_clmulepi64_epi128(pair, factors, 0x11);
  return _mm256_xor_si256(_mm256_xor_si256(first, second), onto);
}

// Four pairs abreast. For at least kWideStride bytes; leaves less than a lane.
[[gnu::target("avx2,pclmul,vpclmulqdq")]] void FoldWide(Rest& rest) {
  constexpr uint64_t kPair = 2 * kLane;
  const uint8_t* from = rest.Take(kWideStride);
  const __m128i crc = _mm_cvtsi32_si128(static_cast<int32_t>(rest.crc));
  __m256i a = _mm256_xor_si256(LoadPair(from), _mm256_zextsi128_si256(crc));
  __m256i b = LoadPair(from + kPair);
  __m256i c = LoadPair(from + 2 * kPair);
  __m256i d = LoadPair(from + 3 * kPair);
  const __m256i overEight = LoadForBoth(kMoveOver<8>);
  while (rest.length >= kWideStride) {
    from = rest.Take(kWideStride);
    a = FoldPair(a, overEight, LoadPair(from));
    b = FoldPair(b, overEight, LoadPair(from + kPair));
    c = FoldPair(c, overEight, LoadPair(from + 2 * kPair));
    d = FoldPair(d, overEight, LoadPair(from + 3 * kPair));
  }
  const __m256i overFour = LoadForBoth(kMoveOver<4>);
  a = FoldPair(a, overFour, c);
  b = FoldPair(b, overFour, d);
  a = FoldPair(a, LoadForBoth(kMoveOver<2>), b);
  const __m128i first = _mm256_castsi256_si128(a);
  FoldOn(Fold(first, Load(kMoveOver<1>), _mm256_extracti128_si256(a, 1)), rest);
}

}  // namespace

Folding FoldingOf(Cpuid cpuid, uint64_t (*enabledState)()) {
  unsigned registers[4];
  cpuid(0, 0, registers);
  const unsigned lastLeaf = registers[0];
  cpuid(1, 0, registers);
  if (!HasAll(registers[kEcx], kMultiplication)) return Folding::kNone;
  // The system has to keep the wide registers of a thread, too.
  if (!HasAll(registers[kEcx], kEnabledStateIsTold) || !HasAll(enabledState(), kWideRegisters) ||
      lastLeaf < kMoreFeaturesLeaf)
    return Folding::kNarrow;
  cpuid(kMoreFeaturesLeaf, 0, registers);
  const bool isWide =
      HasAll(registers[kEbx], kAvx2) && HasAll(registers[kEcx], kWideMultiplication);
  return isWide ? Folding::kWide : Folding::kNarrow;
}

Folding AvailableFolding() {
  uint32_t folding = LoadRelaxed(g_folding);
  if (folding == kNotAsked) [[unlikely]] {
    folding = static_cast<uint32_t>(FoldingOf(__ZelCpuidEx, EnabledState));
    StoreRelaxed(g_folding, folding);  // two first calls at once store the same
  }
  return static_cast<Folding>(folding);
}

uint32_t Crc32(const void* data, uint64_t length, Folding folding) {
  Rest rest = {static_cast<const uint8_t*>(data), length, kAllOnes};
  if (folding == Folding::kWide && length >= kWideFrom) {
    FoldWide(rest);
  } else if (folding != Folding::kNone && length >= kNarrowStride) {
    FoldNarrow(rest);
  }
  return UpdateByBytes(rest) ^ kAllOnes;
}

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelCRC32(const void* data, uint64_t length) {
  return Crc32(data, length, length >= kNarrowStride ? AvailableFolding() : Folding::kNone);
}
