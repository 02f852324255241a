#include "zelrt/paths.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace {

using namespace zelrt;

TEST(PathsTest, NamesAreSplitAtTheLastSlash) {
  const struct {
    // For the C function a slash in front is no separator.
    const char *path, *folder, *name, *nameInC, *sanitized;
  } rows[] = {{"a/b/c", "a/b", "c", "c", "a/b/c"},
              {"c", "", "c", "c", "c"},
              {"/c", "", "c", "/c", "/c"},
              {"a/b/", "a/b", "", "", "a/b/"},
              {"/", "", "", "/", "/"},
              {"///a", "//", "a", "a", "/a"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.folder, GetFolderName(row.path)) << row.path;
    EXPECT_EQ(row.name, GetBaseName(row.path)) << row.path;
    EXPECT_EQ(row.sanitized, SanitizePath(row.path));
    char* const nameInC = __ZelGetBaseName(row.path);
    EXPECT_STREQ(row.nameInC, nameInC) << row.path;
    __ZelFree(nameInC);
  }
  EXPECT_EQ(nullptr, __ZelGetBaseName(""));
  EXPECT_EQ("a/", SanitizePath(std::string("a//\0b", 5)));
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe"), GetExecutableFilePath());
}

TEST(PathsTest, FoldersComeAndGo) {
  const zeltest::TemporaryDirectory directory;
  EXPECT_TRUE(CreateFolder("a"));
  zeltest::WriteFile("a/file", "");
  EXPECT_TRUE(CreateFolder("a/file")) << "there is something of that name";
  EXPECT_FALSE(CreateFolder("missing/a"));
  EXPECT_FALSE(DeleteFolder("a")) << "not empty";
  ASSERT_EQ(0, symlink("loop", "loop"));
  const std::pair<std::string, bool> rows[] = {{"a", true},         {"a\\", true},
                                               {"a//", true},       {"a/file/", true},
                                               {"a/file/b", false}, {"b", false},
                                               {"b/", false},       {"/", false},
                                               {"loop", true},      {std::string(300, 'x'), false}};
  for (const auto& [path, exists] : rows) EXPECT_EQ(exists, FolderExists(path)) << path;
  unlink("a/file");
  EXPECT_TRUE(DeleteFolder("a"));
  EXPECT_FALSE(CreateFolder("") || DeleteFolder("") || FolderExists("") || FolderExists("a"));
}

// Root may do anything, so this is asked without its privileges.
TEST(PathsTest, AccessIsThatOfTheProcess) {
  const zeltest::TemporaryDirectory directory;
  const auto child = zeltest::RunInChild([] {
    chmod(".", 0777);
    if (geteuid() == 0 && setuid(65'534) != 0) _exit(1);
    zeltest::WriteFile("file", "");
    for (const mode_t mode : {0444, 0222, 0666, 0}) {
      chmod("file", mode);
      for (const int access : {0, 1, 2, 3, 7})
        std::printf("%d", CheckFileAccess("file", static_cast<ZELFACCESSMODE>(access)));
    }
  });
  EXPECT_EQ("11001101011111110001", child.output);
  EXPECT_FALSE(CheckFileAccess("missing", ZELFACCESS_EXIST));
}

}  // namespace
