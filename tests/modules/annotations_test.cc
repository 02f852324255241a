#include "zelrt/annotations.h"

#include <gtest/gtest.h>

#include <sstream>

#include "fuzz/guarded_bytes.h"
#include "tests/support/recorded_log.h"
#include "zelrt/log.h"

namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

constexpr char kFound[] = "Found ZCA section with version 1.2";
constexpr char kBadSize[] = "ZCA parser: invalid zca section size";
constexpr char kUnsupported[] = "ZELRT: Unsupported Dwarf Expression in ZCA";
constexpr char kBadCount[] = "zca_parser: incorrect number of zca items";

std::string Word(uint64_t value, size_t size = 4) {
  return std::string(reinterpret_cast<const char*>(&value), size);
}

struct Item {
  uint64_t address;
  uint32_t probe, name, expression;
};
constexpr int kVersion11 = -1;  // instead of flags

std::string Table(int flags, const std::vector<Item>& items, const std::string& names,
                  const std::string& expressions) {
  const bool isOld = flags == kVersion11, hasProbe = isOld || (flags & 2) != 0;
  const size_t namesAt = (isOld ? 36 : 48) + items.size() * (hasProbe ? 20 : 16);
  std::string bytes = ".wex_notify_tab\0"s + (isOld ? "\1\1" : "\2\1..");
  bytes += Word(items.size(), 2) + (isOld ? "" : "..") + Word(namesAt) + Word(names.size());
  bytes += Word(namesAt + names.size()) + Word(expressions.size());
  if (!isOld) bytes += Word(static_cast<uint64_t>(flags), 8);
  for (const Item& item : items) {
    bytes += Word(item.address, 8) + (hasProbe ? Word(item.probe) : "");
    bytes += Word(item.name) + Word(item.expression);
  }
  return bytes + names + expressions;
}

uint64_t g_bytesAt = 0;  // where they were at the last parse

// What a parse logs, and in between "two@10 3: r7-8" for a record.
Lines Parse(const std::string& bytes) {
  zeltest::ClearLog();
  zelfuzz::GuardedBytes guarded(bytes.data(), bytes.size());
  g_bytesAt = reinterpret_cast<uint64_t>(guarded.Data());
  const auto note = [](const ZelZCARecord* record, void* context) {
    const auto& copy = *static_cast<const zelfuzz::GuardedBytes*>(context);
    EXPECT_TRUE(copy.Holds(record->expression) && copy.Holds(record->name));
    EXPECT_TRUE(copy.Holds(record->name + strlen(record->name)));  // or crashes: there is no NUL
    EXPECT_EQ(1u, record->argumentCount);
    const auto& [value, isRegister, offset] = record->arguments[0];
    __ZelLogCommentInternal("%.9s@%lx %u: %c%lu%+d", record->name, record->address, record->probe,
                            isRegister == 1 ? 'r' : 'n', value, offset);
  };
  __ZelZCAParseAndProcessRecords(0x400000, guarded.Data(), bytes.size(), note, &guarded);
  return zeltest::LoggedLines();
}

const std::vector<Item> kItems = {{0x10, 7, 0, 0}, {0x20, 8, 4, 2}};
const std::string kNames = "one\0two\0"s, kExpressions = "\1\x31\2\x77\x78"s;
const std::string kTable11 = Table(kVersion11, kItems, kNames, kExpressions);
const std::string kTable12 = Table(0, kItems, kNames, kExpressions);
const Lines kLines11 = {"Found ZCA section with version 1.1", "one@400010 7: n1+0",
                        "two@400020 8: r7-8"};
const Lines kLines12 = {kFound, "one@10 0: n1+0", "two@20 0: r7-8"};

