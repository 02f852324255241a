// Commands to a collector while its program runs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "tests/heapscope/heapscope_run.h"

namespace {

using std::filesystem::exists;

// A program under heapscope that does what it is told. Its channel lies in a directory of the test.
class ChannelTest : public testing::Test {
 protected:
  void SetUp() override { setenv("XDG_RUNTIME_DIR", directory_.File("").c_str(), 1); }
  void TearDown() override {
    if (launcher_ > 0) Wait();
  }

  void Start(std::vector<std::string> options = {}) {
    options.insert(options.end(), {"-out", directory_.File("files"),  //
                                   "-summary", directory_.File("summary")});
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    launcher_ = fork();
    if (launcher_ == 0) {
      dup2(ends[0], STDIN_FILENO);
      dup2(ends[0], STDOUT_FILENO);
      Become(UnderHeapscope(options, {STEERED}));
    }
    close(ends[0]);
    socket_ = ends[1];
    answers_ = fdopen(ends[1], "r");
    process_ = ReadLine();
  }

  std::string Tell(const std::string& line) {
    dprintf(socket_, "%s\n", line.c_str());
    return ReadLine();
  }
  std::string ReadLine() {
    char line[100] = "";
    if (std::fgets(line, sizeof line, answers_) == nullptr) return "(end)";
    return std::string(line, std::strcspn(line, "\n"));
  }

  // Ends the program's input, and so the program, unless it has ended.
  int Wait() {
    std::fclose(answers_);
    int status = 0;
    waitpid(launcher_, &status, 0);
    launcher_ = 0;
    return StatusOf(status);
  }

  Outcome Request(const std::string& command, const std::string& argument = "") {
    Command request = {.arguments = {LAUNCHER, command, process_}};
    if (!argument.empty()) request.arguments.push_back(argument);
    return RunCommand(request);
  }
  static std::string Value(const Outcome& answer, const std::string& name) {
    const size_t at = answer.output.find(name + ": ");
    if (at == std::string::npos) return "(missing)";
    const size_t from = at + name.size() + 2;
    return answer.output.substr(from, answer.output.find('\n', from) - from);
  }
  int64_t Status(const std::string& name) { return std::stoll(Value(Request("status"), name)); }

  std::string Result() const { return directory_.File("files/heapscope." + process_ + ".xml"); }
  std::string ChannelDirectory() const {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.File("zelrt")))
      found = entry.path();
    return found;
  }

  static void ExpectWritten(const std::string& result, const std::string& occasion) {
    ExpectValid({result});
    EXPECT_EQ(occasion, Ask(result, "/*/@written"));
  }

  const zeltest::TemporaryDirectory directory_;
  pid_t launcher_ = 0;
  int socket_ = -1;
  FILE* answers_ = nullptr;  // the socket's
  std::string process_;
};

TEST_F(ChannelTest, StatusFollowsTheProgram) {
  Start();
  const int64_t before = Status("live_bytes");
  const std::string block = Tell("a 1000");
  EXPECT_EQ(before + 1000, Status("live_bytes"));
  Tell("f " + block);
  Tell("t 500");
  EXPECT_EQ(before, Status("live_bytes"));
  EXPECT_EQ("counting", Value(Request("status"), "state"));
  EXPECT_EQ(Result(), Value(Request("status"), "result"));
  EXPECT_EQ("gone", Tell("c")) << "a forked child leaves the channel alone";
  EXPECT_EQ(before, Status("live_bytes"));
  EXPECT_EQ(0, Wait());
  ExpectWritten(Result(), "end");
  EXPECT_EQ(501, AskNumber(Result(), "sum(/*/totals/temporary/@blocks)"));
  EXPECT_EQ(501, AskNumber(Result(), "sum(//site/temporary/@blocks)"));
  EXPECT_EQ("", ChannelDirectory());
}

TEST_F(ChannelTest, WhereFindsTheBlockAroundAnAddress) {
  Start();
  Tell("a 200");
  for (const int size : {1, 24, 65535, 65536, 5000000}) {
    const std::string text = Tell("a " + std::to_string(size));
    const uint64_t block = std::stoull(text, nullptr, 16);
    for (const int offset : {0, size / 2, size - 1}) {
      const Outcome answer =
          Request("where", std::to_string(block + static_cast<uint64_t>(offset)));
      EXPECT_EQ(text, Value(answer, "block"));
      EXPECT_EQ(std::to_string(size), Value(answer, "size"));
      EXPECT_EQ(std::to_string(offset), Value(answer, "offset"));
      EXPECT_NE(std::string::npos, answer.output.find("frame: " STEERED "+0x")) << answer.output;
    }
    EXPECT_EQ(1, Request("where", std::to_string(block + static_cast<uint64_t>(size))).status);
    Tell("f " + text);
    EXPECT_EQ(1, Request("where", text).status);
  }
  EXPECT_EQ("not an address: here\n", Request("where", "here").errors);
  EXPECT_EQ(1, Request("where", "0xFFFFFFFFFFFFFFFF").status);
}

