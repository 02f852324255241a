#include "zelrt/paths.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

using namespace zelrt;

TEST(PathsTest, NamesAreSplitAtTheLastSlash) {
  const struct {
    const char *path, *folder, *name, *sanitized;
  } rows[] = {{"a/b/c", "a/b", "c", "a/b/c"}, {"c", "", "c", "c"},      {"/c", "", "c", "/c"},
              {"a/b/", "a/b", "", "a/b/"},    {"", "", "", ""},         {"/", "", "", "/"},
              {"a//b", "a/", "b", "a/b"},     {"///a", "//", "a", "/a"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.folder, GetFolderName(row.path)) << row.path;
    EXPECT_EQ(row.name, GetBaseName(row.path)) << row.path;
    EXPECT_EQ(row.sanitized, SanitizePath(row.path));
  }
  EXPECT_EQ("a/", SanitizePath(std::string("a//\0b", 5)));
}

TEST(PathsTest, FoldersComeAndGo) {
  const zeltest::TemporaryDirectory directory;
  EXPECT_FALSE(CreateFolder(""));
  EXPECT_FALSE(CreateFolder("missing/a"));
  umask(027);
  EXPECT_TRUE(CreateFolder("a"));
  struct stat status;
  ASSERT_EQ(0, stat("a", &status));
  EXPECT_EQ(0750u, status.st_mode & 07777);
  EXPECT_TRUE(CreateFolder("a"));
  zeltest::WriteFile("a/file", "");
  EXPECT_TRUE(CreateFolder("a/file")) << "there is something of that name";
  EXPECT_FALSE(DeleteFolder("a")) << "not empty";
  EXPECT_FALSE(DeleteFolder("a/file"));
  EXPECT_FALSE(DeleteFolder(""));
  unlink("a/file");
  EXPECT_TRUE(DeleteFolder("a"));
  EXPECT_FALSE(FolderExists("a"));
}

TEST(PathsTest, WhatCannotBeLookedAtIsTakenToExist) {
  const zeltest::TemporaryDirectory directory;
  CreateFolder("a");
  zeltest::WriteFile("file", "");
  ASSERT_EQ(0, symlink("loop", "loop"));
  const struct {
    std::string path;
    bool exists;
  } rows[] = {{"a", true},       {"a/", true},         {"a\\", true},
              {"a//", true},     {"file", true},       {"file/", true},
              {"file/b", false}, {"missing", false},   {"loop", true},
              {"/", false},      {"\\", false},        {"", false},
              {"a/..", true},    {"missing/b", false}, {std::string(300, 'x'), false}};
  for (const auto& row : rows) EXPECT_EQ(row.exists, FolderExists(row.path)) << row.path;
}

TEST(PathsTest, AccessIsThatOfTheProcess) {
  const zeltest::TemporaryDirectory directory;
  // Without root's privileges, to which permissions mean nothing.
  const auto child = zeltest::RunInChild([] {
    chmod(".", 0755);
    for (const mode_t mode : {0444, 0222, 0666, 0}) {
      const std::string name = std::to_string(mode);
      zeltest::WriteFile(name, "");
      chmod(name.c_str(), mode);
    }
    if (geteuid() == 0 && setuid(65'534) != 0) _exit(1);
    for (const mode_t mode : {0444, 0222, 0666, 0}) {
      const std::string name = std::to_string(mode);
      for (const int access : {0, 1, 2, 3, 7}) {
        std::printf("%d", CheckFileAccess(name, static_cast<ZELFACCESSMODE>(access)));
      }
      std::printf(" ");
    }
    std::printf("%d%d", CheckFileAccess("missing", ZELFACCESS_EXIST),
                CheckFileAccess("", ZELFACCESS_EXIST));
  });
  EXPECT_EQ("11001 10101 11111 10001 00", child.output);
}

TEST(PathsTest, TheExecutableIsFound) {
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe"), GetExecutableFilePath());
}

}  // namespace
