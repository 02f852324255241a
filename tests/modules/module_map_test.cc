#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "modules/internal.h"
#include "tests/support/fake_backing.h"
#include "tests/support/random.h"

constexpr int kStays = 214'748'364, kRaises = kStays - 1;
static int g_drawn = kStays;
extern "C" int rand() noexcept { return g_drawn; }

namespace {

using zelrt::g_moduleMap;

using Model = std::map<uint64_t, uint64_t>;  // ends by starts

void ExpectSameAnswer(const Model& model, uint64_t address) {
  const auto above = model.lower_bound(address);  // a module does not hold its own start
  const bool held = above != model.begin() && address < std::prev(above)->second;
  char* name = nullptr;
  const uint64_t start = __ZelGetModuleForVariable(address, &name);
  ASSERT_EQ(held ? std::prev(above)->first : 0, start) << address;
  const std::string expected = held ? std::to_string(start ^ std::prev(above)->second) : "none";
  ASSERT_EQ(expected, name != nullptr ? name : "none");
}

// It grows and shrinks again, to nothing. Starts collide; ranges overlap, are empty or inverted.
TEST(ModuleMapTest, AnswersAsAModelDoes) {
  zeltest::Random random;
  Model model;
  for (unsigned step = 0; step < 6000 && !HasFailure(); ++step) {
    const uint64_t start = random.OneIn(64) ? -1ull : random.Below(200) * 0x10;
    const uint64_t inside = start + random.Below(0x40), end = inside - 8;
    g_drawn = random.OneIn(10) ? kRaises : kStays;
    if (step > 0 && random.Below(4000) >= step) {
      __ZelLoadModule(std::to_string(start ^ end).c_str(), start, end);
      model.emplace(start, end);  // of two equal starts both keep the first
    } else {
      const uint64_t unloaded = random.OneIn(4) ? inside : start;
      __ZelUnloadModule(unloaded);
      model.erase(unloaded);
    }
    ASSERT_TRUE(zelrt::ModuleMapIsConsistent());
    for (const uint64_t address : {start - 1, start, start + 1, inside, end, end - 1})
      ExpectSameAnswer(model, address);
  }
}

TEST(ModuleMapTest, ARecordIsAsHighAsTheLevelThen) {
  for (uint64_t start = 1; start <= 12; ++start) {
    g_drawn = kStays;
    __ZelLoadModule(nullptr, 100 + start, 200);
    g_drawn = kRaises;
    __ZelLoadModule(nullptr, start, 200);
    __ZelLoadModule(nullptr, start, 200);  // is there already
    EXPECT_EQ(std::min<int>(static_cast<int>(start), 10), g_moduleMap.level);
  }
  for (uint64_t level = 0; level <= 10; ++level)  // the first of them that is as high
    EXPECT_EQ(std::max<uint64_t>(level, 1), g_moduleMap.head->links[level]->start);
  for (uint64_t start = 1; start <= 112; ++start) __ZelUnloadModule(start);
  EXPECT_EQ(0, g_moduleMap.level);
}

TEST(ModuleMapTest, AnUnloadGivesTheNameBack) {
  zeltest::backing::Install();
  __ZelLoadModule(nullptr, 1, 5);
  const size_t live = zeltest::backing::LiveBlocks();
  __ZelLoadModule(std::string(100'000, 'x').c_str(), 6, 9);  // has a block of its own
  __ZelUnloadModule(6);
  EXPECT_EQ(live, zeltest::backing::LiveBlocks());
}

TEST(MappingsTest, TheFirstMappingThatTouchesTheAddressAnswers) {
  uint64_t base = 5, start, end;
  EXPECT_EQ(0u, __ZelGetModuleAddressRange(reinterpret_cast<void*>(16), &base));
  EXPECT_EQ(5u, base);
  EXPECT_EQ(0u, __ZelGetThreadStackBaseAndSize(16, &base));
  EXPECT_EQ(0u, base);
  const auto address = reinterpret_cast<uint64_t>(&base);
  const uint64_t size = __ZelGetThreadStackBaseAndSize(address, &base);
  EXPECT_EQ(base - size, __ZelGetModuleAddressRange(&base, &end));
  EXPECT_TRUE(base - size <= address && address < base && base == end);
  EXPECT_EQ(size, __ZelGetThreadStackBaseAndSize(base, &base));  // its end is still its own
  __ZelGetZELRTAddressRange(&start, &end);
  const auto map = reinterpret_cast<uint64_t>(&g_moduleMap);
  EXPECT_TRUE(start <= map && map < end);
}

}  // namespace
