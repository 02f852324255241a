// heapscope-report: what it reads, and what it makes of that.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "examples/heapscope/report/call_paths.h"
#include "examples/heapscope/report/collapsed.h"
#include "examples/heapscope/report/diff.h"
#include "examples/heapscope/report/page.h"
#include "examples/heapscope/report/result_file.h"
#include "examples/heapscope/report/tables.h"
#include "examples/heapscope/report/text.h"
#include "tests/heapscope/run.h"
#include "tests/support/temporary_directory.h"

namespace heapscope::report {
namespace {

using zeltest::WriteFile;

const ProgressReport kNoProgress = [](size_t, size_t) {};

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void ExpectParts(const std::string& text, const std::vector<std::string>& parts) {
  for (const std::string& part : parts)
    EXPECT_TRUE(Has(text, part)) << part << "\nnot in:\n" << text;
}

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Three paths, and one site that has none; modules that are not there.
const std::string kResult = R"(<?xml version="1.0"?>
<heapscope_result format="3" written="heartbeat">
<process><id>77</id><started_ms>1000</started_ms><ended_ms>3500</ended_ms><name>program</name>
<executable>/gone/program</executable><argument>program</argument><argument>a b</argument></process>
<totals><allocated_at_load blocks="0" bytes="0"/><allocated blocks="16" bytes="4074"/>
<freed blocks="11" bytes="2000"/><temporary blocks="5" bytes="1400"/><live blocks="5" bytes="2074"/>
<peak bytes="2600"/></totals>
<timeline><point at_ms="0" live_blocks="1" live_bytes="50" allocated_blocks="1" allocated_bytes="50"
own_bytes="9000"/><point at_ms="1500" live_blocks="5" live_bytes="2600" allocated_blocks="9"
allocated_bytes="3000" own_bytes="9500"/></timeline>
<calls><call function="malloc" count="16"/></calls>
<problems><failed_calls>0</failed_calls><frees_not_seen>2</frees_not_seen></problems>
<size_classes><size_class up_to="16"><allocated blocks="16" bytes="4074"/></size_class></size_classes>
<threads seen="1"><thread id="77"><allocated blocks="16" bytes="4074"/></thread></threads>
<modules><module id="1" build_id="ab"><path>/gone/program</path></module>
<module id="9"><path>/gone/libx.so</path></module></modules>
<sites><site><allocated blocks="10" bytes="1000"/><freed blocks="10" bytes="1000"/>
<temporary blocks="4" bytes="400"/><live blocks="0" bytes="0"/><peak bytes="300"/>
<frame module="1" offset="0x10"/><frame module="1" offset="0x20"/></site>
<site><allocated blocks="3" bytes="3000"/><freed blocks="1" bytes="1000"/>
<temporary blocks="1" bytes="1000"/><live blocks="2" bytes="2000"/><peak bytes="2500"/>
<frame module="9" offset="0x40"/><frame module="1" offset="0x20"/></site>
<site><allocated blocks="1" bytes="50"/><freed blocks="0" bytes="0"/><temporary blocks="0" bytes="0"/>
<live blocks="1" bytes="50"/><peak bytes="50"/><frame offset="0x7f12"/></site>
<site><allocated blocks="2" bytes="24"/><freed blocks="0" bytes="0"/><temporary blocks="0" bytes="0"/>
<live blocks="2" bytes="24"/><peak bytes="24"/></site></sites>
<annotations><file><path>/gone/program</path></file></annotations>
<own_memory mapped_bytes="10000"><category bytes="9500"><name>sites</name></category></own_memory>
</heapscope_result>
)";

// Works in a directory of its own.
class ReportTest : public testing::Test {
 protected:
  static NamedResult Named(const std::string& text) {
    WriteFile("result.xml", text);
    return NameSites(ReadResult("result.xml", kNoProgress), {}, kNoProgress);
  }

  static Outcome Report(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), REPORTER);
    return RunCommand({.arguments = arguments});
  }
  static std::string ReportOf(const std::string& text, std::vector<std::string> arguments = {}) {
    WriteFile("result.xml", text);
    arguments.push_back("result.xml");
    const Outcome outcome = Report(arguments);
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("", outcome.errors);
    return outcome.output;
  }

  // One path allocates 2,000 bytes less, another 2,048 more.
  static void WriteOldAndNew() {
    WriteFile("old.xml", kResult);
    const std::string less = Replaced(kResult, R"("3" bytes="3000")", R"("3" bytes="1000")");
    WriteFile("new.xml", Replaced(less, R"("2" bytes="24")", R"("2" bytes="2072")"));
  }

  const zeltest::TemporaryDirectory directory_;
};

