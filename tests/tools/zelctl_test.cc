// The program, as its users run it.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/tools/serving_process.h"

namespace {

using nlohmann::json;
using zeltest::ReadFile;

struct Result {
  int status;
  std::string output;
  std::string errors;
};

Result Zelctl(const std::string& arguments) {
  const int status = std::system((ZELCTL " " + arguments + " >stdout 2>stderr").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("stdout"), ReadFile("stderr")};
}
json ZelctlJson(const std::string& arguments) {
  const Result result = Zelctl("--json " + arguments);
  const json parsed = json::parse(result.output, nullptr, false);
  EXPECT_TRUE(parsed.is_object()) << arguments << ": " << result.output << result.errors;
  return parsed;
}

class ZelctlTest : public testing::Test {
 protected:
  void ExpectStatus(int status, const std::string& arguments) {
    const Result result = Zelctl(arguments);
    EXPECT_EQ(status, result.status) << arguments << ": " << result.output << result.errors;
  }
  std::string Pid() const { return std::to_string(process_.pid()); }

  zeltest::OwnChannels channels_;
  zeltest::ServingProcess process_;
};

TEST_F(ZelctlTest, ExitStatusTellsWhatWentWrong) {
  const std::string target = " -p " + Pid();
  for (const char* const wrong : {"", "nonsense", "status", "send 1", "status -p 0", "list -x",
                                  "status -p 1 -d .", "ping . -c 0", "list --timeout -1"})
    ExpectStatus(2, wrong);
  for (const char* const wrong : {"", "x", "1x", "0x", "0x-1", "1 2 3 4 5 6", "0x100000000",
                                  "2147483648", "1 2 3 4 5 --answer"})
    ExpectStatus(2, "send" + target + " " + wrong);
  for (const char* const absent : {"status absent", "send -d absent 1", "ping absent",
                                   "reap absent", "status -p 999999999", "list absent"})
    ExpectStatus(1, absent);
  for (const char* const good : {"--help", "--version", "send --help", "list", "reap"})
    ExpectStatus(0, good);
  ExpectStatus(0, "send" + target + " 2 1500");
  ExpectStatus(4, "ping --timeout 0.1" + target);
  EXPECT_EQ(4, ZelctlJson("ping --timeout 0.1" + target)["status"]);
  ExpectStatus(4, "send 1 --answer --timeout 0.1" + target);
}

TEST_F(ZelctlTest, ChannelsAreShown) {
  const std::string& directory = process_.directory();
  for (const std::string& where : {std::string(), directory, zelrt::ChannelsDirectory()}) {
    const json channels = ZelctlJson("list " + where)["channels"];
    ASSERT_EQ(1U, channels.size()) << where;
    EXPECT_EQ(directory, channels[0]["directory"]);
    EXPECT_EQ(process_.pid(), channels[0]["pid"]);
    EXPECT_EQ("alive", channels[0]["state"]);
    EXPECT_EQ(0, channels[0]["pending"]);
  }
  for (const std::string& command : {std::string("list"), "status -p " + Pid()}) {
    const std::string text = Zelctl(command).output;
    for (const std::string& word : {directory, Pid(), std::string("alive")})
      EXPECT_NE(std::string::npos, text.find(word)) << text;
  }
  EXPECT_EQ(3U, ZelctlJson("ping -c 3 " + directory)["microseconds"].size());
  ASSERT_EQ(0, chmod(zelrt::ChannelsDirectory().c_str(), 0755));
  ExpectStatus(1, "list");
}

TEST_F(ZelctlTest, CommandsArriveAsGiven) {
  const std::string send = "send -d " + process_.directory() + " ";
  ExpectStatus(0, send + "1 0x7fffffff -5 0xFFFFFFFF 4");
  zeltest::WriteFile("full", std::string(ZEL_COMMAND_PAYLOAD_SIZE, 'x'));
  zeltest::WriteFile("long", std::string(ZEL_COMMAND_PAYLOAD_SIZE + 1, 'x'));
  ExpectStatus(0, send + "1 --payload @full");
  ExpectStatus(0, send + "1 --payload - <full");
  ExpectStatus(2, send + "1 --payload @long");
  ExpectStatus(2, send + "1 --payload - <long");
  ExpectStatus(1, send + "1 --payload @absent");
  EXPECT_EQ(1, ZelctlJson(send + "1 --payload short")["sent"]);
  ASSERT_EQ(0, mkfifo("fifo", 0600));
  ExpectStatus(4, send + "1 --timeout 0.1 --payload - <>fifo");

  ExpectStatus(0, "ping " + process_.directory());
  const std::vector<zeltest::NotedCommand> noted = process_.Noted();
  ASSERT_EQ(4U, noted.size());
  const int32_t expected[] = {1, INT32_MAX, -5, -1, 4};
  EXPECT_TRUE(std::equal(expected, expected + 5, noted[0].arguments));
  EXPECT_EQ(0, noted[0].firstByte);
  EXPECT_EQ('x', noted[1].firstByte);
  EXPECT_EQ('x', noted[2].firstByte);
  EXPECT_EQ(-1, noted[3].firstByte) << "padded with zeros";
}

TEST_F(ZelctlTest, AnswersArePrinted) {
  const std::string ask = "send -p " + Pid() + " --answer --payload words ";
  EXPECT_EQ("words\n", Zelctl(ask + "3 1").output);
  const Result error = Zelctl(ask + "3 0");
  EXPECT_EQ(1, error.status);
  EXPECT_EQ("words\n", error.errors);
  EXPECT_EQ(json({{"ok", false}, {"text", "words"}}), ZelctlJson(ask + "3 0")["answer"]);
}

TEST_F(ZelctlTest, ReapRemovesWhatTheDeadLeftAndNothingElse) {
  const std::string pid = Pid();
  zeltest::ServingProcess living;
  ExpectStatus(1, "reap -p " + pid);
  ASSERT_TRUE(zelrt::PutAnswer(process_.directory(), 7, true, "not fetched"));
  process_.Kill();
  EXPECT_EQ("stale", ZelctlJson("status -p " + pid)["state"]);
  const Result stale = Zelctl("send -p " + pid + " 1");
  EXPECT_EQ(3, stale.status);
  EXPECT_NE(std::string::npos, stale.errors.find("stale: process " + pid + " is gone"));

  // Somebody else's channel may have the same key.
  sembuf use = {ZEL_COMMAND_DOORBELL, -1, 0};
  const pid_t user = fork();
  if (user == 0) _exit(semop(process_.semaphoreSet(), &use, 1));
  EXPECT_TRUE(zeltest::Eventually(
      [&] { return semctl(process_.semaphoreSet(), ZEL_COMMAND_DOORBELL, GETNCNT) > 0; }));
  ExpectStatus(1, "reap -p " + pid);
  EXPECT_TRUE(process_.HasObjects());
  zeltest::KillAndBury(user);

  const json reaped = ZelctlJson("reap")["channels"];
  EXPECT_EQ(2U, reaped.size());
  EXPECT_FALSE(process_.HasObjects());
  EXPECT_FALSE(std::filesystem::exists(process_.directory()));
  ExpectStatus(0, "ping " + living.directory());
}

TEST_F(ZelctlTest, ReapIsNotLedToObjectsOfOthers) {
  const std::string file = process_.directory() + "/" ZEL_COMMAND_LOCK_FILE;
  process_.Kill();
  if (chown(file.c_str(), 65534, 65534) != 0) GTEST_SKIP() << "only root can try";
  ExpectStatus(1, "reap " + process_.directory());
  semctl(process_.semaphoreSet(), 0, IPC_RMID);
  ExpectStatus(0, "reap " + process_.directory());
  EXPECT_TRUE(process_.HasObjects());
}

TEST_F(ZelctlTest, ReapTakesUpWhatAnotherLeftHalfDone) {
  shmctl(process_.segmentId(), IPC_RMID, nullptr);
  ExpectStatus(1, "reap " + process_.directory());  // it is alive, and waits
  process_.Kill();
  process_.Bury();
  zeltest::WriteFile(process_.directory() + "/log", "");
  ExpectStatus(0, "reap " + process_.directory());
  EXPECT_FALSE(process_.HasObjects());
  EXPECT_EQ("(cannot be read)", ReadFile(process_.directory() + "/" ZEL_COMMAND_LOCK_FILE));
  EXPECT_TRUE(std::filesystem::exists(process_.directory())) << "it is not empty";

  zeltest::WriteFile(ZEL_COMMAND_LOCK_FILE, "");
  ExpectStatus(1, "reap .");  // a process may be about to set it up
  std::filesystem::last_write_time(
      ZEL_COMMAND_LOCK_FILE, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  ExpectStatus(0, "reap .");
  EXPECT_FALSE(std::filesystem::exists(ZEL_COMMAND_LOCK_FILE));
}

}  // namespace
