/* Calls something of every family from C. What the calls do is tested elsewhere: the results here
 * show that arguments, records, variables and callbacks pass between the languages as the headers
 * say. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zelrt.h>

static int g_failures = 0;

static void Check(int holds, const char* condition, int line) {
  if (holds) return;
  printf("line %d: not true: %s\n", line, condition);
  ++g_failures;
}
#define CHECK(condition) Check((condition) ? 1 : 0, #condition, __LINE__)

static uint64_t FixedThreadId(void) { return 0x1234500000042u; }

static void CallRuntime(void) {
  CHECK(__ZelGetNativeThreadId() == 0);
  __ZelSetGetNativeThreadIdProc(FixedThreadId);
  CHECK(__zelGetNativeThreadIdProc == FixedThreadId);
  CHECK(__ZelGetNativeThreadId() == FixedThreadId());

  CHECK(__ZelRtStartup() == ZELRT_VERSION_CODE);
  CHECK(__zelRtStarted == 1 && __ZelGetStarted() == 1);

  CHECK(__ZelSetEnvironmentVariableEx("ZELRT_C_CALLS", "first", 0) == 1);
  CHECK(__ZelSetEnvironmentVariableEx("ZELRT_C_CALLS", "second", 0) == 1);
  CHECK(strcmp(__ZelGetEnvironmentVariable("ZELRT_C_CALLS"), "first") == 0);
}

static void CallAtomics(void) {
  volatile uint32_t word = 5;
  CHECK(__ZelInterlockedCompareExchange(&word, 7, 5) == 5 && word == 7);
  CHECK(__ZelInterlockedExchangeAdd(&word, 3) == 7 && word == 10);
  volatile uint64_t wide = UINT64_C(1) << 40;
  CHECK(__ZelInterlockedCompareExchange64(&wide, UINT64_C(3) << 50, UINT64_C(1) << 40) ==
        UINT64_C(1) << 40);
  CHECK(wide == UINT64_C(3) << 50);
  CHECK(__ZelGetMostSignificantOneIndexLong(wide) == 51);
}

static void CallLocks(void) {
  ZelSpinLock spinLock;
  memset(&spinLock, 0xFF, sizeof spinLock);
  __ZelInitializeSpinLockAndSpinCount(&spinLock, 100);
  __ZelAcquireSpinLockTid(&spinLock, 17);
  CHECK(spinLock.owner == 17 && spinLock.state == 1);
  CHECK(spinLock.recursionCount == 1 && spinLock.spinCount == 100);
  CHECK(__ZelTryToAcquireSpinLockTid(&spinLock, 1, 18) == 0);
  __ZelReleaseSpinLock(&spinLock);
  CHECK(spinLock.state == 0);

  ZelSharedExclusiveLock lock = {0};
  __ZelAcquireSharedLock(&lock);
  CHECK(lock.state == 1 && lock.sharedCount == 1);
  __ZelReleaseSharedLock(&lock);
  __ZelAcquireExclusiveLockTid(&lock, 19);
  CHECK(lock.state == 2 && lock.exclusiveOwner == 19 && lock.exclusiveRecursionCount == 1);
  __ZelReleaseExclusiveLock(&lock);
  CHECK(lock.state == 0);
}

static void CallMemory(void) {
  __ZelEnableMemoryStatisticsCollection();
  const uint32_t category = __ZelRegisterMemoryCategory("C_CALLS");
  CHECK(category == 1 && __ZelGetNumMemoryCategories() == 2);
  char* const block = __ZelMalloc(category, 100, 0);
  memset(block, 'x', 100);
  ZelMemoryCategoryInfo info;
  CHECK(__ZelGetMemoryInfoByCategory(category, &info) == 1);
  CHECK(strcmp(info.name, "C_CALLS") == 0);
  CHECK(info.allocated == 65536 && info.allocatedAtPeak == 65536);
  CHECK(__zelTotalMemoryAllocated == 65536);
  __ZelFree(block);
}

static void CallPlatform(void) {
  CHECK(__ZelGetNativePageSize() == (uint32_t)sysconf(_SC_PAGESIZE));
  unsigned int registers[4] = {0};
  __ZelCpuidEx(0, 0, registers);
  CHECK(registers[0] > 0 && registers[1] != 0);
}

static void EndWithCode(int32_t code) { _exit(code); }

static void CallLog(void) {
  CHECK(__ZelLogCommentInternal("%s %d", "a comment", 1) == 0);
  CHECK(__ZelLogToConsole("%s on the console", "a line") == 0);
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    __ZelSetExitHandler(EndWithCode);
    __ZelExitHandler(42);
  }
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child);
  CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 42);
}

static void CallFilesAndXml(void) {
  char folder[] = "/tmp/zelrt-c-calls-XXXXXX";
  CHECK(mkdtemp(folder) != NULL);
  char path[64];
  CHECK(__ZelSnprintf(path, sizeof path, "%s//file.xml", folder) == (int)strlen(folder) + 10);
  __ZelSanitizePath(path);

  ZelXmlFile* file = __ZelXMLCreateFile(path, 0);
  __ZelXMLAcquireFile(file);
  __ZelXMLWriteHexadecimalElement(file, "address", UINT64_C(0xfedcba9876543210));
  __ZelXMLWriteComment(file, "%s", "text");
  __ZelXMLReleaseFile(file);
  __ZelXMLCloseFile(&file);
  CHECK(file == NULL);

  int error = -1;
  FILE* const stream = __ZelFopen(path, "r", &error);
  char content[256] = "";
  CHECK(stream != NULL && __ZelFread(content, 1, sizeof content - 1, stream) > 0);
  CHECK(strstr(content, "\n<address>0xfedcba9876543210</address>\n<!-- text -->") != NULL);
  CHECK(__ZelFclose(stream) == 0);

  const int32_t lock = __ZelCreateLockFile(path, 1);
  CHECK(__ZelLockFile(lock) == 0 && __ZelWriteLockFile(lock, "12345678") == 8);
  CHECK(__ZelReadLockFile(lock, content) == 8 && memcmp(content, "12345678", 8) == 0);
  CHECK(__ZelCloseLockFile(lock) == 0);
  unlink(path);
  rmdir(folder);
}

static void KeepRecord(const ZelZCARecord* record, void* context) {
  *(ZelZCARecord*)context = *record;
}

static void CallAnnotations(void) {
  static const unsigned char table[] =
      ".wex_notify_tab\0\2\1\0\0\1\0\0\0\100\0\0\0\2\0\0\0\102\0\0\0\3\0\0\0"
      "\0\0\0\0\0\0\0\0\20\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0n\0\2\167\170";
  ZelZCARecord record;
  memset(&record, 0, sizeof record);
  __ZelZCAParseAndProcessRecords(0, table, sizeof table - 1, KeepRecord, &record);
  CHECK(record.address == 16 && record.argumentCount == 1 && strcmp(record.name, "n") == 0);
  CHECK(record.arguments[0].value == 7 && record.arguments[0].offset == -8);
  CHECK((ZEL_ZCA_FLAG_PCREL | ZEL_ZCA_FLAG_PROBE | ZEL_ZCA_FLAG_32BIT) == 7);

  char line[] = "a \"/m\" 1a0 0x10 100";
  ZelZCADefinition definition;
  memset(&definition, 0, sizeof definition);
  CHECK(__ZelZCAParseDefinition(line, &definition) == 1 && definition.address == 0x1a0);
  __ZelFree(definition.name);
  __ZelFree(definition.module);
  __ZelFree(definition.arguments);

  char path[] = "/tmp/zelrt-c-calls-XXXXXX";
  const int file = mkstemp(path);
  CHECK(write(file, "a \"/m\" 1a0 0x10 100", 20) == 20 && close(file) == 0);
  CHECK(__ZelZCALoadExternalDefinitions(path) == 1);
  __ZelZCAProcessExternalRecords("/m", UINT64_C(1) << 40, KeepRecord, &record);
  CHECK(record.address == (UINT64_C(1) << 40) + 0xa0 && record.arguments[1].value == 0x100);
  __ZelZCACleanupDefinitions();
  unlink(path);
}

int main(void) {
  CallRuntime();
  CallAtomics();
  CallLocks();
  CallMemory();
  CallPlatform();
  CallLog();
  CallFilesAndXml();
  CallAnnotations();
  return g_failures == 0 ? 0 : 1;
}
