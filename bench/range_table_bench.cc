// Range tables: addresses that hit and that miss, and ranges that come and go.
//
// Ranges lie one behind the other as in a heap or in a list of modules; three of four are in the
// table, the others are holes, where misses fall. Each contender's latest table is kept for the
// next repetition: to fill one takes longer than to measure it.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#ifdef ZELRT_BENCH_HAS_ABSL_BTREE
#include <absl/container/btree_map.h>
#endif
#ifdef ZELRT_BENCH_HAS_BOOST
#include <boost/icl/interval_map.hpp>
#endif

#include "bench/range_table_model.h"
#include "bench/suite.h"
#include "zelrt/range_table.h"

namespace bench {
namespace {

// The ranges.

struct Range {
  uint64_t start;
  uint64_t end;
};

// A kind of ranges: sizes are spread evenly over their logarithms.
struct Kind {
  double minSizeBits;
  double maxSizeBits;
  uint64_t alignment;
  uint64_t gap;  // between two ranges
  uint64_t base;
  uint64_t maxRangeSize;  // that the table is made for
};
constexpr Kind kHeap = {4, 12, 16, 16, 0x5555'5560'0010, 1 << 20};
constexpr Kind kModules = {16, 23, 4096, 4096, 0x7f12'3450'0000, 1 << 27};

// `count` ranges to be in the table, then the holes; both in random order.
std::vector<Range> MakeRanges(const Kind& kind, uint64_t count) {
  std::mt19937_64 random(20'240'301);
  std::uniform_real_distribution<double> bits(kind.minSizeBits, kind.maxSizeBits);
  std::vector<Range> ranges(count + count / 3);
  uint64_t at = kind.base;
  for (Range& range : ranges) {
    const auto size = static_cast<uint64_t>(std::exp2(bits(random)));
    range = {at, at + size};
    at += (size + kind.alignment - 1) / kind.alignment * kind.alignment + kind.gap;
  }
  std::shuffle(ranges.begin(), ranges.end(), random);
  return ranges;
}

// The contenders. Data items are other than null.

void* DataOf(const Range& range) { return reinterpret_cast<void*>(range.end); }

class OurTable {
 public:
  explicit OurTable(const Kind& kind)
      : table_(__ZelCreateRangeTable(kind.maxRangeSize, 0, 0, 0, nullptr)) {}
  ~OurTable() {
    __ZelScanAndEmptyRangeTable(table_);
    __ZelDestroyRangeTable(table_);
  }
  OurTable(const OurTable&) = delete;
  OurTable& operator=(const OurTable&) = delete;

  void Insert(const Range& range) {
    __ZelInsertRangeTableEntry(table_, range.start, range.end, DataOf(range));
  }
  void Erase(const Range& range) { __ZelDestroyRangeTableEntry(table_, range.start, range.end); }
  void* Find(uint64_t address) const {
    return __ZelLookupRangeTable(table_, address, nullptr, nullptr);
  }

 private:
  ZelRangeTable* const table_;
};

class ModelTable {
 public:
  explicit ModelTable(const Kind& kind) : table_(kind.maxRangeSize) {}
  void Insert(const Range& range) { table_.Insert(range.start, range.end, DataOf(range)); }
  void Erase(const Range& range) { table_.Erase(range.start, range.end); }
  void* Find(uint64_t address) const { return table_.Find(address); }

 private:
  RangeTableModel table_;
};

struct EndAndData {
  uint64_t end;
  void* data;
};

// Ranges by their starts.
template <typename Map>
class OrderedTable {
 public:
  explicit OrderedTable(const Kind&) {}
  void Insert(const Range& range) {
    map_.emplace(range.start, EndAndData{range.end, DataOf(range)});
  }
  void Erase(const Range& range) { map_.erase(range.start); }
  void* Find(uint64_t address) const {
    auto above = map_.upper_bound(address);
    if (above == map_.begin()) return nullptr;
    const EndAndData& found = (--above)->second;
    return address < found.end ? found.data : nullptr;
  }

 private:
  Map map_;
};

#ifdef ZELRT_BENCH_HAS_BOOST
class IntervalTable {
 public:
  explicit IntervalTable(const Kind&) {}
  void Insert(const Range& range) { map_.set({IntervalOf(range), range.end}); }
  void Erase(const Range& range) { map_.erase(IntervalOf(range)); }
  void* Find(uint64_t address) const {
    const auto found = map_.find(address);
    return found != map_.end() ? reinterpret_cast<void*>(found->second) : nullptr;
  }

 private:
  using Map = boost::icl::interval_map<uint64_t, uint64_t>;
  static Map::interval_type IntervalOf(const Range& range) {
    return Map::interval_type::right_open(range.start, range.end);
  }
  Map map_;
};
#endif

// A table with ranges, and addresses to look for in it.
template <typename Table>
class Filled {
 public:
  Filled(const Kind& itsKind, uint64_t itsCount)
      : kind(&itsKind), count(itsCount), ranges_(MakeRanges(itsKind, count)), table_(itsKind) {
    for (uint64_t i = 0; i < count; ++i) table_.Insert(ranges_[i]);
    NoteAddresses();
  }

  void* FindHit() { return table_.Find(hits_[next_++ % kAddresses]); }
  void* FindMiss() { return table_.Find(misses_[next_++ % kAddresses]); }

