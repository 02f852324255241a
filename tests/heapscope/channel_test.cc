// Commands to a collector while its program runs.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/heapscope/result_files.h"
#include "tests/heapscope/run.h"

namespace {

using std::filesystem::exists;

std::string OnlyEntry(const std::string& directory, const std::string& ending = "") {
  std::string found;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().string().ends_with(ending)) found = entry.path();
  }
  return found;
}

// A program under heapscope that does what it is told. Its channel lies in a directory of the test.
class ChannelTest : public testing::Test {
 protected:
  void SetUp() override { setenv("XDG_RUNTIME_DIR", directory_.File("").c_str(), 1); }
  void TearDown() override {
    if (launcher_ > 0) Wait();
  }

  void Start(std::vector<std::string> options = {}) {
    for (const std::string& option : {std::string("-out"), directory_.File("files")})
      options.push_back(option);
    options.insert(options.end(), {"-summary", directory_.File("summary")});
    std::vector<std::string> arguments = UnderHeapscope(options, {STEERED}).arguments;
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    int input[2], output[2];
    ASSERT_EQ(0, pipe2(input, O_CLOEXEC) | pipe2(output, O_CLOEXEC));
    launcher_ = fork();
    if (launcher_ == 0) {
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      execv(pointers[0], pointers.data());
      _exit(98);
    }
    close(input[0]);
    close(output[1]);
    input_ = fdopen(input[1], "w");
    output_ = fdopen(output[0], "r");
    ASSERT_EQ("ready", ReadLine());
    const std::string log = OnlyEntry(directory_.File("files"), ".log");
    process_ = log.substr(log.find("heapscope.") + 10);
    process_ = process_.substr(0, process_.find('.'));
  }

  std::string Tell(const std::string& line) {
    std::fprintf(input_, "%s\n", line.c_str());
    std::fflush(input_);
    return ReadLine();
  }
  std::string ReadLine() {
    char line[100] = "";
    if (std::fgets(line, sizeof line, output_) == nullptr) return "(end)";
    return std::string(line, std::strcspn(line, "\n"));
  }

  // Ends the program's input, and so the program, unless it has ended.
  int Wait() {
    std::fclose(input_);
    std::fclose(output_);
    int status = 0;
    waitpid(launcher_, &status, 0);
    launcher_ = 0;
    return status;
  }

  Outcome Ask(const std::string& command, const std::string& argument = "") {
    Command asked = {.arguments = {LAUNCHER, command, process_}};
    if (!argument.empty()) asked.arguments.push_back(argument);
    return RunCommand(asked);
  }
  static std::string Value(const Outcome& answer, const std::string& name) {
    const size_t at = answer.output.find(name + ": ");
    if (at == std::string::npos) return "(missing)";
    const size_t from = at + name.size() + 2;
    return answer.output.substr(from, answer.output.find('\n', from) - from);
  }
  int64_t Status(const std::string& name) { return std::stoll(Value(Ask("status"), name)); }

  std::string Result() const {
    return directory_.File("files") + "/heapscope." + process_ + ".xml";
  }
  std::string ChannelDirectory() const { return OnlyEntry(directory_.File("zelrt")); }

  void ExpectValid(const std::string& result, const std::string& occasion) {
    EXPECT_EQ(0, ExitStatus(RunCommand(
                     {.arguments = {"xmllint", "--noout", "--relaxng", RESULT_SCHEMA, result}})));
    EXPECT_EQ(occasion, ::Ask(result, "string(/*/@written)"));
  }

  const TemporaryDirectory directory_;
  pid_t launcher_ = 0;
  FILE* input_ = nullptr;
  FILE* output_ = nullptr;
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
  EXPECT_EQ("counting", Value(Ask("status"), "state"));
  EXPECT_EQ(Result(), Value(Ask("status"), "result"));
  EXPECT_EQ("gone", Tell("c")) << "a forked child leaves the channel alone";
  EXPECT_EQ(before, Status("live_bytes"));
  EXPECT_EQ(0, Wait());
  ExpectValid(Result(), "end");
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
      const Outcome answer = Ask("where", std::to_string(block + static_cast<uint64_t>(offset)));
      EXPECT_EQ(text, Value(answer, "block"));
      EXPECT_EQ(std::to_string(size), Value(answer, "size"));
      EXPECT_EQ(std::to_string(offset), Value(answer, "offset"));
      EXPECT_NE(std::string::npos, answer.output.find("frame: " STEERED "+0x")) << answer.output;
    }
    EXPECT_EQ(1, ExitStatus(Ask("where", std::to_string(block + static_cast<uint64_t>(size)))));
    Tell("f " + text);
    EXPECT_EQ(1, ExitStatus(Ask("where", text)));
  }
  EXPECT_EQ("not an address: here\n", Ask("where", "here").errors);
  EXPECT_EQ(1, ExitStatus(Ask("where", "0xFFFFFFFFFFFFFFFF")));
}

