// Annotation tables.
//
// A section is a sequence of tables with any number of zero bytes around them. A table is a header,
// items of equal size behind it, and somewhere in the section the names and the expressions that
// the items lead to. All offsets count from the header; those of an item count from its sub-table.
//
//   offset in    1.1          1.2
//   header       0 magic      0 magic
//               16 version   16 version
//               18 count     20 count
//               20 names     24 names         two words each: offset and size
//               28 express.  32 expressions
//                            40 flags
//   item         0 address    0 address
//                8 probe      8 probe         only with ZEL_ZCA_FLAG_PROBE
//               12 name      12 name          without it
//               16 express.  16 expression    4 less
//
// Each byte may lie. The time stays linear because a table always ends behind its items, however
// many of them share a name or an expression: whether a name ends is known from the section's last
// NUL alone, without a look at the name, and the bytes that lengths may be padded with are counted.
// Numbers of bytes are compared, never addresses, and all sums of offsets are far from 64 bits.

#include "zelrt/annotations.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "modules/expressions.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

static_assert(sizeof(ZelZCAArgument) == 16 && offsetof(ZelZCAArgument, isRegister) == 8 &&
              offsetof(ZelZCAArgument, offset) == 12);
static_assert(sizeof(ZelZCARecord) == 64 && offsetof(ZelZCARecord, name) == 8 &&
              offsetof(ZelZCARecord, expression) == 16 && offsetof(ZelZCARecord, probe) == 24 &&
              offsetof(ZelZCARecord, argumentCount) == 28 &&
              offsetof(ZelZCARecord, arguments) == 32);

constexpr uint64_t kPcRelative = 1;
constexpr uint64_t kHasProbe = 2;
constexpr uint64_t kIs32Bit = 4;

constexpr char kBadSize[] = "ZCA parser: invalid zca section size";
constexpr char kBadFormat[] = "zca_parser: Incorrect zca header format";
constexpr char kBadCount[] = "zca_parser: incorrect number of zca items";

constexpr char kMagic[16] = ".wex_notify_tab";
constexpr uint32_t kVersionAt = 16;

struct HeaderLayout {
  uint32_t size;
  uint32_t countAt;
  uint32_t namesAt;
  uint32_t expressionsAt;
};
constexpr HeaderLayout kHeader11 = {.size = 36, .countAt = 18, .namesAt = 20, .expressionsAt = 28};
constexpr HeaderLayout kHeader12 = {.size = 48, .countAt = 20, .namesAt = 24, .expressionsAt = 32};
constexpr uint32_t kFlagsAt = 40;

struct ItemLayout {
  uint32_t size;
  uint32_t probeAt;  // 0 where there is none
  uint32_t nameAt;
  uint32_t expressionAt;
};
constexpr ItemLayout kProbeItem = {.size = 20, .probeAt = 8, .nameAt = 12, .expressionAt = 16};
constexpr ItemLayout kPlainItem = {.size = 16, .probeAt = 0, .nameAt = 8, .expressionAt = 12};

constexpr uint64_t kSignBit32 = 0x80000000;
constexpr uint64_t kHighHalf = 0xFFFFFFFF00000000;

// The section, from the next table on.
struct Section {
  const uint8_t* next;
  uint64_t left;
  uint64_t terminated;  // of these, the bytes up to and including the last NUL; 0 without one
  uint64_t padding;     // left for the lengths of expressions
  ZelZCARecordProc callback;
  void* context;

  void Skip(uint64_t bytes) {
    next += bytes;
    left -= bytes;
    terminated -= std::min(bytes, terminated);
  }
};

struct SubTable {
  uint64_t offset;
  uint64_t size;
};

struct Table {
  uint64_t items;  // offset of the first
  uint64_t count;
  SubTable names;
  SubTable expressions;
  uint64_t addend;  // of addresses
  bool is32Bit;
  bool hasProbe;
};

