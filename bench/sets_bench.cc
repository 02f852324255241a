// Sets: single elements, union and intersection, of dense and of sparse sets.
//
// A dense set has half of the numbers below 4096, a sparse one a thousand of all there are. The
// floor of a walk is the walk over the same blocks, and nothing else. That of a merge does what has
// to be done to the blocks, with spare ones at hand and nothing counted.

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <utility>
#include <vector>

#ifdef ZELRT_BENCH_HAS_ROARING
#include <roaring/roaring.h>
#endif

#include "bench/suite.h"
#include "zelrt/memory.h"
#include "zelrt/sets.h"

namespace bench {
namespace {

using Elements = std::vector<uint32_t>;

constexpr uint32_t kDenseLimit = 4096;
constexpr size_t kSparseSize = 1000;
constexpr size_t kLookups = 1024;  // a power of two: they are taken in turn

enum class Kind { kDense, kSparse };

Elements Draw(Kind kind, size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  Elements elements;
  for (size_t i = 0; i < count; ++i) {
    const auto drawn = static_cast<uint32_t>(random());
    elements.push_back(kind == Kind::kDense ? drawn % kDenseLimit : drawn);
  }
  return elements;
}

Elements Members(Kind kind, uint32_t seed) {
  if (kind == Kind::kSparse) {
    // Half of them are in every sparse set.
    Elements elements = Draw(kind, kSparseSize / 2, 1);
    const Elements own = Draw(kind, kSparseSize / 2, seed);
    elements.insert(elements.end(), own.begin(), own.end());
    return elements;
  }
  Elements elements;
  std::mt19937 random(seed);
  for (uint32_t i = 0; i < kDenseLimit; ++i) {
    if (random() % 2 == 0) elements.push_back(i);
  }
  std::shuffle(elements.begin(), elements.end(), random);
  return elements;
}

// Half of them present where the set is sparse, and as it comes where it is dense.
Elements Lookups(Kind kind) {
  Elements elements = Draw(kind, kLookups, 99);
  if (kind == Kind::kSparse) {
    const Elements members = Members(kind, 2);
    for (size_t i = 0; i < kLookups; i += 2) elements[i] = members[i * 7 % kSparseSize];
  }
  return elements;
}

// The contenders: filled, asked, changed, and made the union or intersection of two others.

class Ours {
 public:
  explicit Ours(const Elements& elements = {}) {
    for (const uint32_t element : elements) Add(element);
  }
  ~Ours() { __ZelDestroySet(&set_); }
  Ours(const Ours&) = delete;
  Ours& operator=(const Ours&) = delete;

  bool Contains(uint32_t element) const { return __ZelIsAnElementOfSet(&set_, element) != 0; }
  void Add(uint32_t element) { __ZelAddAnElementToSet(&set_, element); }
  void Delete(uint32_t element) { __ZelDeleteAnElementFromSet(&set_, element); }
  void BecomeUnion(const Ours& a, const Ours& b) {
    __ZelConstructSet(&set_, &a.set_);
    __ZelUnionSet(&set_, &b.set_);
  }
  void BecomeIntersection(const Ours& a, const Ours& b) {
    __ZelIntersectSet(&set_, &a.set_, &b.set_);
  }
  const ZelSetChunk* First() const { return set_.first; }

 private:
  ZelSet set_ = {0, 1, nullptr};
};

// Walks and merges over the blocks of one of ours.
class Floor {
 public:
  explicit Floor(const Elements& elements = {}) : ours_(elements), result_(kSparseSize) {}
  ~Floor() { FreeNewBlocks(); }
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;

  bool Contains(uint32_t element) const {
    const ZelSetChunk* const block = Find(element);
    return block != nullptr && (block->bits[element / 32 % 2] >> element % 32 & 1) != 0;
  }
  void Add(uint32_t element) const { benchmark::DoNotOptimize(Find(element)); }
  void Delete(uint32_t element) const { benchmark::DoNotOptimize(Find(element)); }

