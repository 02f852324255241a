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

static uint32_t Acquire(void* data) { return *(uint32_t*)data; }
static uint32_t AcquireTid(void* data, uint32_t tid) { return *(uint32_t*)data + tid; }
static uint32_t Visit(void* data, void* context) { return data == context ? 1 : 0; }
static uint64_t HashOf(const ZelHashTable* table, uint64_t key) {
  return table != NULL ? key >> 4 : 0;
}

static void CallHashTable(void) {
  const ZelHashFunction hashes[2] = {HashOf, NULL};
  ZelHashTable* const table = __ZelCreateHashTable(0, hashes, 2, NULL, NULL, 1, 0);
  uint32_t item = 5;
  CHECK(__ZelInsertHashTableEntry(table, UINT64_C(1) << 63, &item) == &item);
  CHECK(__ZelLookupHashTable(table, UINT64_C(1) << 63) == &item);
  void* data = NULL;
  CHECK(__ZelLookupAndAcquireHashTableDataItem(table, UINT64_C(1) << 63, Acquire, &data) == 5);
  CHECK(__ZelLookupAndAcquireHashTableDataItemTid(table, UINT64_C(1) << 63, AcquireTid, &data, 7) ==
        12);
  CHECK(data == &item);
  uint32_t count = 0;
  CHECK(__ZelScanHashTable(table, Visit, &item, 0, Acquire, &count) == 0 && count == 1);
  CHECK(__ZelRemoveHashTableEntry(table, UINT64_C(1) << 63) == &item);
  CHECK(__ZelScanAndEmptyHashTable(table, NULL, &count) == 0 && count == 0);
  __ZelDestroyHashTable(table, NULL);
}

static uint32_t IsSum(uint32_t argument1, uintptr_t argument2, uintptr_t value) {
  return argument1 + argument2 == value;
}

static void CallQueue(void) {
  ZelQueue* const queue = __ZelCreateQueue(ZEL_QUEUE_FLAG_LOCKING, 0);
  for (uintptr_t value = 1; value <= 3; ++value) __ZelEnqueue(queue, value);
  CHECK(__ZelPeekQueue(queue, IsSum, 1, 2, 0) == 3);
  CHECK(__ZelDequeue(queue) == 1 && __ZelIsQueueEmpty(queue) == 0);
  __ZelDestroyQueue(queue);
  __ZelFree(queue);
}

static void CallVector(void) {
  ZelVector* const vector = __ZelCreateVector(0);
  CHECK(__ZelSetVectorElement(vector, 300, UINT64_C(1) << 63) == 0);
  CHECK(__ZelGetVectorElement(vector, 300) == UINT64_C(1) << 63);
  CHECK(vector->pages[0] == vector->firstPage && vector->sizeAndCategory == 301);
  __ZelDestroyVector(vector);
}

