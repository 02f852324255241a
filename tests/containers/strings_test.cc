#include "zelrt/strings.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/fake_backing.h"

namespace {

constexpr uint32_t kCategory = 5;

void Expect(const ZelString* string, const std::string& text, uint32_t capacity) {
  EXPECT_EQ(text, std::string(string->text, string->length));
  EXPECT_EQ('\0', string->text[string->length]);
  EXPECT_EQ(capacity, string->capacity) << text;
  EXPECT_EQ(kCategory, string->memoryCategory);
}

// Each row goes on with the string of the row before; what begins with '+' is appended.
TEST(StringsTest, SettingAndAppendingGrowByTheirOwnRules) {
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
  __ZelStrAppend(nullptr, "x"), __ZelStrDestroy(nullptr);
}

TEST(StringsTest, TheOwnTextCanBeGivenAndNothingIsLeftBehind) {
  zeltest::backing::Install();
  ZelString* const string = __ZelStrAlloc(kCategory, 40'000, "abc");  // too large for a page
  const size_t withOneBuffer = zeltest::backing::LiveBlocks();
  __ZelStrAppend(string, string->text + 1);
  __ZelStrSet(string, string->text + 2);
  Expect(string, "cbc", 40'000);
  __ZelStrSet(string, std::string(40'000, 'z').c_str());
  __ZelStrAppend(string, string->text);
  Expect(string, std::string(80'000, 'z'), 240'000);
  EXPECT_EQ(withOneBuffer, zeltest::backing::LiveBlocks());
  __ZelStrDestroy(string);
  EXPECT_EQ(withOneBuffer - 1, zeltest::backing::LiveBlocks());
}

TEST(StringsTest, WhatTheCapacityCannotTellIsNotAppended) {
  auto* const end = new char[3]{};
  ZelString full = {0xFFFFFFFC, 0xFFFFFFFF, kCategory, end - 0xFFFFFFFC};
  __ZelStrAppend(&full, "123");
  EXPECT_EQ(0xFFFFFFFC, full.length);
  __ZelStrAppend(&full, "12");
  EXPECT_EQ(0xFFFFFFFE, full.length);
  EXPECT_STREQ("12", end);
  delete[] end;
}

}  // namespace