TEST_F(ReportTest, TablesRankPathsByEachFigure) {
  const std::string x = "        libx.so+0x40\n        program+0x20\n";
  const std::string program = "        program+0x10\n        program+0x20\n";
  ExpectParts(
      ReportOf(kResult),
      {"program 'a b'", "2.5 s, from 1970-01-01 00:00:01 UTC", "it was killed, or is still running",
       "frees not seen: 2", "no symbols of /gone/libx.so: the file is not there",
       "   1      2.44 KiB   96.2%              2,500 bytes            3 calls\n" + x,
       "   1      1.95 KiB   96.4%              2,000 bytes            2 blocks\n" + x,
       "   1            10   62.5%              1,000 bytes\n" + program,
       "   1      2.93 KiB   73.6%              3,000 bytes            3 calls\n" + x,
       "   1             4   80.0%                400 bytes\n" + program,
       "   3          24 B    1.2%                 24 bytes            2 blocks\n"
       "        (paths that had no place of their own)\n",
       "        0x7f12\n"});
  ExpectParts(ReportOf(kResult, {"--merge", "module", "--top", "1"}),
              {"Calls  16 in all, 4 call paths\n   1            10"});
  ExpectParts(ReportOf(kResult, {"--depth", "1"}), {"libx.so+0x40\n        … 1 more\n"});
}

TEST_F(ReportTest, CollapsedStacksHaveEveryPath) {
  EXPECT_EQ(
      "(unknown) 24\n0x7f12 50\nprogram+0x20;libx.so+0x40 3000\nprogram+0x20;program+0x10 1000\n",
      ReportOf(kResult, {"--collapsed", "-"}));
  EXPECT_EQ("program+0x20;libx.so+0x40 1\nprogram+0x20;program+0x10 4\n",
            ReportOf(kResult, {"--collapsed", "-", "--metric", "temporary"}));
}

TEST_F(ReportTest, FormatTwoHasNoTemporaryBlocks) {
  const std::string report =
      ReportOf(Replaced(kResult, R"(format="3" written="heartbeat")", R"(format="2")"));
  ExpectParts(report, {"at the end of the process"});
  EXPECT_FALSE(Has(report, "  temporary"));
}

// Diff
// ---------------------------------------------------------------------------------------------

CallPath PathOf(std::vector<uint32_t> frames, uint64_t bytes) {
  CallPath path;
  path.frames = std::move(frames);
  path.flow.allocated = {1, bytes};
  return path;
}

TEST_F(ReportTest, PathsOfARebuiltModuleAreFoundAgain) {
  NamedResult before;
  before.result.modules = {{"aa", "/old/program"}, {"cc", "/lib/libx.so.1"}};
  before.frames = {{.function = "Load", .file = "a.cc", .line = 10, .module = "/old/program"},
                   {.function = "Load", .file = "a.cc", .line = 11, .module = "/old/program"},
                   {.module = "/old/program", .offset = 5},
                   {.module = "/lib/libx.so.1", .offset = 7}};
  before.paths = {PathOf({0}, 100), PathOf({1}, 10), PathOf({2}, 1), PathOf({3}, 50)};
  NamedResult after;
  after.result.modules = {{"bb", "/new/program"}, {"cc", "/lib/renamed.so"}};
  after.frames = {{.function = "Load", .file = "a.cc", .line = 20, .module = "/new/program"},
                  {.module = "/new/program", .offset = 6},
                  {.module = "/lib/renamed.so", .offset = 7}};
  after.paths = {PathOf({0}, 300), PathOf({1}, 2), PathOf({2}, 40)};

  std::vector<std::pair<uint64_t, uint64_t>> changes;
  for (const PathChange& change : ComparePaths(before, after))
    changes.emplace_back(change.before.allocated.bytes, change.after.allocated.bytes);
  std::ranges::sort(changes);
  EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{{0, 2}, {1, 0}, {50, 40}, {110, 300}}),
            changes);
}

TEST_F(ReportTest, DiffSaysWhatGrewAndShrank) {
  WriteOldAndNew();
  ExpectParts(
      Report({"--diff", "old.xml", "new.xml"}).output,
      {"Grown by bytes  1 call path, together +2.00 KiB\n   1      +2.00 KiB              +2,048",
       "Shrunk by bytes  1 call path, together -1.95 KiB\n   1      -1.95 KiB              -2,000"
       "   from 2.93 KiB to 1000 B\n        libx.so+0x40\n"});
}

