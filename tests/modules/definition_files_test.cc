#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/fake_backing.h"
#include "tests/support/recorded_log.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/annotations.h"

namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

// "name@address argument bias"
Lines Deliver(const char* module, uint64_t loadBase = 0) {
  Lines records;
  const auto note = [](const ZelZCARecord* record, void* context) {
    const auto& [argument, bias] = record->arguments;
    EXPECT_TRUE(record->expression == nullptr && record->probe == 0 && record->argumentCount == 2);
    EXPECT_EQ(0u, argument.isRegister + bias.isRegister);
    std::ostringstream text;
    text << std::string(record->name).substr(0, 9) << "@" << std::hex << record->address << " "
         << argument.value << " " << bias.value;
    static_cast<Lines*>(context)->push_back(text.str());
  };
  __ZelZCAProcessExternalRecords(module, loadBase, note, &records);
  return records;
}

// How a line falls into fields is compared with a model in fuzz/definition_lines_fuzz.cc.
TEST(DefinitionFilesTest, NumbersEndWhereTheirDigitsDo) {
  const zeltest::TemporaryDirectory directory;
  zeltest::WriteFile("f",
                     "\t\v\fn \"m\" 0x1A0g 010 -1 \r\nn \"x//m\" 112345678 10z 5g\n"
                     "a\" b\"c /m/ 99999999999999999999 0x zz\nn xmx -2 -1 \"1 1\n");
  EXPECT_EQ(1, __ZelZCALoadExternalDefinitions("f"));
  EXPECT_EQ((Lines{"n@1a1 8 ffffffffffffffff", "n@12345673 a 5", "a\" b\"c@ffffffff 0 0",
                   "n@fffffffe ffffffffffffffff 0"}),
            Deliver("m"));
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
    zeltest::WriteFile(path, line + "a" + rest + "six \"m\" 1 2 3 4 5\n" + longest + "no\n");
  };
  write("few", "n \"m\" 1 2\nn m 1 2 3\nn \" 1 2 3\nn\n\"\n" + rest);
  write("long", std::string(65'533, 'x') + rest);
  write("nul", "n\0"s + rest + std::string(100'000, '\0') + "n" + rest);
  write("cut", "n \"" + std::string(70'000, 'm') + "\" 1 2 3\n");
  size_t live = 0;
  for (int round = 0; round < 500; ++round) {  // so that a block left behind each time fills a page
    for (const char* path : {"few", "long", "nul", "cut"}) {
      zeltest::ClearLog();
      EXPECT_EQ(1, __ZelZCALoadExternalDefinitions(path));
      EXPECT_EQ(Lines{"zca_file_parser: Unexpected number of annotation arguments: 5"},
                zeltest::LoggedLines());
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
