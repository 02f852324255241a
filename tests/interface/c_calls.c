/* Calls something of every header from C, and what takes callbacks or records. What the calls do is
 * tested elsewhere: the results here show that arguments and callbacks pass between the languages
 * as the headers say. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zelrt.h>

static int g_failures = 0;

static void Check(int holds, const char* condition, int line) {
  if (holds) return;
  printf("line %d: not true: %s\n", line, condition);
  ++g_failures;
}
#define CHECK(condition) Check((condition) ? 1 : 0, #condition, __LINE__)

static const uint64_t kWide = UINT64_C(0xfedcba9876543210);

static uint64_t FixedThreadId(void) { return kWide; }

static void CallRuntimeAndMemory(void) {
  __ZelSetGetNativeThreadIdProc(FixedThreadId);
  CHECK(__zelGetNativeThreadIdProc == FixedThreadId && __ZelGetNativeThreadId() == kWide);
  CHECK(__ZelRtStartup() == ZELRT_VERSION_CODE && __zelRtStarted == 1);
  volatile uint64_t wide = kWide;
  CHECK(__ZelInterlockedCompareExchange64(&wide, 1, kWide) == kWide && wide == 1);
  CHECK(__ZelGetNativePageSize() == (uint32_t)sysconf(_SC_PAGESIZE));
  ZelSharedExclusiveLock lock = {0};
  __ZelAcquireExclusiveLockTid(&lock, 19);
  CHECK(lock.exclusiveOwner == 19 && lock.exclusiveRecursionCount == 1);

  __ZelEnableMemoryStatisticsCollection();
  const uint32_t category = __ZelRegisterMemoryCategory("C_CALLS");
  void* const block = __ZelMalloc(category, 100, 0);
  ZelMemoryCategoryInfo info;
  CHECK(__ZelGetMemoryInfoByCategory(category, &info) == 1 && strcmp(info.name, "C_CALLS") == 0);
  CHECK(info.allocatedAtPeak == 65536 && __zelTotalMemoryAllocated == 65536);
  __ZelFree(block);
}

static uint32_t AcquireTid(void* data, uint32_t tid) { return *(uint32_t*)data + tid; }
static uint32_t Visit(void* data, void* context) { return data == context ? 1 : 0; }
static uint64_t HashOf(const ZelHashTable* table, uint64_t key) { return table ? key >> 60 : 0; }
static uint32_t IsSum(uint32_t argument1, uintptr_t argument2, uintptr_t value) {
  return argument1 + argument2 == value;
}
static void* g_released;
static void NoteReleased(void* data) { g_released = data; }
static int32_t CompareDescending(uint64_t a, uint64_t b) { return (a < b) - (a > b); }
static uint64_t g_freedKey;
static void NoteKey(uint64_t key) { g_freedKey = key; }
static int CountUp(uint32_t element, void* sum) { return (int)(*(uint32_t*)sum += element); }

static void CallContainers(void) {
  const ZelHashFunction hashes[2] = {HashOf, NULL};
  ZelHashTable* const hashTable = __ZelCreateHashTable(0, hashes, 2, NULL, NULL, 1, 0);
  uint32_t item = 5, count = 0;
  void* data = NULL;
  __ZelInsertHashTableEntry(hashTable, kWide, &item);
  CHECK(__ZelLookupAndAcquireHashTableDataItemTid(hashTable, kWide, AcquireTid, &data, 7) == 12);
  CHECK(__ZelScanHashTable(hashTable, Visit, data, 0, NULL, &count) == 0 && count == 1);

  ZelQueue* const queue = __ZelCreateQueue(ZEL_QUEUE_FLAG_LOCKING, 0);
  for (uintptr_t value = 1; value <= 3; ++value) __ZelEnqueue(queue, value);
  CHECK(__ZelPeekQueue(queue, IsSum, 1, 2, 0) == 3);

  ZelVector* const vector = __ZelCreateVector(0);
  __ZelSetVectorElement(vector, 0, kWide);
  CHECK(vector->firstPage[0] == kWide && vector->sizeAndCategory == 1);

  ZelRangeTable* const rangeTable = __ZelCreateRangeTable(1 << 20, 1, 1, 0, NoteReleased);
  uint64_t start = 0, end = 0;
  __ZelInsertRangeTableEntry(rangeTable, kWide, kWide + 100, vector);
  CHECK(__ZelLookupRangeTable(rangeTable, kWide + 99, &start, &end) == vector);
  CHECK(start == kWide && end == kWide + 100);
  __ZelDestroyRangeTableEntry(rangeTable, start, end);
  CHECK(g_released == vector);

  ZelRedBlackTree* const tree = __ZelCreateRedBlackTree(1, CompareDescending, NULL, NoteKey);
  __ZelInsertRedBlackEntry(tree, kWide, tree);
  CHECK(__ZelGetRedBlackItem(__ZelGetRedBlackRangeStart(tree, kWide, 0), &data) && data == tree);
  __ZelDestroyRedBlackTree(tree);
  CHECK(g_freedKey == kWide);

  ZelMultiSet multiset = {0, 4, NULL};
  __ZelAddAnElementToMultiSet(&multiset, 63);
  uint32_t sum = 0;
  __ZelScanSet((const ZelSet*)&multiset, CountUp, &sum);
  CHECK(sum == 63 && multiset.count == 1 && multiset.first->counts[63] == 1);
  CHECK(strcmp(__ZelStrAlloc(0, 8, "text")->text, "text") == 0);
}

static uint32_t CountValue(const char* text, void* context) {
  return *(uint32_t*)context += (uint32_t)strlen(text);
}

static void CallLogAndFiles(void) {
  CHECK(__ZelLogToConsole("%s on the console", "a line") == 0);
  uint64_t frames[ZEL_MAX_STACK_FRAMES];
  CHECK(__ZelCaptureCurrentStackBackTrace(frames) > 0 && __ZelFindModuleByAddress(0) == NULL);
  char path[] = "/tmp/zelrt-c-calls-XXXXXX";
  close(mkstemp(path));
  ZelXmlFile* file = __ZelXMLCreateFile(path, 0);
  __ZelXMLWriteHexadecimalElement(file, "address", kWide);
  __ZelXMLCloseFile(&file);
  int error = -1;
  FILE* const stream = __ZelFopen(path, "r", &error);
  char content[256] = "";
  CHECK(stream != NULL && __ZelFread(content, 1, sizeof content - 1, stream) > 0);
  CHECK(strstr(content, "\n<address>0xfedcba9876543210</address>") != NULL);
  CHECK(__ZelFclose(stream) == 0 && __ZelLockFile(-1) == -1);
  unlink(path);

  const uint32_t parser = __ZelGetOptionParser("c_calls");
  const uint32_t lib = __ZelRegisterPathOption(parser, "-lib", "Library", NULL, 0, 1, 1);
  const char* const arguments[] = {"-lib", "a//b", "-lib", "c"};
  uint32_t sum = 1;
  CHECK(__ZelParseOptions2(parser, 4, arguments) == 1);
  CHECK(__ZelProcessAppendOptionValues(parser, lib, CountValue, &sum) == 5 && sum == 5);
  CHECK(__ZelPrintHelp(parser, 0) == 0);
}

static void KeepRecord(const ZelZCARecord* record, void* context) {
  *(ZelZCARecord*)context = *record;
}

static void CallModules(void) {
  static const unsigned char table[] =
      ".wex_notify_tab\0\2\1\0\0\1\0\0\0\100\0\0\0\2\0\0\0\102\0\0\0\3\0\0\0"
      "\0\0\0\0\0\0\0\0\20\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0n\0\2\167\170";
  ZelZCARecord record;
  memset(&record, 0, sizeof record);
  __ZelZCAParseAndProcessRecords(0, table, sizeof table - 1, KeepRecord, &record);
  CHECK(record.address == 16 && record.argumentCount == 1 && strcmp(record.name, "n") == 0);
  CHECK(record.arguments[0].value == 7 && record.arguments[0].offset == -8);
  CHECK(__ZelCRC32("123456789", 9) == 0xCBF43926u);
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
  CallRuntimeAndMemory();
  CallContainers();
  CallLogAndFiles();
  CallModules();
  CallCommands();
  return g_failures == 0 ? 0 : 1;
}
