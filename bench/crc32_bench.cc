// CRC-32 of blocks of three sizes.

#include <cstdint>
#include <vector>

#ifdef ZELRT_BENCH_HAS_BOOST
#include <boost/crc.hpp>
#endif
#ifdef ZELRT_BENCH_HAS_LIBDEFLATE
#include <libdeflate.h>
#endif
#ifdef ZELRT_BENCH_HAS_ZLIB
#include <zlib.h>
#endif

#include "bench/suite.h"
#include "zelrt/crc32.h"

namespace bench {
namespace {

using Checksum = uint32_t (*)(const void* data, size_t size);

Run Of(size_t size, Checksum checksum) {
  if (checksum == nullptr) return {};
  return [=](benchmark::State& state) {
    std::vector<uint8_t> block(size);
    for (size_t i = 0; i < size; ++i) block[i] = static_cast<uint8_t>(i * i >> 3);
    for (auto _ : state) {
      // Each sum goes into the next block: nothing can be left out or done ahead.
      block[0] = static_cast<uint8_t>(checksum(block.data(), size));
    }
    benchmark::DoNotOptimize(block.data());
  };
}

#ifdef ZELRT_BENCH_HAS_BOOST
constexpr Checksum kBoost = [](const void* data, size_t size) {
  boost::crc_32_type crc;
  crc.process_bytes(data, size);
  return static_cast<uint32_t>(crc.checksum());
};
#else
constexpr Checksum kBoost = nullptr;
#endif

#ifdef ZELRT_BENCH_HAS_LIBDEFLATE
constexpr Checksum kLibdeflate = [](const void* data, size_t size) {
  return libdeflate_crc32(0, data, size);
};
#else
constexpr Checksum kLibdeflate = nullptr;
#endif

#ifdef ZELRT_BENCH_HAS_ZLIB
constexpr Checksum kZlib = [](const void* data, size_t size) {
  return static_cast<uint32_t>(crc32_z(0, static_cast<const Bytef*>(data), size));
};
#else
constexpr Checksum kZlib = nullptr;
#endif

Work OfBlock(const char* name, size_t size, std::vector<Goal> goals) {
  const Checksum ours = [](const void* data, size_t bytes) { return __ZelCRC32(data, bytes); };
  return {.name = name,
          .contenders = {{kOurs, Role::kOurs, Of(size, ours)},
                         {"zlib", Role::kPeer, Of(size, kZlib)},
                         {"libdeflate", Role::kPeer, Of(size, kLibdeflate)},
                         {"boost", Role::kPeer, Of(size, kBoost)}},
          .goals = std::move(goals)};
}

}  // namespace

Family Checksums() {
  const std::vector<Goal> aheadOfBoth = {AheadOf("zlib"), AheadOf("libdeflate")};
  return {"crc-32",
          "ns",
          {OfBlock("64 bytes", 64, {}), OfBlock("4 KiB", 4 << 10, aheadOfBoth),
           OfBlock("16 MiB", 16 << 20, aheadOfBoth)}};
}

}  // namespace bench
