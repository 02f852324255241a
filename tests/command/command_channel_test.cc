// The channel of this process, steered by others.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "host/host.h"
#include "tests/command/controller.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/command_handler.hpp"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using zeltest::Controller;
using zeltest::RunInChild;

struct Call {
  int arguments[5];
  std::string payload;  // up to its NUL; "(null)" for none
  void* userData;
};

// What the callback of this process got.
class Received {
 public:
  void Add(Call call) {
    const std::lock_guard guard(mutex_);
    calls_.push_back(std::move(call));
    changed_.notify_all();
  }
  // Waits until there are so many, or the time is over.
  std::vector<Call> Wait(size_t count, steady_clock::duration time = 10s) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, time, [&] { return calls_.size() >= count; });
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
};
Received g_received;

void Receive(int code, int argument2, int argument3, int argument4, int argument5,
             unsigned char* payload, void* userData) {
  const char* const text = payload == nullptr ? "(null)" : reinterpret_cast<char*>(payload);
  g_received.Add({{code, argument2, argument3, argument4, argument5},
                  std::string(text, strnlen(text, ZEL_COMMAND_PAYLOAD_SIZE)),
                  userData});
}

class CommandChannel : public testing::Test {
 protected:
  void SetUp() override { zelhost::Install(); }
  void TearDown() override {
    Controller::RemoveAll(".");
    __ZelShutdownCommandHandler();
    __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  }

  bool Register(int heartbeatSeconds = 0, const char* directory = "") {
    return __ZelRegisterCommandHandlerWithHeartbeat(directory, Receive, this, heartbeatSeconds) ==
           1;
  }

  // A second process acts as controller.
  template <typename Body>
  void Control(Body body) {
    const auto result = RunInChild([&] {
      Controller controller(".");
      if (!controller.IsAttached()) _exit(9);
      body(controller);
    });
    EXPECT_EQ(0, result.exitStatus) << result.output;
  }

  zeltest::TemporaryDirectory directory_;
};

TEST_F(CommandChannel, RecordsArriveInTheirOrder) {
  ASSERT_TRUE(Register());
  const std::string longest(ZEL_COMMAND_PAYLOAD_SIZE, 'x');
  Control([&](Controller& controller) {
    if (controller.Segment().isReady != 1) _exit(8);
    controller.Lock();
    controller.Append(-7, 70, "first");
    controller.Append(ZEL_COMMAND_HEARTBEAT, 80, "");
    controller.Append(9, 90, longest);
    controller.Unlock();
    controller.Ring();
  });
  const auto calls = g_received.Wait(3);
  ASSERT_EQ(3u, calls.size());
  const int expected[][2] = {{-7, 70}, {ZEL_COMMAND_HEARTBEAT, 80}, {9, 90}};
  const std::string payloads[] = {"first", "", longest};
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(expected[i][0], calls[i].arguments[0]);
    EXPECT_EQ(expected[i][1], calls[i].arguments[1]);
    EXPECT_EQ(5, calls[i].arguments[4]);
    EXPECT_EQ(payloads[i], calls[i].payload);
    EXPECT_EQ(this, calls[i].userData);
  }
  Control([](Controller& controller) { _exit(controller.Segment().pending); });
}

TEST_F(CommandChannel, HeartbeatsComeWhileNoCommandDoes) {
  ASSERT_TRUE(Register(1));
  const auto start = steady_clock::now();
  const auto calls = g_received.Wait(3);
  const auto time = steady_clock::now() - start;
  EXPECT_TRUE(time > 2900ms && time < 5s);
  ASSERT_EQ(3u, calls.size());
  EXPECT_EQ(ZEL_COMMAND_HEARTBEAT, calls[2].arguments[0]);
  EXPECT_EQ(0, calls[2].arguments[1] | calls[2].arguments[4]);
  EXPECT_EQ("(null)", calls[2].payload);
  EXPECT_EQ(this, calls[2].userData);
}

TEST_F(CommandChannel, BusyLockPostponesCommands) {
  ASSERT_TRUE(Register());
  Control([](Controller& controller) {
    controller.Lock();
    controller.Append(1, 0, "");
    controller.Ring();
    std::this_thread::sleep_for(200ms);
    if (controller.Segment().pending != 1) _exit(8);
    controller.Append(2, 0, "");
    controller.Unlock();
    std::this_thread::sleep_for(100ms);
    if (controller.Segment().pending != 2) _exit(7);  // nobody rang
    controller.Ring();
  });
  const auto calls = g_received.Wait(2);
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(2, calls[1].arguments[0]);
}

