// The structure of the library's range table, with its steps one after the other: no checks, no
// look ahead, and everything inline but the allocator, which is the library's. What ours costs
// beyond this is ours to answer for.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

#include "zelrt/memory.h"

namespace bench {

class RangeTableModel {
 public:
  explicit RangeTableModel(uint64_t maxRangeSize)
      : levels_(static_cast<size_t>(std::bit_width(maxRangeSize)) - kMinBits) {
    for (uint32_t i = 0; i < levels_.size(); ++i) levels_[i].shift = i + 1;
  }
  ~RangeTableModel() {
    for (Level& level : levels_) {
      level.ForEachEntry([&](Hashed* entry) { FreeItem(level, entry); });
      __ZelFree(level.buckets);
    }
  }
  RangeTableModel(const RangeTableModel&) = delete;
  RangeTableModel& operator=(const RangeTableModel&) = delete;

  void Insert(uint64_t start, uint64_t end, void* data) {
    auto* const range = Allocate<Range>();
    *range = {~uint64_t{0}, start, end, this, data, 0};
    Decompose(start, end, LevelFor(end - start), [&](size_t level, uint64_t block) {
      ++range->references;
      if (levels_[level].buckets == nullptr) levels_[level].Rehash(256);
      if (level > 0) {
        levels_[level].Insert(block, range);
        return;
      }
      auto* const node = Allocate<Node>();
      *node = {nullptr, range};
      const Hashed* const stored = levels_[0].Find(block);
      if (stored == nullptr) {
        levels_[0].Insert(block, node);
      } else {
        auto* const first = static_cast<Node*>(stored->data);
        node->next = first->next;
        first->next = node;
      }
    });
  }

  void Erase(uint64_t start, uint64_t end) {
    Decompose(start, end, LevelFor(end - start), [&](size_t level, uint64_t block) {
      const Hashed* const stored = levels_[level].Find(block);
      if (level > 0) {
        Drop(static_cast<Range*>(stored->data));
        levels_[level].Remove(block);
        return;
      }
      Node* before = nullptr;
      auto* node = static_cast<Node*>(stored->data);
      for (; node->range->start != start; node = node->next) before = node;
      Drop(node->range);
      if (before != nullptr) {
        before->next = node->next;
      } else {
        levels_[0].Remove(block);
        if (node->next != nullptr) levels_[0].Insert(block, node->next);
      }
      __ZelFree(node);
    });
  }

  void* Find(uint64_t address) const {
    for (size_t level = levels_.size(); level-- > 0;) {
      if (levels_[level].buckets == nullptr) continue;
      const Hashed* const stored = levels_[level].Find(address & ~(SizeOf(level) - 1));
      if (stored == nullptr) continue;
      if (level > 0) return static_cast<Range*>(stored->data)->data;
      for (auto* node = static_cast<Node*>(stored->data); node != nullptr; node = node->next) {
        if (node->range->start <= address && address < node->range->end) return node->range->data;
      }
    }
    return nullptr;
  }

 private:
  static constexpr uint32_t kMinBits = 5;

  struct Range {
    uint64_t marker;
    uint64_t start;
    uint64_t end;
    RangeTableModel* table;
    void* data;
    uint32_t references;
  };
  struct Node {
    Node* next;
    Range* range;
  };
  struct Hashed {
    Hashed* next;
    uint64_t key;
    void* data;
    char unusedLock[32];
  };
  struct Bucket {
    char unusedLock[32];
    Hashed* entries;
  };

  template <typename Record>
  static Record* Allocate() {
    return static_cast<Record*>(__ZelMalloc(0, sizeof(Record), 0));
  }

  struct Level {
    Bucket* buckets = nullptr;
    uint64_t bucketCount = 0;
    uint64_t count = 0;
    uint32_t shift = 0;

    Hashed** HeadOf(uint64_t key) const {
      const auto v = static_cast<uint64_t>(static_cast<int64_t>(key) >> shift);
      return &buckets[(v ^ v >> shift) & (bucketCount - 1)].entries;
    }
    const Hashed* Find(uint64_t key) const {
      const Hashed* entry = *HeadOf(key);
      while (entry != nullptr && entry->key != key) entry = entry->next;
      return entry;
    }
    void Insert(uint64_t key, void* data) {
      if (Find(key) != nullptr) return;
      if (count > bucketCount) Rehash(bucketCount * 2);
      auto* const entry = Allocate<Hashed>();
      Hashed** const head = HeadOf(key);
      entry->next = *head;
      entry->key = key;
      entry->data = data;
      *head = entry;
      ++count;
    }
    void Remove(uint64_t key) {
      Hashed** link = HeadOf(key);
      while ((*link)->key != key) link = &(*link)->next;
      Hashed* const entry = *link;
      *link = entry->next;
      __ZelFree(entry);
      --count;
    }
    template <typename Visit>
    void ForEachEntry(Visit visit) {
      for (uint64_t i = 0; i < bucketCount; ++i) {
        for (Hashed* entry = buckets[i].entries; entry != nullptr;) {
          Hashed* const next = entry->next;
          visit(entry);
          entry = next;
        }
      }
    }
    void Rehash(uint64_t newCount) {
      Level grown = {.buckets = static_cast<Bucket*>(__ZelMalloc(0, newCount * sizeof(Bucket), 0)),
                     .bucketCount = newCount,
                     .count = count,
                     .shift = shift};
      for (uint64_t i = 0; i < newCount; ++i) grown.buckets[i].entries = nullptr;
      ForEachEntry([&grown](Hashed* entry) {
        Hashed** const head = grown.HeadOf(entry->key);
        entry->next = *head;
        *head = entry;
      });
      __ZelFree(buckets);
      *this = grown;
    }
  };

  static uint64_t SizeOf(size_t level) { return uint64_t{1} << (level + kMinBits); }
  size_t LevelFor(uint64_t length) const {
    const auto bits = static_cast<size_t>(std::bit_width(length)) - 1;
    return std::min(std::max(bits, size_t{kMinBits}) - kMinBits, levels_.size() - 1);
  }

  template <typename Visit>
  void Decompose(uint64_t start, uint64_t end, size_t level, Visit visit) {
    while (start < end) {
      const uint64_t size = SizeOf(level);
      const uint64_t block = start & ~(size - 1);
      if (start != block && level == 0) {
        visit(0, block);
        start = block + size;
      } else if (start != block) {
        const uint64_t middle = std::min(block + size, end);
        Decompose(start, middle, LevelFor(middle - start), visit);
        start = middle;
      }
      for (; start + size <= end; start += size) visit(level, start);
      if (start >= end) return;
      if (level == 0) return visit(0, start);
      level = LevelFor(end - start);
    }
  }

  static void Drop(Range* range) {
    if (--range->references == 0) __ZelFree(range);
  }
  void FreeItem(const Level& level, Hashed* entry) {
    if (&level != &levels_[0]) {
      Drop(static_cast<Range*>(entry->data));
    } else {
      for (auto* node = static_cast<Node*>(entry->data); node != nullptr;) {
        Node* const next = node->next;
        Drop(node->range);
        __ZelFree(node);
        node = next;
      }
    }
    __ZelFree(entry);
  }

  std::vector<Level> levels_;
};

}  // namespace bench
