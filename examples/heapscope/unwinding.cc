// Call paths by the unwind tables of the program.
//
// What the tables say about a return address is remembered in a table of the process, which has one
// place for each value of the address's low 16 bits; whoever comes last has it. A place is a word:
//
//	63..33	bits 46..16 of the address
//	32..30	kind of the rule
//	29..13	distance of the CFA, in words
//	12..0	how far below the CFA the caller's rbp is stored, in words
//
// So threads need no lock: whatever they find in a place is whole, and says itself what it is for.
// An empty place is 0.
//
// A module stays while a frame of it is on a stack. So a rule that is there for an address of the
// calling thread's stack is right, unless it was left behind by a module that has gone since; see
// ModulesMayGo. A fork while another thread is in dlclose leaves the child without rules: it gets
// its paths more slowly.

#include "examples/heapscope/unwinding.h"

#include <dlfcn.h>
#include <link.h>
#include <unwind.h>

#include <atomic>
#include <cstring>

#include "examples/heapscope/unwind_rules.h"

// Of the compiler's runtime. It allocates nothing and takes no lock, except in programs that
// register tables for code that they generate, where _Unwind_Backtrace does it too.
struct UnwindBases {
  void* text;
  void* data;
  void* function;
};
// NOLINTNEXTLINE(readability-identifier-naming): the name is not ours
extern "C" const void* _Unwind_Find_FDE(void* address, UnwindBases* bases);

namespace heapscope {
namespace {

using Kind = UnwindRule::Kind;

constexpr uint32_t kIndexBits = 16;
constexpr uint32_t kAddressBits = 47;
constexpr uint32_t kTagShift = 33;
constexpr uint32_t kKindShift = 30;
constexpr uint32_t kDistanceShift = 13;
constexpr uint64_t kKindMask = 7;
constexpr uint64_t kWordSize = 8;
constexpr uint64_t kDistanceMask = kMaxCfaDistance / kWordSize - 1;
constexpr uint64_t kRbpMask = kMaxRbpBelow / kWordSize - 1;
static_assert(kTagShift + kAddressBits - kIndexBits == 64);
static_assert(kDistanceMask >> (kKindShift - kDistanceShift) == 0);
static_assert(kRbpMask >> kDistanceShift == 0);

constinit std::atomic<uint64_t> g_rules[1u << kIndexBits] = {};
constinit std::atomic<uint32_t> g_closing{0};

// A frame is no larger than that.
constexpr uintptr_t kMaxFrame = 64 << 20;

std::atomic<uint64_t>& PlaceFor(uintptr_t address) {
  return g_rules[address & ((1u << kIndexBits) - 1)];
}

uint64_t Pack(uintptr_t address, UnwindRule rule) {
  return (address >> kIndexBits) << kTagShift |
         uint64_t{static_cast<uint32_t>(rule.kind)} << kKindShift |
         rule.distance / kWordSize << kDistanceShift | rule.rbpBelow / kWordSize;
}

bool IsFor(uint64_t packed, uintptr_t address) {
  return packed >> kTagShift == address >> kIndexBits;
}

Kind KindOf(uint64_t packed) { return static_cast<Kind>(packed >> kKindShift & kKindMask); }
uintptr_t DistanceOf(uint64_t packed) {
  return (packed >> kDistanceShift & kDistanceMask) * kWordSize;
}
uintptr_t RbpBelow(uint64_t packed) { return (packed & kRbpMask) * kWordSize; }

uintptr_t ReadWord(uintptr_t address) { return *reinterpret_cast<const uintptr_t*>(address); }

// The unwinder knows the end of a signal handler by its instructions, if there is no table:
//	mov $15, %rax; syscall
bool ReturnsFromSignal(uintptr_t address) {
  constexpr unsigned char kInstructions[] = {0x48, 0xC7, 0xC0, 0x0F, 0, 0, 0, 0x0F, 0x05};
  return std::memcmp(reinterpret_cast<const void*>(address), kInstructions, sizeof kInstructions) ==
         0;
}

// The C library closes its modules for character sets without dlclose.
bool MayGoUnseen(const dl_find_object& module) {
  return std::strstr(module.dlfo_link_map->l_name, "/gconv/") != nullptr;
}

[[gnu::noinline]] uint64_t LookUpRule(uintptr_t address) {
  void* const inCall = reinterpret_cast<void*>(address - 1);  // may be the function's last
  UnwindBases bases;
  const void* const entry = _Unwind_Find_FDE(inCall, &bases);
  UnwindRule rule = {Kind::kUnusual, 0, 0};
  dl_find_object module;
  const bool isInModule = _dl_find_object(inCall, &module) == 0;
  if (entry == nullptr) {
    if (!ReturnsFromSignal(address)) rule.kind = Kind::kEndOfStack;
  } else if (isInModule) {
    const Bytes table = {static_cast<const uint8_t*>(module.dlfo_map_start),
                         static_cast<const uint8_t*>(module.dlfo_map_end)};
    rule = ReadUnwindRule(table, static_cast<const uint8_t*>(entry),
                          reinterpret_cast<uintptr_t>(bases.function), address);
  }
  const uint64_t packed = Pack(address, rule);
  // Code that is in no module may be replaced by other code at any time. An address that is too
  // wide would be taken for another one.
  if (isInModule && !MayGoUnseen(module) && address >> kAddressBits == 0)
    PlaceFor(address).store(packed, std::memory_order_relaxed);
  return packed;
}

uint64_t FindRule(uintptr_t address) {
  const uint64_t packed = PlaceFor(address).load(std::memory_order_relaxed);
  return IsFor(packed, address) ? packed : LookUpRule(address);
}

// The registers that frames are found by, as the program has them at a return address.
struct Registers {
  uintptr_t rip;
  uintptr_t rsp;
  uintptr_t rbp;

