#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/fake_backing.h"
#include "tests/support/guarded_bytes.h"
#include "tests/support/recorded_log.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/annotations.h"
#include "zelrt/memory.h"

namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

// "1 name|module|address|argument,bias,"
std::string Parse(const std::string& line) {
  const zeltest::GuardedBytes guarded(line.c_str(), line.size() + 1);
  ZelZCADefinition definition = {};
  std::ostringstream parsed;
  parsed << __ZelZCAParseDefinition(guarded.Text(), &definition) << std::hex << " "
         << (definition.name != nullptr ? definition.name : "-") << "|"
         << (definition.module != nullptr ? definition.module : "-") << "|" << definition.address
         << "|";
  for (uint32_t i = 0; i < definition.argumentCount; ++i) {
    const auto& [value, isRegister, offset] = definition.arguments[i];
    EXPECT_TRUE(isRegister == 0 && offset == 0);
    parsed << value << ",";
  }
  for (void* const owned :
       {static_cast<void*>(definition.name), static_cast<void*>(definition.module),
        static_cast<void*>(definition.arguments)})
    __ZelFree(owned);
  return parsed.str();
}

TEST(DefinitionFilesTest, LinesHaveFiveFields) {
  const std::string rows[][2] = {
      {"lock \"/usr/lib//libx.so\" 1a0 0x10 400000", "1 lock|/usr/lib/libx.so|1a0|10,400000,"},
      {" \t\v\fn \"m\"\t0x1A0g 010 -1 \r\n", "1 n|m|1a0|8,ffffffffffffffff,"},
      {"n \"m m\"x\" y\" 112345678 10z zz", "1 n|m m\"x\" y|12345678|a,0,"},
      {"\"n n\" m// x 99999999999999999999 0x", "1 \"n n\"|/|0|ffffffffffffffff,0,"},
      {"n mm 1 2 3", "1 n||1|2,3,"},
      {"n m 1 2 3", "1 n|-|1|2,3,"},
      {"n \" 1 2 3", "0 n| 1 2 |0|"},
      {"n \"m\" 1 2 3 4 5 6", "0 n|m|1|2,3,"},
      {"n \"m\" 1 2 \"3 4 5 6", "1 n|m|1|2,0,"},
      {"n \"m\" 1 2", "0 n|m|1|2,0,"},
      {"n \"m\" 1", "0 n|m|1|"},
      {"n\0 \"m\" 1 2 3"s, "0 n|-|0|"}};
  for (const auto& [line, parsed] : rows) EXPECT_EQ(parsed, Parse(line)) << line;
  EXPECT_EQ(Lines{"zca_file_parser: Unexpected number of annotation arguments: 5"},
            zeltest::LoggedLines());
}

Lines Deliver(const char* module, uint64_t loadBase = 0) {
  Lines records;
  const auto note = [](const ZelZCARecord* record, void* context) {
    EXPECT_TRUE(record->expression == nullptr && record->probe == 0 && record->argumentCount == 2);
    std::ostringstream text;
    text << std::string(record->name).substr(0, 9) << "@" << std::hex << record->address << " "
         << record->arguments[0].value << " " << record->arguments[1].value;
    static_cast<Lines*>(context)->push_back(text.str());
  };
  __ZelZCAProcessExternalRecords(module, loadBase, note, &records);
  return records;
}

TEST(DefinitionFilesTest, DefinitionsAccumulateUntilTheCleanup) {
  const zeltest::TemporaryDirectory directory;
  zeltest::WriteFile("empty", "");
  zeltest::WriteFile("1", "a \"/lib//libx.so\" 1a0 0x10 400000\n\n \nb \"libx.so\" ffffffff 2 0\n");
  zeltest::WriteFile("2", "c \"/libx.so\" 3 3 4\nd \"/LIBX.so\" 1 2 3\ne \"\" 1 2 3");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(Lines{}, Deliver("libx.so"));
    for (const char* path : {"empty", "1", "empty", "2"})
      EXPECT_EQ(1, __ZelZCALoadExternalDefinitions(path));
    const Lines both = {"a@7effffc001a0 10 400000", "b@7f00ffffffff 2 0"};
    EXPECT_EQ(both, Deliver("libx.so", 0x7f0000000000)) << "a leading '/' is part of a base name";
    EXPECT_EQ(Lines{both[0]}, Deliver("//lib///libx.so", 0x7f0000000000));
    EXPECT_EQ(Lines{"c@ffffffffffffffff 3 4"}, Deliver("//libx.so"));
    EXPECT_EQ(Lines{"e@fffffffffffffffe 2 3"}, Deliver(""));
    EXPECT_EQ(Lines{}, Deliver("x/libx.so"));
    __ZelZCACleanupDefinitions();
    __ZelZCACleanupDefinitions();
  }
  EXPECT_EQ(0, __ZelZCALoadExternalDefinitions("missing"));
  EXPECT_EQ(Lines{}, Deliver(nullptr));
  EXPECT_EQ(
      (Lines{"ERROR FAIL_OPEN_FILE missing", "ERROR Cannot allocate memory to copy module name"}),
      zeltest::LoggedLines());
}

TEST(DefinitionFilesTest, WhatIsNoDefinitionIsLeftOutAndForgotten) {
  zeltest::backing::Install();
  const zeltest::TemporaryDirectory directory;
  const std::string rest = " \"m\" 1 2 3\n", longest = std::string(65'523, 'y') + rest;
  const auto write = [&](const char* path, const std::string& line) {
    zeltest::WriteFile(path, line + "a" + rest + "six \"m\" 1 2 3 4\n" + longest + "no\n");
  };
  write("few", "n \"m\" 1 2\nn m 1 2 3\nn \" 1 2 3\nn\n\"\n" + rest);
  write("long", std::string(65'533, 'x') + rest);
  write("nul", "n\0"s + rest + std::string(100'000, '\0') + "n" + rest);
  write("cut", "n \"" + std::string(70'000, 'm') + "\" 1 2 3\n");
  size_t live = 0;
  for (int round = 0; round < 500; ++round) {  // so that a block left behind each time fills a page
    for (const char* path : {"few", "long", "nul", "cut"}) {
      EXPECT_EQ(1, __ZelZCALoadExternalDefinitions(path));
      EXPECT_EQ((Lines{"a@fffffffffffffffe 2 3", "six@fffffffffffffffe 2 3",
                       "yyyyyyyyy@fffffffffffffffe 2 3"}),
                Deliver("m"));
      __ZelZCACleanupDefinitions();
    }
    if (round == 0) live = zeltest::backing::LiveBlocks();
  }
  EXPECT_EQ(live, zeltest::backing::LiveBlocks());
}

}  // namespace
