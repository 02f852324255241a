#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "containers/set_blocks.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "zelrt/log.h"
#include "zelrt/strings.h"

namespace {

// The allocator returns null on the thread that ends the process for want of memory: in the exit
// hook, for what needs a new page or a block of its own.
TEST(ExhaustionTest, WhatThereIsNoMemoryForIsLeftOut) {
  const auto runOut = [] {
    zeltest::backing::Install();
    static ZelSet source = {0, 1, nullptr}, set = {0, 40, nullptr}, one = {0, 1, nullptr};
    for (const uint32_t element : {3u, 100u, 200u}) __ZelAddAnElementToSet(&source, element);
    __ZelAddAnElementToSet(&one, 101);
    __ZelConstructSetAndDestroy(&set, &one);  // one block, in a category without a page
    static ZelString* const string = __ZelStrAlloc(1, 0, "text");
    __ZelSetExitHandler([](int32_t) {
      const std::string large(100'000, 'a');
      __ZelAddAnElementToSet(&set, 3);
      __ZelUnionSet(&set, &source);
      EXPECT_TRUE(zelrt::SetIsConsistent(set) && set.count == 2 && set.first->index == 1);
      __ZelConstructSet(&set, &source);
      EXPECT_TRUE(zelrt::SetIsConsistent(set) && set.count == 1 && set.first->bits[0] == 8);
      __ZelStrAppend(string, large.c_str());
      EXPECT_STREQ("text", string->text);
      __ZelStrSet(string, large.c_str());
      EXPECT_TRUE(string->text == nullptr && string->capacity == 0 && string->length == 0);
      EXPECT_EQ(nullptr, __ZelStrAlloc(1, 0, large.c_str()));
      _exit(HasFailure() ? 1 : 42);
    });
    zeltest::backing::RefuseIf([](size_t, size_t) { return true; });
    __ZelMalloc(0, 1 << 20, 0);
  };
  const auto child = zeltest::RunInChild(runOut);
  EXPECT_EQ(42, child.exitStatus) << child.output;
}

}  // namespace
