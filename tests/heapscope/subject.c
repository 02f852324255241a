// A program whose allocations are known, with one part for each thing to be seen of a collector: a
// function that its argument names.
//
// Written so that only what it calls itself allocates: no streams. A part that finds something
// wrong ends the program with the number of the line.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#define CHECK(condition)                                      \
  do {                                                        \
    if (!(condition)) {                                       \
      dprintf(2, "subject.c:%d: %s\n", __LINE__, #condition); \
      _exit(1);                                               \
    }                                                         \
  } while (0)

static const char* g_self;

// dprintf would allocate.
static void __attribute__((format(printf, 1, 2))) Say(const char* format, ...) {
  char text[200];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  CHECK(write(1, text, (size_t)length) == length);
}

static volatile size_t g_huge = PTRDIFF_MAX;

static int IsAligned(const void* block, size_t alignment) {
  return block != NULL && (uintptr_t)block % alignment == 0;
}

static void FreeAligned(void* block, size_t alignment) {
  CHECK(IsAligned(block, alignment));
  free(block);
}

static void Await(pid_t child, int expected) {
  int status;
  CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status) &&
        WEXITSTATUS(status) == expected);
}

void Nothing(void) {}

// Eleven blocks of 7,776 bytes; four of them, of 266 bytes, stay. At most 5,260 bytes are live: the
// 5,000 and the three blocks that stay and were made before.
void EachFunction(void) {
  char* kept = malloc(100);
  CHECK(IsAligned(kept, 16));
  char* zeroed = calloc(3, 50);
  for (int i = 0; i < 150; ++i) CHECK(zeroed[i] == 0);
  free(zeroed);
  char* grown = realloc(NULL, 20);
  memset(grown, 'x', 20);
  grown = realloc(grown, 2000);
  for (int i = 0; i < 20; ++i) CHECK(grown[i] == 'x');
  void* aligned = NULL;
  CHECK(posix_memalign(&aligned, 64, 200) == 0);
  FreeAligned(aligned, 64);
  free(grown);
  CHECK(reallocarray(NULL, 4, 8) != NULL);
  CHECK(IsAligned(aligned_alloc(64, 128), 64));
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  FreeAligned(memalign(32, 40), 32);
  FreeAligned(valloc(5000), page);
  FreeAligned(pvalloc(100), page);
  CHECK(strdup("hello") != NULL);
}

// What the functions answer when they fail, and at their edges, goes to standard output.
#define SAY(result)                        \
  do {                                     \
    errno = 77;                            \
    const int said = (result);             \
    Say(#result ": %d %d\n", said, errno); \
  } while (0)

void Edges(void) {
  void *block, *untouched = &block;
  SAY((block = malloc(100)) != NULL);
  memset(block, 'k', 100);
  SAY(malloc(g_huge) != NULL);
  SAY(calloc(g_huge, 4) != NULL);
  SAY(realloc(block, g_huge) != NULL);
  SAY(reallocarray(block, g_huge, 4) != NULL);
  for (int i = 0; i < 100; ++i) CHECK(((char*)block)[i] == 'k');
  SAY(posix_memalign(&untouched, 3, 10));
  SAY(posix_memalign(&untouched, 64, g_huge));
  CHECK(untouched == &block);
  SAY(aligned_alloc(64, g_huge) != NULL);
  SAY((free(block), free(NULL), 0));
  SAY(realloc(malloc(30), 0) != NULL);
  SAY(malloc(0) != NULL);

  for (size_t size = 0; size < 3000; size += 7) {
    block = malloc(size);
    Say("%zu ", malloc_usable_size(block));
    block = realloc(block, 2 * size + 1);
    Say("%zu\n", malloc_usable_size(block));
    free(block);
  }
}

void ManyFailures(void) {
  for (int i = 0; i < 150; ++i) CHECK(malloc(g_huge) == NULL);
}

static void* FreeOne(void* block) {
  free(block);
  return NULL;
}
void ManyThreads(void) {
  for (int i = 0; i < 1100; ++i) {
    pthread_t thread;
    pthread_create(&thread, NULL, FreeOne, malloc(100));
    pthread_join(thread, NULL);
  }
}

// Two threads allocate and one forks as well, while the main thread forks 200 times. Each child
// makes ten blocks, frees five of them and one of its parent's, and exits with what it found.
static volatile int g_stop;
static void* g_inherited[200];

static void* AllocateUntilStopped(void* unused) {
  (void)unused;
  for (unsigned i = 0; !g_stop; ++i) free(realloc(malloc(i % 5000 + 1), i % 7000 + 1));
  return NULL;
}

static void ForkOnce(int number) {
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    void* blocks[10];
    for (int i = 0; i < 10; ++i) blocks[i] = malloc((size_t)(100 + i));
    for (int i = 0; i < 5; ++i) free(blocks[i]);
    if (number >= 0) free(g_inherited[number]);
    exit(42);
  }
  Await(child, 42);
}

