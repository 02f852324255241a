// Texts against models that are too simple to be wrong.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/temporary_directory.h"
#include "zelrt/xml.h"

namespace {

const std::map<char, std::string> kEntities = {
    {'"', "&quot;"}, {'&', "&amp;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"}};

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const auto entity = kEntities.find(c);
    const std::string piece = entity != kEntities.end() ? entity->second : std::string(1, c);
    if (escaped.size() + piece.size() > 65'535) break;
    escaped += piece;
  }
  return escaped;
}

std::string AsComment(const std::string& text) {
  std::string comment;
  for (const char c : text.substr(0, 65'534)) {
    if (c != '-' || comment.empty() || comment.back() != '-') comment += c;
  }
  return comment;
}

class EscapingTest : public testing::Test {
 protected:
  void SetUp() override {
    file_ = __ZelXMLCreateFile("out", 0);
    ASSERT_NE(nullptr, file_);
    expected_ = zeltest::ReadFile("out");
  }
  void WriteElement(const std::string& text) {
    __ZelXMLWriteStringElement(file_, "e", text.c_str());
    expected_ += "\n<e>" + Escaped(text) + "</e>";
  }
  void WriteComment(const std::string& text) {
    __ZelXMLWriteComment(file_, "%s", text.c_str());
    expected_ += "\n<!-- " + AsComment(text) + " -->";
  }
  void TearDown() override {
    __ZelXMLCloseFile(&file_);
    const std::string written = zeltest::ReadFile("out");
    const auto [here, there] =
        std::mismatch(written.begin(), written.end(), expected_.begin(), expected_.end());
    EXPECT_TRUE(written == expected_)
        << "at " << here - written.begin() << ": " << std::string(here, written.end()).substr(0, 20)
        << " instead of " << std::string(there, expected_.end()).substr(0, 20);
  }

  zeltest::TemporaryDirectory directory_;
  ZelXmlFile* file_ = nullptr;
  std::string expected_;
};

TEST_F(EscapingTest, RandomBytes) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  const std::string special = "\"&'<>-- ";
  for (int round = 0; round < 500; ++round) {
    std::string text;
    // Some are longer than what the file composes in one go.
    for (size_t left = random() % (round % 10 == 0 ? 3'000 : 60); left > 0; --left) {
      text += random() % 2 == 0 ? special[random() % special.size()]
                                : static_cast<char>(1 + random() % 255);
    }
    WriteElement(text);
    WriteComment(text);
  }
}

TEST_F(EscapingTest, TheLimitCutsNoEntity) {
  for (const auto& [character, entity] : kEntities) {
    for (size_t offset = 65'535 - entity.size() - 1; offset <= 65'536; ++offset) {
      WriteElement(std::string(offset, 'x') + character + "zzzzzzzz");
    }
  }
  WriteElement(std::string(65'536, '<'));
}

TEST_F(EscapingTest, CommentsAreCutBeforeDashesCollapse) {
  for (const char* text : {"", "-", "--", "a---b", "--a--", "- -", "-->", "%d&<"}) {
    WriteComment(text);
  }
  for (size_t length = 65'532; length <= 65'536; ++length) {
    WriteComment(std::string(length, 'x'));
    WriteComment(std::string(length, 'x') + "----");
    WriteComment("--" + std::string(length, 'x'));
  }
}

}  // namespace
