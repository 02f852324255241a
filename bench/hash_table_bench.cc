// The hash table: one that does not lock, by size; and one that does, with one and two threads.
//
// Without locks, peers hash as they do by default. Ours takes the key as it is, or, where keys are
// addresses, a function that shifts out the bits which are the same in all of them.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#ifdef ZELRT_BENCH_HAS_ABSL
#include <absl/container/node_hash_map.h>
#endif
#ifdef ZELRT_BENCH_HAS_BOOST
#include <boost/unordered_map.hpp>
#endif

#include "bench/concurrent_maps.h"
#include "bench/hash_table_model.h"
#include "bench/suite.h"
#include "bench/two_threads.h"
#include "zelrt/hash_table.h"

namespace bench {
namespace {

constexpr int kAddressBits = 4;  // keys that are addresses lie 1 << kAddressBits apart

// Every map gets this interface: Enter, Find, Insert, Remove.

template <int kShift>
uint64_t ShiftedKey(const ZelHashTable*, uint64_t key) {
  return key >> kShift;
}

// Hashes as the model does.
template <bool kLocks, int kLevels, int kShift>
class OurTable {
 public:
  OurTable() {
    const ZelHashFunction shifting[] = {ShiftedKey<kShift>, ShiftedKey<kShift + 8>,
                                        ShiftedKey<kShift + 16>};
    table_ = __ZelCreateHashTable(kLocks ? 0 : ZEL_HASH_FLAG_NO_LOCKING,
                                  kShift > 0 ? shifting : nullptr, kLevels, nullptr, nullptr, 0, 0);
  }
  ~OurTable() { __ZelDestroyHashTable(table_, nullptr); }
  OurTable(const OurTable&) = delete;
  OurTable& operator=(const OurTable&) = delete;

  void Enter() {}
  void* Find(uint64_t key) { return __ZelLookupHashTable(table_, key); }
  void Insert(uint64_t key) { __ZelInsertHashTableEntry(table_, key, this); }
  void Remove(uint64_t key) { __ZelRemoveHashTableEntry(table_, key); }

 private:
  ZelHashTable* table_;
};

template <bool kLocks, int kLevels, int kShift>
struct Model : HashTableModel<kLocks, kLevels, kShift> {
  void Enter() {}
};

template <typename Map>
class BareMap {
 public:
  void Enter() {}
  void* Find(uint64_t key) {
    const auto found = map_.find(key);
    return found != map_.end() ? found->second : nullptr;
  }
  void Insert(uint64_t key) { map_.emplace(key, this); }
  void Remove(uint64_t key) { map_.erase(key); }

 private:
  Map map_;
};

using StdMap = BareMap<std::unordered_map<uint64_t, void*>>;
#ifdef ZELRT_BENCH_HAS_ABSL
using AbslFlatMap = BareMap<absl::flat_hash_map<uint64_t, void*>>;
using AbslNodeMap = BareMap<absl::node_hash_map<uint64_t, void*>>;
#else
using AbslFlatMap = NoMap;
using AbslNodeMap = NoMap;
#endif
#ifdef ZELRT_BENCH_HAS_BOOST
using BoostMap = BareMap<boost::unordered_map<uint64_t, void*>>;
#else
using BoostMap = NoMap;
#endif

// Keys.

enum class Keys { kAddresses, kRandom };

struct Setting {
  Keys keys;
  uint32_t count;
  bool operator==(const Setting&) const = default;
};

// All in random order. The keys that a map is filled with are looked up in another one: entries
// that were made one after the other lie side by side.
struct KeySet {
  explicit KeySet(const Setting& setting) {
    std::mt19937_64 random(setting.count);
    std::vector<uint64_t> all(setting.count + kAbsent);
    if (setting.keys == Keys::kRandom) {
      std::generate(all.begin(), all.end(), random);
    } else {
      for (uint64_t i = 0; i < all.size(); ++i) all[i] = 0x7f00'0000'0000 + (i << kAddressBits);
      std::shuffle(all.begin(), all.end(), random);
    }
    inserted.assign(all.begin() + kAbsent, all.end());
    absent.assign(all.begin(), all.begin() + kAbsent);
    present = inserted;
    std::shuffle(present.begin(), present.end(), random);
    present.resize(std::min<size_t>(present.size(), kMaxPresent));
  }

