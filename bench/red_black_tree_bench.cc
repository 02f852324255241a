// Red-black trees: keys that come and go at random places, and walks over all keys.
//
// Keys are pseudo-random and come in one sequence; a tree of n holds the last n of it. A step finds
// and erases the oldest and inserts the next. Each contender's latest tree is kept for the next
// repetition: to fill one takes longer than to measure it.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#ifdef ZELRT_BENCH_HAS_ABSL_BTREE
#include <absl/container/btree_map.h>
#endif
#ifdef ZELRT_BENCH_HAS_BOOST
#include <boost/intrusive/set.hpp>
#endif

#include "bench/suite.h"
#include "zelrt/memory.h"
#include "zelrt/red_black_tree.h"

namespace bench {
namespace {

// Scatters consecutive numbers over all 64 bits; different ones stay different.
uint64_t KeyOf(uint64_t number) {
  number = (number + 1) * 0x9E37'79B9'7F4A'7C15;
  number = (number ^ number >> 30) * 0xBF58'476D'1CE4'E5B9;
  number = (number ^ number >> 27) * 0x94D0'49BB'1331'11EB;
  return number ^ number >> 31;
}

void* ItemOf(uint64_t number) { return reinterpret_cast<void*>(number); }
uint64_t NumberOf(const void* item) { return reinterpret_cast<uint64_t>(item); }

// The contenders. Sum goes through all items in the order of their keys.

class OurTree {
 public:
  OurTree() : tree_(__ZelCreateRedBlackTree(0, nullptr, nullptr, nullptr)) {}
  ~OurTree() { __ZelDestroyRedBlackTree(tree_); }
  OurTree(const OurTree&) = delete;
  OurTree& operator=(const OurTree&) = delete;

  void Insert(uint64_t key, void* item) { __ZelInsertRedBlackEntry(tree_, key, item); }
  void Erase(uint64_t key) {
    __ZelRemoveRedBlackEntry(__ZelGetRedBlackRangeStart(tree_, key, key));
  }
  uint64_t Sum() const {
    constexpr uint64_t kHigh = ~uint64_t{0};
    uint64_t sum = 0;
    const ZelRedBlackNode* node = __ZelGetRedBlackRangeStart(tree_, 0, kHigh);
    for (; node != nullptr; node = __ZelGetRedBlackRangeNext(node, kHigh)) {
      void* item = nullptr;
      __ZelGetRedBlackItem(node, &item);
      sum += NumberOf(item);
    }
    return sum;
  }

 private:
  ZelRedBlackTree* const tree_;
};

template <typename Map>
class OrderedMap {
 public:
  void Insert(uint64_t key, void* item) { map_.emplace(key, item); }
  void Erase(uint64_t key) { map_.erase(map_.find(key)); }
  uint64_t Sum() const {
    uint64_t sum = 0;
    for (const auto& [key, item] : map_) sum += NumberOf(item);
    return sum;
  }

 private:
  Map map_;
};

#ifdef ZELRT_BENCH_HAS_BOOST
class IntrusiveSet {
 public:
  ~IntrusiveSet() { set_.clear_and_dispose(std::default_delete<Node>()); }
  void Insert(uint64_t key, void* item) { set_.insert(*new Node{{}, key, item}); }
  void Erase(uint64_t key) { set_.erase_and_dispose(set_.find(key), std::default_delete<Node>()); }
  uint64_t Sum() const {
    uint64_t sum = 0;
    for (const Node& node : set_) sum += NumberOf(node.item);
    return sum;
  }

 private:
  struct Node : boost::intrusive::set_base_hook<> {
    Node(boost::intrusive::set_base_hook<> hook, uint64_t k, void* i)
        : boost::intrusive::set_base_hook<>(hook), key(k), item(i) {}
    uint64_t key;
    void* item;
  };
  struct KeyOfNode {
    using type = uint64_t;
    const uint64_t& operator()(const Node& node) const { return node.key; }
  };
  boost::intrusive::multiset<Node, boost::intrusive::key_of_value<KeyOfNode>> set_;
};
#endif

// Nodes as ours are, in blocks as ours have, linked in the order of their keys: what a walk costs
// without calls and checks. The bound is tested, for ours has one.
class BareList {
 public:
  ~BareList() {
    for (auto& [key, node] : nodes_) __ZelFree(node);
  }
  void Insert(uint64_t key, void* item) {
    auto* const node = static_cast<Node*>(__ZelMalloc(0, sizeof(Node), 0));
    node->key = key;
    node->item = item;
    nodes_.emplace(key, node);
    isLinked_ = false;
  }
  uint64_t Sum() {
    if (!isLinked_) Link();
    const volatile uint64_t readOnce = ~uint64_t{0};
    const uint64_t high = readOnce;
    uint64_t sum = 0;
    for (const Node* node = first_; node != nullptr && node->key <= high; node = node->next)
      sum += NumberOf(node->item);
    return sum;
  }