static void* ForkUntilStopped(void* unused) {
  (void)unused;
  while (!g_stop) ForkOnce(-1);
  return NULL;
}

void Forks(void) {
  for (int i = 0; i < 200; ++i) g_inherited[i] = malloc(33);
  pthread_t threads[3];
  pthread_create(&threads[0], NULL, AllocateUntilStopped, NULL);
  pthread_create(&threads[1], NULL, AllocateUntilStopped, NULL);
  pthread_create(&threads[2], NULL, ForkUntilStopped, NULL);
  for (int i = 0; i < 200; ++i) ForkOnce(i);
  g_stop = 1;
  for (int i = 0; i < 3; ++i) pthread_join(threads[i], NULL);
}

// fork waits for the list of streams, which a flush of all streams holds; that allocates.
static ssize_t AllocateWhileFlushed(void* unused, const char* text, size_t size) {
  (void)unused;
  (void)text;
  usleep(500 * 1000);
  for (int i = 0; i < 100; ++i) free(malloc(1000));
  return (ssize_t)size;
}

static void* FlushAll(void* unused) {
  (void)unused;
  fflush(NULL);
  return NULL;
}

void ForkBesideFlush(void) {
  const cookie_io_functions_t functions = {.write = AllocateWhileFlushed};
  FILE* const stream = fopencookie(NULL, "w", functions);
  fputs("text", stream);
  pthread_t flusher;
  pthread_create(&flusher, NULL, FlushAll, NULL);
  usleep(100 * 1000);
  const pid_t child = fork();
  if (child == 0) _exit(0);
  pthread_join(flusher, NULL);
  Await(child, 0);
}

static void __attribute__((noinline)) VforkOnce(void) {
  const pid_t child = vfork();
  if (child == 0) _exit(0);
  Await(child, 0);
}

void Vfork(void) {
  for (int i = 0; i < 10; ++i) VforkOnce();
  CHECK(malloc(12345) != NULL);
}

void Exec(void) {
  CHECK(malloc(12345) != NULL);
  execl(g_self, g_self, "EachFunction", NULL);
  CHECK(0);
}

void ExecWithOtherErrors(void) {
  dup2(1, 2);
  execl(g_self, g_self, "Nothing", NULL);
}

void SpawnWithItsOwnErrors(void) {
  const pid_t child = fork();
  if (child == 0) ExecWithOtherErrors();
  Await(child, 0);
}

