// Annotation tables: a full one of 65,535 records, parsed and delivered to a callback. The bare
// loop makes the same records of the same bytes for the same callback, and checks nothing.

#include <cstdint>
#include <cstring>
#include <string>

#include "bench/scratch_file.h"
#include "bench/suite.h"
#include "zelrt/annotations.h"
#include "zelrt/log.h"

namespace bench {
namespace {

constexpr uint32_t kRecords = 65'535;
constexpr uint32_t kNames = 100;
constexpr uint64_t kBase = 0x400000;

enum class Version { k11, k12 };

struct Layout {
  uint32_t header, item, nameAt, expressionAt, namesFieldAt, expressionsFieldAt;
};
constexpr Layout kLayout11 = {36, 20, 12, 16, 20, 28};
constexpr Layout kLayout12 = {48, 16, 8, 12, 24, 32};

constexpr const Layout& LayoutOf(Version version) {
  return version == Version::k11 ? kLayout11 : kLayout12;
}

template <typename T>
void Put(std::string& bytes, size_t at, T value) {
  std::memcpy(&bytes[at], &value, sizeof value);
}

template <typename T>
T Get(const uint8_t* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

// An expression for each item: registers, numbers, and registers with an offset.
std::string MakeTable(Version version) {
  const Layout& layout = LayoutOf(version);
  std::string bytes(layout.header + size_t{kRecords} * layout.item, '\0');
  std::string names, expressions;
  for (uint32_t i = 0; i < kNames; ++i) names += "lock_acquire_" + std::to_string(100 + i) + '\0';
  const auto nameSize = static_cast<uint32_t>(names.size() / kNames);
  for (uint32_t i = 0; i < kRecords; ++i) {
    const size_t item = layout.header + size_t{i} * layout.item;
    Put<uint64_t>(bytes, item, i * 16);
    Put<uint32_t>(bytes, item + layout.nameAt, i * 7919 % kNames * nameSize);
    Put<uint32_t>(bytes, item + layout.expressionAt, static_cast<uint32_t>(expressions.size()));
    const char number = static_cast<char>(i % 32);
    switch (i * 7919 % 4) {
      case 0:
        expressions += {'\1', static_cast<char>(0x30 + number)};
        break;
      case 1:
        expressions += {'\2', static_cast<char>(0x70 + number), static_cast<char>(i % 128)};
        break;
      default:
        expressions += {'\1', static_cast<char>(0x50 + number)};
    }
  }
  bytes.replace(0, 16, ".wex_notify_tab", 16);
  Put<uint16_t>(bytes, 16, version == Version::k11 ? 0x0101 : 0x0102);
  Put<uint16_t>(bytes, version == Version::k11 ? 18 : 20, kRecords);
  Put(bytes, layout.namesFieldAt, static_cast<uint32_t>(bytes.size()));
  Put(bytes, layout.namesFieldAt + 4, static_cast<uint32_t>(names.size()));
  Put(bytes, layout.expressionsFieldAt, static_cast<uint32_t>(bytes.size() + names.size()));
  Put(bytes, layout.expressionsFieldAt + 4, static_cast<uint32_t>(expressions.size()));
  return bytes + names + expressions;
}

const std::string& TableOf(Version version) {
  static const std::string tables[] = {MakeTable(Version::k11), MakeTable(Version::k12)};
  return tables[static_cast<int>(version)];
}

struct Seen {
  uint64_t records = 0;
  uint64_t sum = 0;
};

void See(const ZelZCARecord* record, void* context) {
  auto* const seen = static_cast<Seen*>(context);
  ++seen->records;
  seen->sum += record->address + record->arguments[0].value;
}

// An expression's argument, of the kinds that MakeTable knows.
ZelZCAArgument ArgumentIn(const uint8_t* expression) {
  const uint32_t operation = expression[1] - 0x30u;
  ZelZCAArgument argument = {operation % 32, operation >= 32 ? 1u : 0u, 0};
  if (expression[0] == 2) argument.offset = static_cast<int8_t>(expression[2] * 2) / 2;
  return argument;
}

template <Version kVersion>
[[gnu::noinline]] void BareLoop(const uint8_t* table, ZelZCARecordProc callback, void* context) {
  constexpr const Layout& layout = LayoutOf(kVersion);
  const uint8_t* const names = table + Get<uint32_t>(table + layout.namesFieldAt);
  const uint8_t* const expressions = table + Get<uint32_t>(table + layout.expressionsFieldAt);
  const uint8_t* item = table + layout.header;
  ZelZCARecord record = {};
  for (uint32_t left = kRecords; left > 0; --left, item += layout.item) {
    record.address = Get<uint64_t>(item) + (kVersion == Version::k11 ? kBase : 0);
    record.name = reinterpret_cast<const char*>(names) + Get<uint32_t>(item + layout.nameAt);
    record.expression = expressions + Get<uint32_t>(item + layout.expressionAt);
    if (kVersion == Version::k11) record.probe = Get<uint32_t>(item + 8);
    record.argumentCount = 1;
    record.arguments[0] = ArgumentIn(record.expression);
    callback(&record, context);
  }
}

// `parse` is given the table's bytes, the callback and its context.
template <typename Parse>
Run ParsesOf(Version version, Parse parse) {
  return [=](benchmark::State& state) {
    const std::string& table = TableOf(version);
    const ScratchFile scratch;  // each table leaves a line in the log
    __ZelCreateLogger("bench", scratch.Path(), 0);
    Seen seen;
    uint64_t tables = 0;
    for (; state.KeepRunningBatch(kRecords); ++tables)
      parse(reinterpret_cast<const uint8_t*>(table.data()), table.size(), See, &seen);
    if (seen.records != tables * kRecords) state.SkipWithError("records are missing");
  };
}

template <Version kVersion>
Work TableWork(const char* name) {
  const auto ours = [](const uint8_t* table, uint64_t size, ZelZCARecordProc callback,
                       void* context) {
    __ZelZCAParseAndProcessRecords(kBase, table, size, callback, context);
  };
  const auto bare = [](const uint8_t* table, uint64_t, ZelZCARecordProc callback, void* context) {
    benchmark::DoNotOptimize(callback);
    BareLoop<kVersion>(table, callback, context);
  };
  return {.name = name,
          .contenders = {{kOurs, Role::kOurs, ParsesOf(kVersion, ours)},
                         {"bare loop", Role::kBound, ParsesOf(kVersion, bare)}},
          .goals = {AtMost(1.3, "bare loop")}};
}

}  // namespace

Family Annotations() {
  return {"annotations",
          "ns per record",
          {TableWork<Version::k11>("a table of version 1.1"),
           TableWork<Version::k12>("a table of version 1.2")}};
}

}  // namespace bench
