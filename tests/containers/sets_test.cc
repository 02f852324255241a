#include "zelrt/sets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "containers/set_blocks.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/random.h"

namespace {

// Element and multiplicity; all is by value, so that arguments may be the same.
using Model = std::map<uint32_t, uint32_t>;

Model Union(Model a, Model b, uint64_t limit) {
  for (const auto& [element, times] : b)
    a[element] = static_cast<uint32_t>(std::min(uint64_t{a[element]} + times, limit));
  return a;
}
Model Difference(Model a, Model b) {
  for (const auto& [element, times] : b) {
    if (a.contains(element)) a[element] -= std::min(a[element], times);
  }
  std::erase_if(a, [](const auto& pair) { return pair.second == 0; });
  return a;
}
Model Intersection(Model a, Model b) { return Difference(a, Difference(a, b)); }

Model Read(const ZelSet& set) {
  Model model;
  const auto visit = [](uint32_t element, void* context) {
    auto& seen = *static_cast<Model*>(context);
    EXPECT_TRUE(seen.empty() || seen.rbegin()->first < element);
    return static_cast<int>(seen[element] = 1);
  };
  __ZelScanSet(&set, visit, &model);
  return model;
}
Model Read(const ZelMultiSet& multiset) {
  Model model = Read(reinterpret_cast<const ZelSet&>(multiset));
  for (auto& [element, times] : model) times = __ZelGetElementMultiplicity(&multiset, element);
  return model;
}

// A set, a multiset, and what they should be.
struct Pair {
  ZelSet set;
  ZelMultiSet multiset;
  Model setModel = {}, model = {};

  void Expect(uint32_t category) const {
    EXPECT_TRUE(zelrt::SetIsConsistent(set) && zelrt::SetIsConsistent(multiset));
    EXPECT_TRUE(setModel == Read(set) && setModel.size() == set.count);
    EXPECT_TRUE(model == Read(multiset) && model.size() == multiset.count);
    EXPECT_TRUE(set.memoryCategory == category && multiset.memoryCategory == category);
  }