void LoadAndUnload(void) {
  for (int i = 0; i < 5; ++i) {
    void* const plugin = dlopen(PLUGIN, RTLD_NOW);
    CHECK(plugin != NULL);
    void (*allocate)(void) = (void (*)(void))dlsym(plugin, "AllocateInPlugin");
    allocate();
    CHECK(dlclose(plugin) == 0);
    // Takes the place where it was, most of the time.
    CHECK(mmap(NULL, 1 << 16, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED);
  }
}

// Ends -------------------------------------------------------------------------------------------

static void* ExitWith7(void* unused) {
  (void)unused;
  exit(7);
}
void ExitInThread(void) {
  pthread_t threads[2];
  pthread_create(&threads[0], NULL, AllocateUntilStopped, NULL);
  pthread_create(&threads[1], NULL, ExitWith7, NULL);
  pause();
}
void QuickExit(void) { quick_exit(8); }
void ExitAtOnce(void) { _exit(9); }
void ExitAtOnceToo(void) { _Exit(10); }
void Abort(void) { abort(); }
void KillItself(void) { kill(getpid(), SIGKILL); }

static void ExitWith11(int signal) {
  (void)signal;
  _exit(11);
}
void ExitInHandler(void) {
  signal(SIGALRM, ExitWith11);
  const struct itimerval soon = {.it_value = {.tv_usec = 2000}};
  setitimer(ITIMER_REAL, &soon, NULL);
  AllocateUntilStopped(NULL);
}

static void* g_last;
static void AllocateLate(void) { g_last = malloc(501); }
static void __attribute__((destructor)) FreeLater(void) {
  if (g_last == NULL) return;
  free(g_last);
  g_last = malloc(502);
}
void AllocateInDestructor(void);  // of late_library.c
void LateAllocations(void) {
  atexit(AllocateLate);
  AllocateInDestructor();
}

// Descriptors ------------------------------------------------------------------------------------

// Exits with the number of the first descriptor above the standard ones.
void NewDescriptors(void) {
  for (int i = 0; i < 3; ++i) CHECK(open("/dev/null", O_RDWR) == i);
  exit(open("/dev/null", O_RDWR));
}

// Puts a file of its own in the place of every descriptor that the collector may have.
void TakeAllDescriptors(void) {
  const int file = open(getenv("OWN_FILE"), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  CHECK(file >= 0);
  for (int i = 3; i < 1024; ++i) {
    if (i != file) dup2(file, i);
  }
  const pid_t child = fork();
  if (child == 0) exit(0);
  Await(child, 0);
}

// Memory -----------------------------------------------------------------------------------------

// Has a heap of 8 MB and nothing else, and takes all of it in small blocks.
void RunOutOfMemory(void) {
  mallopt(M_TOP_PAD, 8 << 20);
  CHECK(malloc(100000) != NULL);
  const int statm = open("/proc/self/statm", O_RDONLY);
  char text[100] = "";
  CHECK(read(statm, text, sizeof text - 1) > 0);
  close(statm);
  const rlim_t size = strtoul(text, NULL, 10) * (rlim_t)sysconf(_SC_PAGESIZE);
  const struct rlimit limit = {size, RLIM_INFINITY};
  CHECK(setrlimit(RLIMIT_AS, &limit) == 0);
  long count = 1;
  errno = 77;
  while (malloc(24) != NULL) {
    CHECK(errno == 77);
    ++count;
  }
  CHECK(errno == ENOMEM);
  Say("%ld\n", count);
}

void UseBlockFromBeforeTheStart(void) {
  void* (*getter)(void) = (void* (*)(void))dlsym(RTLD_DEFAULT, "BlockFromBeforeTheStart");
  CHECK(getter != NULL);
  char* block = getter();
  CHECK(IsAligned(block, 16) && malloc_usable_size(block) >= 100);
  char* moved = realloc(block, 300);
  CHECK(moved != NULL && moved != block);
  for (int i = 0; i < 100; ++i) CHECK(moved[i] == 'e');
  free(block);
  free(moved);
}

int main(int argc, char** argv) {
  g_self = argv[0];
  void (*part)(void) = (void (*)(void))dlsym(RTLD_DEFAULT, argc == 2 ? argv[1] : "");
  if (part == NULL) return 2;
  part();
  return 0;
}