static void CallPlatform(void) {
  CHECK(__ZelGetNativePageSize() == (uint32_t)sysconf(_SC_PAGESIZE));
  unsigned int registers[4] = {0};
  __ZelCpuidEx(0, 0, registers);
  CHECK(registers[0] > 0 && registers[1] != 0);
  uint64_t frames[ZEL_MAX_STACK_FRAMES];
  CHECK(__ZelCaptureCurrentStackBackTrace(frames) > 0);
  CHECK(__ZelFindModuleByAddress(frames[0]) == NULL);
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

static void* g_released;
static void NoteReleased(void* data) { g_released = data; }

static void CallRangeTable(void) {
  ZelRangeTable* const table = __ZelCreateRangeTable(1 << 20, 1, 0, 0, NoteReleased);
  const uint64_t base = UINT64_C(0x7fff00001010);
  __ZelInsertRangeTableEntry(table, base, base + 100, table);
  uint64_t start, end;
  CHECK(__ZelLookupRangeTable(table, base + 99, &start, &end) == table);
  CHECK(start == base && end == base + 100);
  CHECK(__ZelLookupRangeTable(table, base + 100, NULL, &end) == NULL && end == 0);
  __ZelDestroyRangeTableSpan(table, base + 50, 100, &start, &end);
  CHECK(start == base && end == base + 150 && g_released == table);
  __ZelDestroyRangeTable(table);
}

static int32_t CompareDescending(uint64_t a, uint64_t b) { return (a < b) - (a > b); }
static uint64_t g_freedKey;
static void NoteKey(uint64_t key) { g_freedKey = key; }

static void CallRedBlackTree(void) {
  ZelRedBlackTree* const tree = __ZelCreateRedBlackTree(1, CompareDescending, NULL, NoteKey);
  uint64_t key = UINT64_C(5) << 60;
  __ZelInsertRedBlackEntry(tree, key, tree);
  const ZelRedBlackNode* const node = __ZelGetRedBlackRangeStart(tree, UINT64_MAX, 0);
  void* item = NULL;
  CHECK(__ZelGetRedBlackItem(node, &item) == 1 && item == tree);
  CHECK(__ZelGetRedBlackKey(node, &key) == 1 && key == UINT64_C(5) << 60);
  CHECK(__ZelGetRedBlackRangeNext(node, 0) == NULL && __ZelValidateRedBlack(tree) == 1);
  __ZelDestroyRedBlackTree(tree);
  CHECK(g_freedKey == key);
}

static uint32_t CountValue(const char* text, void* context) {
  return *(uint32_t*)context += (uint32_t)strlen(text);
}

static void CallOptions(void) {
  const uint32_t parser = __ZelGetOptionParser("c_calls");
  const uint32_t level = __ZelRegisterIntegerOption(parser, "-level", "Level", -7, 0xF0000000u, 1);
  const uint32_t lib = __ZelRegisterPathOption(parser, "-lib", "Library", NULL, 0, 1, 1);
  CHECK(parser == 0 && level == 0 && lib == 1);
  CHECK(__ZelGetIntegerOptionValue(parser, level) == -7);
  CHECK(__ZelGetOptionFlags(parser, level) == 0xF0000000u);
  const char* const arguments[] = {"-level", "0x7fffffff", "-lib", "a//b", "-lib", "c"};
  CHECK(__ZelParseOptions2(parser, 6, arguments) == 1);
  CHECK(__ZelGetIntegerOptionValue(parser, level) == 0x7fffffff);
  CHECK(strcmp(__ZelGetPathOptionArgumentValue(parser, lib, 1), "a/b") == 0);
  uint32_t sum = 1;
  CHECK(__ZelProcessAppendOptionValues(parser, lib, CountValue, &sum) == 5 && sum == 5);
  CHECK(__ZelPrintHelp(parser, 0) == 0);
  CHECK(__ZelReleaseOptionParserHandle(parser, "c_calls") == 1);
}

static int CountUp(uint32_t element, void* sum) { return (int)(*(uint32_t*)sum += element); }

static void CallSetsAndStrings(void) {
  ZelSet set = {0, 3, NULL};
  ZelMultiSet multiset = {0, 4, NULL};
  __ZelAddAnElementToSet(&set, 63);
  __ZelUnionMultiSetSet(&multiset, &set);
  uint32_t sum = 0, countAndCategory = 0;
  __ZelScanSet((const ZelSet*)&multiset, CountUp, &sum);
  memcpy(&countAndCategory, &multiset, sizeof countAndCategory);
  CHECK(sum == 63 && countAndCategory == 0x04000001 && multiset.first->counts[63] == 1);
  CHECK(__ZelIsAnElementOfSet((const ZelSet*)&multiset, 63) == 0x80000000u);

  ZelString* const string = __ZelStrAlloc(0, 4, "text");
  __ZelStrAppend(string, "s");
  CHECK(string->length == 5 && string->capacity == 8 && strcmp(string->text, "texts") == 0);
}

static void CallChecksums(void) { CHECK(__ZelCRC32("123456789", 9) == 0xCBF43926u); }

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

static void KeepArguments(int code, int argument2, int argument3, int argument4, int argument5,
                          unsigned char* payload, void* userData) {
  int* const kept = userData;
  *kept = code + argument2 + argument3 + argument4 + argument5 + payload[0];
}

static uint32_t CreateNoThread(ZelThreadFunction function, uintptr_t argument, size_t stackSize,
                               uintptr_t* handle) {
  return function != NULL && argument == 2 && stackSize == 0 && *handle == 0 ? 0xFFFFFFFFu : 1;
}
static void ExitThread(uint32_t code) { exit((int)code); }
static uint32_t WaitThread(uintptr_t* handle, uint32_t timeout, uint32_t* exitCode) {
  return *handle == 0 && timeout == 1000 && exitCode == NULL;
}
static void AddFini(ZelThreadFunction function, uintptr_t argument) { function(argument); }

static void CallCommands(void) {
  int kept = 0;
  CHECK(__ZelRegisterCommandHandler("/tmp", KeepArguments, &kept) == 0);
  CHECK(__ZelSetThreadProcs(CreateNoThread, ExitThread, WaitThread, AddFini) == 1);
  CHECK(__ZelGetThreadCreateProc() == CreateNoThread && __ZelGetThreadWaitProc() == WaitThread);
  CHECK(__ZelRegisterCommandHandlerWithHeartbeat("/tmp", KeepArguments, &kept, 2) == 0);
  __ZelShutdownCommandHandler();
  __ZelUnregisterCommandHandler(ZELCMDHDLR_CLEAN_PARTIAL);
  CHECK(kept == 0);
}

int main(void) {
  CallRuntime();
  CallAtomics();
  CallLocks();
  CallMemory();
  CallHashTable();
  CallQueue();
  CallVector();
  CallPlatform();
  CallLog();
  CallFilesAndXml();
  CallRangeTable();
  CallRedBlackTree();
  CallOptions();
  CallSetsAndStrings();
  CallChecksums();
  CallAnnotations();
  CallCommands();
  return g_failures == 0 ? 0 : 1;
}