  static constexpr uint32_t kAbsent = 1 << 12;
  static constexpr uint32_t kMaxPresent = 1 << 21;
  std::vector<uint64_t> inserted;
  std::vector<uint64_t> present;  // of those inserted
  std::vector<uint64_t> absent;
};

// Building the largest maps takes longer than measuring them, so consecutive works of one setting
// share them.
class Kept {
 public:
  static Kept& For(const Setting& setting) {
    static std::unique_ptr<Kept> kept;
    if (kept == nullptr || !(kept->setting_ == setting)) {
      kept.reset();
      kept.reset(new Kept(setting));
    }
    return *kept;
  }

  const KeySet& TheKeys() const { return keys_; }

  template <typename Map>
  Map& TheMap() {
    return *static_cast<Map*>(Built<Map>().map.get());
  }
  template <typename Map>
  double NanosecondsPerKey() {
    return Built<Map>().nanosecondsPerKey;
  }

 private:
  struct Filled {
    std::shared_ptr<void> map;
    double nanosecondsPerKey;
  };

  explicit Kept(const Setting& setting) : setting_(setting), keys_(setting) {}

  template <typename Map>
  Filled& Built() {
    const auto place = built_.find(typeid(Map));
    if (place != built_.end()) return place->second;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const auto map = std::make_shared<Map>();
    for (const uint64_t key : keys_.inserted) map->Insert(key);
    const std::chrono::duration<double, std::nano> taken = Clock::now() - start;
    return built_[typeid(Map)] = {map, taken.count() / setting_.count};
  }

  const Setting setting_;
  const KeySet keys_;
  std::map<std::type_index, Filled> built_;
};

// Without locks.

// Goes round the keys, and on from where the last repetition stopped.
class Round {
 public:
  explicit Round(const std::vector<uint64_t>& keys) : keys_(keys), next_(turn_++ * 7919) {}
  uint64_t Next() {
    if (next_ >= keys_.size()) next_ %= keys_.size();
    return keys_[next_++];
  }