// The tables are little-endian, and so is the machine.
template <typename T>
T Load(const uint8_t* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

SubTable ReadSubTable(const uint8_t* from) {
  return {Load<uint32_t>(from), Load<uint32_t>(from + sizeof(uint32_t))};
}

Table ReadTable(const uint8_t* header, const HeaderLayout& layout) {
  return {.items = layout.size,
          .count = Load<uint16_t>(header + layout.countAt),
          .names = ReadSubTable(header + layout.namesAt),
          .expressions = ReadSubTable(header + layout.expressionsAt),
          .addend = 0,
          .is32Bit = false,
          .hasProbe = true};
}

uint64_t EndOfSubTables(const Table& table) {
  const SubTable& later =
      table.names.offset < table.expressions.offset ? table.expressions : table.names;
  return later.offset + later.size;
}

// Says in the log why the parse ends. Returns false, for the callers to do so too.
bool Stop(const char* reason) {
  __ZelLogCommentInternal("%s", reason);
  return false;
}

// The part of the section in which something that an item leads to has to begin.
struct Range {
  const uint8_t* begin;
  uint64_t size;
};

Range RangeFrom(const Section& section, uint64_t offset, uint64_t end) {
  offset = std::min(offset, end);
  return {section.next + offset, end - offset};
}

// A table's items, and what each of them has in common with the others.
struct Items {
  const uint8_t* first;
  const uint8_t* end;
  Range names;
  Range expressions;
  uint64_t addend;
};

template <const ItemLayout& kItem, bool kIsExtended>
bool DeliverItems(Section& section, const Items& items) {
  ZelZCARecord record = {};
  record.argumentCount = 1;
  for (const uint8_t* item = items.first; item != items.end; item += kItem.size) {
    const uint64_t name = Load<uint32_t>(item + kItem.nameAt);
    const uint64_t expression = Load<uint32_t>(item + kItem.expressionAt);
    if (name >= items.names.size || expression >= items.expressions.size) [[unlikely]]
      return Stop(kBadSize);

    auto address = Load<uint64_t>(item);
    if (kIsExtended && (address & kSignBit32) != 0) address |= kHighHalf;
    record.address = address + items.addend;
    record.name = reinterpret_cast<const char*>(items.names.begin + name);
    record.expression = items.expressions.begin + expression;
    if constexpr (kItem.probeAt != 0) record.probe = Load<uint32_t>(item + kItem.probeAt);
    const Evaluation evaluation =
        EvaluateExpression(record.expression, items.expressions.size - expression, section.padding,
                           record.arguments[0]);
    if (evaluation != Evaluation::kDone) [[unlikely]] {
      if (evaluation == Evaluation::kOutside) return Stop(kBadSize);
      __ZelLogCommentInternal("ZELRT: Unsupported Dwarf Expression in ZCA");
    }
    section.callback(&record, section.context);
  }
  return true;
}

// Delivers a table's records and leaves the section behind it.
bool DeliverTable(Section& section, const Table& table) {
  const ItemLayout& item = table.hasProbe ? kProbeItem : kPlainItem;
  const uint64_t endOfItems = table.items + table.count * item.size;
  if (endOfItems > section.left) return Stop(kBadCount);
  const Items items = {.first = section.next + table.items,
                       .end = section.next + endOfItems,
                       .names = RangeFrom(section, table.names.offset, section.terminated),
                       .expressions = RangeFrom(section, table.expressions.offset, section.left),
                       .addend = table.addend};
  const auto deliver =
      table.hasProbe
          ? (table.is32Bit ? DeliverItems<kProbeItem, true> : DeliverItems<kProbeItem, false>)
          : (table.is32Bit ? DeliverItems<kPlainItem, true> : DeliverItems<kPlainItem, false>);
  if (!deliver(section, items)) return false;
  const uint64_t end = std::max(endOfItems, EndOfSubTables(table));
  if (end > section.left) return Stop(kBadSize);
  section.Skip(end);
  return true;
}

bool ParseVersion11(Section& section, uint64_t base) {
  __ZelLogCommentInternal("Found ZCA section with version 1.1");
  Table table = ReadTable(section.next, kHeader11);
  table.addend = base;
  return DeliverTable(section, table);
}

bool ParseVersion12(Section& section) {
  __ZelLogCommentInternal("Found ZCA section with version 1.2");
  if (section.left < kHeader12.size) return Stop(kBadSize);
  Table table = ReadTable(section.next, kHeader12);
  const auto flags = Load<uint64_t>(section.next + kFlagsAt);
  if ((flags & kPcRelative) != 0) table.addend = reinterpret_cast<uint64_t>(section.next);
  table.is32Bit = (flags & kIs32Bit) != 0;
  table.hasProbe = (flags & kHasProbe) != 0;
  return DeliverTable(section, table);
}

bool ParseTable(Section& section, uint64_t base) {
  if (section.left < kHeader11.size) return Stop(kBadSize);
  if (std::memcmp(section.next, kMagic, sizeof kMagic) != 0) return Stop(kBadFormat);
  const uint32_t minor = section.next[kVersionAt];
  const uint32_t major = section.next[kVersionAt + 1];
  if (major == 1 && minor == 1) return ParseVersion11(section, base);
  if (major == 1 && minor == 2) return ParseVersion12(section);
  __ZelLogCommentInternal("zca_parser: Expected zca version %d.%d", major, minor);
  return false;
}

void IgnoreRecord(const ZelZCARecord*, void*) {}

uint64_t BytesUpToLastNul(const uint8_t* data, uint64_t size) {
  const auto* const nul = size != 0 ? static_cast<const uint8_t*>(memrchr(data, 0, size)) : nullptr;
  return nul != nullptr ? static_cast<uint64_t>(nul - data) + 1 : 0;
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

const uint64_t ZEL_ZCA_FLAG_PCREL = kPcRelative;
const uint64_t ZEL_ZCA_FLAG_PROBE = kHasProbe;
const uint64_t ZEL_ZCA_FLAG_32BIT = kIs32Bit;

void __ZelZCAParseAndProcessRecords(uint64_t base, const void* data, uint64_t size,
                                    ZelZCARecordProc callback, void* context) {
  const auto* const bytes = static_cast<const uint8_t*>(data);
  Section section = {.next = bytes,
                     .left = size,
                     .terminated = BytesUpToLastNul(bytes, size),
                     .padding = size,
                     .callback = callback != nullptr ? callback : IgnoreRecord,
                     .context = context};
  while (section.left > 0) {
    if (*section.next == 0) {
      section.Skip(1);
    } else if (!ParseTable(section, base)) {
      return;
    }
  }
}
