#include "zelrt/command_controller.hpp"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/threads.h"
#include "tests/tools/serving_process.h"

namespace zelrt {

void PrintTo(ControlResult result, std::ostream* stream) { *stream << ControlResultText(result); }

namespace {

using namespace std::chrono_literals;
using enum ControlResult;
using zeltest::Code;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 20s;
constexpr auto kShort = 50ms;

class CommandControllerTest : public testing::Test {
 protected:
  CommandControllerTest() { EXPECT_EQ(kDone, controller_.Open(directory_)); }
  ControlResult Send(int32_t code, int32_t argument,
                     std::chrono::milliseconds timeout = kPatience) {
    return controller_.Send(MakeCommand(code, {argument}), timeout);
  }
  ControlResult Ping() { return controller_.Ping(kPatience); }
  // Takes the channel's lock, or gives it back.
  void ChangeLock(short change) const {
    sembuf operation = {ZEL_COMMAND_LOCK, change, SEM_UNDO};
    EXPECT_EQ(0, semop(process_.semaphoreSet(), &operation, 1));
  }
  ChannelState State() const {
    ChannelState state = {};
    EXPECT_EQ(kDone, controller_.State(state));
    return state;
  }

  zeltest::OwnChannels channels_;
  zeltest::ServingProcess process_;
  const std::string directory_ = process_.directory();
  CommandController controller_;
};

// Sends commands with numbers from 1 on, in spans of different lengths, from a child.
pid_t ForkSender(const std::string& directory, int sender, int count) {
  const pid_t child = fork();
  if (child != 0) return child;
  CommandController controller;
  ControlResult result = controller.Open(directory);
  const std::string payload(ZEL_COMMAND_PAYLOAD_SIZE, static_cast<char>(sender));
  for (int next = 1, length = 1; next <= count && result == kDone; length = length % 7 + 1) {
    std::vector<ZelCommandRecord> records;
    for (int i = 0; i < length && next <= count; ++i)
      records.push_back(MakeCommand(Code::kNote, {sender, next++}, payload));
    result = controller.Send(records, kPatience);
  }
  _exit(static_cast<int>(result));
}

// Expects each sender's commands whole and in their order; returns how many came.
std::map<int, int> CountNumbered(const zeltest::ServingProcess& process) {
  std::map<int, int> last;
  for (const zeltest::NotedCommand& noted : process.Noted()) {
    const int sender = noted.arguments[1];
    EXPECT_EQ(sender, noted.firstByte);
    EXPECT_EQ(++last[sender], noted.arguments[2]) << "from " << sender;
  }
  return last;
}

TEST_F(CommandControllerTest, ManyControllersLoseAndMixNothing) {
  std::vector<pid_t> children;
  for (int sender = 1; sender <= 8; ++sender)
    children.push_back(ForkSender(directory_, sender, 200));
  for (const pid_t child : children) {
    int status;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
  }
  EXPECT_EQ(kDone, Ping());
  const std::map<int, int> counts = CountNumbered(process_);
  EXPECT_EQ(8U, counts.size());
  for (const auto& [sender, count] : counts) EXPECT_EQ(200, count) << "from " << sender;
}

TEST_F(CommandControllerTest, KilledControllersLeaveTheChannelUsable) {
  for (int round = 1; round <= 40; ++round) {
    const pid_t children[] = {ForkSender(directory_, 2 * round, 1'000'000),
                              ForkSender(directory_, 2 * round + 1, 1'000'000)};
    std::this_thread::sleep_for(std::chrono::microseconds(500 + 100 * round));
    for (const pid_t child : children) zeltest::KillAndBury(child);
    ASSERT_EQ(kDone, Ping()) << "after round " << round;
    ASSERT_FALSE(State().isLocked);
    ASSERT_EQ(0, State().pending) << "commands that nobody announced";
  }
  EXPECT_FALSE(CountNumbered(process_).empty());
}

TEST_F(CommandControllerTest, FullQueueIsWaitedForAndNotForEver) {
  ASSERT_EQ(kDone, Send(Code::kSleep, 1500));
  ASSERT_TRUE(zeltest::Eventually([&] { return !process_.Noted().empty(); }));
  const std::vector<ZelCommandRecord> seven(7, MakeCommand(Code::kNote));
  const auto start = Clock::now();
  size_t queued;
  EXPECT_EQ(kFull, controller_.Send(seven, kShort, &queued));
  EXPECT_EQ(size_t{ZEL_COMMAND_CAPACITY}, queued);
  EXPECT_EQ(kNoReply, controller_.Ping(kShort));
  EXPECT_GE(Clock::now() - start, 2 * kShort);
  EXPECT_LT(Clock::now() - start, 1s);

  EXPECT_EQ(kDone, controller_.Send(std::span(seven).subspan(queued), kPatience));
  EXPECT_EQ(kDone, Ping());
  EXPECT_EQ(8U, process_.Noted().size());
}

TEST_F(CommandControllerTest, HeldLockIsWaitedForAndNotForEver) {
  ChangeLock(-1);
  EXPECT_EQ(kLockHeld, Send(Code::kNote, 0, kShort));
  EXPECT_TRUE(State().isLocked);
  EXPECT_EQ(getpid(), State().lockUser);
  std::thread holder([&] {
    std::this_thread::sleep_for(kShort);
    ChangeLock(1);
  });
  EXPECT_EQ(kDone, Send(Code::kNote, 0));
  holder.join();
  EXPECT_EQ(kDone, Ping());
  EXPECT_EQ(1U, process_.Noted().size());
}

// The ring of the request is spent on the lock of a process that is killed with it.
TEST_F(CommandControllerTest, RequestOutlivesTheNextHolderOfTheLock) {
  const auto waiters = [&] { return semctl(process_.semaphoreSet(), ZEL_COMMAND_LOCK, GETNCNT); };
  ChangeLock(-1);
  const pid_t next = fork();
  if (next == 0) {
    while (waiters() == 0) usleep(100);
    ChangeLock(-1);
    for (;;) pause();
  }
  std::thread asker([&] {
    CommandAnswer answer;
    EXPECT_EQ(kDone, controller_.Request(MakeCommand(Code::kAnswer, {1}), 5s, answer));
  });
  EXPECT_TRUE(zeltest::Eventually([&] { return waiters() == 2; }));
  ChangeLock(1);
  EXPECT_TRUE(zeltest::Eventually([&] { return State().pending == 1; }));
  std::this_thread::sleep_for(kShort);
  zeltest::KillAndBury(next);
  asker.join();
}

TEST_F(CommandControllerTest, ChannelTakenDownIsNoticed) {
  process_.TakeDown(ZELCMDHDLR_CLEAN_PARTIAL);  // the semaphores stay
  EXPECT_EQ(kGone, Send(Code::kNote, 0));
  EXPECT_EQ(kGone, Ping());
  zeltest::ServingProcess other;
  ASSERT_EQ(kDone, controller_.Open(other.directory()));
  other.TakeDown(ZELCMDHDLR_CLEAN_ALL);
  EXPECT_EQ(kGone, Send(Code::kNote, 0));
  EXPECT_EQ(kNoChannel, controller_.Open(other.directory()));
  EXPECT_EQ(kNoChannel, Send(Code::kNote, 0));
}

TEST_F(CommandControllerTest, DeathOfTheProcessEndsEveryWait) {
  EXPECT_FALSE(State().isStale);
  EXPECT_EQ(process_.pid(), State().owner);
  ASSERT_EQ(kDone, Send(Code::kSleep, 60000));
  std::thread killer([&] {
    std::this_thread::sleep_for(kShort);
    process_.Kill();
  });
  CommandAnswer answer;
  EXPECT_EQ(kStale, controller_.Request(MakeCommand(3), kPatience, answer));
  killer.join();
  EXPECT_TRUE(State().isStale) << "while nobody has asked for its end";
  EXPECT_EQ(kStale, Send(Code::kNote, 0));
  process_.Bury();
  EXPECT_TRUE(State().isStale);
  EXPECT_EQ(kStale, Ping());
}

TEST_F(CommandControllerTest, EveryRequestGetsItsOwnAnswer) {
  zeltest::OnEachThread(4, [&](int thread) {
    CommandController controller;
    ASSERT_EQ(kDone, controller.Open(directory_));
    for (int i = 0; i < 25; ++i) {
      const std::string text = "line\n" + std::to_string(100 * thread + i);
      const bool isOk = i % 2 == 0;
      CommandAnswer answer;
      EXPECT_EQ(kDone,
                controller.Request(MakeCommand(Code::kAnswer, {isOk}, text), kPatience, answer));
      EXPECT_EQ(text, answer.text);
      EXPECT_EQ(isOk, answer.isOk);
    }
  });
  CommandAnswer answer;
  EXPECT_EQ(kNoAnswer, controller_.Request(MakeCommand(Code::kNote), kShort, answer));
  EXPECT_EQ(kBadAnswer, controller_.Request(MakeCommand(Code::kAnswerBadly), kPatience, answer));
  for (const auto& entry : std::filesystem::directory_iterator(directory_))
    EXPECT_EQ(std::string::npos, entry.path().string().find("answer")) << entry.path();
}

TEST_F(CommandControllerTest, WhatIsInTheSegmentIsNotTrusted) {
  auto* const segment = static_cast<ZelCommandSegment*>(shmat(process_.segmentId(), nullptr, 0));
  for (const int pending : {1'000'000, -1'000'000}) {
    segment->pending = pending;
    EXPECT_EQ(pending > 0 ? ZEL_COMMAND_CAPACITY : 0, State().pending);
    EXPECT_EQ(kDone, Send(Code::kNote, pending));
    EXPECT_EQ(kDone, Ping());
    EXPECT_EQ(pending, process_.Noted().back().arguments[1]);
  }
  segment->isReady = 2;
  EXPECT_EQ(kNotReady, Send(Code::kNote, 3));
  EXPECT_FALSE(State().isLocked);
  shmdt(segment);
}

TEST_F(CommandControllerTest, WhatIsNoChannelIsRefused) {
  const std::string file = "./" ZEL_COMMAND_LOCK_FILE;
  EXPECT_EQ(kNoChannel, controller_.Open("absent"));
  const auto open = [&](int32_t id, size_t length = sizeof(int32_t)) {
    zeltest::WriteFile(file, std::string(reinterpret_cast<const char*>(&id), length));
    return controller_.Open("");
  };
  EXPECT_EQ(kNotReady, open(0, 0));
  EXPECT_EQ(kNotReady, open(0, 3));
  EXPECT_EQ(kBroken, open(-1));
  EXPECT_EQ(kGone, open(process_.segmentId())) << "without semaphores";
  const int set = semget(ftok(file.c_str(), ZEL_COMMAND_KEY_PROJECT), 2, IPC_CREAT | 0600);
  EXPECT_EQ(kGone, open(INT32_MAX));
  for (const size_t size : {sizeof(ZelCommandSegment) - 1, sizeof(ZelCommandSegment) + 1}) {
    const int segment = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    EXPECT_EQ(kBroken, open(segment)) << size;
    shmctl(segment, IPC_RMID, nullptr);
  }
  EXPECT_EQ(kDone, open(process_.segmentId())) << "all but that is right";
  if (chown(file.c_str(), 65534, 65534) == 0) {
    EXPECT_EQ(kBroken, controller_.Open("")) << "names another user's segment";
  }
  semctl(set, 0, IPC_RMID);

  unlink(file.c_str());
  ASSERT_EQ(0, symlink((directory_ + "/" ZEL_COMMAND_LOCK_FILE).c_str(), file.c_str()));
  EXPECT_EQ(kBroken, controller_.Open(""));
  unlink(file.c_str());
  ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
  EXPECT_EQ(kBroken, controller_.Open(""));
}

TEST(CommandChannels, DirectoryOfOthersIsRefused) {
  zeltest::OwnChannels channels;
  const std::string above = ChannelsDirectory();
  EXPECT_EQ(std::filesystem::current_path().string() + "/zelrt", above);
  std::string made;
  ASSERT_EQ(0, mkdir("elsewhere", 0700));
  ASSERT_EQ(0, symlink("elsewhere", above.c_str()));
  EXPECT_FALSE(MakeChannelDirectory("name", made));
  unlink(above.c_str());
  ASSERT_TRUE(MakeChannelDirectory("name", made));
  EXPECT_TRUE(IsPrivateDirectory(made) && IsPrivateDirectory(above));
  ASSERT_EQ(0, chmod(above.c_str(), 02700));  // as made in a directory with that bit
  EXPECT_TRUE(IsPrivateDirectory(above));
  ASSERT_EQ(0, chmod(above.c_str(), 0755));
  EXPECT_FALSE(MakeChannelDirectory("name", made));
}

}  // namespace
}  // namespace zelrt