 private:
  static inline size_t turn_ = 0;
  const std::vector<uint64_t>& keys_;
  size_t next_;
};

template <typename Map>
void Hit(benchmark::State& state, const Setting& setting) {
  Map& map = Kept::For(setting).TheMap<Map>();
  Round keys(Kept::For(setting).TheKeys().present);
  for (auto _ : state) benchmark::DoNotOptimize(map.Find(keys.Next()));
}

template <typename Map>
void Miss(benchmark::State& state, const Setting& setting) {
  Map& map = Kept::For(setting).TheMap<Map>();
  Round keys(Kept::For(setting).TheKeys().absent);
  for (auto _ : state) benchmark::DoNotOptimize(map.Find(keys.Next()));
}

template <typename Map>
void RemoveAndInsert(benchmark::State& state, const Setting& setting) {
  Map& map = Kept::For(setting).TheMap<Map>();
  Round keys(Kept::For(setting).TheKeys().present);
  for (auto _ : state) {
    const uint64_t key = keys.Next();
    map.Remove(key);
    map.Insert(key);
  }
}

template <typename Map>
void Build(benchmark::State& state, const Setting& setting) {
  const KeySet& keys = Kept::For(setting).TheKeys();
  while (state.KeepRunningBatch(setting.count)) {
    Map map;
    for (const uint64_t key : keys.inserted) map.Insert(key);
  }
}

// The one time that the map was built for the works above.
template <typename Map>
void BuildOnce(benchmark::State& state, const Setting& setting) {
  for (auto _ : state) state.counters[kFigure] = Kept::For(setting).NanosecondsPerKey<Map>();
}

// With locks.

constexpr Setting kSharedSetting = {Keys::kAddresses, 100'000};
constexpr uint32_t kOperationsPerRound = 40'000;

// Lookups; where changesPerHundred is not 0, so many operations of a hundred remove a key and the
// same number insert it again. Each thread has keys of its own to change.
template <typename Map>
class SharedWork {
 public:
  explicit SharedWork(uint32_t changesPerHundred)
      : changeEvery_(changesPerHundred > 0 ? 100 / changesPerHundred : 0) {
    for (const uint64_t key : keys_.inserted) map_.Insert(key);
  }

  void Do(uint32_t thread, uint32_t operations) {
    map_.Enter();
    size_t next = (thread + 2 * turn_++) * 7919;
    size_t change = thread;
    bool isRemoved = false;
    for (uint32_t i = 1; i <= operations; ++i) {
      if (changeEvery_ != 0 && i % changeEvery_ == 0) {
        isRemoved ? map_.Insert(keys_.present[change]) : map_.Remove(keys_.present[change]);
        if (isRemoved) change += 2;
        isRemoved = !isRemoved;
        continue;
      }
      if (next >= keys_.present.size()) next %= keys_.present.size();
      benchmark::DoNotOptimize(map_.Find(keys_.present[next++]));
    }
    if (isRemoved) map_.Insert(keys_.present[change]);
  }

 private:
  const KeySet& keys_ = Kept::For(kSharedSetting).TheKeys();
  const uint32_t changeEvery_;
  static inline std::atomic<uint32_t> turn_ = 0;
  Map map_;
};

template <typename Map>
void ByOneThread(benchmark::State& state, uint32_t changesPerHundred) {
  SharedWork<Map> work(changesPerHundred);
  while (state.KeepRunningBatch(kOperationsPerRound)) work.Do(0, kOperationsPerRound);
}

template <typename Map>
void ByTwoThreads(benchmark::State& state, uint32_t changesPerHundred) {
  SharedWork<Map> work(changesPerHundred);
  while (state.KeepRunningBatch(kOperationsPerRound)) {
    state.SetIterationTime(RunOnBothThreads(
        [&](int thread) { work.Do(static_cast<uint32_t>(thread), kOperationsPerRound / 2); }));
  }
}

// The works, as data.

constexpr char kStdMap[] = "unordered_map";
constexpr char kAbslFlat[] = "absl flat";
constexpr char kStdGuarded[] = "map, shared_mutex";
constexpr char kAbslGuarded[] = "absl flat, Mutex";

// `run` is a lambda that takes the contender as its template argument.
template <typename Map, typename Lambda>
Run For(Lambda run) {
  if constexpr (requires { Map::IsThere(); }) return nullptr;
  return [run](benchmark::State& state) { run.template operator()<Map>(state); };
}

constexpr uint32_t kThousand = 1'000;
constexpr uint32_t kMany = 100 * kThousand;
constexpr uint32_t kHuge = 10'000 * kThousand;

// What is huge takes up to a gigabyte and a half in each map: two peers are left out.
template <int kShift, typename Lambda>
std::vector<Contender> Contenders(uint32_t count, Lambda run) {
  std::vector<Contender> contenders = {{kOurs, Role::kOurs, For<OurTable<false, 1, kShift>>(run)},
                                       {kModel, Role::kBound, For<Model<false, 1, kShift>>(run)},
                                       {kStdMap, Role::kPeer, For<StdMap>(run)},
                                       {kAbslFlat, Role::kPeer, For<AbslFlatMap>(run)}};
  if (count == kHuge) return contenders;
  contenders.push_back({"absl node", Role::kPeer, For<AbslNodeMap>(run)});
  contenders.push_back({"boost", Role::kPeer, For<BoostMap>(run)});
  return contenders;
}

template <int kLevels, typename Lambda>
std::vector<Contender> SharedContenders(Lambda run) {
  return {{kOurs, Role::kOurs, For<OurTable<true, kLevels, kAddressBits>>(run)},
          {kModel, Role::kBound, For<Model<true, kLevels, kAddressBits>>(run)},
          {kStdGuarded, Role::kPeer, For<StdGuardedMap>(run)},
          {kAbslGuarded, Role::kPeer, For<AbslGuardedMap>(run)},
          {"libcds", Role::kPeer, For<CdsMap>(run)},
          {"urcu lfht", Role::kPeer, For<UrcuMap>(run)}};
}

std::string CountAndKeys(const Setting& setting) {
  return std::to_string(setting.count / kThousand) + ",000 " +
         (setting.keys == Keys::kAddresses ? "addresses" : "random keys");
}

std::vector<Goal> HitGoals(uint32_t count) {
  if (count == kMany) return {AtMost(1.5, kModel)};
  if (count == kHuge) return {AtMost(1.2, kModel), AtMost(0.67, kStdMap)};
  return {};
}

template <int kShift>
Work HitAmong(const Setting& setting, const char* remark = "") {
  return {.name = "hit, " + CountAndKeys(setting) + remark,
          .contenders = Contenders<kShift>(
              setting.count, [setting]<typename M>(benchmark::State& s) { Hit<M>(s, setting); }),
          .goals = HitGoals(setting.count)};
}

Work MissAmong(const Setting& setting) {
  return {.name = "miss, " + CountAndKeys(setting),
          .contenders = Contenders<0>(
              setting.count, [setting]<typename M>(benchmark::State& s) { Miss<M>(s, setting); }),
          .goals = {}};
}

Work RemoveAndInsertAmong(const Setting& setting) {
  return {.name = "remove and insert, " + CountAndKeys(setting),
          .contenders = Contenders<0>(
              setting.count,
              [setting]<typename M>(benchmark::State& s) { RemoveAndInsert<M>(s, setting); }),
          .goals = {}};
}

Work BuildOf(const Setting& setting) {
  return {.name = "build, a key of " + CountAndKeys(setting),
          .contenders = Contenders<0>(
              setting.count, [setting]<typename M>(benchmark::State& s) { Build<M>(s, setting); }),
          .goals = {}};
}

Work BuildOnceOf(const Setting& setting) {
  return {
      .name = "build, a key of " + CountAndKeys(setting),
      .measure = Measure::kCounter,
      .contenders = Contenders<0>(
          setting.count, [setting]<typename M>(benchmark::State& s) { BuildOnce<M>(s, setting); }),
      .goals = {}};
}

std::string SharedName(int levels, uint32_t changesPerHundred, const char* threads) {
  return std::string(changesPerHundred == 0 ? "lookups, " : "95 % lookups, ") +
         (levels == 1 ? "1 level, " : "3 levels, ") + threads;
}

template <int kLevels>
Work OneThread(uint32_t changesPerHundred) {
  return {.name = SharedName(kLevels, changesPerHundred, "1 thread"),
          .contenders = SharedContenders<kLevels>(
              [=]<typename M>(benchmark::State& s) { ByOneThread<M>(s, changesPerHundred); }),
          .goals = {AtMost(1.3, kModel)}};
}

template <int kLevels>
Work TwoThreads(uint32_t changesPerHundred) {
  Work work = {.name = SharedName(kLevels, changesPerHundred, "2 threads"),
               .measure = Measure::kManualTime,
               .contenders = SharedContenders<kLevels>(
                   [=]<typename M>(benchmark::State& s) { ByTwoThreads<M>(s, changesPerHundred); }),
               .goals = {AtMost(1.3, kModel)}};
  if (kLevels > 1) {
    work.goals.push_back(AheadOf(kStdGuarded));
    work.goals.push_back(AheadOf(kAbslGuarded));
  }
  return work;
}

}  // namespace

Family HashTables() {
  constexpr Setting kFew = {Keys::kRandom, kThousand};
  constexpr Setting kManyRandom = {Keys::kRandom, kMany};
  constexpr Setting kManyAddresses = {Keys::kAddresses, kMany};
  constexpr Setting kHugeRandom = {Keys::kRandom, kHuge};
  constexpr Setting kHugeAddresses = {Keys::kAddresses, kHuge};
  return {"hash table",
          "ns",
          {HitAmong<0>(kFew),
           BuildOf(kFew),
           HitAmong<0>(kManyRandom),
           MissAmong(kManyRandom),
           RemoveAndInsertAmong(kManyRandom),
           BuildOf(kManyRandom),
           HitAmong<kAddressBits>(kManyAddresses),
           HitAmong<0>(kManyAddresses, ", key as hash"),
           HitAmong<0>(kHugeRandom),
           MissAmong(kHugeRandom),
           RemoveAndInsertAmong(kHugeRandom),
           BuildOnceOf(kHugeRandom),
           HitAmong<kAddressBits>(kHugeAddresses),
           OneThread<1>(0),
           OneThread<1>(5),
           OneThread<3>(0),
           OneThread<3>(5),
           TwoThreads<1>(0),
           TwoThreads<1>(5),
           TwoThreads<3>(0),
           TwoThreads<3>(5)}};
}

}  // namespace bench
