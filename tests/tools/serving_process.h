// A process with a command channel, for a controller to steer.
#pragma once

#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host/host.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/command_controller.hpp"

namespace zeltest {

// What the process does with a command, besides writing it down.
enum Code : int32_t {
  kNote = 1,
  kSleep = 2,        // for so many milliseconds
  kAnswer = 3,       // with the payload; argument 2: ok or not
  kAnswerBadly = 4,  // with neither "ok" nor "error"
};

struct NotedCommand {
  int32_t arguments[5];
  int32_t firstByte;  // of the payload, -1 where they are not all the same
};

// Whether the condition comes true, given the time that a busy machine needs.
template <typename Condition>
bool Eventually(Condition condition) {
  for (int i = 0; i < 20'000 && !condition(); ++i) usleep(1000);
  return condition();
}

inline void KillAndBury(pid_t child) {
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

// Puts the user's channels into a new directory, where the test works.
struct OwnChannels {
  OwnChannels() { setenv("XDG_RUNTIME_DIR", std::filesystem::current_path().c_str(), 1); }
  TemporaryDirectory directory = {};
};

// The process takes its channel down when the test's process ends. The destructor kills it and
// removes what it left.
class ServingProcess {
 public:
  ServingProcess() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    pid_ = fork();
    close(ends[pid_ == 0 ? 0 : 1]);
    if (pid_ == 0) Run(ends[1]);
    socket_ = ends[0];
    char path[4096] = {};
    if (recv(socket_, path, sizeof path - 1, 0) <= 0) std::abort();
    directory_ = path;
    zelrt::CommandController controller;
    if (controller.Open(directory_) != zelrt::ControlResult::kDone) std::abort();
    segmentId_ = controller.segmentId();
    semaphores_ = controller.semaphoreSet();
  }
  ~ServingProcess() {
    Kill();
    Bury();
    close(socket_);
    shmctl(segmentId_, IPC_RMID, nullptr);
    semctl(semaphores_, 0, IPC_RMID);
  }
  ServingProcess(const ServingProcess&) = delete;
  ServingProcess& operator=(const ServingProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& directory() const { return directory_; }
  int segmentId() const { return segmentId_; }
  int semaphoreSet() const { return semaphores_; }
  bool HasObjects() const {
    shmid_ds segment;
    return shmctl(segmentId_, IPC_STAT, &segment) == 0 ||
           semctl(semaphores_, ZEL_COMMAND_LOCK, GETVAL) != -1;
  }

  void TakeDown(_ZELCMDHDLRCLEANEXTENT extent) const {
    send(socket_, &extent, sizeof extent, 0);
    recv(socket_, &extent, sizeof extent, 0);
  }
  // Its id stays taken until it is buried.
  void Kill() const {
    siginfo_t end;
    if (isBuried_) return;
    kill(pid_, SIGKILL);
    waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOWAIT);
  }
  void Bury() { isBuried_ = isBuried_ || waitpid(pid_, nullptr, 0) == pid_; }

  // The commands so far; all that were sent before, once a ping has come back.
  std::vector<NotedCommand> Noted() const {
    const std::string bytes = ReadFile(directory_ + "/notes");
    std::vector<NotedCommand> noted(bytes.size() / sizeof(NotedCommand));
    bytes.copy(reinterpret_cast<char*>(noted.data()), noted.size() * sizeof(NotedCommand));
    return noted;
  }

 private:
  static void Serve(int code, int argument2, int argument3, int argument4, int argument5,
                    unsigned char* payload, void* userData) {
    const auto& directory = *static_cast<const std::string*>(userData);
    const bool isUniform = std::count(payload, payload + ZEL_COMMAND_PAYLOAD_SIZE, payload[0]) ==
                           ZEL_COMMAND_PAYLOAD_SIZE;
    const NotedCommand noted = {{code, argument2, argument3, argument4, argument5},
                                isUniform ? payload[0] : -1};
    std::ofstream(directory + "/notes", std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(&noted), sizeof noted);
    if (code == kSleep) std::this_thread::sleep_for(std::chrono::milliseconds(argument2));
    if (code == kAnswer)
      zelrt::PutAnswer(directory, argument5, argument2 != 0,
                       reinterpret_cast<const char*>(payload));
    if (code == kAnswerBadly) WriteFile(zelrt::AnswerPath(directory, argument5), "perhaps\n");
  }

  [[noreturn]] static void Run(int socket) {
    std::string directory;
    setsid();  // so that a signal to the group of the test leaves time to take the channel down
    zelhost::Install();
    if (!zelrt::MakeChannelDirectory("test", directory)) _exit(1);
    if (__ZelRegisterCommandHandler(directory.c_str(), Serve, &directory) == 0) _exit(1);
    send(socket, directory.c_str(), directory.size(), 0);
    _ZELCMDHDLRCLEANEXTENT extent;
    while (recv(socket, &extent, sizeof extent, 0) == sizeof extent) {
      __ZelUnregisterCommandHandler(extent);
      send(socket, &extent, sizeof extent, 0);
    }
    __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
    _exit(0);
  }

  pid_t pid_ = -1;
  bool isBuried_ = false;
  int socket_ = -1;  // tells its main thread what to take down
  std::string directory_;
  int segmentId_ = -1;
  int semaphores_ = -1;
};

}  // namespace zeltest