  void BecomeUnion(const Floor& a, const Floor& b) {
    FreeNewBlocks();
    ZelSetChunk* spare = result_.data();
    ZelSetChunk** link = &first_;
    const ZelSetChunk* x = a.ours_.First();
    const ZelSetChunk* y = b.ours_.First();
    while (x != nullptr || y != nullptr) {
      const uint64_t xIndex = x != nullptr ? x->index : kEnd;
      const uint64_t yIndex = y != nullptr ? y->index : kEnd;
      const uint64_t bits = (xIndex <= yIndex ? Bits(x) : 0) | (yIndex <= xIndex ? Bits(y) : 0);
      link = Append(link, xIndex <= yIndex ? spare++ : NewBlock(), std::min(xIndex, yIndex), bits);
      if (xIndex <= yIndex) x = x->next;
      if (yIndex <= xIndex) y = y->next;
    }
    *link = nullptr;
  }
  void BecomeIntersection(const Floor& a, const Floor& b) {
    ZelSetChunk* spare = result_.data();
    ZelSetChunk** link = &first_;
    const ZelSetChunk* x = a.ours_.First();
    const ZelSetChunk* y = b.ours_.First();
    while (x != nullptr && y != nullptr) {
      const uint32_t xIndex = x->index;
      const uint32_t yIndex = y->index;
      const uint64_t bits = xIndex == yIndex ? Bits(x) & Bits(y) : 0;
      if (bits != 0) link = Append(link, spare++, xIndex, bits);
      if (xIndex <= yIndex) x = x->next;
      if (yIndex <= xIndex) y = y->next;
    }
    *link = nullptr;
  }

 private:
  static uint64_t Bits(const ZelSetChunk* block) {
    uint64_t bits;
    std::memcpy(&bits, block->bits, sizeof bits);
    return bits;
  }
  const ZelSetChunk* Find(uint32_t element) const {
    const ZelSetChunk* block = ours_.First();
    while (block != nullptr && block->index < element / 64) block = block->next;
    return block;
  }
  static ZelSetChunk** Append(ZelSetChunk** link, ZelSetChunk* block, uint64_t index,
                              uint64_t bits) {
    block->index = static_cast<uint32_t>(index);
    std::memcpy(block->bits, &bits, sizeof bits);
    *link = block;
    return &block->next;
  }
  ZelSetChunk* NewBlock() {
    new_.push_back(static_cast<ZelSetChunk*>(__ZelMalloc(1, sizeof(ZelSetChunk), 0)));
    return new_.back();
  }
  void FreeNewBlocks() {
    for (ZelSetChunk* block : new_) __ZelFree(block);
    new_.clear();
  }

  static constexpr uint64_t kEnd = ~uint64_t{0};

  Ours ours_;
  ZelSetChunk* first_ = nullptr;  // of the result
  std::vector<ZelSetChunk> result_;
  std::vector<ZelSetChunk*> new_;
};

class StdSet {
 public:
  explicit StdSet(const Elements& elements = {}) : set_(elements.begin(), elements.end()) {}

  bool Contains(uint32_t element) const { return set_.contains(element); }
  void Add(uint32_t element) { set_.insert(element); }
  void Delete(uint32_t element) { set_.erase(element); }
  void BecomeUnion(const StdSet& a, const StdSet& b) {
    set_ = a.set_;
    set_.insert(b.set_.begin(), b.set_.end());
  }
  void BecomeIntersection(const StdSet& a, const StdSet& b) {
    set_.clear();
    std::set_intersection(a.set_.begin(), a.set_.end(), b.set_.begin(), b.set_.end(),
                          std::inserter(set_, set_.end()));
  }

 private:
  std::set<uint32_t> set_;
};

// For dense sets alone.
class Bitset {
 public:
  explicit Bitset(const Elements& elements = {}) {
    for (const uint32_t element : elements) bits_.set(element % kDenseLimit);
  }

  bool Contains(uint32_t element) const { return bits_[element]; }
  void Add(uint32_t element) { bits_[element] = true; }
  void Delete(uint32_t element) { bits_[element] = false; }
  void BecomeUnion(const Bitset& a, const Bitset& b) { bits_ = a.bits_ | b.bits_; }
  void BecomeIntersection(const Bitset& a, const Bitset& b) { bits_ = a.bits_ & b.bits_; }

 private:
  std::bitset<kDenseLimit> bits_;
};

#ifdef ZELRT_BENCH_HAS_ROARING
class Roaring {
 public:
  explicit Roaring(const Elements& elements = {})
      : bitmap_(roaring_bitmap_of_ptr(elements.size(), elements.data())) {}
  ~Roaring() { roaring_bitmap_free(bitmap_); }
  Roaring(const Roaring&) = delete;
  Roaring& operator=(const Roaring&) = delete;