// Damage
// -------------------------------------------------------------------------------------------

TEST_F(ReportTest, WhatIsCompleteOfATruncatedFileIsUsed) {
  const NamedResult whole = Named(kResult);
  const size_t rootEnd = kResult.find("</heapscope_result>") + 19;
  size_t mostSites = 0;
  for (size_t length = 0; length < kResult.size(); ++length) {
    SCOPED_TRACE(length);
    NamedResult part;
    try {
      part = Named(kResult.substr(0, length));
    } catch (const FileError&) {
      EXPECT_LT(length, kResult.find("<process>"));
      continue;
    }
    EXPECT_EQ(length < rootEnd, !part.result.damage.empty());
    const size_t complete = Occurrences(kResult.substr(0, length), "</site>");
    ASSERT_EQ(complete, part.result.sites.size());
    mostSites = std::max(mostSites, complete);
    for (size_t i = 0; i < complete; ++i) {
      const Site& site = part.result.sites[i];
      EXPECT_EQ(whole.result.sites[i].flow.peakBytes, site.flow.peakBytes);
      EXPECT_EQ(whole.result.sites[i].frameCount, site.frameCount);
    }
    for (const TimelinePoint& point : part.result.timeline) EXPECT_LE(9000u, point.ownBytes);
    const bool hasTotals = Has(kResult.substr(0, length), "</totals>");
    EXPECT_EQ(hasTotals ? 2600u : 0u, part.result.totals.peakBytes);
    EXPECT_EQ(length < rootEnd, Has(Page(part), "the file is broken at byte"));
  }
  EXPECT_EQ(4u, mostSites);
}

TEST_F(ReportTest, BrokenFilesAreReadUntilTheBreak) {
  WriteFile("result.xml", Replaced(kResult, "<site><allocated blocks=\"1\"", "<site></x>"));
  const Outcome outcome = Report({"result.xml", "--collapsed", "-"});
  EXPECT_EQ(0, outcome.status);
  ExpectParts(outcome.errors, {"the file is broken at byte "});
  EXPECT_EQ("program+0x20;libx.so+0x40 3000\nprogram+0x20;program+0x10 1000\n", outcome.output);
  ExpectParts(Named(Replaced(kResult, "\"4074\"", "\"-1\"")).result.damage.at(0),
              {"3 figures are not numbers"});
}

TEST_F(ReportTest, WhatIsNoResultFileIsAnError) {
  for (const std::string text :
       {"", "\x7F\x45LF", "<log/>", "<heapscope_result/>", "<heapscope_result format='1'/>",
        "<heapscope_result format='4'/>"}) {
    WriteFile("file", text);
    const Outcome outcome = Report({"file"});
    EXPECT_EQ(1, outcome.status) << text;
    const size_t format = text.find("format=");
    ExpectParts(outcome.errors,
                {format == std::string::npos ? std::string("not a result file")
                                             : std::string("format ") + text[format + 8]});
  }
  WriteFile("result.xml", kResult);
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"none"}, {"."}, {"result.xml", "--html", "/dev/full"}})
    EXPECT_EQ(1, Report(arguments).status);
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {}, {"--top", "0", "x"}, {"--metric", "x", "x"}, {"--diff", "x"}, {"--unknown", "x"}})
    EXPECT_EQ(2, Report(arguments).status);
  EXPECT_EQ(0, Report({"--help"}).status);
}

TEST_F(ReportTest, TextFromOutsideDoesNoHarm) {
  ASSERT_EQ(0, mkfifo("pipe", 0600));
  std::string text = Replaced(kResult, "<path>/gone/libx.so",
                              "<path>/gone/&lt;/script>&lt;script>alert(1)//&#27;[31m\xE2\x80\xAE");
  text = Replaced(text, "<path>/gone/program",
                  "<path>" + directory_.File("pipe"));  // must not be waited for
  const NamedResult named = Named(Replaced(text, "<name>program", "<name>&lt;!--&lt;script>"));
  const std::string page = Page(named);
  EXPECT_EQ(2u, Occurrences(page, "</script>"));
  EXPECT_EQ(2u, Occurrences(page, "<script"));
  EXPECT_EQ(0u, Occurrences(page, "<!--"));
  const std::string report = ReportText(named, {});
  EXPECT_TRUE(Has(report, "alert(1)//?[31m?"));
  EXPECT_FALSE(Has(report, "\033") || Has(report, "\xE2\x80\xAE"));
  EXPECT_EQ("?a??\xC3\xA9??", CleanText("\x80"
                                        "a\xC3\x7F\xC3\xA9\xF0\x9F"));
}