  void ExpectSameAnswers(const Pair& b, uint32_t e) const {
    const auto difference = static_cast<int>(setModel.size() - b.setModel.size());
    const int unequal = setModel == b.setModel ? 0 : difference != 0 ? difference : 1;
    EXPECT_EQ(unequal, __ZelCompareSets(&set, &b.set));
    EXPECT_EQ(unequal == 0, __ZelAreSetsEqual(&set, &b.set) == 1);
    EXPECT_EQ(model == b.model, __ZelAreMultiSetsEqual(&multiset, &b.multiset) == 1);
    EXPECT_EQ(model.empty(), __ZelIsMultiSetEmpty(&multiset) == 1);
    const size_t common = Intersection(setModel, b.setModel).size();
    EXPECT_EQ(common == setModel.size(), __ZelIsASubsetOfSet(&set, &b.set) == 1);
    EXPECT_EQ(common == 0 && this != &b, __ZelAreSetsDisjoint(&set, &b.set) == 1);
    EXPECT_EQ(setModel.contains(e) ? 1u << e % 32 : 0, __ZelIsAnElementOfSet(&set, e));
    EXPECT_EQ(model.contains(e) ? model.at(e) : 0, __ZelGetElementMultiplicity(&multiset, e));
  }
};

// Changes what a has, with what b and c have, which may be a.
void Change(uint32_t choice, Pair& a, Pair& b, const Pair& c, uint32_t element) {
  Model &x = a.setModel, &y = a.model, &z = b.setModel, one = {{element, 1}};
  auto *s = &a.set, *t = &b.set;
  auto *m = &a.multiset, *n = &b.multiset;
  if (choice == 0) __ZelEmptySet(s), __ZelEmptyMultiSet(m), x.clear(), y.clear();
  if (choice == 1) __ZelConstructSet(s, t), __ZelConstructMultiSet(m, n), x = z, y = b.model;
  if (choice == 2) __ZelConstructSetAndDestroy(s, t), x = std::exchange(z, {});
  if (choice == 2) __ZelConstructMultiSetAndDestroy(m, n), y = std::exchange(b.model, {});
  if (choice == 3) __ZelUnionSet(s, t), x = Union(x, z, 1);
  if (choice == 4) __ZelUnionMultiSet(m, n), y = Union(y, b.model, ~0u);
  if (choice == 5) __ZelUnionMultiSetSet(m, t), y = Union(y, z, ~0u);
  if (choice == 6) __ZelDifferenceSet(s, t), x = Difference(x, z);
  if (choice == 7) __ZelDifferenceMultiSet(m, n), y = Difference(y, b.model);
  if (choice == 8) __ZelIntersectSet(s, t, &c.set), x = Intersection(z, c.setModel);
  if (choice == 9) __ZelIntersectMultiSet(m, n, &c.multiset), y = Intersection(b.model, c.model);
  if (choice == 10) __ZelDeleteAllInstancesOfAnElementFromMultiSet(m, element), y.erase(element);
  if (choice > 10 && choice < 16) __ZelDeleteAnElementFromSet(s, element), x.erase(element);
  if (choice > 15 && choice < 22)
    __ZelDeleteAnElementFromMultiSet(m, element), y = Difference(y, one);
  if (choice > 21 && choice < 28) __ZelAddAnElementToSet(s, element), x[element] = 1;
  if (choice > 27) __ZelAddAnElementToMultiSet(m, element), y = Union(y, one, ~0u);
}

// Few blocks and few places, so that blocks come, meet, go, and change their categories.
TEST(SetsTest, BehavesAsItsModelAndLeavesNothingBehind) {
  zeltest::backing::Install();
  constexpr uint32_t kBlocks[] = {0, 1, 2, 1000, 0x3FFFFFE, 0x3FFFFFF};
  constexpr uint32_t kPlaces[] = {0, 1, 31, 32, 63};
  constexpr uint8_t kCategories[] = {1, 2, 63};
  zeltest::Random random;
  Pair pairs[3] = {{{0, 1, nullptr}, {0, 1, nullptr}},
                   {{0, 2, nullptr}, {0, 2, nullptr}},
                   {{0, 63, nullptr}, {0, 63, nullptr}}};
  for (int step = 0; step < 20'000 && !testing::Test::HasFailure(); ++step) {
    const uint32_t choice = random.Below(36);
    const uint32_t element = kBlocks[random.Below(6)] * 64 + kPlaces[random.Below(5)];
    SCOPED_TRACE("step " + std::to_string(step) + " choice " + std::to_string(choice));
    Pair &a = pairs[random.Below(3)], &b = pairs[random.Below(3)];
    Change(choice, a, b, pairs[random.Below(3)], element);
    for (uint32_t i = 0; i < 3; ++i) pairs[i].Expect(kCategories[i]);
    a.ExpectSameAnswers(b, element);
  }
  for (Pair& pair : pairs) __ZelDestroySet(&pair.set), __ZelDestroyMultiSet(&pair.multiset);
  EXPECT_TRUE(zeltest::NoBlockIsInUse());
}

TEST(SetsTest, TheCountStaysInItsBitsWhenThereAreMoreElements) {
  constexpr uint32_t kMost = ZEL_MAX_SET_COUNT;
  ZelSet set = {kMost, 0xA, nullptr};  // all below kMost
  for (uint32_t index = kMost / 64 + 1; index-- > 0;) {
    auto* const block = static_cast<ZelSetChunk*>(__ZelMalloc(0xA, sizeof(ZelSetChunk), 0));
    *block = {set.first, index, {~0u, index == kMost / 64 ? ~0u >> 1 : ~0u}};
    set.first = block;
  }
  const auto expect = [&](uint32_t count, uint32_t absent) {
    EXPECT_EQ(0u, __ZelIsAnElementOfSet(&set, absent));
    EXPECT_TRUE(zelrt::SetIsConsistent(set) && set.count == count && set.memoryCategory == 0xA);
  };
  for (const uint32_t element : {kMost, kMost + 1, 7u}) __ZelAddAnElementToSet(&set, element);
  expect(kMost, kMost);  // has a block
  expect(kMost, kMost + 1);
  ZelSet more = {0, 1, nullptr};
  for (const uint32_t element : {1u, ~0u - 1, ~0u}) __ZelAddAnElementToSet(&more, element);
  __ZelUnionSet(&set, &more);
  EXPECT_NE(0u, __ZelIsAnElementOfSet(&set, ~0u));
  for (uint32_t element = 0; element < 3; ++element) {
    __ZelDeleteAnElementFromSet(&set, element);
    expect(kMost - element / 2, element);
  }
  for (const uint32_t element : {0u, 1u}) __ZelAddAnElementToSet(&set, element);
  expect(kMost, 1);
}

TEST(SetsTest, AMultiplicityStaysAtItsMaximum) {
  ZelMultiSet multiset = {0, 1, nullptr};
  __ZelAddAnElementToMultiSet(&multiset, 9);
  for (int i = 0; i < 32; ++i) __ZelUnionMultiSet(&multiset, &multiset);
  EXPECT_EQ(~0u, __ZelGetElementMultiplicity(&multiset, 9));
  __ZelAddAnElementToMultiSet(&multiset, 9);
  EXPECT_EQ(~0u, __ZelGetElementMultiplicity(&multiset, 9));
}

}  // namespace
