// Paths by remembered rules, compared with those of the compiler's own unwinder; and the rules,
// read from tables that are made here.

#include "examples/heapscope/unwinding.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <ucontext.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "examples/heapscope/unwind_rules.h"
#include "fuzz/guarded_bytes.h"

using Callback = void (*)();
extern "C" void CallFromAllKinds(Callback callback);
extern "C" void CallFromAllKindsWithFramePointers(Callback callback);

namespace heapscope {
namespace {

// Paths
// ---------------------------------------------------------------------------------------------

std::atomic<int> g_equal{0};
std::atomic<int> g_refused{0};
std::atomic<int> g_different{0};
thread_local uintptr_t t_lastReturn = 0;

// Stands in for a function that takes the place of malloc.
[[gnu::noinline]] void Compare() {
  const Caller caller = {__builtin_return_address(0), __builtin_frame_address(0)};
  t_lastReturn = reinterpret_cast<uintptr_t>(caller.returnAddress);
  for (const uint32_t depth : {1u, 2u, 7u, kMaxDepth}) {
    CallPath byRules, byRuntime;
    UnwindByRuntime(caller, depth, &byRuntime);
    if (!UnwindByRules(caller, depth, &byRules)) {
      ++g_refused;
    } else if (byRules.count == byRuntime.count &&
               std::equal(byRules.frames, byRules.frames + byRules.count, byRuntime.frames)) {
      ++g_equal;
    } else {
      ++g_different;
    }
  }
}

class PathsTest : public testing::Test {
 protected:
  PathsTest() { g_equal = g_refused = g_different = 0; }
  ~PathsTest() override {
    EXPECT_EQ(0, g_different);
    EXPECT_LT(0, g_equal);
    EXPECT_EQ(mayRefuse_, g_refused > 0);
  }

  bool mayRefuse_ = false;
};

void CompareFromAllKinds() {
  CallFromAllKinds(Compare);
  CallFromAllKindsWithFramePointers(Compare);
}

TEST_F(PathsTest, FramesOfAllKinds) {
  CompareFromAllKinds();
  CompareFromAllKinds();  // what was looked up is remembered now
  std::thread(CompareFromAllKinds).join();
}

struct ComparesAtEnd {
  ~ComparesAtEnd() { CompareFromAllKinds(); }
};

[[gnu::noinline]] void Throw() {
  const ComparesAtEnd inCleanUp;
  throw std::runtime_error("thrown");
}

TEST_F(PathsTest, LandingPads) {
  try {
    const ComparesAtEnd inCleanUp;
    Throw();
  } catch (const std::exception&) {
    CompareFromAllKinds();
  }
}

TEST_F(PathsTest, SignalHandlersAreLeftToTheUnwinder) {
  mayRefuse_ = true;
  CallFromAllKinds(Compare);
  static char stack[256 * 1024];
  const stack_t alternate = {.ss_sp = stack, .ss_flags = 0, .ss_size = sizeof stack};
  ASSERT_EQ(0, sigaltstack(&alternate, nullptr));
  for (const int flags : {0, SA_ONSTACK}) {
    struct sigaction action = {};
    action.sa_handler = [](int) { CallFromAllKinds(Compare); };
    action.sa_flags = flags;
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    CallFromAllKinds([] { raise(SIGUSR1); });
  }
  signal(SIGUSR1, SIG_DFL);
  const stack_t none = {.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
  sigaltstack(&none, nullptr);
}

ucontext_t g_main, g_coroutine;

TEST_F(PathsTest, CoroutinesOnStacksOfTheirOwn) {
  constexpr size_t kSize = 256 * 1024;
  const auto stack = std::make_unique<char[]>(kSize);
  ASSERT_EQ(0, getcontext(&g_coroutine));
  g_coroutine.uc_stack = {.ss_sp = stack.get(), .ss_flags = 0, .ss_size = kSize};
  g_coroutine.uc_link = &g_main;
  makecontext(
      &g_coroutine,
      [] {
        CompareFromAllKinds();
        swapcontext(&g_coroutine, &g_main);
        CompareFromAllKinds();
      },
      0);
  ASSERT_EQ(0, swapcontext(&g_main, &g_coroutine));
  CompareFromAllKinds();
  ASSERT_EQ(0, swapcontext(&g_main, &g_coroutine));
}

// Returns where the plugin was called back to.
uintptr_t CompareInPlugin(const char* file) {
  void* const plugin = dlopen(file, RTLD_NOW);
  if (plugin == nullptr) return 0;
  const auto call = reinterpret_cast<void (*)(Callback)>(dlsym(plugin, "CallFromPlugin"));
  CallFromAllKinds(Compare);
  call(Compare);
  ModulesMayGo going;
  dlclose(plugin);
  going.ForgetRules();
  return t_lastReturn;
}

TEST_F(PathsTest, LibraryThatLiesWhereAnotherOneWas) {
  const uintptr_t first = CompareInPlugin(PLUGIN_SMALL);
  const uintptr_t second = CompareInPlugin(PLUGIN_LARGE);
  ASSERT_NE(0u, first);
  // The system maps at the first gap; without that there would be nothing to mix up.
  if (first != second) GTEST_SKIP() << "it lies elsewhere";
}

TEST_F(PathsTest, NoRuleIsUsedWhileModulesGo) {
  mayRefuse_ = true;
  CallFromAllKinds(Compare);
  const int equal = g_equal;
  {
    const ModulesMayGo outer;
    { const ModulesMayGo inner; }
    CallFromAllKinds(Compare);
  }
  EXPECT_EQ(equal, g_equal);
  CallFromAllKinds(Compare);
  EXPECT_EQ(2 * equal, g_equal);
}

TEST_F(PathsTest, ThreadsWhileLibrariesComeAndGo) {
  mayRefuse_ = true;
  std::atomic<bool> isOver{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      do {
        CompareFromAllKinds();
      } while (!isOver);
    });
  }
  for (int i = 0; i < 100; ++i) {
    CompareInPlugin(PLUGIN_SMALL);
    CompareInPlugin(PLUGIN_LARGE);
  }
  isOver = true;
  for (std::thread& thread : threads) thread.join();
  const ModulesMayGo going;
  Compare();
}

// Rules
// ---------------------------------------------------------------------------------------------

using Code = std::vector<uint8_t>;
using Kind = UnwindRule::Kind;

constexpr uintptr_t kFunction = 0x401000;
constexpr UnwindRule kUnusual = {Kind::kUnusual, 0, 0};
constexpr UnwindRule kAtEntry = {Kind::kFromRsp, 8, 0};

void Append(Code* code, uint32_t number) {
  for (int i = 0; i < 4; ++i) code->push_back(static_cast<uint8_t>(number >> 8 * i));
}
void Append(Code* code, const Code& more) { code->insert(code->end(), more.begin(), more.end()); }

Code Entry(const Code& contents) {
  Code entry;
  Append(&entry, static_cast<uint32_t>(contents.size()));
  Append(&entry, contents);
  return entry;
}

// The usual CIE, with a personality routine, and an FDE with the instructions.
struct Table {
  Code bytes;
  size_t fde;

