#include <gtest/gtest.h>

#include <string>

#include "host/host.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/threads.h"
#include "zelrt/xml.h"

namespace {

// Each thread has results of its own size. The file consists of them, whole, and of nothing else.
TEST(XmlThreadsTest, WhatStandsBetweenAcquireAndReleaseStaysTogether) {
  constexpr size_t kRounds = 500;
  const std::string texts[] = {"a", std::string(300, 'b'), std::string(600, 'c'), "d"};
  const zeltest::TemporaryDirectory directory;
  zelhost::Install();
  ZelXmlFile* file = __ZelXMLCreateFile("out", 0);
  size_t expectedSize = zeltest::ReadFile("out").size();
  zeltest::OnEachThread(std::size(texts), [&](int thread) {
    const char* const text = texts[thread].c_str();
    for (size_t round = 0; round < kRounds; ++round) {
      __ZelXMLAcquireFile(file);
      __ZelXMLWriteOpeningTag(file, "r");
      __ZelXMLWriteStringElement(file, "v", text);
      __ZelXMLAcquireFile(file);
      __ZelXMLWriteComment(file, "%s", text);
      __ZelXMLReleaseFile(file);
      __ZelXMLWriteClosingTag(file, "r");
      __ZelXMLReleaseFile(file);
    }
  });
  const std::string written = zeltest::ReadFile("out");
  for (const std::string& text : texts) {
    const std::string result = "\n<r>\n\t<v>" + text + "</v>\n\t<!-- " + text + " -->\n</r>";
    size_t count = 0;
    for (size_t at = 0; (at = written.find(result, at)) != std::string::npos; ++at) ++count;
    EXPECT_EQ(kRounds, count);
    expectedSize += kRounds * result.size();
  }
  EXPECT_EQ(expectedSize, written.size());
  __ZelXMLCloseFile(&file);
}

}  // namespace
