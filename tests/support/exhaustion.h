// For what happens when there is no memory at all.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/support/fake_backing.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"

namespace zeltest {

// Runs the body in a child, on the thread that ends it for want of memory: there, and only there,
// the allocator returns null, for what needs a new page or a block of its own.
inline void ExpectToSurviveExhaustion(const std::function<void()>& body) {
  static const std::function<void()>* action;
  action = &body;
  const ChildResult child = RunInChild([] {
    __ZelSetExitHandler([](int32_t) { (*action)(), _exit(testing::Test::HasFailure() ? 1 : 42); });
    backing::RefuseIf([](size_t, size_t) { return true; });
    __ZelMalloc(0, 1 << 20, 0);
  });
  EXPECT_EQ(42, child.exitStatus) << child.output;
}

}  // namespace zeltest
