// The message table.
//
// Slots are claimed and published as in every process-wide table (runtime/slot_table.h). The copies
// that a message consists of lie in one block of the process's own heap: the table lives on when
// the allocator has ended.

#include <cstring>

#include "log/internal.h"
#include "runtime/slot_table.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

constinit uint32_t ZELLOG_MSG_ABNORMAL_TERMINATE = 0;
constinit uint32_t ZELLOG_MSG_OUT_OF_MEMORY = 0;
constinit uint32_t ZELLOG_MSG_COLLECT_MEMORY = 0;
constinit uint32_t ZELLOG_MSG_MEMORY_IS_TIGHT = 0;
constinit uint32_t ZELLOG_MSG_FREEING_RESERVES = 0;
constinit uint32_t ZELLOG_MSG_BAD_OPTION = 0;
constinit uint32_t ZELLOG_MSG_BAD_ARGUMENT = 0;
constinit uint32_t ZELLOG_MSG_FAIL_CONVERT_FILENAME = 0;
constinit uint32_t ZELLOG_MSG_FAIL_OPEN_FILE = 0;
constinit uint32_t ZELLOG_MSG_FAIL_SEEK_FILE = 0;
constinit uint32_t ZELLOG_MSG_FAIL_READ_FILE = 0;
constinit uint32_t ZELLOG_MSG_FAIL_READ_FILE_VERBOSE = 0;

namespace zelrt {
namespace {

constexpr const char* kNoArguments[] = {nullptr};
constexpr const char* kBytesArgument[] = {"num_bytes", nullptr};
constexpr const char* kOptionArgument[] = {"option", nullptr};
constexpr const char* kFileArgument[] = {"filename", nullptr};
constexpr const char* kFileAndErrorArguments[] = {"filename", "srerror", nullptr};

constinit SlotTable<Message, kMaxMessages> g_messages(
    Message{"COMMENT", kNoArguments, ZELLOG_FLAG_COMMENT | ZELLOG_FLAG_NO_DISPLAY, 0},
    Message{"INTERNAL", kNoArguments, ZELLOG_FLAG_TEXT, 0});

struct LibraryMessage {
  const char* name;
  const char* const* argumentNames;
  uint32_t flags;
  uint32_t* id;
};
constexpr LibraryMessage kLibraryMessages[] = {
    // registered in this order; ids follow from it
    {"ABNORMAL_TERMINATE", nullptr, 0, &ZELLOG_MSG_ABNORMAL_TERMINATE},
    {"OUT_OF_MEMORY", nullptr, 0, &ZELLOG_MSG_OUT_OF_MEMORY},
    {"COLLECT_MEMORY", nullptr, 0, &ZELLOG_MSG_COLLECT_MEMORY},
    {"MEMORY_IS_TIGHT", nullptr, 0, &ZELLOG_MSG_MEMORY_IS_TIGHT},
    {"FREEING_RESERVES", kBytesArgument, ZELLOG_FLAG_NO_DISPLAY, &ZELLOG_MSG_FREEING_RESERVES},
    {"BAD_OPTION", kOptionArgument, 0, &ZELLOG_MSG_BAD_OPTION},
    {"BAD_ARGUMENT", kOptionArgument, 0, &ZELLOG_MSG_BAD_ARGUMENT},
    {"FAIL_CONVERT_FILENAME", nullptr, 0, &ZELLOG_MSG_FAIL_CONVERT_FILENAME},
    {"FAIL_OPEN_FILE", kFileArgument, 0, &ZELLOG_MSG_FAIL_OPEN_FILE},
    {"FAIL_SEEK_FILE", kFileArgument, 0, &ZELLOG_MSG_FAIL_SEEK_FILE},
    {"FAIL_READ_FILE", kFileArgument, 0, &ZELLOG_MSG_FAIL_READ_FILE},
    {"FAIL_READ_FILE_VERBOSE", kFileAndErrorArguments, 0, &ZELLOG_MSG_FAIL_READ_FILE_VERBOSE},
};

size_t CountNames(const char* const* names) {
  size_t count = 0;
  while (names[count] != nullptr) ++count;
  return count;
}

// Copies the names into one block: first the array with its null entry, then the texts, the
// message's own name last. False when there is no memory.
bool CopyNames(const char* name, const char* const* argumentNames, Message* message) {
  const size_t arguments = CountNames(argumentNames);
  size_t size = (arguments + 1) * sizeof(char*) + std::strlen(name) + 1;
  for (auto* from = argumentNames; *from != nullptr; ++from) size += std::strlen(*from) + 1;
  void* const block = __ZelMallocInternal(size);
  if (block == nullptr) return false;

  auto** const names = static_cast<const char**>(block);
  char* text = reinterpret_cast<char*>(names + arguments + 1);
  const auto append = [&text](const char* from) {
    const size_t length = std::strlen(from) + 1;
    const char* const copy = static_cast<char*>(std::memcpy(text, from, length));
    text += length;
    return copy;
  };
  for (size_t i = 0; argumentNames[i] != nullptr; ++i) names[i] = append(argumentNames[i]);
  names[arguments] = nullptr;
  message->argumentNames = names;
  message->name = append(name);
  return true;
}

void FreeNames(const Message& message) {
  __ZelFreeInternal(const_cast<const char**>(message.argumentNames));
}

void LogInvalidMessage() {
  const char* const text = "A valid message must be specified to register it with ZELRT";
  __ZelLogInternal(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_INTERNAL, 0, reinterpret_cast<uint64_t>(text));
}

}  // namespace

const Message* FindMessage(uint32_t id) { return g_messages.Find(id); }

}  // namespace zelrt

using namespace zelrt;

uint32_t __ZelRegisterLogMessage2(const ZelLogMessage* message) {
  if (message == nullptr || message->name == nullptr || !IsSource(message->source)) {
    LogInvalidMessage();
    return ZEL_INVALID_LOG_MESSAGE;
  }
  const char* const* const argumentNames =
      message->argumentNames != nullptr ? message->argumentNames : kNoArguments;
  Message copy = {nullptr, nullptr, message->flags, message->source};
  // Before a slot is claimed, which cannot be given back when memory runs out.
  if (!CopyNames(message->name, argumentNames, &copy)) return ZEL_INVALID_LOG_MESSAGE;
  const uint32_t id = g_messages.Claim();
  if (id == kNoSlot) {
    FreeNames(copy);
    return ZEL_INVALID_LOG_MESSAGE;
  }
  g_messages[id] = copy;
  g_messages.Publish(id);
  return id;
}

uint32_t __ZelRegisterLogMessage(const ZelLogMessage* message) {
  return __ZelRegisterLogMessage2(message);
}

uint32_t __ZelRegisterInternalZELRTLogMessages() {
  constexpr size_t kCount = std::size(kLibraryMessages);
  uint32_t ids[kCount];
  for (size_t i = 0; i < kCount; ++i) {
    const LibraryMessage& own = kLibraryMessages[i];
    const ZelLogMessage message = {own.name, own.argumentNames, own.flags, 0};
    ids[i] = __ZelRegisterLogMessage2(&message);
    if (ids[i] == ZEL_INVALID_LOG_MESSAGE) return 0;
  }
  for (size_t i = 0; i < kCount; ++i) StoreRelaxed(*kLibraryMessages[i].id, ids[i]);
  return 1;
}
