#include "zelrt/xml_writer.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "tests/support/temporary_directory.h"

namespace {

class XmlWriterTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(writer_.create("out", false)); }
  // What a file holds behind its header.
  static std::string ReadPieces(const char* path) {
    const std::string text = zeltest::ReadFile(path);
    return text.substr(text.find("FILE -->\n") + 9);
  }
  std::string Written() {
    writer_.close();
    return ReadPieces("out");
  }

  zeltest::TemporaryDirectory directory_;
  ZelXmlWriter writer_;
};

TEST_F(XmlWriterTest, StartedTagsEndBeforeContentChildrenAndTheirEnd) {
  void* const pointer = reinterpret_cast<void*>(0x1F);
  const char name[] = {'a', 'b', '\0'};
  writer_.acquire().endElement().startElement("r", true).startElement(name, false);
  writer_.writeStrAttribute("s", "<'").writeAttribute("i", INT32_MIN);
  writer_.writeAttribute("u", 18'446'744'073'709'551'615ULL).writeAttribute("p", pointer);
  writer_.endElement().startElement("e", false).writeStrElement("s", "<'");
  writer_.writeElement("v", -1).writeElement("v", 4'294'967'295U).writeElement("v", 7UL);
  writer_.writeAddressElement("x", 0xABUL).writeAddressElement("x", pointer);
  writer_.startElement("b", false).write("<").write(-1).endAll().endAll().release();
  EXPECT_EQ(
      "\n<r>"
      "\n\t<ab s='<'' i='-2147483648' u='18446744073709551615' p='0x1f'>\n\t</ab>"
      "\n\t<e>\n\t\t<s>&lt;&apos;</s>"
      "\n\t\t<v>18446744073709551615</v>\n\t\t<v>4294967295</v>\n\t\t<v>7</v>"
      "\n\t\t<x>0xab</x>\n\t\t<x>0x1f</x>"
      "\n\t\t<b>&lt;-1\n\t\t</b>\n\t</e>"
      "\n</r>",
      Written());
}

TEST_F(XmlWriterTest, CreatingAndDestructionCloseWhatIsOpen) {
  const auto before = zeltest::OpenDescriptors();
  {
    ZelXmlWriter other, full;
    ASSERT_TRUE(full.create("/dev/full", false));
    full.startElement("a", false);
    ASSERT_TRUE(other.create("first", false));
    other.startElement("a", true).startElement("b", false);
    ASSERT_TRUE(other.create("second", false));
    EXPECT_EQ("\n<a>\n\t<b>\n\t</b>\n</a>", ReadPieces("first"));
    ASSERT_TRUE(other.create("first", true));
    other.startElement("d", false);
  }
  EXPECT_EQ("\n<a>\n\t<b>\n\t</b>\n</a>\n\t<d>\n\t</d>", ReadPieces("first"));
  EXPECT_EQ(before, zeltest::OpenDescriptors());
}

TEST_F(XmlWriterTest, WhatWasWrittenToNoFileIsForgotten) {
  EXPECT_FALSE(writer_.create("missing/out", false));
  writer_.startElement("a", true).write("c").startElement("d", false);
  ASSERT_TRUE(writer_.create("out", false));
  writer_.startElement("e", false);
  EXPECT_THROW(writer_.startElement(nullptr, true), std::logic_error);  // and nothing else
  writer_.writeAttribute("n", 1);
  EXPECT_EQ("\n<e n='1'>\n</e>", Written());
}

}  // namespace
