#include "tests/command/controller.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>

namespace zeltest {
namespace {

std::string LockFileIn(const std::string& directory) { return directory + "/ulvcmds.dat"; }

int32_t SegmentIdIn(const std::string& directory) {
  int32_t id = -1;
  const int file = open(LockFileIn(directory).c_str(), O_RDONLY);
  if (file < 0) return -1;
  if (read(file, &id, sizeof id) != sizeof id) id = -1;
  close(file);
  return id;
}

int SemaphoresIn(const std::string& directory) {
  const key_t key = ftok(LockFileIn(directory).c_str(), 0);
  return key == -1 ? -1 : semget(key, 2, 0);
}

}  // namespace

Controller::Controller(const std::string& directory) : semaphores_(SemaphoresIn(directory)) {
  void* const attached = shmat(SegmentIdIn(directory), nullptr, 0);
  if (attached != reinterpret_cast<void*>(-1)) segment_ = static_cast<ZelCommandSegment*>(attached);
}

Controller::~Controller() {
  if (segment_ != nullptr) shmdt(segment_);
}

void Controller::Append(int32_t code, int32_t argument, const std::string& payload) {
  ZelCommandRecord& record = segment_->records[segment_->pending];
  record = {{code, argument, 3, 4, 5}, {}};
  std::memcpy(record.payload, payload.data(), payload.size());
  ++segment_->pending;
}

void Controller::Send(int32_t code, int32_t argument, const std::string& payload) {
  Lock();
  Append(code, argument, payload);
  Unlock();
  Ring();
}

void Controller::RemoveAll(const std::string& directory) {
  if (const int id = SegmentIdIn(directory); id != -1) shmctl(id, IPC_RMID, nullptr);
  if (const int id = SemaphoresIn(directory); id != -1) semctl(id, 0, IPC_RMID);
}

void Controller::Add(uint16_t semaphore, int16_t value) {
  sembuf operation = {semaphore, value, 0};
  semop(semaphores_, &operation, 1);
}

bool SegmentExists(int id) {
  shmid_ds status;
  return shmctl(id, IPC_STAT, &status) == 0;
}
bool SemaphoresExist(int id) { return semctl(id, 0, GETVAL) != -1; }

}  // namespace zeltest
