// XML output: a result file of a million elements, each with two attributes and a text that has to
// be escaped. Opening and closing the file count.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#ifdef ZELRT_BENCH_HAS_LIBXML2
#include <libxml/xmlwriter.h>
#endif
#ifdef ZELRT_BENCH_HAS_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef ZELRT_BENCH_HAS_TINYXML2
#include <tinyxml2.h>
#endif

#include "bench/scratch_file.h"
#include "bench/suite.h"
#include "zelrt/xml.h"

namespace bench {
namespace {

constexpr uint32_t kElements = 1'000'000;
constexpr uint32_t kDistinct = 1'000;  // elements repeat after so many

struct Element {
  int32_t count;
  uint64_t address;
  std::string text;
};

const std::vector<Element>& Elements() {
  static const std::vector<Element> elements = [] {
    std::vector<Element> made;
    for (uint32_t i = 0; i < kDistinct; ++i) {
      made.push_back({static_cast<int32_t>(i * 7919 % 100'000), 0x7f00'0000'0000 + i * 4096ull,
                      "std::map<int, Widget>::insert(" + std::to_string(i) + ") && \"x\""});
    }
    return made;
  }();
  return elements;
}

template <typename WriteFile>
void FillFile(benchmark::State& state, WriteFile writeFile) {
  Elements();
  const ScratchFile scratch;
  while (state.KeepRunningBatch(kElements)) writeFile(scratch.Path());
}

template <typename Write>
void ForEachElement(Write write) {
  const std::vector<Element>& elements = Elements();
  for (uint32_t i = 0; i < kElements; ++i) write(elements[i % kDistinct]);
}

void WriteWithOurs(const char* path) {
  ZelXmlFile* file = __ZelXMLCreateFile(path, 0);
  __ZelXMLAcquireFile(file);
  __ZelXMLWriteOpeningTag(file, "results");
  ForEachElement([file](const Element& element) {
    __ZelXMLStartWritingOpeningTag(file, "site");
    __ZelXMLWriteIntegerAttribute(file, "count", element.count);
    __ZelXMLWriteHexadecimalAttribute(file, "address", element.address);
    __ZelXMLFinishWritingOpeningTag(file);
    __ZelXMLWriteStringValue(file, element.text.c_str());
    __ZelXMLAppendClosingTag(file, "site");
  });
  __ZelXMLWriteClosingTag(file, "results");
  __ZelXMLReleaseFile(file);
  __ZelXMLCloseFile(&file);
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '"':
        escaped += "&quot;";
        break;
      case '&':
        escaped += "&amp;";
        break;
      case '\'':
        escaped += "&apos;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

constexpr char kLineFormat[] = "\n\t<site count='%d' address='0x%llx'>%s</site>";

void WriteWithPrintf(const char* path) {
  FILE* const file = std::fopen(path, "w");
  ForEachElement([file](const Element& element) {
    std::fprintf(file, kLineFormat, element.count, 0ull + element.address,
                 Escaped(element.text).c_str());
  });
  std::fclose(file);
}

// The same bytes, ready made.
void WriteReadyBytes(const char* path) {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> made;
    for (const Element& element : Elements()) {
      char line[256];
      std::snprintf(line, sizeof line, kLineFormat, element.count, 0ull + element.address,
                    Escaped(element.text).c_str());
      made.emplace_back(line);
    }
    return made;
  }();
  FILE* const file = std::fopen(path, "w");
  for (uint32_t i = 0; i < kElements; ++i) {
    const std::string& line = lines[i % kDistinct];
    std::fwrite(line.data(), 1, line.size(), file);
  }
  std::fclose(file);
}

Run For(void (*writeFile)(const char*)) {
  return [writeFile](benchmark::State& state) { FillFile(state, writeFile); };
}

Run Libxml2() {
#ifdef ZELRT_BENCH_HAS_LIBXML2
  return For([](const char* path) {
    const auto text = [](const char* literal) { return reinterpret_cast<const xmlChar*>(literal); };
    xmlTextWriter* const writer = xmlNewTextWriterFilename(path, 0);
    xmlTextWriterSetIndent(writer, 1);
    xmlTextWriterStartElement(writer, text("results"));
    ForEachElement([&](const Element& element) {
      xmlTextWriterStartElement(writer, text("site"));
      xmlTextWriterWriteFormatAttribute(writer, text("count"), "%d", element.count);
      xmlTextWriterWriteFormatAttribute(writer, text("address"), "0x%llx", 0ull + element.address);
      xmlTextWriterWriteString(writer, text(element.text.c_str()));
      xmlTextWriterEndElement(writer);
    });
    xmlTextWriterEndElement(writer);
    xmlFreeTextWriter(writer);
  });
#else
  return {};
#endif
}

// Saves a document that is there already.
Run Pugixml() {
#ifdef ZELRT_BENCH_HAS_PUGIXML
  return For([](const char* path) {
    static const pugi::xml_document& document = *[] {
      auto* const made = new pugi::xml_document;
      pugi::xml_node results = made->append_child("results");
      ForEachElement([&results](const Element& element) {
        pugi::xml_node site = results.append_child("site");
        char address[32];
        std::snprintf(address, sizeof address, "0x%llx", 0ull + element.address);
        site.append_attribute("count").set_value(element.count);
        site.append_attribute("address").set_value(address);
        site.text().set(element.text.c_str());
      });
      return made;
    }();
    document.save_file(path);
  });
#else
  return {};
#endif
}

Run Tinyxml2() {
#ifdef ZELRT_BENCH_HAS_TINYXML2
  return For([](const char* path) {
    FILE* const file = std::fopen(path, "w");
    {
      tinyxml2::XMLPrinter printer(file);
      printer.OpenElement("results");
      ForEachElement([&printer](const Element& element) {
        char address[32];
        std::snprintf(address, sizeof address, "0x%llx", 0ull + element.address);
        printer.OpenElement("site");
        printer.PushAttribute("count", element.count);
        printer.PushAttribute("address", address);
        printer.PushText(element.text.c_str());
        printer.CloseElement();
      });
      printer.CloseElement();
    }
    std::fclose(file);
  });
#else
  return {};
#endif
}

}  // namespace

Family Xml() {
  return {"xml",
          "ns per element",
          {{.name = "a result file of a million elements",
            .contenders = {{kOurs, Role::kOurs, For(WriteWithOurs)},
                           {"fwrite", Role::kBound, For(WriteReadyBytes)},
                           {"libxml2", Role::kPeer, Libxml2()},
                           {"pugixml", Role::kPeer, Pugixml()},
                           {"tinyxml2", Role::kPeer, Tinyxml2()},
                           {"fprintf", Role::kPeer, For(WriteWithPrintf)}},
            .goals = {AtMost(2.5, "fwrite"), AtMost(0.5, kBestPeer)}}}};
}

}  // namespace bench