// Symbols
// ------------------------------------------------------------------------------------------

class SymbolsTest : public ReportTest {
 protected:
  void SetUp() override {
    if (std::string(LAUNCHER).empty()) GTEST_SKIP() << "heapscope is not built here";
    std::filesystem::copy(REPORT_SUBJECT, program_);
    ASSERT_EQ(0, RunCommand(UnderHeapscope({"-out", directory_.File("out")}, {program_})).status);
    for (const auto& entry : std::filesystem::directory_iterator("out")) {
      if (entry.path().extension() == ".xml") result_ = entry.path();
    }
  }

  const std::string program_ = directory_.File("program");
  std::string result_;
  const std::string named_ =
      "            123,400 bytes          100 calls\n"
      "        MakeBlock               report_subject.cc:10\n"
      "        subject::Fill(int)      report_subject.cc:18\n"
      "        main                    report_subject.cc:24\n";
  const std::string unnamed_ = "100 calls\n        program+0x";
};

TEST_F(SymbolsTest, InlinedFunctionsAndLinesAreFound) {
  // The operator itself is left out.
  ExpectParts(Report({result_}).output, {named_, "777 bytes            1 call\n        main "});
  ExpectParts(Report({result_, "--collapsed", "-", "--metric", "calls"}).output,
              {";main;subject::Fill(int);MakeBlock 100\n"});
}

// As in the answers of a running collector.
TEST_F(SymbolsTest, FramesOfAnAnswerAreNamed) {
  WriteFile("answer", "size: 7\nframe: nonsense+0x\nframe: /missing+0x1\nframe: " + program_ + "+" +
                          Ask(result_, "//site[allocated/@blocks=100]/frame/@offset"));
  EXPECT_EQ(
      "size: 7\nframe: nonsense+0x\nframe: /missing+0x1\n"
      "frame: MakeBlock  report_subject.cc:10  [program]\n"
      "frame: subject::Fill(int)  report_subject.cc:18  [program]\n",
      RunCommand({.arguments = {"/bin/sh", "-c", REPORTER " --where <answer"}}).output);
}

TEST_F(SymbolsTest, SeparateDebugFilesAreFound) {
  const std::string buildId = Ask(result_, "//module[path='" + program_ + "']/@build_id");
  ASSERT_LT(4u, buildId.size());
  const std::string directory = "debug/.build-id/" + buildId.substr(0, 2);
  std::filesystem::create_directories(directory);
  const std::string file = directory + "/" + buildId.substr(2) + ".debug";
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"objcopy", "--only-keep-debug", program_, file},
        {"strip", program_}})
    ASSERT_EQ(0, RunCommand({.arguments = command}).status);
  ExpectParts(Report({result_}).output, {unnamed_});
  const std::string debug = directory_.File("debug");
  for (const std::string& path : {debug, std::filesystem::relative(debug).string()})
    ExpectParts(Report({result_, "--debug-dir", path}).output, {named_});
}

TEST_F(SymbolsTest, AnotherFileInAModulesPlaceIsNotBelieved) {
  std::filesystem::copy(REPORTER, program_, std::filesystem::copy_options::overwrite_existing);
  ExpectParts(Report({result_}).output,
              {"no symbols of " + program_ + ": the file is another one now: its build id differs",
               unnamed_});
}

// The page
// -----------------------------------------------------------------------------------------

// Uses the page as a reader does; what comes of it can be read in the document.
constexpr const char* kUsePage = R"script(<script>
addEventListener("error", (event) => document.body.append("ERROR " + event.message));
const press = (selector) => document.querySelector(selector).click();
const note = (name, value) => { document.body.dataset[name] = value; };
const column = (i) => [...document.querySelectorAll("#sites tr.path")]
    .map((row) => row.cells[i].dataset.value).join(" ");
