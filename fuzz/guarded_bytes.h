// A copy of some bytes that ends at a page which cannot be read. For one thread.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace zelfuzz {

class GuardedBytes {
 public:
  GuardedBytes(const void* bytes, size_t size)
      : size_(size), room_(std::max(kSpareRoom, (size + kPage - 1) / kPage * kPage)) {
    map_ = room_ == kSpareRoom ? std::exchange(spare_, nullptr) : nullptr;
    if (map_ == nullptr) map_ = Map(room_);
    data_ = static_cast<uint8_t*>(map_) + room_ - size;
    if (size > 0) std::memcpy(data_, bytes, size);
  }
  ~GuardedBytes() {
    if (room_ == kSpareRoom) std::swap(map_, spare_);  // mapping costs more than most tests
    if (map_ != nullptr) munmap(map_, room_ + kPage);
  }
  GuardedBytes(const GuardedBytes&) = delete;

  uint8_t* Data() const { return data_; }
  char* Text() const { return reinterpret_cast<char*>(data_); }
  bool Holds(const void* address) const { return address >= data_ && address < data_ + size_; }

 private:
  static void* Map(size_t room) {
    void* const map =
        mmap(nullptr, room + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED || mprotect(static_cast<char*>(map) + room, kPage, PROT_NONE) != 0)
      std::abort();
    return map;
  }

  static constexpr size_t kPage = 4096, kSpareRoom = 16 * kPage;
  static inline void* spare_ = nullptr;
  const size_t size_, room_;
  void* map_;
  uint8_t* data_;
};

}  // namespace zelfuzz