Lines operator+(Lines lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

TEST(AnnotationsTest, TablesFollowOneAnother) {
  const std::string zeros(100, '\0');
  EXPECT_EQ(Lines{}, Parse("") + Parse(zeros));
  EXPECT_EQ(kLines11 + kLines12 + kLines11,
            Parse(zeros + kTable11 + "\0"s + kTable12 + kTable11 + zeros));
  std::string expressionsFirst = Table(0, kItems, kExpressions, kNames);
  std::swap_ranges(&expressionsFirst[24], &expressionsFirst[32], &expressionsFirst[32]);
  EXPECT_EQ(kLines12 + kLines12, Parse(expressionsFirst + kTable12));
  EXPECT_EQ(kLines11 + Lines{"zca_parser: Incorrect zca header format"},
            Parse(kTable11 + std::string(36, '.') + kTable12));
  EXPECT_EQ(kLines12 + Lines{kBadSize}, Parse(kTable12 + std::string(35, '.')));
  EXPECT_EQ(kLines12 + Lines({kFound, kBadSize}),
            Parse(kTable12 + Table(0, {{0, 0, 0, 0}}, "no NUL", "\1\x55")));
  const std::string endsAtItsHeader = Table(0, {}, "", "").replace(24, 16, std::string(16, '\0'));
  EXPECT_EQ(Lines{kFound} + kLines12, Parse(endsAtItsHeader + kTable12));
  EXPECT_EQ(Lines{"zca_parser: Expected zca version 2.0"},
            Parse(std::string(kTable11).replace(16, 2, "\0\2"s) + kTable12));
  zeltest::ClearLog();
  __ZelZCAParseAndProcessRecords(0, kTable11.data(), kTable11.size(), nullptr, nullptr);
  EXPECT_EQ(Lines{kLines11[0]}, zeltest::LoggedLines());
}

TEST(AnnotationsTest, FlagsTellWhatAnAddressMeans) {
  for (uint64_t flags = 0; flags < 8; ++flags) {
    for (uint64_t address : {0x7FFFFFFFul, 0x80000000ul, 0x180000000ul, 0x100000001ul}) {
      const Lines lines =
          Parse("\0"s + Table(static_cast<int>(flags), {{address, 9, 0, 0}}, "n\0"s, "\1\x55"));
      if ((flags & ZEL_ZCA_FLAG_32BIT) != 0 && (address >> 31) % 2 == 1) address |= ~0ul << 32;
      if ((flags & ZEL_ZCA_FLAG_PCREL) != 0) address += g_bytesAt + 1;
      std::ostringstream record;
      record << "n@" << std::hex << address << ((flags & ZEL_ZCA_FLAG_PROBE) != 0 ? " 9" : " 0");
      EXPECT_EQ((Lines{kFound, record.str() + ": r5+0"}), lines);
    }
  }
}

// Hexadecimal bytes, in which ".." pads a length, and what becomes of them. "!" is the message.
TEST(AnnotationsTest, ExpressionsAreNumbersRegistersAndOffsets) {
  std::istringstream rows(
      "0130 n0+0  014F n31+0  0150 r0+0  016F r31+0  0170 r0+0  018F r31+0  012F r4294967295+0 "
      "0190 r4294967295+0  02703F r0+63  028F40 r31-64  0377807F r7-128  0477010203 r7+1 "
      "0677FFFFFFFF07 r7+2147483647  068F8080808078 r31-2147483648  0B77FFFFFFFFFFFFFFFFFF01 r7-1 "
      "810055 r5+0  81..0055 r5+0  82..007778 r7-8  029110 !  025501 !  026F01 !  029001 !  00 !  "
      "027780 ! "
      "01 -  0277 -  80 -  .. -  81..0155 -  8180808080808080800255 -  FFFFFFFFFFFFFFFF7F55 -");
  for (std::string row, result; rows >> row >> result;) {
    std::string bytes;
    for (size_t at = 0; at < row.size(); at += 2) {
      const std::string byte = row.substr(at, 2);
      bytes += byte == ".." ? std::string(1'000, '\x80') : Word(std::stoul(byte, nullptr, 16), 1);
    }
    Lines expected = {kFound, result == "-" ? kBadSize : "n@0 0: " + result};
    if (result == "!") expected = {kFound, kUnsupported, "n@0 0: n0+0"};
    EXPECT_EQ(expected, Parse(Table(0, {{0, 0, 0, 0}}, "n\0"s, bytes))) << row;
  }
}

TEST(AnnotationsTest, WhatACutLeavesIsDelivered) {
  for (const std::string& table : {kTable11, kTable12}) {
    const size_t header = table == kTable11 ? 36 : 48;
    const size_t items = table.size() - kNames.size() - kExpressions.size();
    for (size_t size = 1; size < table.size(); ++size) {
      Lines expected = Parse(table);
      expected.resize(size < 36 ? 0 : size < items + kNames.size() + 2 ? 1 : 2);
      expected.push_back(size >= header && size < items ? kBadCount : kBadSize);
      EXPECT_EQ(expected, Parse(table.substr(0, size))) << size;
    }
  }
}

// Parse looks at what is delivered, the guard at what is read; a table read again would never end.
TEST(AnnotationsTest, NoFieldLeadsAstray) {
  for (const std::string& table : {kTable11, kTable12, Table(7, kItems, kNames, kExpressions)}) {
    for (size_t at = 16; at + 4 <= table.size(); ++at) {
      for (const uint64_t value : {0ul, 1ul, 35ul, table.size() - 1, table.size(), 0x7FFFFFFFul,
                                   0xFFFFFFFFul, 0xFFFFFFFFul - table.size(), 0x80808080ul})
        EXPECT_LE(1u, Parse(std::string(table).replace(at, 4, Word(value)) + kTable12).size());
    }
  }
}

// Were a name or a length gone through for each item that has it, this would take hours.
TEST(AnnotationsTest, SharedBytesAreNotPaidForByEachItem) {
  const auto count = [](const std::string& names, const std::string& expressions) {
    const std::string table = Table(0, std::vector<Item>(65'535), names, expressions);
    uint32_t records = 0;
    __ZelZCAParseAndProcessRecords(
        0, table.data(), table.size(),
        [](const ZelZCARecord*, void* context) { ++*static_cast<uint32_t*>(context); }, &records);
    return records;
  };
  const std::string padding(10'000'000, '\x80');
  EXPECT_EQ(65'535u, count(padding + "\0"s, "\1\x55"));
  EXPECT_EQ(65'535u, count("\0"s, "\x80\x80\x80\4\x77" + padding));
  EXPECT_EQ(1u, count("\0"s, "\x81" + padding + "\0\x55"s));
}

}  // namespace