  // To those of the caller; false where that leads nowhere: the stack grows downwards, and all of a
  // frame is on it.
  bool GoToCaller(uint64_t rule) {
    const uintptr_t distance = DistanceOf(rule);
    const Kind kind = KindOf(rule);
    uintptr_t cfa = (kind == Kind::kFromRsp ? rsp : rbp) + distance;
    if (kind == Kind::kThroughRbp) [[unlikely]] {
      if (!IsAbove(rbp - distance)) return false;
      cfa = ReadWord(rbp - distance);
    }
    if (!IsAbove(cfa - kWordSize)) return false;
    if (const uintptr_t below = RbpBelow(rule); below != 0) {
      if (below > cfa - rsp) return false;
      rbp = ReadWord(cfa - below);
    } else if (kind == Kind::kThroughRbp) {
      rbp = ReadWord(rbp);
    }
    rip = ReadWord(cfa - kWordSize);
    rsp = cfa;
    return true;
  }

 private:
  bool IsAbove(uintptr_t word) const { return word - rsp < kMaxFrame && word % kWordSize == 0; }
};

struct Unwinding {
  CallPath* path;
  uintptr_t first;  // what is called before it, is the collector's
  uint32_t depth;
};

_Unwind_Reason_Code AddFrame(_Unwind_Context* context, void* argument) {
  auto* const unwinding = static_cast<Unwinding*>(argument);
  const uintptr_t address = _Unwind_GetIP(context);
  CallPath& path = *unwinding->path;
  if (path.count == 0 && address != unwinding->first) return _URC_NO_REASON;
  if (address == 0) return _URC_END_OF_STACK;
  path.frames[path.count++] = address;
  return path.count < unwinding->depth ? _URC_NO_REASON : _URC_END_OF_STACK;
}

}  // namespace

void UnwindByRuntime(const Caller& caller, uint32_t depth, CallPath* path) {
  path->count = 0;
  Unwinding unwinding = {path, reinterpret_cast<uintptr_t>(caller.returnAddress), depth};
  _Unwind_Backtrace(AddFrame, &unwinding);
}

bool UnwindByRules(const Caller& caller, uint32_t depth, CallPath* path) {
  path->count = 0;
  if (g_closing.load(std::memory_order_acquire) != 0) [[unlikely]]
    return false;
  // The function that was called has a frame pointer.
  const auto frame = reinterpret_cast<uintptr_t>(caller.frame);
  Registers registers = {reinterpret_cast<uintptr_t>(caller.returnAddress), frame + 2 * kWordSize,
                         ReadWord(frame)};
  while (registers.rip != 0) {
    path->frames[path->count++] = registers.rip;
    if (path->count == depth) return true;
    const uint64_t rule = FindRule(registers.rip);
    if (KindOf(rule) == Kind::kEndOfStack) return true;
    if (KindOf(rule) == Kind::kUnusual || !registers.GoToCaller(rule)) return false;
  }
  return true;
}

ModulesMayGo::ModulesMayGo() { g_closing.fetch_add(1, std::memory_order_acq_rel); }
ModulesMayGo::~ModulesMayGo() { g_closing.fetch_sub(1, std::memory_order_acq_rel); }

void ModulesMayGo::ForgetRules() {
  for (std::atomic<uint64_t>& rule : g_rules) {
    // A page that was never written stays so.
    if (rule.load(std::memory_order_relaxed) != 0) rule.store(0, std::memory_order_relaxed);
  }
}

}  // namespace heapscope
