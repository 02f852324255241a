// Syncs files on paths that are known: see collector_test.sh.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#define KEPT __attribute__((noinline, noclone, externally_visible))

static int file;

static void Check(int holds, const char* what) {
  if (holds) return;
  printf("not so: %s\n", what);
  exit(1);
}

KEPT int Save(void) { return fsync(file) + 0 * getpid(); }
KEPT int Flush(void) { return fdatasync(file) + 0 * getpid(); }
KEPT int Fail(void) { return fsync(-1) + 0 * getpid(); }

static void* FlushOften(void* unused) {
  for (int i = 0; i < 50; ++i) Check(Flush() == 0, "flush");
  return unused;
}

int main(void) {
  file = open("synced", O_RDWR | O_CREAT, 0666);
  for (int i = 0; i < 3; ++i) Check(Save() == 0, "save");
  errno = 0;
  Check(Fail() == -1 && errno == EBADF, "a failure's errno");

  pthread_t threads[2];
  for (int i = 0; i < 2; ++i) pthread_create(&threads[i], NULL, FlushOften, NULL);
  // Children are made while the threads hold the collector's lock.
  for (int i = 0; i < 5; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      Check(Save() == 0, "save in a child");
      return 0;
    }
    int status;
    Check(waitpid(child, &status, 0) == child && status == 0, "the child's end");
  }
  for (int i = 0; i < 2; ++i) pthread_join(threads[i], NULL);
  printf("%d\n", getpid());
  return 0;
}
