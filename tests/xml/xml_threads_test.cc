#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <string>

#include "host/host.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/threads.h"
#include "zelrt/runtime.h"
#include "zelrt/xml.h"

namespace {

std::string ResultOf(int thread, int round) {
  const std::string id = std::to_string(thread) + "." + std::to_string(round);
  return "\t<result>\n\t\t<value>" + id + "</value>\n\t\t<!-- " + id + " -->\n\t</result>";
}

// Results of several threads in one file: whole, each thread's in its order, none missing.
TEST(XmlThreadsTest, WhatStandsBetweenAcquireAndReleaseStaysTogether) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 500;
  const zeltest::TemporaryDirectory directory;
  zelhost::Install();
  __ZelRtStartup();
  ZelXmlFile* file = __ZelXMLCreateFile("out", 0);
  ASSERT_NE(nullptr, file);
  __ZelXMLWriteOpeningTag(file, "results");
  zeltest::OnEachThread(kThreads, [file](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      __ZelXMLAcquireFile(file);
      __ZelXMLWriteOpeningTag(file, "result");
      char id[32];
      std::snprintf(id, sizeof id, "%d.%d", thread, round);
      __ZelXMLWriteStringElement(file, "value", id);
      __ZelXMLAcquireFile(file);
      __ZelXMLWriteComment(file, "%s", id);
      __ZelXMLReleaseFile(file);
      __ZelXMLWriteClosingTag(file, "result");
      __ZelXMLReleaseFile(file);
    }
  });
  __ZelXMLCloseFile(&file);

  std::istringstream lines(zeltest::ReadFile("out"));
  std::string line;
  for (int i = 0; i < 4; ++i) std::getline(lines, line);
  EXPECT_EQ("<results>", line);
  std::array<int, kThreads> next = {};
  for (int i = 0; i < kThreads * kRounds; ++i) {
    std::string result;
    for (int part = 0; part < 4 && std::getline(lines, line); ++part) {
      result += (part > 0 ? "\n" : "") + line;
    }
    unsigned thread;
    ASSERT_EQ(1, std::sscanf(result.c_str(), " <result> <value>%u", &thread)) << result;
    ASSERT_LT(thread, next.size());
    ASSERT_EQ(ResultOf(static_cast<int>(thread), next[thread]++), result);
  }
  EXPECT_FALSE(std::getline(lines, line)) << line;
}

}  // namespace
