// Registry, values, command line, help. What cannot be undone runs in a child.

#include <gtest/gtest.h>

#include "options/internal.h"
#include "tests/log/log_text.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/runtime.h"

namespace {

using namespace zeltest;
using Texts = std::vector<std::string>;

constexpr uint32_t kTool = 0, kOther = 1, kNoId = 0xFFFFFFFF;
const std::string kForeignName = "-a-name-that-is-wider-than-its-column";
const std::string kForeignHelp =
    "\nother tool options are the following:\n   " + kForeignName + "  D default: ";
enum : uint32_t { kVerbose, kLevel, kOut, kMode, kFile, kIgnore, kLib, kHidden, kForeign, kNext };

// Two parsers, the first with an option of each kind.
class OptionsTest : public testing::Test {
 protected:
  OptionsTest() {
    for (const char* tool : {"tool", "other"}) __ZelGetOptionParser(tool);
    __ZelRegisterBooleanOption(kTool, "-verbose", "Say more", 5, 0, 1);
    __ZelRegisterIntegerOption(kTool, "-level", "Depth", -3, 0, 1);
    __ZelRegisterStringOption(kTool, "-out", "Result", nullptr, 0, 0, 1);
    __ZelRegisterStringEnumOption(kTool, "-mode", "Kind", "summary", 0, 1);
    __ZelRegisterPathOption(kTool, "-file", "Input", "//a///b/", 0, 0, 1);
    __ZelRegisterStringOption(kTool, "-ignore", "Left out", nullptr, 0, 2, 1);
    __ZelRegisterPathOption(kTool, "-lib", "Searched", "/usr//lib", 0, 1, 1);
    __ZelRegisterBooleanOption(kTool, "-hidden", "Internal", 0, 0, 0);
    __ZelRegisterIntegerOption(kOther, kForeignName.c_str(), "D", 1, 0, 1);
    __ZelSetValidStringOptionArgumentWithEnum(kTool, kMode, "summary", 1);
    __ZelSetValidStringOptionArgumentWithEnum(kTool, kMode, "sum-all", 2);
    __ZelSetValidStringOptionArgument(kTool, kMode, "trace");
  }
  static void StartLog() {
    __ZelRtStartup();
    __ZelCreateLogger("a", "log", 0);
  }
  static void ExpectLog(const std::string& content) {
    EXPECT_EQ(LogStart("a") + content, ReadLog("log"));
  }
  static std::string Comment(const std::string& text) { return "\n\t<!-- " + text + " -->"; }
  static std::string Internal(unsigned number, const std::string& text) {
    return RecordText(number, "INTERNAL", "ERROR", "\n\t\t<!-- " + text + " -->");
  }
  static std::string Help(uint32_t parser, uint32_t all) {
    return RunInChild([=] { EXPECT_EQ(0, __ZelPrintHelp(parser, all)); }).output;
  }
  static void ExpectFailure(const std::vector<const char*>& arguments, const char* message,
                            const std::string& option, const std::string& comment) {
    ExpectSuccessInChild([&] {
      StartLog();
      EXPECT_EQ(0u, __ZelParseOptions2(kTool, int(arguments.size()), arguments.data()));
    });
    const std::string argument = "\n\t\t<arg name='option'>" + option + "</arg>";
    ExpectLog(RecordText(1, message, "ERROR", argument) + Comment(comment));
  }
  TemporaryDirectory directory_;
};

TEST_F(OptionsTest, AParserIsReleasedByItsNameOnce) {
  EXPECT_EQ(ZEL_INVALID_OPTION_PARSER, __ZelGetOptionParser(nullptr));
  for (const char* name : {"too", "atool", "", static_cast<const char*>(nullptr)})
    EXPECT_EQ(0u, __ZelReleaseOptionParserHandle(kTool, name));
  for (uint32_t released : {1, 0}) {
    EXPECT_EQ(released, __ZelReleaseOptionParserHandle(kTool, "toolbox"));
    for (uint32_t id : {2u, 16u, kNoId}) EXPECT_EQ(0u, __ZelReleaseOptionParserHandle(id, "tool"));
  }
  for (uint32_t option = kVerbose; option <= kHidden; ++option) {
    for (uint32_t id : {kTool, kOther, kNoId}) EXPECT_EQ(nullptr, __ZelGetOptionName(id, option));
    for (uint32_t id : {kTool, kNoId})
      ExpectFatalInChild([=] { __ZelIsOptionSet(id, option); }, "A valid option id");
  }
}

TEST(OptionMemoryTest, ReleaseGivesItAllBack) {
  backing::Install();
  const std::string text = '-' + std::string(40000, 'x');  // lies in blocks of its own
  const char* const x = text.c_str();
  size_t blocks[2];  // empty pages wait for the next option
  for (size_t& count : blocks) {
    const uint32_t parser = __ZelGetOptionParser(x);
    const uint32_t lib = __ZelRegisterPathOption(parser, x, x, x, 0, 1, 1);
    const uint32_t mode = __ZelRegisterStringEnumOption(parser, x, x, x, 0, 1);
    for (int i = 0; i < 4000; ++i) {
      __ZelSetPathOption(parser, lib, i % 1000 == 0 ? x : "a");
      __ZelSetValidStringOptionArgument(parser, mode, i % 1000 == 0 ? x : nullptr);
      if (i % 1000 == 0) __ZelSetStringOption(parser, mode, x);
    }
    EXPECT_EQ(1u, __ZelReleaseOptionParserHandle(parser, x));
    count = backing::LiveBlocks();
  }
  EXPECT_EQ(blocks[0], blocks[1]);
}

TEST_F(OptionsTest, ValuesAreTheDefaultsUntilTheyAreSet) {
  EXPECT_EQ(1, __ZelGetBooleanOptionValue(kTool, kVerbose)) << "registered with 5";
  EXPECT_EQ(nullptr, __ZelGetStringOptionValue(kTool, kOut));
  for (uint32_t id : {uint32_t{kNext}, 255u, 256u, kNoId})
    EXPECT_EQ(0u, __ZelGetOptionNumberOfArguments(kTool, id));
  for (uint32_t isSet : {0, 1}) {
    EXPECT_EQ(isSet, __ZelIsOptionSet(kTool, kVerbose));
    EXPECT_EQ(isSet, __ZelGetOptionNumberOfArguments(kOther, kVerbose)) << "no parser looked at";
    EXPECT_EQ(1u, __ZelSetBooleanOption(kTool, kVerbose, 0));
  }
  EXPECT_EQ(0, __ZelGetBooleanOptionValue(kTool, kVerbose));
}

TEST_F(OptionsTest, AnAppendOptionKeepsAllTextsOthersTheLast) {
  for (const char* text : {"a", "b//c", __ZelGetStringOptionValue(kTool, kLib), "d//"})
    for (uint32_t option : {kFile, kLib}) EXPECT_EQ(1u, __ZelSetPathOption(kTool, option, text));
  __ZelSetStringOption(kTool, kFile, __ZelGetStringOptionValue(kTool, kFile));  // its own text
  EXPECT_STREQ("d/", __ZelGetPathOptionValue(kTool, kFile));
  Texts seen;
  const auto collect = [](const char* text, void* context) {
    static_cast<Texts*>(context)->emplace_back(text);
    if (*text == 'a') __ZelSetStringOption(kTool, kLib, "late");
    return uint32_t{static_cast<unsigned char>(*text)};
  };
  EXPECT_EQ(0u, __ZelProcessAppendOptionValues(kTool, kIgnore, collect, &seen));
  EXPECT_EQ(uint32_t{'l'}, __ZelProcessAppendOptionValues(kTool, kLib, collect, &seen));
  EXPECT_EQ((Texts{"a", "b/c", "/usr/lib", "d/", "late"}), seen);
}

TEST_F(OptionsTest, TheFirstValidArgumentThatBeginsWithTheTextIsMeant) {
  const std::pair<const char*, uint32_t> rows[] = {{"sum", 1}, {"sum-", 2}, {"t", kNoId}, {"", 1}};
  for (const auto& [text, value] : rows) {
    EXPECT_EQ(1u, __ZelSetStringOption(kTool, kMode, text));
    EXPECT_EQ(value, __ZelGetStringOptionEnumValue(kTool, kMode)) << text;
  }
  __ZelRegisterStringEnumOption(kTool, "-next", "", nullptr, 0, 1);
  __ZelSetValidIntegerOptionArgument(kTool, kNext, 1);  // has no text, is passed over
  __ZelSetValidStringOptionArgumentWithEnum(kTool, kNext, "x", 7);
  EXPECT_EQ(kNoId, __ZelGetStringOptionEnumValue(kTool, kNext)) << "no text";
  __ZelSetStringOption(kTool, kNext, "");
  EXPECT_EQ(7u, __ZelGetStringOptionEnumValue(kTool, kNext));
}

TEST_F(OptionsTest, WrongIndexesAndIdsAreLogged) {
  StartLog();
  EXPECT_EQ(nullptr, __ZelGetPathOptionArgumentValue(kTool, kLib, 2)) << "default: no message";
  for (const char* text : {"a", "b", "c"}) __ZelSetPathOption(kTool, kLib, text);
  EXPECT_STREQ("c", __ZelGetPathOptionArgumentValue(kTool, kLib, 3));
  EXPECT_EQ(nullptr, __ZelGetPathOptionArgumentValue(kTool, kLib, 4));
  EXPECT_EQ(nullptr, __ZelGetStringOptionArgumentValue(kTool, kFile, 0));
  EXPECT_EQ(kNoId, __ZelGetOptionFlags(kOther, kVerbose));
  EXPECT_EQ(0u, __ZelParseOptions(16, 0, nullptr));
  ExpectLog(Internal(1, "Option -lib does not have an argument #4") +
            Internal(2, "Option -file does not have an argument #0") +
            Internal(3, "Invalid option parser id or option id used to get option flags") +
            Internal(4, "Invalid parser ID passed: 16 (max: 16)"));
}

TEST_F(OptionsTest, DefectsEndTheProcess) {
  const std::string kIds = "A valid option id and parser id must be specified to ";
  const std::string kGet = kIds + "get the value of the option";
  const std::string kLimit = kIds + "register an option argument for an option in ZELRT";
  const std::string kAdd =
      "A valid option name, description and parser handle must be specified to register an option "
      "with ZELRT";
  const std::string kType = "Only string and integer option types can register valid arguments";
  const auto drop = [](uint32_t option) { zelrt::g_options[option].currentValue = nullptr; };
  for (int32_t v : {2, -4}) __ZelSetValidIntegerOptionArgument(0, kLevel, v);
  for (int32_t v : {-4, 2}) EXPECT_EQ(1u, __ZelSetIntegerOption(0, kLevel, v));
  const std::pair<std::string, std::function<void()>> rows[] = {
      {kAdd, [] { __ZelRegisterBooleanOption(0, nullptr, "", 0, 0, 0); }},
      {kAdd, [] { __ZelRegisterPathOption(0, "-x", nullptr, "", 0, 0, 0); }},
      {kAdd, [] { __ZelRegisterStringOption(2, "x", "", "", 0, 0, 0); }},
      {"A valid option name starting with '-' must be specified to register the option with ZELRT",
       [] { __ZelRegisterIntegerOption(0, "", "", 0, 0, 0); }},
      {kLimit, [] { __ZelSetValidStringOptionArgument(0, kNext, "a"); }},
      {"Registering valid arguments for append options is not currenctly supported",
       [] { __ZelSetValidStringOptionArgument(0, kLib, "a"); }},
      {kType, [] { __ZelSetValidStringOptionArgument(0, kFile, "a"); }},
      {kGet, [] { __ZelSetBooleanOption(0, kLevel, 1); }},
      {kGet, [] { __ZelSetStringOption(0, kLevel, "1"); }},
      {kGet, [] { __ZelGetIntegerOptionValue(0, kForeign); }},
      {kGet, [] { __ZelGetPathOptionArgumentValue(0, kOut, 1); }},
      {kIds + "check if an option is set", [] { __ZelIsOptionSet(0, kForeign); }},
      {kIds + "check if an option is sets",
       [] { __ZelProcessAppendOptionValues(0, kNext, nullptr, nullptr); }},
      {"A iterator can be applied only to string and path append options.",
       [] { __ZelProcessAppendOptionValues(0, kOut, nullptr, nullptr); }},
      {"Null string used to set string option", [] { __ZelSetStringOption(0, kLib, nullptr); }},
      {"Invalid argument [\"\", -1] used to set Option -mode",
       [] { __ZelSetStringOption(0, kMode, nullptr); }},
      {"Invalid argument [summary2, -1] used to set Option -mode",
       [] { __ZelSetStringOption(0, kMode, "summary2"); }},
      {"Invalid argument [\"\", 3] used to set Option -level",
       [] { __ZelSetIntegerOption(0, kLevel, 3); }},
      {"Option -out is not a valid option", [=] { drop(kOut), __ZelSetStringOption(0, kOut, ""); }},
      {"Option -level is not initialized correctly",
       [=] { drop(kLevel), __ZelGetIntegerOptionValue(0, kLevel); }}};
  for (const auto& [text, defect] : rows) ExpectFatalInChild(defect, text + "\n");
}

// Which values a command line sets is compared with a model in fuzz/option_vectors_fuzz.cc.
TEST_F(OptionsTest, WhatIsWrongWithACommandLineIsLogged) {
  for (const char* text : {"2147483648", "99999999999999999999", "1a", "1 ", " -1", "0x", ""}) {
    const std::string comment = std::string("Bad integer value: ") + text;
    ExpectFailure({"-hidden", "-level", text, "-verbose"}, "BAD_ARGUMENT", "-level",
                  comment + " for command line option: -level");
  }
  const std::pair<std::string, std::vector<const char*>> badOptions[] = {
      {"Bad", {"value", ""}},
      {"Invalid", {"-verbosex", "-verbos", "-", "-no-", "-no-such", kForeignName.c_str()}},
      {"Invalid negation for", {"-no-level", "-no-lib"}}};
  for (const auto& [kind, texts] : badOptions)
    for (const char* text : texts)
      ExpectFailure({"-level", "3", text, "-verbose"}, "BAD_OPTION", text,
                    kind + " command line option: " + text + " used with tool: tool");
  const std::string noValue = "No arguments for command line option: -out";
  ExpectFailure({"-out"}, "BAD_ARGUMENT", "-out", noValue);
  for (const char* text : {"-x", "-5", "-"})
    ExpectFailure({"-out", text, "-verbose"}, "BAD_ARGUMENT", "-out", noValue);
  const char* const nulls[] = {"-out", nullptr};
  for (int32_t count : {1, 2}) EXPECT_EQ(0u, __ZelParseOptions(kTool, count, nulls + 2 - count));
  EXPECT_EQ(1u, __ZelParseOptions(15, -1, nulls));
}

TEST_F(OptionsTest, HelpShowsDefaultsAndTheListingValuesInForce) {
  StartLog();
  const char* const arguments[] = {"-no-verbose", "-mode", "trace", "-lib", "a", "-lib", "b"};
  __ZelParseOptions2(kTool, 7, arguments);
  EXPECT_EQ(0, __ZelLogToolOptionValues(kTool));
  const char* const rows[][3] = {
      {"-verbose                           ", "Say more default: true", "false"},
      {"-level                             ", "Depth default: -3", "-3"},
      {"-out                               ", "Result default: none", "none"},
      {"-mode                              ", "Kind default: summary", "trace"},
      {"-file                              ", "Input default: /a/b/", "/a/b/"},
      {"-ignore                            ", "Left out default: none", "none"},
      {"-lib                               ", "Searched default: /usr/lib", "a, b, "},
      {"-hidden                            ", "Internal default: false", "false"}};
  std::string help = "\ntool tool options are the following:\n", someHelp;
  std::string listing = Comment("tool's options are the following: ");
  for (const auto& [name, described, value] : rows) {
    someHelp = help;
    help += std::string("   ") + name + described + "\n";
    listing += Comment(std::string(name) + value);
  }
  const auto helpAll = [] { std::printf("-> %u", __ZelPrintHelpAll(7)); };
  EXPECT_EQ(someHelp, Help(kTool, 0)) << "without the last";
  EXPECT_EQ(help + kForeignHelp + "1\n-> 2", RunInChild(helpAll).output);
  __ZelReleaseOptionParserHandle(kTool, "tool");
  for (uint32_t parser : {kTool, 2u, kNoId}) {
    EXPECT_EQ("", Help(parser, 1));
    EXPECT_EQ(0, __ZelLogToolOptionValues(parser));
  }
  EXPECT_EQ(kForeignHelp + "1\n-> 2", RunInChild(helpAll).output);
  zelrt::g_options[kForeign].type = 5;  // does not exist
  const char* const foreign[] = {kForeignName.c_str(), "1"};
  EXPECT_EQ(0u, __ZelParseOptions2(kOther, 2, foreign));
  EXPECT_EQ(kForeignHelp, Help(kOther, 0));
  EXPECT_EQ(0, __ZelLogToolOptionValues(kOther));
  ExpectLog(listing + Internal(1, "UNKNOWN OPTION TYPE " + kForeignName) +  // by a child
            Comment("other's options are the following: ") +
            Internal(1, "UNKNOWN OPTION TYPE for option " + kForeignName));
}

TEST_F(OptionsTest, JoinedTextsAreCut) {
  StartLog();
  const std::string texts[] = {std::string(1000, 'x'), std::string(1042, 'y'), "zz", "no room"};
  for (const std::string& text : texts) __ZelSetStringOption(kTool, kIgnore, text.c_str());
  __ZelLogToolOptionValues(kTool);
  const std::string shown = texts[0] + ", " + texts[1] + ", z";  // 2,047 bytes
  EXPECT_NE(std::string::npos, ReadLog("log").find("  " + shown + " -->"));
  EXPECT_NE(std::string::npos, ReadLog("log").find("  /usr/lib,  -->"))
      << "a default is joined too";
}

}  // namespace