TEST_F(ChannelTest, SnapshotsAreFilesOfTheirOwn) {
  Start({"-heartbeat", "0"});
  Tell("a 123");
  const std::string first = Value(Ask("snapshot"), "result");
  Tell("a 123");
  const std::string second = Value(Ask("snapshot"), "result");
  EXPECT_NE(first, second);
  EXPECT_FALSE(exists(Result()));
  Wait();
  ExpectValid(first, "snapshot");
  ExpectValid(second, "snapshot");
  ExpectValid(Result(), "end");
  const std::string live = "number(/*/totals/live/@bytes)";
  EXPECT_EQ(AskNumber(first, live) + 123, AskNumber(second, live));
}

TEST_F(ChannelTest, WhatIsAllocatedInAPauseIsLeftOut) {
  Start();
  const std::string before = Tell("a 100");
  const int64_t live = Status("live_bytes");
  Ask("pause");
  EXPECT_EQ("paused", Value(Ask("status"), "state"));
  const std::string meanwhile = Tell("a 1000");
  Tell("f " + before);
  EXPECT_EQ(live - 100, Status("live_bytes"));
  Ask("resume");
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
  EXPECT_EQ(0, ExitStatus(Ask("reset")));
  EXPECT_EQ(live, Status("live_bytes"));
  EXPECT_EQ(0, Status("allocated_blocks"));
  Tell("a 10");
  Tell("f " + block);
  Wait();
  ExpectValid(Result(), "end");
  EXPECT_EQ(live, AskNumber(Result(), "number(/*/totals/inherited/@bytes)"));
  EXPECT_EQ(1, AskNumber(Result(), "number(/*/totals/allocated/@blocks)"));
  EXPECT_EQ(100, AskNumber(Result(), "number(/*/totals/freed/@bytes)"));
  EXPECT_EQ(live, AskNumber(Result(), "sum(//site/inherited/@bytes)"));
}

TEST_F(ChannelTest, AKilledProgramLeavesItsLastHeartbeatAndNothingElse) {
  Start();
  Tell("a 4321");
  int32_t segment = -1;
  std::memcpy(&segment, Contents(ChannelDirectory() + "/ulvcmds.dat").data(), sizeof segment);
  std::this_thread::sleep_for(std::chrono::milliseconds(1600));
  kill(std::stoi(process_), SIGKILL);
  const int status = Wait();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  ExpectValid(Result(), "heartbeat");
  EXPECT_LE(4321, AskNumber(Result(), "number(/*/totals/live/@bytes)"));
  EXPECT_LE(2, AskNumber(Result(), "count(//point)"));
  EXPECT_EQ("", ChannelDirectory());
  shmid_ds ignored;
  EXPECT_EQ(-1, shmctl(segment, IPC_STAT, &ignored));
}

TEST_F(ChannelTest, ImmediateExitClosesTheChannel) {
  Start();
  Tell("e");
  const int status = Wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
  ExpectValid(Result(), "end");
  EXPECT_EQ("", ChannelDirectory());
}

// The C library does not free that lock of the loader in the child.
TEST_F(ChannelTest, ForkWaitsForASnapshotInTheLoader) {
  Start({"-children", "-heartbeat", "0"});
  Tell("l");
  std::thread asker([&] { EXPECT_EQ(0, ExitStatus(Ask("snapshot"))); });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ("gone", Tell("c")) << "the child can list what is loaded";
  asker.join();
  Tell("q");
  EXPECT_TRUE(WIFEXITED(Wait()));
}

TEST_F(ChannelTest, AbandonedDirectoriesAreSwept) {
  const std::string above = directory_.File("zelrt");
  for (const std::string name : {"/heapscope.oldold", "/heapscope.newnew"}) {
    std::filesystem::create_directories(above + name);
    std::filesystem::permissions(above, std::filesystem::perms::owner_all);
    FILE* const answer = std::fopen((above + name + "/answer.1").c_str(), "w");
    ASSERT_NE(nullptr, answer);
    std::fclose(answer);
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
  EXPECT_EQ(125, ExitStatus(Ask("status")));
  EXPECT_EQ("heapscope: no channel of process " + process_ + "\n", Ask("status").errors);
  EXPECT_EQ(125, ExitStatus(Ask("where")));
  EXPECT_EQ(125, ExitStatus(Ask("status", "more")));
}

}  // namespace