TEST_F(ChannelTest, SnapshotsAreFilesOfTheirOwn) {
  Start({"-heartbeat", "0"});
  Tell("a 123");
  const std::string first = Value(Request("snapshot"), "result");
  Tell("a 123");
  const std::string second = Value(Request("snapshot"), "result");
  EXPECT_NE(first, second);
  EXPECT_FALSE(exists(Result()));
  Wait();
  ExpectWritten(first, "snapshot");
  ExpectWritten(second, "snapshot");
  ExpectWritten(Result(), "end");
  const std::string live = "number(/*/totals/live/@bytes)";
  EXPECT_EQ(AskNumber(first, live) + 123, AskNumber(second, live));
}

TEST_F(ChannelTest, WhatIsAllocatedInAPauseIsLeftOut) {
  Start();
  const std::string before = Tell("a 100");
  const int64_t live = Status("live_bytes");
  Request("pause");
  EXPECT_EQ("paused", Value(Request("status"), "state"));
  const std::string meanwhile = Tell("a 1000");
  Tell("f " + before);
  EXPECT_EQ(live - 100, Status("live_bytes"));
  Request("resume");
  Tell("f " + meanwhile);
  Tell("a 10");
  EXPECT_EQ(live - 90, Status("live_bytes"));
  Wait();
  EXPECT_EQ(2, AskNumber(Result(), "number(//calls_left_out_by_pause)"));
  EXPECT_EQ(0, AskNumber(Result(), "number(//frees_of_unknown_blocks)"));
}

TEST_F(ChannelTest, AfterAResetWhatWasLiveIsInherited) {
  Start();
  const std::string block = Tell("a 100");
  const int64_t live = Status("live_bytes");
  EXPECT_EQ(0, Request("reset").status);
  EXPECT_EQ(live, Status("live_bytes"));
  EXPECT_EQ(0, Status("allocated_blocks"));
  Tell("a 10");
  Tell("f " + block);
  Wait();
  ExpectWritten(Result(), "end");
  EXPECT_EQ(live, AskNumber(Result(), "number(/*/totals/inherited/@bytes)"));
  EXPECT_EQ(1, AskNumber(Result(), "number(/*/totals/allocated/@blocks)"));
  EXPECT_EQ(100, AskNumber(Result(), "number(/*/totals/freed/@bytes)"));
  EXPECT_EQ(live, AskNumber(Result(), "sum(//site/inherited/@bytes)"));
}

TEST_F(ChannelTest, AKilledProgramLeavesItsLastHeartbeatAndNothingElse) {
  Start();
  Tell("a 4321");
  int32_t segment = -1;
  std::memcpy(&segment, zeltest::ReadFile(ChannelDirectory() + "/ulvcmds.dat").data(),
              sizeof segment);
  std::this_thread::sleep_for(std::chrono::milliseconds(1600));
  kill(std::stoi(process_), SIGKILL);
  EXPECT_EQ(-SIGKILL, Wait());
  ExpectWritten(Result(), "heartbeat");
  EXPECT_LE(4321, AskNumber(Result(), "number(/*/totals/live/@bytes)"));
  EXPECT_LE(2, AskNumber(Result(), "count(//point)"));
  EXPECT_EQ("", ChannelDirectory());
  shmid_ds ignored;
  EXPECT_EQ(-1, shmctl(segment, IPC_STAT, &ignored));
}

TEST_F(ChannelTest, ImmediateExitClosesTheChannel) {
  Start();
  Tell("e");
  EXPECT_EQ(7, Wait());
  ExpectWritten(Result(), "end");
  EXPECT_EQ("", ChannelDirectory());
}

// The C library does not free that lock of the loader in the child.
TEST_F(ChannelTest, ForkWaitsForASnapshotInTheLoader) {
  Start({"-children", "-heartbeat", "0"});
  Tell("l");
  std::thread asker([&] { EXPECT_EQ(0, Request("snapshot").status); });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ("gone", Tell("c")) << "the child can list what is loaded";
  asker.join();
  Tell("q");
  EXPECT_LE(0, Wait());
}

TEST_F(ChannelTest, AbandonedDirectoriesAreSwept) {
  const std::string above = directory_.File("zelrt");
  for (const std::string name : {"/heapscope.oldold", "/heapscope.newnew"}) {
    std::filesystem::create_directories(above + name);
    std::filesystem::permissions(above, std::filesystem::perms::owner_all);
    zeltest::WriteFile(above + name + "/answer.1", "");
  }
  const timespec old[] = {{1, 0}, {1, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (above + "/heapscope.oldold").c_str(), old, 0));
  Start({"-children"});
  Tell("q");
  Wait();
  EXPECT_EQ(above + "/heapscope.newnew", ChannelDirectory());
  EXPECT_FALSE(exists(above + "/heapscope.oldold"));
}

TEST_F(ChannelTest, ThereIsNobodyToAsk) {
  Start({"-no-channel"});
  EXPECT_EQ(125, Request("status").status);
  EXPECT_EQ("heapscope: no channel of process " + process_ + "\n", Request("status").errors);
  EXPECT_EQ(125, Request("where").status);
  EXPECT_EQ(125, Request("status", "more").status);
}

}  // namespace