TEST_F(CommandChannel, ResultsOfProcessing) {
  CollectorCommandHandler handler;
  EXPECT_EQ(-1, handler.processCommands());
  EXPECT_EQ(-1, handler.processHeartbeat());
  EXPECT_EQ(0, handler.acquireLock());
  ASSERT_EQ(1, handler.initializeCommandHandler(".//", Receive, nullptr));
  EXPECT_EQ(0, handler.initializeCommandHandler("", Receive, nullptr)) << "is up already";
  Controller controller(".");
  EXPECT_EQ(0, handler.processCommands());
  EXPECT_EQ(2, handler.processHeartbeat());
  controller.Append(4, 0, "");
  EXPECT_EQ(1, handler.acquireLock());
  EXPECT_EQ(0, handler.acquireLock());
  EXPECT_EQ(1, handler.processCommands());
  EXPECT_EQ(0, handler.releaseLock());
  EXPECT_EQ(2, handler.processCommands());
  EXPECT_EQ(2u, g_received.Wait(2).size());

  const struct {
    int32_t pending;
    size_t delivered;
  } kWrongCounts[] = {{-1, 0}, {INT32_MIN, 0}, {6, 5}, {INT32_MAX, 5}};
  size_t total = 2;
  for (const auto& row : kWrongCounts) {
    controller.Segment().pending = row.pending;
    EXPECT_EQ(2, handler.processCommands());
    EXPECT_EQ(0, controller.Segment().pending);
    EXPECT_EQ(1, handler.acquireLock()) << "given back";
    handler.releaseLock();
    total += row.delivered;
    EXPECT_EQ(total, g_received.Wait(total).size()) << row.pending;
  }
  handler.cleanupCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  EXPECT_EQ(-1, handler.processCommands());
}

TEST_F(CommandChannel, ScribblingControllerDoesNoHarm) {
  ASSERT_TRUE(Register());
  std::atomic<bool> isDone = false;
  std::thread doorbell([&] {
    Controller controller(".");
    while (!isDone) controller.Ring();
  });
  Control([](Controller& controller) {
    std::minstd_rand random(1);
    auto* const words = reinterpret_cast<volatile uint32_t*>(&controller.Segment());
    for (const auto end = steady_clock::now() + 500ms; steady_clock::now() < end;) {
      words[1] = static_cast<uint32_t>(random() * 4);
      words[random() % (sizeof(ZelCommandSegment) / 4)] = 0xFFFFFFFF;
    }
    controller.Segment().pending = 0;
  });
  isDone = true;
  doorbell.join();
  Control([](Controller& controller) { controller.Send(77); });
  for (size_t count = 1;; ++count) {
    const auto calls = g_received.Wait(count);
    ASSERT_GE(calls.size(), count);
    if (calls.back().arguments[0] == 77) break;
    count = calls.size();
  }
}

TEST_F(CommandChannel, TearDownLeavesWhatItIsToldTo) {
  using std::filesystem::exists;
  const auto before = zeltest::OpenDescriptors();
  for (const auto extent :
       {ZELCMDHDLR_CLEAN_PARTIAL, ZELCMDHDLR_CLEAN_ALL, static_cast<_ZELCMDHDLRCLEANEXTENT>(2)}) {
    ASSERT_TRUE(Register()) << "again after a shutdown";
    EXPECT_FALSE(Register()) << "is up already";
    const std::string id = zeltest::ReadFile("ulvcmds.dat").substr(0, 4);
    int32_t segment;
    std::memcpy(&segment, id.data(), sizeof segment);
    const int semaphores = semget(ftok("ulvcmds.dat", 0), 2, 0);
    EXPECT_TRUE(zeltest::SegmentExists(segment) && zeltest::SemaphoresExist(semaphores));

    __ZelShutdownCommandHandler();
    __ZelUnregisterCommandHandler(extent);
    EXPECT_FALSE(zeltest::SegmentExists(segment));
    EXPECT_EQ(extent == ZELCMDHDLR_CLEAN_PARTIAL, zeltest::SemaphoresExist(semaphores));
    EXPECT_EQ(extent == ZELCMDHDLR_CLEAN_PARTIAL, exists("ulvcmds.dat"));
    EXPECT_EQ(before, zeltest::OpenDescriptors());
  }
  zeltest::WriteFile("ulvcmds.dat", "of somebody else");
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  EXPECT_TRUE(exists("ulvcmds.dat"));
}

