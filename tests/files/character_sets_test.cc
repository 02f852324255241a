#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

#include "zelrt/files.h"

namespace {

class CharacterSetsTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, GetParam())); }
};
INSTANTIATE_TEST_SUITE_P(Locales, CharacterSetsTest, testing::Values("C", "C.UTF-8"),
                         [](const auto& locale) { return locale.index == 0 ? "Posix" : "Utf8"; });

// Each pair is tried in all sizes around the one that just fits, in both directions.
TEST_P(CharacterSetsTest, WhatDoesNotFitWithItsEndIsNotTouched) {
  const struct {
    std::string narrow;
    std::wstring wide;
    bool needsUtf8;
  } rows[] = {{"a", L"a", false},
              {"file.xml", L"file.xml", false},
              {"\xC3\xA9", L"\xE9", true},
              {"x\xE2\x82\xAC\xF0\x9F\x98\x80", L"x\u20AC\U0001F600", true}};
  for (const auto& row : rows) {
    const bool isConvertible = !row.needsUtf8 || std::strcmp(GetParam(), "C") != 0;
    const size_t wideSize = (row.wide.size() + 1) * sizeof(wchar_t);
    for (size_t size = 0; size <= wideSize + 1; ++size) {
      const bool fits = isConvertible && size >= wideSize;
      std::wstring buffer(row.wide.size() + 2, L'.');
      EXPECT_EQ(fits ? row.wide.size() : 0,
                __ZelUtf8ToWstring(buffer.data(), size, row.narrow.c_str()));
      const std::wstring untouched(buffer.size(), L'.');
      EXPECT_EQ(fits ? row.wide + L'\0' + L'.' : untouched, buffer) << row.narrow << size;
    }
    for (size_t size = 0; size <= row.narrow.size() + 2; ++size) {
      const bool fits = isConvertible && size > row.narrow.size();
      std::string buffer(row.narrow.size() + 2, '.');
      EXPECT_EQ(fits ? row.narrow.size() : 0,
                __ZelWstringToUtf8(buffer.data(), size, row.wide.c_str()));
      const std::string untouched(buffer.size(), '.');
      EXPECT_EQ(fits ? row.narrow + '\0' + '.' : untouched, buffer) << row.narrow << size;
    }
    wchar_t* const wide = __ZelAllocateAndConvertUtf8ToWstring(row.narrow.c_str());
    char* const narrow = __ZelAllocateAndConvertWstringToUtf8(row.wide.c_str());
    EXPECT_EQ(isConvertible, wide != nullptr && row.wide == wide);
    EXPECT_EQ(isConvertible, narrow != nullptr && row.narrow == narrow);
    __ZelFreeWstring(wide);
    __ZelFreeMbString(narrow);
  }
}

TEST_P(CharacterSetsTest, WhatIsEmptyInvalidOrNullIsNotConverted) {
  wchar_t wide[8] = L".";
  char narrow[8] = ".";
  for (const char* source : {"", "a\xFF", "\xC3", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(0u, __ZelUtf8ToWstring(wide, sizeof wide, source));
  }
  for (const wchar_t* source : {L"", L"a\xD800", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(0u, __ZelWstringToUtf8(narrow, sizeof narrow, source));
  }
  EXPECT_EQ(L'.', wide[0]);
  EXPECT_EQ('.', narrow[0]);
  EXPECT_EQ(0u, __ZelUtf8ToWstring(nullptr, 8, "a"));
  EXPECT_EQ(0u, __ZelWstringToUtf8(nullptr, 8, L"a"));

  wchar_t* const emptyWide = __ZelAllocateAndConvertUtf8ToWstring("");
  char* const emptyNarrow = __ZelAllocateAndConvertWstringToUtf8(L"");
  EXPECT_STREQ(L"", emptyWide);
  EXPECT_STREQ("", emptyNarrow);
  __ZelFreeWstring(emptyWide);
  __ZelFreeMbString(emptyNarrow);
  EXPECT_EQ(nullptr, __ZelAllocateAndConvertUtf8ToWstring("a\xFF"));
  EXPECT_EQ(nullptr, __ZelAllocateAndConvertUtf8ToWstring(nullptr));
  EXPECT_EQ(nullptr, __ZelAllocateAndConvertWstringToUtf8(nullptr));
}

}  // namespace
