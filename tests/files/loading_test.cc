#include <dlfcn.h>
#include <gtest/gtest.h>

#include "zelrt/files.h"

namespace {

TEST(LoadingTest, SymbolsAreFoundInWhatWasLoaded) {
  void* const image = __ZelRtLoadImage("libm.so.6");
  ASSERT_NE(nullptr, image);
  const auto cosine = reinterpret_cast<double (*)(double)>(__ZelRtGetSymbol(image, "cos"));
  ASSERT_NE(nullptr, cosine);
  EXPECT_EQ(1.0, cosine(0.0));
  EXPECT_EQ(nullptr, __ZelRtGetSymbol(image, "no_such_symbol"));
  EXPECT_EQ(nullptr, dlerror()) << "the failure was left for the host";
  EXPECT_NE(nullptr, __ZelRtGetSymbol(__ZelRtLoadImage(nullptr), "malloc"));
  dlclose(image);
}

TEST(LoadingTest, NothingComesOfNothing) {
  EXPECT_EQ(nullptr, __ZelRtLoadImage("/no/such/library.so"));
  EXPECT_NE(nullptr, dlerror());
  EXPECT_EQ(nullptr, __ZelRtGetSymbol(nullptr, "malloc"));
  EXPECT_EQ(nullptr, __ZelRtGetSymbol(__ZelRtLoadImage(nullptr), nullptr));
}

}  // namespace
