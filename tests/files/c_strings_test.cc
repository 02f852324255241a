#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace {

using std::string_literals::operator""s;

// Takes a text over from the library.
std::string Taken(char* text) {
  if (text == nullptr) return "(null)";
  const std::string copy = text;
  __ZelFree(text);
  return copy;
}

TEST(CStringsTest, CopiesAlwaysEndAndAreFilledUp) {
  const struct {
    const char* source;
    uint64_t size;
    std::string expected;
  } rows[] = {{"abcdef", 4, "abc\0...."s}, {"abcdef", 0, "........"s}, {"abcd", 4, "abc\0...."s},
              {"abc", 4, "abc\0...."s},    {"ab", 6, "ab\0\0\0\0.."s}, {"abc", 1, "\0......."s},
              {nullptr, 3, "\0\0\0....."s}};
  for (const auto copy : {__ZelStrncpy, __ZelStrSCncpy}) {
    for (const auto& row : rows) {
      char buffer[] = "........";
      EXPECT_EQ(buffer, copy(buffer, row.source, row.size));
      EXPECT_EQ(row.expected, std::string(buffer, 8)) << row.source << " " << row.size;
    }
    EXPECT_EQ(nullptr, copy(nullptr, "a", 2));
  }
  EXPECT_EQ("abc", Taken(__ZelStrdup("abc")));
  EXPECT_EQ("", Taken(__ZelStrdup("")));
  EXPECT_EQ(nullptr, __ZelStrdup(nullptr));
}

TEST(CStringsTest, FormattedTextsAreCutAndTellTheirLength) {
  for (const auto format : {__ZelSnprintf, __ZelSCnprintf}) {
    char buffer[] = "......";
    EXPECT_EQ(7, format(buffer, 4, "%s%d", "abc", 1234));
    EXPECT_EQ("abc\0.."s, std::string(buffer, 6));
  }
}

TEST(CStringsTest, BaseNamesAreBehindTheLastSlashThatIsNotTheFirstCharacter) {
  const char* const rows[][2] = {{"a/b/c", "c"}, {"c", "c"},  {"/c", "/c"}, {"a/b/", ""},
                                 {"/", "/"},     {"//", ""},  {"/a/", ""},  {"//c", "c"},
                                 {"", "(null)"}, {"a/b", "b"}};
  for (const auto baseName : {__ZelGetBaseName, __ZelGetSCBaseName}) {
    for (const auto& [path, expected] : rows) EXPECT_EQ(expected, Taken(baseName(path))) << path;
    EXPECT_EQ(nullptr, baseName(nullptr));
  }
}

TEST(CStringsTest, RunsOfSlashesBecomeOne) {
  const char* const rows[][2] = {
      {"//a///b/", "/a/b/"}, {"", ""}, {"////", "/"}, {"a/./..//b", "a/./../b"}, {"ab", "ab"}};
  for (const auto& [path, expected] : rows) {
    std::string buffer = path;
    __ZelSanitizePath(buffer.data());
    EXPECT_STREQ(expected, buffer.c_str());
  }
  __ZelSanitizePath(nullptr);
}

TEST(CStringsTest, WhiteSpaceAtTheEndIsOverwritten) {
  const struct {
    std::string text;
    size_t start;
    std::string left;
  } rows[] = {{"  x y \n", 2, "  x y\0\0"s},
              {"   ", 0, "\0\0\0"s},
              {"", 0, ""},
              {"\t\v\f\rx", 4, "\t\v\f\rx"},
              {"\xA0x\xA0", 0, "\xA0x\xA0"}};
  for (const auto& row : rows) {
    std::string buffer = row.text;
    EXPECT_EQ(buffer.data() + row.start, __ZelStripWhiteSpaces(buffer.data())) << row.text;
    EXPECT_EQ(row.left, buffer);
  }
  EXPECT_EQ(nullptr, __ZelStripWhiteSpaces(nullptr));
}

TEST(CStringsTest, OnlyAsciiLettersBecomeLowerCase) {
  std::string all(255, ' ');
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i + 1);
  std::string expected = all;
  for (char& c : expected) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  __ZelConvertUtf8ToLowerCase(all.data());
  EXPECT_EQ(expected, all);
  __ZelConvertUtf8ToLowerCase(nullptr);
}

TEST(CStringsTest, TheTimestampCountsWithASign) {
  EXPECT_EQ(1, __ZelUpdateTimestamp(0));
  EXPECT_EQ(2, __ZelUpdateTimestamp(0));
  EXPECT_EQ(1, __ZelUpdateTimestamp(-1));
  EXPECT_EQ(int64_t{1} + INT32_MIN, __ZelUpdateTimestamp(INT32_MIN));
  EXPECT_EQ(0, __ZelUpdateTimestamp(INT32_MAX));
}

}  // namespace
