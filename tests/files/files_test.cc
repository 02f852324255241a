#include "zelrt/files.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/threads.h"
#include "zelrt/log.h"
#include "zelrt/processes.h"
#include "zelrt/runtime.h"
#include "zelrt/xml.h"

namespace {

using std::string_literals::operator""s;
using zeltest::OpenDescriptors;

bool OpenAtTheLimit() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few = {3, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  const bool isOpen = __ZelFopen("/dev/null", "r", nullptr) != nullptr;
  setrlimit(RLIMIT_NOFILE, &limit);
  return isOpen;
}

TEST(FilesTest, NothingIsOpenedOnAStandardDescriptor) {
  const zeltest::TemporaryDirectory directory;
  const struct {
    bool (*open)();
    bool succeeds;
  } rows[] = {{[] { return __ZelFopen("file", "w", nullptr) != nullptr; }, true},
              {[] { return __ZelXMLCreateFile("xml", 0) != nullptr; }, true},
              {[] { return __ZelCreateLogger("a", "log", 0) == 1; }, true},
              {[] { return __ZelCreateLockFile("lock", 0) > 2; }, true},
              {[] {
                 int error = 0;
                 return __ZelFopen("missing", "r", &error) != nullptr || error != ENOENT;
               },
               false},
              {[] { return __ZelFopen(nullptr, "r", nullptr) != nullptr; }, false},
              {[] { return __ZelWFopen(L"\xE9", L"w", nullptr) != nullptr; }, false},
              {OpenAtTheLimit, false}};
  for (int closed = 0; closed < 8; ++closed) {
    for (const auto& row : rows) {
      SCOPED_TRACE(testing::Message() << "row " << &row - rows << " without " << closed);
      zeltest::ExpectSuccessInChild([&row, closed] {
        __ZelRtStartup();
        for (int descriptor = 0; descriptor < 3; ++descriptor) {
          if ((closed >> descriptor & 1) != 0) close(descriptor);
        }
        const auto before = OpenDescriptors();
        EXPECT_EQ(row.succeeds, row.open());
        EXPECT_TRUE(row.succeeds ? zeltest::DescriptorOpenedSince(before) > 2
                                 : OpenDescriptors() == before);
      });
    }
  }
}

TEST(FilesTest, TextsAreCutAndFilledUp) {
  const std::pair<uint64_t, std::string> rows[] = {
      {4, "abc\0...."s}, {0, "........"s}, {8, "abcdef\0\0"s}, {6, "abcde\0.."s}};
  for (const auto& [size, expected] : rows) {
    char buffer[] = "........";
    EXPECT_EQ(buffer, __ZelStrncpy(buffer, "abcdef", size));
    EXPECT_EQ(expected, std::string(buffer, 8));
  }
  char text[] = " \t x y \n", blank[] = "  ";
  EXPECT_EQ(text + 3, __ZelStripWhiteSpaces(text));
  EXPECT_EQ(" \t x y\0\0"s, std::string(text, 8));
  EXPECT_STREQ("", __ZelStripWhiteSpaces(blank));
}

TEST(FilesTest, TheTimestampCountsWithASignAndLosesNothing) {
  EXPECT_EQ(1, __ZelUpdateTimestamp(0));
  EXPECT_EQ(int64_t{1} + INT32_MIN, __ZelUpdateTimestamp(INT32_MIN));
  EXPECT_EQ(0, __ZelUpdateTimestamp(INT32_MAX));
  zeltest::OnEachThread(4, [](int) {
    for (int i = 0; i < 20'000; ++i) __ZelUpdateTimestamp(1);
  });
  EXPECT_EQ(80'001, __ZelUpdateTimestamp(0));
}

// Each text is tried in the size that just fits and in one byte less, in both directions.
TEST(FilesTest, WhatDoesNotFitOrIsInvalidIsNotConverted) {
  ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C.UTF-8"));
  const std::tuple<std::string, std::wstring, bool> rows[] = {
      {"", L"", true},
      {"x\xE2\x82\xAC\xF0\x9F\x98\x80", L"x\u20AC\U0001F600", true},
      {"a\xFF", L"a\xD800", false}};
  for (const auto& [narrow, wide, isValid] : rows) {
    for (const size_t missing : {1, 0}) {
      const bool fits = isValid && !narrow.empty() && missing == 0;
      std::wstring wideBuffer(12, L'.'), expectedWide = wideBuffer;
      std::string buffer(12, '.'), expected = buffer;
      if (fits) expectedWide.replace(0, wide.size() + 1, wide + L'\0');
      if (fits) expected.replace(0, narrow.size() + 1, narrow + '\0');
      const size_t wideSize = (wide.size() + 1) * sizeof(wchar_t) - missing;
      const size_t size = narrow.size() + 1 - missing;
      EXPECT_EQ(fits ? wide.size() : 0,
                __ZelUtf8ToWstring(&wideBuffer[0], wideSize, narrow.c_str()));
      EXPECT_EQ(fits ? narrow.size() : 0, __ZelWstringToUtf8(&buffer[0], size, wide.c_str()));
      EXPECT_TRUE(expectedWide == wideBuffer && expected == buffer) << narrow;
    }
    wchar_t* const newWide = __ZelAllocateAndConvertUtf8ToWstring(narrow.c_str());
    char* const newNarrow = __ZelAllocateAndConvertWstringToUtf8(wide.c_str());
    EXPECT_EQ(isValid, newWide != nullptr && wide == newWide);
    EXPECT_EQ(isValid, newNarrow != nullptr && narrow == newNarrow);
    __ZelFreeWstring(newWide);
    __ZelFreeMbString(newNarrow);
  }
}

TEST(FilesTest, AFailedSymbolLookUpIsNotLeftForTheHost) {
  void* const image = __ZelRtLoadImage("libm.so.6");
  EXPECT_NE(nullptr, __ZelRtGetSymbol(image, "cos"));
  EXPECT_EQ(nullptr, __ZelRtGetSymbol(image, "no_such_symbol"));
  EXPECT_EQ(nullptr, dlerror());
  EXPECT_EQ(nullptr, __ZelRtGetSymbol(nullptr, "malloc"));
}

}  // namespace