TEST_F(CommandChannel, TearDownWhileAThreadReads) {
  const ZelCommandCallback ignore = [](int, int, int, int, int, unsigned char*, void*) {};
  CollectorCommandHandler handler;
  for (int round = 0; round < 100; ++round) {
    ASSERT_EQ(1, handler.initializeCommandHandler("", ignore, nullptr));
    Controller controller(".");
    std::thread reader([&] {
      for (int calls = 0; handler.processCommands() != -1; ++calls) {
        controller.Segment().pending = ZEL_COMMAND_CAPACITY;
        if (calls % 16 == 0) std::this_thread::yield();  // let the tear-down have its turn
      }
    });
    std::this_thread::sleep_for(std::chrono::microseconds(200 + round));
    handler.cleanupCommandHandler(ZELCMDHDLR_CLEAN_ALL);
    reader.join();
  }
}

TEST_F(CommandChannel, TearDownClosesNoDescriptorOfTheHost) {
  const auto before = zeltest::OpenDescriptors();
  ASSERT_TRUE(Register());
  const int lockFile = zeltest::DescriptorOpenedSince(before);
  ASSERT_EQ(lockFile, dup2(0, lockFile));
  __ZelShutdownCommandHandler();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  EXPECT_EQ(0, close(lockFile));
}

TEST_F(CommandChannel, AgainWithoutAShutdown) {
  ASSERT_TRUE(Register());
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  ASSERT_TRUE(Register());
  Control([](Controller& controller) { controller.Send(1); });
  EXPECT_EQ(1u, g_received.Wait(1).size());
}

// As after an exec while a controller is attached.
TEST_F(CommandChannel, SegmentOfTheProgramBeforeIsRemoved) {
  const int32_t before = shmget(IPC_PRIVATE, sizeof(ZelCommandSegment), IPC_CREAT | 0600);
  void* const attached = shmat(before, nullptr, 0);
  zeltest::WriteFile("ulvcmds.dat",
                     std::string(reinterpret_cast<const char*>(&before), sizeof before));
  EXPECT_TRUE(Register());
  shmdt(attached);
  EXPECT_FALSE(zeltest::SegmentExists(before));
  shmctl(before, IPC_RMID, nullptr);
}

TEST_F(CommandChannel, LockFileStaysOffTheStandardDescriptors) {
  for (int closed = 1; closed < 8; ++closed) {
    const auto result = RunInChild([&] {
      for (int i = 0; i < 3; ++i) {
        if ((closed >> i & 1) != 0) close(i);
      }
      const bool isUp = Register();
      bool isRight = isUp;
      for (int i = 0; i < 3; ++i) {
        if ((closed >> i & 1) != 0) isRight = isRight && fcntl(i, F_GETFD) == -1;
      }
      __ZelShutdownCommandHandler();
      __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
      _exit(isRight ? 0 : 1);
    });
    EXPECT_EQ(0, result.exitStatus) << closed;
  }
}

TEST_F(CommandChannel, CommandsThatWereTakenKeepTheirCallback) {
  static std::atomic<bool> s_mayGoOn;
  static std::atomic<int> s_calls;
  static uintptr_t s_thread;
  // Gives up at once.
  const ZelThreadWaitProc keep = [](uintptr_t* handle, uint32_t, uint32_t*) -> uint32_t {
    s_thread = *handle;
    return 0;
  };
  __ZelSetThreadProcs(zelhost::CreateServiceThread, zelhost::ExitThread, keep,
                      zelhost::AddEndCallback);
  const ZelCommandCallback slow = [](int, int, int, int, int, unsigned char*, void*) {
    ++s_calls;
    while (!s_mayGoOn) std::this_thread::sleep_for(1ms);
  };
  ASSERT_EQ(1u, __ZelRegisterCommandHandler("", slow, nullptr));
  Control([](Controller& controller) {
    controller.Lock();
    controller.Append(1, 0, "");
    controller.Append(2, 0, "");
    controller.Unlock();
    controller.Ring();
  });
  while (s_calls == 0) std::this_thread::sleep_for(1ms);
  __ZelShutdownCommandHandler();
  zelhost::Install();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  const size_t before = g_received.Wait(0).size();
  ASSERT_TRUE(Register());
  s_mayGoOn = true;
  Control([](Controller& controller) { controller.Send(3); });
  const auto calls = g_received.Wait(before + 1);
  ASSERT_EQ(before + 1, calls.size());
  EXPECT_EQ(3, calls.back().arguments[0]);
  EXPECT_EQ(1u, zelhost::WaitThread(&s_thread, 10000, nullptr));
  EXPECT_EQ(2, s_calls);
}