  // Puts a range into a hole, and takes another out.
  void Replace() {
    Range& present = ranges_[random_() % count];
    Range& hole = ranges_[count + random_() % (ranges_.size() - count)];
    table_.Erase(present);
    table_.Insert(hole);
    std::swap(present, hole);
  }
  // To be called after replacements.
  void NoteAddresses() {
    hits_.clear();
    misses_.clear();
    for (uint64_t i = 0; i < kAddresses; ++i) {
      hits_.push_back(AddressIn(ranges_[random_() % count]));
      misses_.push_back(AddressIn(ranges_[count + random_() % (ranges_.size() - count)]));
    }
  }

  const Kind* const kind;
  const uint64_t count;

 private:
  static constexpr uint64_t kAddresses = 1 << 19;

  uint64_t AddressIn(const Range& range) {
    return range.start + random_() % (range.end - range.start);
  }

  std::mt19937_64 random_{4711};
  std::vector<Range> ranges_;
  Table table_;
  std::vector<uint64_t> hits_;
  std::vector<uint64_t> misses_;
  uint64_t next_ = 0;
};

template <typename Table>
Filled<Table>& LatestOf(const Kind& kind, uint64_t count) {
  constexpr int kUses = 4;
  constexpr uint64_t kMaxRefilled = 100'000;
  static std::unique_ptr<Filled<Table>> latest;
  static int uses = 0;
  const bool isStale = ++uses % kUses == 0 && count <= kMaxRefilled;
  if (isStale || latest == nullptr || latest->kind != &kind || latest->count != count) {
    latest.reset();
    latest = std::make_unique<Filled<Table>>(kind, count);
  }
  return *latest;
}

// The works.

template <typename Filled>
void Hit(benchmark::State& state, Filled& filled) {
  for (auto _ : state) {
    void* const found = filled.FindHit();
    benchmark::DoNotOptimize(found);
    if (found == nullptr) [[unlikely]]
      return state.SkipWithError("not found");
  }
}

template <typename Filled>
void Miss(benchmark::State& state, Filled& filled) {
  for (auto _ : state) {
    void* const found = filled.FindMiss();
    benchmark::DoNotOptimize(found);
    if (found != nullptr) [[unlikely]]
      return state.SkipWithError("found");
  }
}

template <typename Filled>
void Replace(benchmark::State& state, Filled& filled) {
  for (auto _ : state) filled.Replace();
  filled.NoteAddresses();
}

constexpr char kStdMap[] = "std::map";

// `run` is a lambda that takes a filled contender.
template <typename Table, typename Lambda>
Run For(const Kind& kind, uint64_t count, Lambda run) {
  return [&kind, count, run](benchmark::State& state) { run(state, LatestOf<Table>(kind, count)); };
}

template <typename Lambda>
std::vector<Contender> Contenders(const Kind& kind, uint64_t count, Lambda run) {
  using StdMap = OrderedTable<std::map<uint64_t, EndAndData>>;
  return {
      {kOurs, Role::kOurs, For<OurTable>(kind, count, run)},
      {kModel, Role::kBound, For<ModelTable>(kind, count, run)},
      {kStdMap, Role::kPeer, For<StdMap>(kind, count, run)},
#ifdef ZELRT_BENCH_HAS_ABSL_BTREE
      {"absl btree", Role::kPeer,
       For<OrderedTable<absl::btree_map<uint64_t, EndAndData>>>(kind, count, run)},
#endif
#ifdef ZELRT_BENCH_HAS_BOOST
      {"icl", Role::kPeer, For<IntervalTable>(kind, count, run)},
#endif
  };
}

// A hit, a miss and a replacement among as many ranges.
std::vector<Work> Among(const char* ranges, const Kind& kind, uint64_t count,
                        std::vector<Goal> lookups, std::vector<Goal> replacements) {
  const std::string among = std::string(" among ") + ranges;
  const auto hit = [](benchmark::State& s, auto& filled) { Hit(s, filled); };
  const auto miss = [](benchmark::State& s, auto& filled) { Miss(s, filled); };
  const auto replace = [](benchmark::State& s, auto& filled) { Replace(s, filled); };
  return {{.name = "hit" + among, .contenders = Contenders(kind, count, hit), .goals = lookups},
          {.name = "miss" + among, .contenders = Contenders(kind, count, miss), .goals = lookups},
          {.name = "destroy and insert" + among,
           .contenders = Contenders(kind, count, replace),
           .goals = std::move(replacements)}};
}

}  // namespace

Family RangeTable() {
  std::vector<Work> works;
  for (std::vector<Work> some :
       {Among("300 modules", kModules, 300, {}, {AtMost(1.0, kModel)}),
        Among("1,000 blocks", kHeap, 1'000, {}, {AtMost(1.0, kModel)}),
        Among("100,000 blocks", kHeap, 100'000, {AtMost(1.1, kModel)}, {AtMost(1.0, kModel)}),
        Among("1,000,000 blocks", kHeap, 1'000'000, {AtMost(1.1, kModel), AtMost(0.5, kStdMap)},
              {AtMost(1.0, kModel)})}) {
    works.insert(works.end(), some.begin(), some.end());
  }
  return {"range table", "ns", works};
}

}  // namespace bench