const frames = () => [...document.querySelectorAll("#flame button")].map((each) => each.title).join("|");
note("bytes", column(1));
press("#sites th:nth-child(3) button");
note("calls", column(2));
press("#sites th:nth-child(3) button");
note("callsUp", column(2));
press("#sites tr.path button");
note("opened", document.querySelectorAll(".frames li").length);
const filter = document.getElementById("sites-filter");
filter.value = "LIBX";
filter.dispatchEvent(new Event("input"));
note("filtered", column(1));
note("flame", frames());
press("#flame-metric button[value=live]");
note("flameLive", frames());
press("#flame button:nth-child(2)");
note("zoomed", document.querySelectorAll("#flame .above").length);
press("#flame-reset");
const search = document.getElementById("flame-search");
search.value = "libx";
search.dispatchEvent(new Event("input"));
note("found", document.getElementById("flame-readout").textContent);
note("line", document.querySelector("#timeline .line").getAttribute("d").split("L").length);
note("injected", document.querySelectorAll("b").length);
note("external", performance.getEntriesByType("resource").length);
</script>)script";

class PageTest : public ReportTest {
 protected:
  void SetUp() override {
    if (RunCommand({.arguments = {"chromium", "--version"}}).status != 0)
      GTEST_SKIP() << "chromium is not installed: the page was not opened";
  }

  // The document that becomes of a page with a script at its end.
  std::string Open(std::vector<std::string> arguments, const std::string& script) {
    const std::string file = directory_.File("page.html");
    arguments.insert(arguments.end(), {"--html", file});
    EXPECT_EQ(0, Report(arguments).status);
    const std::string page = zeltest::ReadFile(file);
    EXPECT_FALSE(Has(page, "http:") || Has(page, "https:")) << "names a network address";
    WriteFile(file, Replaced(page, "</body>", script + "</body>"));
    const Outcome browser = RunCommand(
        {.arguments = {"chromium", "--headless", "--no-sandbox", "--disable-gpu",
                       "--user-data-dir=" + directory_.File("browser"), "--window-size=1440,900",
                       "--enable-logging=stderr", "--dump-dom", "file://" + file},
         .variables = {"HOME=" + directory_.File("")},
         .timeoutSeconds = 120});
    EXPECT_EQ(0, browser.status) << browser.errors;
    EXPECT_FALSE(Has(browser.errors, "CONSOLE")) << browser.errors;
    return browser.output;
  }
};

TEST_F(PageTest, DrawsTheFiguresOfTheFile) {
  WriteFile("result.xml", Replaced(kResult, "<argument>a b", "<argument>&lt;b&gt;bold&lt;/b&gt;"));
  const std::string document = Open({"result.xml"}, kUsePage);
  ExpectParts(
      document,
      {R"(data-drawn="yes")", R"(id="total-bytes" class="large" value="4074")",
       R"(id="total-peak" class="large" value="2600")",
       R"(id="total-live" class="large" value="2074")",
       R"(id="total-temporary" class="large" value="1400")", R"(data-bytes="3000 1000 50 24")",
       R"(data-calls="10 3 2 1")", R"(data-calls-up="1 2 3 10")", R"(data-opened="1")",
       R"(data-filtered="3000")",
       R"(data-flame="all: 3.98 KiB, 100.0%|program+0x20: 3.91 KiB, 98.2%|)"
       R"(libx.so+0x40: 2.93 KiB, 73.6%|program+0x10: 1000 B, 24.5%|0x7f12: 50 B, 1.2%")",
       R"(data-flame-live="all: 2.03 KiB, 100.0%|program+0x20: 1.95 KiB, 96.4%|)"
       R"(libx.so+0x40: 1.95 KiB, 96.4%|0x7f12: 50 B, 2.4%")",
       R"(data-zoomed="1")", R"(data-found="Matching functions have 1.95 KiB, 96.4% of all.")",
       R"(data-line="2")", R"(data-injected="0")", R"(data-external="0")", "frees not seen: 2",
       "killed, or is still running"});
}

TEST_F(PageTest, DrawsChanges) {
  WriteOldAndNew();
  const std::string document = Open({"--diff", "old.xml", "new.xml"}, R"(<script>
        document.body.dataset.changes = [...document.querySelectorAll("#sites tr.path")]
            .map((row) => row.cells[1].textContent).join(" | ");
        document.body.dataset.flame = document.querySelectorAll("#flame button")[1].title;
      </script>)");
  ExpectParts(document, {"data-changes=\"+2.00 KiB | 0 B | 0 B | \xE2\x88\x92"
                         "1.95 KiB\"",
                         "data-flame=\"program+0x20: 1.95 KiB, 48.5%, changed by \xE2\x88\x92"
                         "1.95 KiB\""});
}

}  // namespace
}  // namespace heapscope::report