#ifdef __SANITIZE_THREAD__
constexpr bool kChildrenMayHaveThreads = false;  // its runtime ends them
#else
constexpr bool kChildrenMayHaveThreads = true;
#endif

TEST_F(CommandChannel, ForkedChildLetsGoOfTheChannel) {
  ASSERT_TRUE(Register());
  EXPECT_EQ(0, RunInChild([] {
                 const auto start = steady_clock::now();
                 __ZelShutdownCommandHandler();  // and does not wait for a thread that is not there
                 if (steady_clock::now() - start > 900ms) _exit(7);
                 __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
                 if (!kChildrenMayHaveThreads) return;
                 mkdir("childs", 0700);
                 if (__ZelRegisterCommandHandler("childs", Receive, nullptr) != 1) _exit(8);
                 __ZelShutdownCommandHandler();
                 __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
               }).exitStatus);
  EXPECT_EQ(0, RunInChild([] { std::exit(0); }).exitStatus);
  Control([](Controller& controller) { controller.Send(1); });
  EXPECT_EQ(1u, g_received.Wait(1).size());
}

// Processes that have a channel -------------------------------------------------------------------

// A child that writes the code of each command to a pipe.
class HandlerProcess {
 public:
  HandlerProcess() {
    if (pipe(ends_) != 0) std::abort();
    child_ = fork();
    if (child_ != 0) return;
    static int s_pipe;
    s_pipe = ends_[1];
    const ZelCommandCallback report = [](int code, int, int, int, int, unsigned char*, void*) {
      if (write(s_pipe, &code, sizeof code) != sizeof code) _exit(1);
    };
    report(static_cast<int>(__ZelRegisterCommandHandler("", report, nullptr)), 0, 0, 0, 0, nullptr,
           nullptr);
    for (;;) pause();
  }
  ~HandlerProcess() {
    Signal(SIGKILL);
    waitpid(child_, nullptr, 0);
    close(ends_[0]);
    close(ends_[1]);
  }
  void Signal(int signal) const { kill(child_, signal); }
  void AwaitStop() const { waitpid(child_, nullptr, WUNTRACED); }

  // The next code, -1 when none comes within a second; 1 at first.
  int Next() const {
    const int descriptor = ends_[0];
    fd_set set;
    FD_ZERO(&set);
    FD_SET(descriptor, &set);
    timeval second = {1, 0};
    int code = -1;
    if (select(descriptor + 1, &set, nullptr, nullptr, &second) != 1) return -1;
    return read(descriptor, &code, sizeof code) == sizeof code ? code : -1;
  }

 private:
  int ends_[2];
  pid_t child_;
};

TEST_F(CommandChannel, StoppedAndContinuedProcessStillListens) {
  HandlerProcess process;
  ASSERT_EQ(1, process.Next());
  for (int i = 0; i < 100; ++i) {
    process.Signal(SIGSTOP);
    process.AwaitStop();
    process.Signal(SIGCONT);
  }
  Controller controller(".");
  controller.Send(5);
  EXPECT_EQ(5, process.Next());
}

TEST_F(CommandChannel, KilledProcessesLeaveNothingToTheNext) {
  std::set<int32_t> segments;
  std::set<int> sets;
  for (int round = 0; round < 100; ++round) {
    HandlerProcess process;
    ASSERT_EQ(1, process.Next());
    int32_t segment;
    std::memcpy(&segment, zeltest::ReadFile("ulvcmds.dat").data(), sizeof segment);
    segments.insert(segment);
    sets.insert(semget(ftok("ulvcmds.dat", 0), 2, 0));
    Controller controller(".");
    controller.Send(round + 2);
    ASSERT_EQ(round + 2, process.Next());
  }
  ASSERT_EQ(100u, segments.size());
  EXPECT_EQ(1u, sets.size());
  ASSERT_TRUE(Register());
  for (const int32_t segment : segments) EXPECT_FALSE(zeltest::SegmentExists(segment));
}

}  // namespace
