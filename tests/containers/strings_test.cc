#include "zelrt/strings.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/exhaustion.h"
#include "tests/support/fake_backing.h"

namespace {

namespace backing = zeltest::backing;

constexpr uint32_t kCategory = 5;

void Expect(const ZelString* string, const std::string& text, uint32_t capacity) {
  EXPECT_EQ(text, std::string(string->text, string->length));
  EXPECT_EQ('\0', string->text[string->length]);
  EXPECT_EQ(capacity, string->capacity) << text;
  EXPECT_EQ(kCategory, string->memoryCategory);
}

class StringsTest : public testing::Test {
 protected:
  void SetUp() override { backing::Install(); }
};

// Each row goes on with the string of the row before; what begins with '+' is appended.
TEST_F(StringsTest, SettingAndAppendingGrowByTheirOwnRules) {
  Expect(__ZelStrAlloc(kCategory, 0, ""), "", 1);
  ZelString* const string = __ZelStrAlloc(kCategory, 4, "abcdefghij");
  const struct {
    std::string change, text;
    uint32_t capacity;
  } rows[] = {{"+klmnopqrs", "abcdefghijklmnopqrs", 20},
              {"+", "abcdefghijklmnopqrs", 20},
              {"abcdefghijklm", "abcdefghijklm", 20},
              {"+0123456789", "abcdefghijklm0123456789", 60},
              {std::string(59, 'x'), std::string(59, 'x'), 60},
              {std::string(60, 'x'), std::string(60, 'x'), 120}};
  for (const auto& row : rows) {
    const bool appends = row.change[0] == '+';
    if (appends) __ZelStrAppend(string, row.change.c_str() + 1);
    ASSERT_TRUE(appends || __ZelStrSet(string, row.change.c_str()) == string);
    Expect(string, row.text, row.capacity);
  }
  __ZelStrAppend(string, nullptr);
  __ZelStrAppend(nullptr, "x");
  __ZelStrDestroy(nullptr);
}

TEST_F(StringsTest, TheOwnTextCanBeGivenAndNothingIsLeftBehind) {
  ZelString* const string = __ZelStrAlloc(kCategory, 40'000, "abc");  // too large for a page
  const size_t withOneBuffer = backing::LiveBlocks();
  __ZelStrAppend(string, string->text + 1);
  __ZelStrSet(string, string->text + 2);
  Expect(string, "cbc", 40'000);
  __ZelStrSet(string, std::string(40'000, 'z').c_str());
  __ZelStrAppend(string, string->text);
  Expect(string, std::string(80'000, 'z'), 240'000);
  EXPECT_EQ(withOneBuffer, backing::LiveBlocks());
  __ZelStrDestroy(string);
  EXPECT_EQ(withOneBuffer - 1, backing::LiveBlocks());
}

TEST_F(StringsTest, WhatTheCapacityCannotTellIsNotAppended) {
  auto* const end = new char[3]{};
  ZelString full = {0xFFFFFFFC, 0xFFFFFFFF, kCategory, end - 0xFFFFFFFC};
  __ZelStrAppend(&full, "123");
  EXPECT_EQ(0xFFFFFFFC, full.length);
  __ZelStrAppend(&full, "12");
  EXPECT_EQ(0xFFFFFFFE, full.length);
  EXPECT_STREQ("12", end);
  delete[] end;
}

TEST_F(StringsTest, WithoutMemory) {
  const std::string large(100'000, 'a');
  ZelString* const string = __ZelStrAlloc(kCategory, 0, "text");
  zeltest::ExpectToSurviveExhaustion([&] {
    __ZelStrAppend(string, large.c_str());
    Expect(string, "text", 8);
    __ZelStrSet(string, large.c_str());
    EXPECT_TRUE(string->text == nullptr && string->capacity == 0 && string->length == 0);
    EXPECT_EQ(nullptr, __ZelStrAlloc(kCategory, 0, large.c_str()));
    __ZelStrAppend(string, "");  // from a page that is there
    Expect(string, "", 1);
  });
}

}  // namespace
