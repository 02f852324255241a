// The command channel: a command to the callback, and its answer back, on one processor.
//
// Whoever has nothing to do sleeps in the kernel, so that what counts is system calls and switches
// between threads. The answer is a semaphore of its own for all but the peers.

#include <fcntl.h>
#include <mqueue.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "bench/suite.h"
#include "zelrt/command.h"

namespace bench {
namespace {

constexpr int32_t kStop = -1;

// Keeps this thread, and those that it makes, on one processor.
class OneProcessor {
 public:
  OneProcessor() {
    sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  ~OneProcessor() { sched_setaffinity(0, sizeof before_, &before_); }
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;

 private:
  cpu_set_t before_;
};

class Semaphores {
 public:
  explicit Semaphores(int id) : id_(id) {}
  void Add(uint16_t number, int16_t value, int16_t flags = 0) const {
    sembuf operation = {number, value, flags};
    if (semop(id_, &operation, 1) != 0) std::abort();
  }

 protected:
  const int id_;
};

class OwnSemaphores : public Semaphores {
 public:
  OwnSemaphores() : Semaphores(semget(IPC_PRIVATE, 2, 0600)) {}
  ~OwnSemaphores() { semctl(id_, 0, IPC_RMID); }
  OwnSemaphores(const OwnSemaphores&) = delete;
  OwnSemaphores& operator=(const OwnSemaphores&) = delete;
};

// The controller's part of the protocol.
void SendCommand(const Semaphores& channel, ZelCommandSegment& segment, int32_t code) {
  channel.Add(ZEL_COMMAND_LOCK, -1, SEM_UNDO);
  segment.records[segment.pending++].arguments[0] = code;
  channel.Add(ZEL_COMMAND_LOCK, 1, SEM_UNDO);
  channel.Add(ZEL_COMMAND_DOORBELL, 1);
}

void Ours(benchmark::State& state) {
  const OneProcessor pinned;
  std::string directory = std::filesystem::temp_directory_path() / "zelrt-bench-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) std::abort();
  OwnSemaphores answer;
  const ZelCommandCallback callback = [](int, int, int, int, int, unsigned char*, void* answers) {
    static_cast<Semaphores*>(answers)->Add(0, 1);
  };
  if (__ZelRegisterCommandHandler(directory.c_str(), callback, &answer) == 0) std::abort();

  const std::string lockFile = directory + "/" ZEL_COMMAND_LOCK_FILE;
  int32_t id = -1;
  const int file = open(lockFile.c_str(), O_RDONLY);
  if (read(file, &id, sizeof id) != sizeof id) std::abort();
  close(file);
  auto& segment = *static_cast<ZelCommandSegment*>(shmat(id, nullptr, 0));
  const Semaphores channel(semget(ftok(lockFile.c_str(), ZEL_COMMAND_KEY_PROJECT), 2, 0));
  for (auto _ : state) {
    SendCommand(channel, segment, 1);
    answer.Add(0, -1);
  }
  shmdt(&segment);
  __ZelShutdownCommandHandler();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_ALL);
  std::filesystem::remove(directory);
}

// The same system calls with nothing around them but the copy of the record.
void BareSystemCalls(benchmark::State& state) {
  const OneProcessor pinned;
  const OwnSemaphores answer;
  const OwnSemaphores channel;
  channel.Add(ZEL_COMMAND_LOCK, 1);
  const auto segment = std::make_unique<ZelCommandSegment>();
  std::thread handler([&] {
    for (;;) {
      channel.Add(ZEL_COMMAND_DOORBELL, -1);
      channel.Add(ZEL_COMMAND_LOCK, -1, IPC_NOWAIT | SEM_UNDO);
      const ZelCommandRecord record = segment->records[0];
      segment->pending = 0;
      channel.Add(ZEL_COMMAND_LOCK, 1, IPC_NOWAIT | SEM_UNDO);
      if (record.arguments[0] == kStop) return;
      answer.Add(0, 1);
    }
  });
  for (auto _ : state) {
    SendCommand(channel, *segment, 1);
    answer.Add(0, -1);
  }
  SendCommand(channel, *segment, kStop);
  handler.join();
}

using Pass = std::function<void(ZelCommandRecord&)>;

// A thread that gives back what it gets until that is kStop.
void EchoThrough(benchmark::State& state, const Pass& send, const Pass& receive, const Pass& answer,
                 const Pass& receiveAnswer) {
  const OneProcessor pinned;
  std::thread handler([&] {
    ZelCommandRecord record;
    do {
      receive(record);
      answer(record);
    } while (record.arguments[0] != kStop);
  });
  ZelCommandRecord record = {};
  const auto roundTrip = [&](int32_t code) {
    record.arguments[0] = code;
    send(record);
    receiveAnswer(record);
  };
  for (auto _ : state) roundTrip(1);
  roundTrip(kStop);
  handler.join();
}

void Check(bool holds) {
  if (!holds) std::abort();
}

void Pipes(benchmark::State& state) {
  int there[2], back[2];
  Check(pipe(there) == 0 && pipe(back) == 0);
  const auto into = [](int end) {
    return [end](ZelCommandRecord& record) {
      Check(write(end, &record, sizeof record) == sizeof record);
    };
  };
  const auto from = [](int end) {
    return [end](ZelCommandRecord& record) {
      Check(read(end, &record, sizeof record) == sizeof record);
    };
  };
  EchoThrough(state, into(there[1]), from(there[0]), into(back[1]), from(back[0]));
  for (const int end : {there[0], there[1], back[0], back[1]}) close(end);
}

// The record passes through memory that both share.
void EventDescriptors(benchmark::State& state) {
  const int there = eventfd(0, 0);
  const int back = eventfd(0, 0);
  ZelCommandRecord shared;
  const auto put = [&shared](int event) {
    return [&shared, event](ZelCommandRecord& record) {
      shared = record;
      Check(eventfd_write(event, 1) == 0);
    };
  };
  const auto get = [&shared](int event) {
    return [&shared, event](ZelCommandRecord& record) {
      eventfd_t count;
      Check(eventfd_read(event, &count) == 0);
      record = shared;
    };
  };
  EchoThrough(state, put(there), get(there), put(back), get(back));
  close(there);
  close(back);
}

void MessageQueues(benchmark::State& state) {
  const auto make = [](const char* name) {
    mq_attr attributes = {};
    attributes.mq_maxmsg = 5;
    attributes.mq_msgsize = sizeof(ZelCommandRecord);
    const mqd_t queue = mq_open(name, O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
    mq_unlink(name);
    return queue;
  };
  const mqd_t there = make("/zelrt-bench-there");
  const mqd_t back = make("/zelrt-bench-back");
  if (there < 0 || back < 0) return state.SkipWithError("no message queues here");
  const auto put = [](mqd_t queue) {
    return [queue](ZelCommandRecord& record) {
      Check(mq_send(queue, reinterpret_cast<char*>(&record), sizeof record, 0) == 0);
    };
  };
  const auto get = [](mqd_t queue) {
    return [queue](ZelCommandRecord& record) {
      Check(mq_receive(queue, reinterpret_cast<char*>(&record), sizeof record, nullptr) > 0);
    };
  };
  EchoThrough(state, put(there), get(there), put(back), get(back));
  mq_close(there);
  mq_close(back);
}

}  // namespace

Family Commands() {
  return {"command channel",
          "ns",
          {{.name = "a command and its answer, 1 processor",
            .measure = Measure::kWallTime,
            .contenders = {{kOurs, Role::kOurs, Ours},
                           {kFloor, Role::kBound, BareSystemCalls},
                           {"eventfd", Role::kPeer, EventDescriptors},
                           {"pipes", Role::kPeer, Pipes},
                           {"POSIX queue", Role::kPeer, MessageQueues}},
            .goals = {AtMost(1.1, kFloor)}}}};
}

}  // namespace bench
