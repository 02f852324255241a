#include "zelrt/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/log.h"
#include "zelrt/processes.h"
#include "zelrt/runtime.h"
#include "zelrt/xml.h"

namespace {

using zeltest::OpenDescriptors;

// Runs the body with those of the standard descriptors closed that have a bit in `closed`. The
// failures stay unprinted, since there may be no output, but count.
void ExpectInChildWithout(int closed, const char* what, void (*body)()) {
  const auto child = zeltest::RunInChild([=] {
    __ZelRtStartup();
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
      if ((closed >> descriptor & 1) != 0) close(descriptor);
    }
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(0, child.exitStatus) << what << " without " << closed << child.output;
}

template <bool (*kOpen)()>
void ExpectOneDescriptorAboveTheStandard() {
  const std::set<int> before = OpenDescriptors();
  EXPECT_TRUE(kOpen());
  EXPECT_GT(zeltest::DescriptorOpenedSince(before), 2);
  for (const int descriptor : before) EXPECT_NE(-1, fcntl(descriptor, F_GETFD));
}

bool OpenStream() { return __ZelFopen("file", "w", nullptr) != nullptr; }
bool OpenXmlFile() { return __ZelXMLCreateFile("xml", 0) != nullptr; }
bool OpenLog() { return __ZelCreateLogger("test", "log", 0) == 1; }
bool OpenLockFile() { return __ZelCreateLockFile("lock", 0) > 2; }

void ExpectNothingOpened() {
  const std::set<int> before = OpenDescriptors();
  int error = 0;
  EXPECT_EQ(nullptr, __ZelFopen("missing", "r", &error));
  EXPECT_EQ(ENOENT, error);
  EXPECT_EQ(nullptr, __ZelXMLCreateFile("missing/xml", 0));
  EXPECT_EQ(0u, __ZelCreateLogger("test", "missing/log", 0));
  EXPECT_EQ(before, OpenDescriptors());
}

void ExpectNothingOpenedAtTheLimit() {
  const std::set<int> before = OpenDescriptors();
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few = {3, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_EQ(nullptr, __ZelFopen("/dev/null", "r", nullptr));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(before, OpenDescriptors());
}

TEST(StreamsTest, NothingIsOpenedOnAStandardDescriptor) {
  const zeltest::TemporaryDirectory directory;
  const struct {
    const char* what;
    void (*body)();
  } rows[] = {{"stream", ExpectOneDescriptorAboveTheStandard<OpenStream>},
              {"XML file", ExpectOneDescriptorAboveTheStandard<OpenXmlFile>},
              {"log", ExpectOneDescriptorAboveTheStandard<OpenLog>},
              {"lock file", ExpectOneDescriptorAboveTheStandard<OpenLockFile>},
              {"nothing", ExpectNothingOpened},
              {"too many", ExpectNothingOpenedAtTheLimit}};
  for (int closed = 0; closed < 8; ++closed) {
    for (const auto& row : rows) ExpectInChildWithout(closed, row.what, row.body);
  }
}

TEST(StreamsTest, ReadAndWriteAsTheCLibraryDoes) {
  const zeltest::TemporaryDirectory directory;
  int error = -1;
  FILE* const stream = __ZelFopen("file", "w+", &error);
  ASSERT_NE(nullptr, stream);
  EXPECT_NE(-1, error);
  EXPECT_EQ(2u, __ZelFwrite("abcd", 2, 2, stream));
  EXPECT_EQ(5, __ZelFprintf(stream, "\n%s%d\n", "x", 12));
  EXPECT_EQ(0, __ZelFflush(stream));
  EXPECT_EQ("abcd\nx12\n", zeltest::ReadFile("file"));
  EXPECT_EQ(0, __ZelFseek(stream, -7, SEEK_END));
  EXPECT_EQ(2, __ZelFtell(stream));
  char buffer[8];
  EXPECT_EQ(buffer, __ZelFgets(buffer, sizeof buffer, stream));
  EXPECT_STREQ("cd\n", buffer);
  EXPECT_EQ(2u, __ZelFread(buffer, 2, 4, stream));
  EXPECT_EQ(0, __ZelFclose(stream));
}

TEST(StreamsTest, WideNamesAreConverted) {
  const zeltest::TemporaryDirectory directory;
  int error = 0;
  FILE* const stream = __ZelWFopen(L"file", L"w", &error);
  ASSERT_NE(nullptr, stream);
  __ZelFclose(stream);
  EXPECT_EQ("", zeltest::ReadFile("file"));
  EXPECT_EQ(nullptr, __ZelWFopen(L"missing", L"r", &error));
  EXPECT_EQ(ENOENT, error);
  EXPECT_EQ(nullptr, __ZelWFopen(L"\xE9", L"w", nullptr)) << "not in this locale";
  EXPECT_EQ(nullptr, __ZelWFopen(L"file", L"\xE9", nullptr));
  EXPECT_EQ(nullptr, __ZelWFopen(nullptr, L"r", &error));
  EXPECT_EQ(nullptr, __ZelWFopen(L"file", nullptr, &error));
  EXPECT_EQ(nullptr, __ZelFopen(nullptr, "r", &error));
  EXPECT_EQ(nullptr, __ZelFopen("file", nullptr, &error));
  EXPECT_EQ(EINVAL, error);
}

}  // namespace