 private:
  struct Node {
    void* links[5];
    Node* next;
    uint64_t key;
    void* item;
    uint64_t colour;
  };

  void Link() {
    Node** link = &first_;
    for (auto& [key, node] : nodes_) {
      *link = node;
      link = &node->next;
    }
    *link = nullptr;
    isLinked_ = true;
  }

  std::map<uint64_t, Node*> nodes_;
  Node* first_ = nullptr;
  bool isLinked_ = false;
};

// A contender with the keys of the numbers from `oldest` on.
template <typename Tree>
struct Filled {
  explicit Filled(uint64_t count) : size(count) {
    for (; next < count; ++next) tree.Insert(KeyOf(next), ItemOf(next));
  }
  const uint64_t size;
  Tree tree;
  uint64_t next = 0;
};

template <typename Tree>
Filled<Tree>& LatestOf(uint64_t size) {
  static std::unique_ptr<Filled<Tree>> latest;
  if (latest == nullptr || latest->size != size) {
    latest.reset();
    latest = std::make_unique<Filled<Tree>>(size);
  }
  return *latest;
}

template <typename Tree>
Run Replace(uint64_t size) {
  return [size](benchmark::State& state) {
    Filled<Tree>& filled = LatestOf<Tree>(size);
    for (auto _ : state) {
      filled.tree.Erase(KeyOf(filled.next - size));
      filled.tree.Insert(KeyOf(filled.next), ItemOf(filled.next));
      ++filled.next;
    }
  };
}

template <typename Tree>
Run Walk(uint64_t size) {
  return [size](benchmark::State& state) {
    Filled<Tree>& filled = LatestOf<Tree>(size);
    while (state.KeepRunningBatch(static_cast<int64_t>(size))) {
      const uint64_t sum = filled.tree.Sum();
      benchmark::DoNotOptimize(sum);
    }
  };
}

constexpr char kMultimap[] = "std::multimap";
constexpr char kBareWalk[] = "bare walk";

using Multimap = OrderedMap<std::multimap<uint64_t, void*>>;

// `makeRun` makes what is run of a contender, its template argument.
template <typename Lambda>
std::vector<Contender> Contenders(Lambda makeRun) {
  return {
      {kOurs, Role::kOurs, makeRun.template operator()<OurTree>()},
      {kMultimap, Role::kPeer, makeRun.template operator()<Multimap>()},
#ifdef ZELRT_BENCH_HAS_BOOST
      {"intrusive", Role::kPeer, makeRun.template operator()<IntrusiveSet>()},
#endif
#ifdef ZELRT_BENCH_HAS_ABSL_BTREE
      {"absl btree", Role::kPeer,
       makeRun.template operator()<OrderedMap<absl::btree_multimap<uint64_t, void*>>>()},
#endif
  };
}

Work ReplaceAmong(const char* name, uint64_t size) {
  return {.name = name,
          .contenders = Contenders([size]<typename Tree>() { return Replace<Tree>(size); }),
          .goals = {AtMost(1.3, kMultimap)}};
}

Work WalkOver(const char* name, uint64_t size) {
  Work work = {.name = name,
               .contenders = Contenders([size]<typename Tree>() { return Walk<Tree>(size); }),
               .goals = {AtMost(1.15, kBareWalk)}};
  work.contenders.push_back({kBareWalk, Role::kBound, Walk<BareList>(size)});
  return work;
}

}  // namespace

Family RedBlackTree() {
  return {"red-black tree",
          "ns",
          {ReplaceAmong("find, erase and insert, 1,000 keys", 1'000),
           ReplaceAmong("find, erase and insert, 100,000 keys", 100'000),
           ReplaceAmong("find, erase and insert, 1,000,000 keys", 1'000'000),
           WalkOver("step of a walk over 1,000 keys", 1'000),
           WalkOver("step of a walk over 100,000 keys", 100'000),
           WalkOver("step of a walk over 1,000,000 keys", 1'000'000)}};
}

}  // namespace bench
