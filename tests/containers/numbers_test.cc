#include "zelrt/numbers.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(NumbersTest, FieldsOfATextAreAppended) {
  const struct {
    const char* text;
    char separator;
    std::vector<unsigned long> numbers;
  } rows[] = {
      {"1,2,,3", ',', {1, 2, 0, 3}},
      {"1,2,", ',', {1, 2}},
      {"5:x:7", ':', {5, 0, 7}},
      {"-1", ',', {18446744073709551615u}},
      {" \t+12z,0x10,010", ',', {12, 0, 10}},
      {"9223372036854775808,-9223372036854775809", ',', {9223372036854775807, 1ul << 63}},
      {"1  2", ' ', {1, 2, 2}},  // the empty field between two spaces reads what follows
      {"7,8", '\0', {7}},
      {"", ',', {}},
      {nullptr, ',', {}},
  };
  for (const auto& row : rows) {
    std::vector<unsigned long> numbers = {42}, expected = row.numbers;
    expected.insert(expected.begin(), 42);
    zelrt::StrToNums(row.text, row.separator, numbers);
    EXPECT_EQ(expected, numbers) << (row.text != nullptr ? row.text : "null");
  }
}

}  // namespace
