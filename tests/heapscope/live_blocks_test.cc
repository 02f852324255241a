// The table of live blocks, against a map.

#include "examples/heapscope/live_blocks.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

#include "examples/heapscope/internal.h"
#include "host/host.h"
#include "zelrt/memory.h"

namespace heapscope {
namespace {

class LiveBlocksTest : public testing::Test {
 protected:
  LiveBlocksTest() {
    zelhost::Install();
    EXPECT_TRUE(SetUpOwnMemory());
    RegisterLiveBlockCategories();
  }

  // Addresses that a table would be given: those whose hashes begin with the same bits.
  uintptr_t NextAddress() {
    do {
      lastAddress_ += 16;
    } while (HashAddress(lastAddress_) >> (64 - LiveBlocks::kCallersHashBits) != 0);
    return lastAddress_;
  }

  void Insert(uintptr_t address, size_t size) {
    size_t replaced = 0;
    const auto outcome = table_.Insert(HashAddress(address), {address, size}, &replaced);
    const auto [entry, isNew] = model_.try_emplace(address, size);
    EXPECT_EQ(isNew ? LiveBlocks::Insertion::kAdded : LiveBlocks::Insertion::kReplaced, outcome);
    if (!isNew) {
      EXPECT_EQ(entry->second, replaced);
    }
    entry->second = size;
  }

  void Remove(uintptr_t address) {
    size_t size = 0;
    const auto entry = model_.find(address);
    ASSERT_EQ(entry != model_.end(), table_.Remove(HashAddress(address), address, &size));
    if (entry == model_.end()) return;
    EXPECT_EQ(entry->second, size);
    model_.erase(entry);
  }

  LiveBlocks table_;
  std::unordered_map<uintptr_t, size_t> model_;

 private:
  uintptr_t lastAddress_ = 0x7f0000000000;
};

TEST_F(LiveBlocksTest, RandomChangesLeaveWhatAMapHas) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  std::vector<uintptr_t> addresses;
  for (int i = 0; i < 30000; ++i) addresses.push_back(NextAddress());
  // The share of insertions falls, so that leaves are split first and emptied then.
  for (uint32_t step = 0; step < 200000; ++step) {
    const uintptr_t address = addresses[random() % addresses.size()];
    if (random() % 200000 > step) {
      Insert(address, random());
    } else {
      Remove(address);
    }
    if (step % 5000 == 0) {
      ASSERT_TRUE(table_.IsConsistent());
    }
  }
  for (const uintptr_t address : addresses) Remove(address);
  EXPECT_TRUE(model_.empty());
  EXPECT_TRUE(table_.IsConsistent());
}

TEST_F(LiveBlocksTest, ATableOfHalfAMillionBlocksFindsThemAll) {
  std::vector<uintptr_t> addresses;
  for (int i = 0; i < 500000; ++i) {
    addresses.push_back(NextAddress());
    Insert(addresses.back(), static_cast<size_t>(i));
  }
  EXPECT_TRUE(table_.IsConsistent());
  // Its directory no longer fits a small block of the library.
  EXPECT_LT(32728u, 500000 / 224 * sizeof(void*) * 2);
  for (const uintptr_t address : addresses) Remove(address);
  EXPECT_TRUE(table_.IsConsistent());
}

}  // namespace
}  // namespace heapscope
