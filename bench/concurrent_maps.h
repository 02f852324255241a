// The peers of the locking hash table: maps that threads may share. One that is not installed takes
// no part. Each thread calls Enter before it uses a map.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#ifdef ZELRT_BENCH_HAS_ABSL
#include <absl/container/flat_hash_map.h>
#endif

#ifdef ZELRT_BENCH_HAS_CDS
#include <cds/container/michael_kvlist_hp.h>
#include <cds/container/michael_map.h>
#include <cds/gc/hp.h>
#include <cds/init.h>
#endif

#ifdef ZELRT_BENCH_HAS_URCU
#include <urcu/rculfhash.h>
#include <urcu/urcu-memb.h>
#endif

#include "bench/absl_mutex.h"

namespace bench {

// A map behind a lock of the standard interface.
template <typename Map, typename Mutex>
class GuardedMap {
 public:
  void Enter() {}
  void* Find(uint64_t key) {
    const std::shared_lock guard(mutex_);
    const auto found = map_.find(key);
    return found != map_.end() ? found->second : nullptr;
  }
  void Insert(uint64_t key) {
    const std::lock_guard guard(mutex_);
    map_.emplace(key, this);
  }
  void Remove(uint64_t key) {
    const std::lock_guard guard(mutex_);
    map_.erase(key);
  }

 private:
  Mutex mutex_;
  Map map_;
};

using StdGuardedMap = GuardedMap<std::unordered_map<uint64_t, void*>, std::shared_mutex>;

// In the place of a map that is not there, so that the rest compiles; never run.
struct NoMap : StdGuardedMap {
  static bool IsThere() { return false; }
};

#ifdef ZELRT_BENCH_HAS_ABSL
using AbslGuardedMap = GuardedMap<absl::flat_hash_map<uint64_t, void*>, AbslMutex>;
#else
using AbslGuardedMap = NoMap;
#endif

// Keys are 16 apart: without this the two below would use a sixteenth of their buckets.
struct HashOfAddress {
  size_t operator()(uint64_t key) const { return key >> 4; }
};

#ifdef ZELRT_BENCH_HAS_CDS
class CdsMap {
 public:
  CdsMap() : map_((Attach(), kBuckets), 1) {}
  void Enter() { Attach(); }
  void* Find(uint64_t key) {
    void* data = nullptr;
    map_.find(key, [&](auto& pair) { data = pair.second; });
    return data;
  }
  void Insert(uint64_t key) { map_.insert(key, static_cast<void*>(this)); }
  void Remove(uint64_t key) { map_.erase(key); }

 private:
  static constexpr size_t kBuckets = 1 << 17;  // fixed: as many as the keys need

  static void Attach() {
    static const bool isInitialized = [] {
      cds::Initialize();
      new cds::gc::HP;  // until the process ends
      return true;
    }();
    if (isInitialized && !cds::threading::Manager::isThreadAttached())
      cds::threading::Manager::attachThread();
  }

  struct ListTraits : cds::container::michael_list::traits {
    using less = std::less<uint64_t>;
  };
  struct MapTraits : cds::container::michael_map::traits {
    using hash = HashOfAddress;
  };
  using List = cds::container::MichaelKVList<cds::gc::HP, uint64_t, void*, ListTraits>;
  cds::container::MichaelHashMap<cds::gc::HP, List, MapTraits> map_;
};
#else
using CdsMap = NoMap;
#endif

#ifdef ZELRT_BENCH_HAS_URCU
class UrcuMap {
 public:
  UrcuMap()
      : map_((Enter(), cds_lfht_new_flavor(256, 256, 0, CDS_LFHT_AUTO_RESIZE | CDS_LFHT_ACCOUNTING,
                                           &urcu_memb_flavor, nullptr))) {}
  ~UrcuMap() {
    cds_lfht_iter iterator;
    Node* node;
    urcu_memb_read_lock();
    cds_lfht_for_each_entry(map_, &iterator, node, link) Delete(&node->link);
    urcu_memb_read_unlock();
    urcu_memb_barrier();
    cds_lfht_destroy(map_, nullptr);
  }
  UrcuMap(const UrcuMap&) = delete;
  UrcuMap& operator=(const UrcuMap&) = delete;

  void Enter() {
    static thread_local const bool isRegistered = (urcu_memb_register_thread(), true);
    static_cast<void>(isRegistered);
  }
  void* Find(uint64_t key) {
    urcu_memb_read_lock();
    Node* const node = Lookup(key);
    void* const data = node != nullptr ? node->data : nullptr;
    urcu_memb_read_unlock();
    return data;
  }
  void Insert(uint64_t key) {
    auto* const node = new Node{.key = key, .data = this};
    urcu_memb_read_lock();
    if (cds_lfht_add_unique(map_, HashOfAddress()(key), Matches, &key, &node->link) != &node->link)
      delete node;
    urcu_memb_read_unlock();
  }
  void Remove(uint64_t key) {
    urcu_memb_read_lock();
    if (Node* const node = Lookup(key)) Delete(&node->link);
    urcu_memb_read_unlock();
  }

 private:
  struct Node {
    cds_lfht_node link = {};
    rcu_head head = {};
    uint64_t key;
    void* data;
  };

  static int Matches(cds_lfht_node* link, const void* key) {
    return caa_container_of(link, Node, link)->key == *static_cast<const uint64_t*>(key);
  }
  Node* Lookup(uint64_t key) {
    cds_lfht_iter iterator;
    cds_lfht_lookup(map_, HashOfAddress()(key), Matches, &key, &iterator);
    cds_lfht_node* const link = cds_lfht_iter_get_node(&iterator);
    return link != nullptr ? caa_container_of(link, Node, link) : nullptr;
  }
  void Delete(cds_lfht_node* link) {
    if (cds_lfht_del(map_, link) != 0) return;
    urcu_memb_call_rcu(&caa_container_of(link, Node, link)->head,
                       [](rcu_head* head) { delete caa_container_of(head, Node, head); });
  }

  cds_lfht* const map_;
};
#else
using UrcuMap = NoMap;
#endif

}  // namespace bench