  bool Contains(uint32_t element) const { return roaring_bitmap_contains(bitmap_, element); }
  void Add(uint32_t element) { roaring_bitmap_add(bitmap_, element); }
  void Delete(uint32_t element) { roaring_bitmap_remove(bitmap_, element); }
  void BecomeUnion(const Roaring& a, const Roaring& b) {
    Become(roaring_bitmap_or(a.bitmap_, b.bitmap_));
  }
  void BecomeIntersection(const Roaring& a, const Roaring& b) {
    Become(roaring_bitmap_and(a.bitmap_, b.bitmap_));
  }

 private:
  void Become(roaring_bitmap_t* bitmap) { roaring_bitmap_free(std::exchange(bitmap_, bitmap)); }

  roaring_bitmap_t* bitmap_;
};
Run IfThereIsRoaring(Run run) { return run; }
#else
using Roaring = StdSet;  // in place of it, so that the rest compiles; never run
Run IfThereIsRoaring(Run) { return nullptr; }
#endif

// The works. Each is given a kind of contender and a kind of set.

constexpr auto kContains = []<typename Set>(benchmark::State& state, Kind kind) {
  const Set set(Members(kind, 2));
  const Elements lookups = Lookups(kind);
  size_t i = 0;
  for (auto _ : state) {
    const bool contains = set.Contains(lookups[i++ % kLookups]);
    benchmark::DoNotOptimize(contains);
  }
};

// The elements are in the set neither before nor after.
constexpr auto kAddAndDelete = []<typename Set>(benchmark::State& state, Kind kind) {
  const Elements lookups = Lookups(kind);
  Elements members = Members(kind, 2);
  const std::set<uint32_t> absent(lookups.begin(), lookups.end());
  std::erase_if(members, [&absent](uint32_t element) { return absent.contains(element); });
  Set set(members);
  size_t i = 0;
  for (auto _ : state) {
    const uint32_t element = lookups[i++ % kLookups];
    set.Add(element);
    benchmark::ClobberMemory();
    set.Delete(element);
  }
};

constexpr auto kUnion = []<typename Set>(benchmark::State& state, Kind kind) {
  const Set a(Members(kind, 2)), b(Members(kind, 3));
  Set result;
  benchmark::DoNotOptimize(&result);
  for (auto _ : state) {
    result.BecomeUnion(a, b);
    benchmark::ClobberMemory();
  }
};

constexpr auto kIntersection = []<typename Set>(benchmark::State& state, Kind kind) {
  const Set a(Members(kind, 2)), b(Members(kind, 3));
  Set result;
  benchmark::DoNotOptimize(&result);
  for (auto _ : state) {
    result.BecomeIntersection(a, b);
    benchmark::ClobberMemory();
  }
};

constexpr char kRoaring[] = "roaring";

template <typename Set, typename DoWork>
Run For(DoWork work, Kind kind) {
  return [=](benchmark::State& state) { work.template operator()<Set>(state, kind); };
}

template <typename DoWork>
Work Compare(const char* name, DoWork work, Kind kind, std::vector<Goal> goals) {
  const Run bitset = kind == Kind::kDense ? For<Bitset>(work, kind) : Run();
  return {.name = name,
          .contenders = {{kOurs, Role::kOurs, For<Ours>(work, kind)},
                         {kFloor, Role::kBound, For<Floor>(work, kind)},
                         {kRoaring, Role::kPeer, IfThereIsRoaring(For<Roaring>(work, kind))},
                         {"std::set", Role::kPeer, For<StdSet>(work, kind)},
                         {"std::bitset", Role::kPeer, bitset}},
          .goals = std::move(goals)};
}

}  // namespace

Family Sets() {
  const std::vector<Goal> walk = {AtMost(1.2, kFloor)};
  const std::vector<Goal> merge = {AtMost(2.5, kFloor)};
  const std::vector<Goal> sparseMerge = {AtMost(2.5, kFloor), AheadOf(kRoaring)};
  return {"sets",
          "ns",
          {Compare("contains, dense", kContains, Kind::kDense, walk),
           Compare("contains, sparse", kContains, Kind::kSparse, walk),
           Compare("add and delete, dense", kAddAndDelete, Kind::kDense, walk),
           Compare("add and delete, sparse", kAddAndDelete, Kind::kSparse, walk),
           Compare("union, dense", kUnion, Kind::kDense, merge),
           Compare("union, sparse", kUnion, Kind::kSparse, sparseMerge),
           Compare("intersection, dense", kIntersection, Kind::kDense, merge),
           Compare("intersection, sparse", kIntersection, Kind::kSparse, sparseMerge)}};
}

}  // namespace bench