  explicit Table(const Code& instructions, const char* augmentation = "zPLR", uint8_t column = 16) {
    Code cie = {0, 0, 0, 0, 1};
    for (const char* c = augmentation; *c != '\0'; ++c) cie.push_back(static_cast<uint8_t>(*c));
    Append(&cie, {0, 1, 0x78, column, 7, 0x9B, 1, 2, 3, 4, 0x1B, 0x1B});
    Append(&cie, {0x0C, 7, 8, 0x80 | 16, 1});  // CFA = rsp + 8, return address at CFA - 8
    bytes = Entry(cie);
    fde = bytes.size();
    Code contents;
    Append(&contents, static_cast<uint32_t>(fde + 4));
    Append(&contents, {0, 0, 0, 0, 0x80, 0, 0, 0, 4, 0, 0, 0, 0});  // function, its size, its LSDA
    Append(&contents, instructions);
    Append(&bytes, Entry(contents));
  }

  UnwindRule At(uintptr_t offset) const { return Read(bytes, 0, offset); }

  UnwindRule Read(const Code& hostile, size_t firstReadable, uintptr_t offset) const {
    const zelfuzz::GuardedBytes copy(hostile.data(), hostile.size());
    return ReadUnwindRule({copy.Data() + firstReadable, copy.Data() + hostile.size()},
                          copy.Data() + fde, kFunction, kFunction + offset);
  }
};

// push %rbp; mov %rsp, %rbp; ... leave; ret; ...
const Code kFramePointer = {0x41, 0x0E, 16,   0x86, 2, 0x43, 0x0D, 6,   0x02,
                            0x40, 0x0A, 0x0C, 7,    8, 0xC6, 0x41, 0x0B};

TEST(UnwindRulesTest, RowOfAnAddressIsThatOfTheCallBeforeIt) {
  const Table table(kFramePointer);
  const UnwindRule pushed = {Kind::kFromRsp, 16, 16}, framed = {Kind::kFromRbp, 16, 16};
  EXPECT_EQ(kAtEntry, table.At(1));
  EXPECT_EQ(pushed, table.At(2));
  EXPECT_EQ(pushed, table.At(4));
  EXPECT_EQ(framed, table.At(5));
  EXPECT_EQ(framed, table.At(0x44));
  EXPECT_EQ(kAtEntry, table.At(0x45));  // behind leave
  EXPECT_EQ(framed, table.At(0x46));    // what was remembered
}

Code FromHex(const std::string& text) {
  std::istringstream stream(text);
  Code code;
  for (unsigned byte; stream >> std::hex >> byte;) code.push_back(static_cast<uint8_t>(byte));
  return code;
}

TEST(UnwindRulesTest, EachInstruction) {
  const struct {
    UnwindRule rule;
    std::vector<std::string> instructions;
  } rows[] = {
      {kAtEntry,
       {"", "00", "03 FF 7F 0E 10", "04 00 00 00 01 0E 10", "05 06 04 06 06", "07 06",
        "86 04 08 06", "2E 10",
        // Another register's affair.
        "09 03 06", "10 03 02 76 08"}},
      {kUnusual,
       {"01 00 00 00 00", "09 06 03", "14 06 02", "15 06 02", "16 06 01 30", "3F",
        "0F 03 76 78 06 86 02", "0F 02 76 78 10 06 02 76 00", "0F 02 77 08", "0F 01 30 0D 07",
        "0C 0A 00", "13 02",
        // Without the other half of a realigned frame.
        "10 06 02 76 00",
        // 124 words above, no multiple of 8, 1 MiB.
        "2F 06 7C", "0C 07 0C", "0E 80 80 40",
        // Nothing remembered, or too much.
        "0B", "0A 0A 0A 0A 0A 0A 0A 0A 0A",
        // The return address lies elsewhere, the stack pointer is loaded.
        "90 02", "87 02",
        // Cut off, or without an end.
        "07", "2E 80", "0F 09 76 78 06 10 06 02 76 00", "2E 80 80 80 80 80 80 80 80 80 80 00"}},
      {{Kind::kFromRsp, 8, 32}, {"05 06 04", "11 06 04"}},
      {{Kind::kFromRsp, 16, 0}, {"03 01 00 0E 10", "12 07 7E"}},
      {{Kind::kFromRsp, 24, 0}, {"13 7D"}},
      {{Kind::kFromRsp, (1 << 20) - 8, 0}, {"0E F8 FF 3F"}},
      {{Kind::kFromRbp, 24, 0}, {"0C 06 18"}},
      {{Kind::kThroughRbp, 8, 0}, {"0F 03 76 78 06 10 06 02 76 00"}},
      {{Kind::kEndOfStack, 0, 0}, {"07 10"}},
  };
  for (const auto& [rule, texts] : rows) {
    for (const std::string& text : texts) EXPECT_EQ(rule, Table(FromHex(text)).At(2)) << text;
  }
}

TEST(UnwindRulesTest, SignalFramesAndOtherColumnsAreUnusual) {
  EXPECT_EQ(kUnusual, Table({}, "zPLRS").At(1));
  EXPECT_EQ(kUnusual, Table({}, "eh").At(1));
  EXPECT_EQ(kUnusual, Table({}, "zPLR", 17).At(1));
}

TEST(UnwindRulesTest, MalformedTablesAreNotReadBeyond) {
  const Table table(kFramePointer);
  const UnwindRule whole = table.At(0x45);
  EXPECT_EQ(kUnusual, table.Read(table.bytes, 1, 0x45)) << "the CIE begins outside";
  for (size_t size = table.fde; size < table.bytes.size(); ++size) {
    Code cut(table.bytes.begin(), table.bytes.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(kUnusual, table.Read(cut, 0, 0x45)) << size;
  }
  int changed = 0;
  for (size_t i = 0; i < table.bytes.size(); ++i) {
    Code hostile = table.bytes;
    for (int value = 0; value < 256; ++value) {
      hostile[i] = static_cast<uint8_t>(value);
      changed += table.Read(hostile, 0, 0x45) != whole;
      // The same in the midst of numbers that do not end.
      Code endless = hostile;
      std::fill(endless.begin() + static_cast<ptrdiff_t>(i) + 1, endless.end(), 0xFF);
      table.Read(endless, 0, 0x45);
    }
  }
  EXPECT_LT(1000, changed);
}

}  // namespace
}  // namespace heapscope
