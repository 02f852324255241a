#include "zelrt/red_black_tree.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "containers/red_black_tree.h"
#include "tests/support/blocks_in_use.h"
#include "tests/support/random.h"

namespace {

using Freed = std::vector<std::pair<uint64_t, void*>>;

constexpr uint64_t kTop = ~uint64_t{0};

void* Item(uintptr_t number) { return reinterpret_cast<void*>(number); }

// Keys that differ in the lowest bit only are equal.
int32_t Descending(uint64_t a, uint64_t b) { return a >> 1 < b >> 1 ? 1'000 : -(a >> 1 > b >> 1); }
Freed g_freed;  // by either kind of callback, the item first
void NoteItem(void* item) { g_freed.emplace_back(0, item); }
void NoteKey(uint64_t key) { g_freed.back().first = key; }
Freed TakeFreed() { return std::exchange(g_freed, {}); }

// Applies each change to a tree and to a std::multimap, and compares what they answer.
class TreeAndModel {
 public:
  TreeAndModel(ZelRedBlackCompare compare)
      : tree_(__ZelCreateRedBlackTree(7, compare, NoteItem, NoteKey)),
        model_([compare](uint64_t a, uint64_t b) { return compare ? compare(a, b) < 0 : a < b; }) {}
  ~TreeAndModel() {
    __ZelDestroyRedBlackTree(tree_);
    EXPECT_EQ(Contents(model_.begin(), model_.end()), TakeFreed());
  }

  size_t Size() const { return model_.size(); }

  void Insert(uint64_t key) {
    __ZelInsertRedBlackEntry(tree_, key, Item(++items_));
    model_.insert({key, {__ZelGetRedBlackRangeEnd(tree_, key), Item(items_)}});
  }
  void RemoveNth(size_t n) {
    const auto victim = std::next(model_.begin(), static_cast<ptrdiff_t>(n));
    __ZelRemoveRedBlackEntry(victim->second.node);
    model_.erase(victim);
    EXPECT_TRUE(g_freed.empty());
  }
  void DestroyRange(uint64_t low, uint64_t high) {
    __ZelDestroyRedBlackRange(tree_, low, high);
    const auto first = Start(low, high);
    auto last = first;
    while (last != model_.end() && (last == first || !model_.key_comp()(high, last->first))) ++last;
    EXPECT_EQ(Contents(first, last), TakeFreed());
    model_.erase(first, last);
  }

  void ExpectSame() const {
    ASSERT_TRUE(zelrt::RedBlackTreeIsConsistent(tree_));
    ASSERT_EQ(1u, __ZelValidateRedBlack(tree_));
    ASSERT_EQ(model_.size(), tree_->count);
    for (const auto& [key, entry] : model_) {
      ASSERT_TRUE(entry.node->key == key && entry.node->item == entry.item) << key;
    }
  }
  // Both walks over the range of two bounds, which need not be in order.
  void ExpectSameWalks(uint64_t low, uint64_t high) const {
    const auto isBefore = model_.key_comp();
    auto expected = Start(low, high);
    const ZelRedBlackNode* node = __ZelGetRedBlackRangeStart(tree_, low, high);
    while (node != nullptr) {
      ASSERT_TRUE(expected != model_.end() && expected->second.node == node) << low << ' ' << high;
      node = __ZelGetRedBlackRangeNext(node, high);
      if (++expected != model_.end() && isBefore(high, expected->first)) expected = model_.end();
    }
    ASSERT_EQ(model_.end(), expected) << low << " to " << high;

    auto after = model_.upper_bound(high);
    node = __ZelGetRedBlackRangeEnd(tree_, high);
    ASSERT_EQ(after != model_.begin(), node != nullptr) << high;
    while (node != nullptr) {
      ASSERT_EQ((--after)->second.node, node) << low << " to " << high;
      node = __ZelGetRedBlackRangePrev(node, low);
    }
    ASSERT_TRUE(after == model_.begin() || isBefore(std::prev(after)->first, low)) << low;
  }

 private:
  struct Entry {
    ZelRedBlackNode* node;
    void* item;
  };
  using Model = std::multimap<uint64_t, Entry, std::function<bool(uint64_t, uint64_t)>>;

  // The bound is strict, but for the key `low` itself.
  Model::const_iterator Start(uint64_t low, uint64_t high) const {
    const auto first = model_.lower_bound(low);
    const auto isBefore = model_.key_comp();
    if (first == model_.end() || !isBefore(low, first->first) || isBefore(first->first, high))
      return first;
    return model_.end();
  }
  static Freed Contents(Model::const_iterator first, Model::const_iterator last) {
    Freed contents;
    for (; first != last; ++first) contents.emplace_back(first->first, first->second.item);
    return contents;
  }

  ZelRedBlackTree* const tree_;
  Model model_;
  uintptr_t items_ = 0;
};

class RedBlackTreeTest : public testing::Test {
 protected:
  void SetUp() override { zeltest::backing::Install(); }
  void TearDown() override { EXPECT_TRUE(zeltest::NoBlockIsInUse()); }
};

// Few keys make long runs of equal ones; many make the tree deep. It grows and empties in turns.
void ChangeAtRandom(const std::vector<uint64_t>& keys, size_t maxSize, int steps,
                    ZelRedBlackCompare compare) {
  zeltest::Random random;
  const auto someKey = [&] { return keys[random.Below(keys.size())]; };
  TreeAndModel both(compare);
  bool grows = true;
  for (int i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
    if (both.Size() == 0 || both.Size() >= maxSize) grows = both.Size() == 0;
    if (both.Size() == 0 || random.Below(8) < (grows ? 6u : 2u)) {
      both.Insert(someKey());
    } else if (random.OneIn(64)) {
      both.DestroyRange(someKey(), someKey());
    } else {
      both.RemoveNth(random.Below(both.Size()));
    }
    both.ExpectSame();
    both.ExpectSameWalks(someKey(), someKey());
  }
}

TEST_F(RedBlackTreeTest, RandomChangesMatchTheModel) {
  const std::vector<uint64_t> extremes = {0, 1, 2, (kTop >> 1), (kTop >> 1) + 1, kTop - 1, kTop};
  std::vector<uint64_t> many(300);
  std::iota(many.begin(), many.end(), 1);
  for (const ZelRedBlackCompare compare : {ZelRedBlackCompare{nullptr}, Descending}) {
    ChangeAtRandom(extremes, 12, 8'000, compare);
    ChangeAtRandom({5}, 40, 2'000, compare);
    ChangeAtRandom(many, 200, 4'000, compare);
  }
}

TEST_F(RedBlackTreeTest, NothingComesOfNullsAndTheSentinel) {
  ZelRedBlackTree* const tree = __ZelCreateRedBlackTree(7, nullptr, nullptr, nullptr);
  EXPECT_EQ(1u, __ZelValidateRedBlack(tree));
  uint64_t key = 0;
  void* item = tree;
  for (const ZelRedBlackNode* node : {static_cast<ZelRedBlackNode*>(nullptr), tree->nil}) {
    EXPECT_EQ(nullptr, __ZelGetRedBlackRangeNext(node, kTop));
    EXPECT_EQ(nullptr, __ZelGetRedBlackRangePrev(node, 0));
    EXPECT_EQ(0u, __ZelGetRedBlackKey(node, &key) | __ZelGetRedBlackItem(node, &item));
  }
  for (const ZelRedBlackTree* empty : {static_cast<ZelRedBlackTree*>(nullptr), tree}) {
    EXPECT_EQ(nullptr, __ZelGetRedBlackRangeStart(empty, 0, kTop));
    EXPECT_EQ(nullptr, __ZelGetRedBlackRangeEnd(empty, kTop));
  }
  __ZelRemoveRedBlackEntry(nullptr);
  __ZelDestroyRedBlackRange(nullptr, 0, kTop);
  __ZelDestroyRedBlackTree(nullptr);
  __ZelInsertRedBlackEntry(tree, 3, nullptr);
  EXPECT_EQ(0u,
            __ZelGetRedBlackKey(tree->root, nullptr) | __ZelGetRedBlackItem(tree->root, nullptr));
  EXPECT_TRUE(__ZelGetRedBlackKey(tree->root, &key) == 1 && key == 3);
  EXPECT_TRUE(__ZelGetRedBlackItem(tree->root, &item) == 1 && item == nullptr);
  __ZelDestroyRedBlackTree(tree);
}

TEST_F(RedBlackTreeTest, ValidationFindsEachKindOfDamage) {
  ZelRedBlackTree* const tree = __ZelCreateRedBlackTree(7, nullptr, nullptr, nullptr);
  for (uint64_t key = 0; key < 7; ++key) __ZelInsertRedBlackEntry(tree, key * 10, nullptr);
  ASSERT_EQ(zelrt::kRed, tree->root->right->colour);
  const auto expectFound = [tree](const char* what, auto& field, auto value) {
    const auto saved = std::exchange(field, static_cast<std::decay_t<decltype(field)>>(value));
    EXPECT_EQ(0u, __ZelValidateRedBlack(tree)) << what;
    field = saved;
    EXPECT_EQ(1u, __ZelValidateRedBlack(tree)) << what;
  };
  ZelRedBlackNode* const right = tree->root->right;
  expectFound("red below red", right->left->colour, zelrt::kRed);
  expectFound("a path with one black more", right->colour, zelrt::kBlack);
  expectFound("a key after its successor", right->left->key, right->key + 1);
  expectFound("a node that was not counted", tree->count, 6);
  expectFound("a list cut short", right->next, tree->nil);
  __ZelDestroyRedBlackRange(tree, 10, kTop);
  tree->root->colour = zelrt::kRed;
  EXPECT_EQ(1u, __ZelValidateRedBlack(tree)) << "the root's colour does not count";
  __ZelDestroyRedBlackTree(tree);
}

}  // namespace
