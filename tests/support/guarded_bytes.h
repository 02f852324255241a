// A copy of some bytes that ends at a page which cannot be read.
#pragma once

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace zeltest {

class GuardedBytes {
 public:
  GuardedBytes(const void* bytes, size_t size)
      : size_(size), room_((size + kPage - 1) / kPage * kPage) {
    map_ = mmap(nullptr, room_ + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uint8_t* const guard = static_cast<uint8_t*>(map_) + room_;
    if (map_ == MAP_FAILED || mprotect(guard, kPage, PROT_NONE) != 0) std::abort();
    data_ = guard - size;
    if (size > 0) std::memcpy(data_, bytes, size);
  }
  ~GuardedBytes() { munmap(map_, room_ + kPage); }
  GuardedBytes(const GuardedBytes&) = delete;

  uint8_t* Data() const { return data_; }
  char* Text() const { return reinterpret_cast<char*>(data_); }
  bool Holds(const void* address) const { return address >= data_ && address < data_ + size_; }

 private:
  static constexpr size_t kPage = 4096;
  const size_t size_, room_;
  void* map_;
  uint8_t* data_;
};

}  // namespace zeltest
