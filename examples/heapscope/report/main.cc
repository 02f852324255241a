// heapscope-report: shows what is in result files of heapscope.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "examples/heapscope/report/answers.h"
#include "examples/heapscope/report/call_paths.h"
#include "examples/heapscope/report/collapsed.h"
#include "examples/heapscope/report/diff.h"
#include "examples/heapscope/report/page.h"
#include "examples/heapscope/report/result_file.h"
#include "examples/heapscope/report/tables.h"
#include "examples/heapscope/report/terminal.h"
#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

constexpr int kFailure = 1;
constexpr int kUsageError = 2;
constexpr size_t kMaxPrinted = 1'000'000;

struct Options {
  std::string file;
  std::vector<std::string> diff;  // the old file and the new
  bool namesFrames = false;
  std::string page;
  std::string collapsed;
  std::string metric = "bytes";
  std::vector<std::string> debugDirs;
  TableOptions tables;
};

constexpr std::pair<std::string_view, Merge> kMerges[] = {{"path", Merge::kPath},
                                                          {"line", Merge::kLine},
                                                          {"function", Merge::kFunction},
                                                          {"module", Merge::kModule}};

std::vector<std::string> NamesOf(std::span<const Metric> metrics) {
  std::vector<std::string> names;
  for (const Metric& metric : metrics) names.emplace_back(metric.name);
  return names;
}

std::vector<std::string> NamesOf(std::span<const std::pair<std::string_view, Merge>> merges) {
  std::vector<std::string> names;
  for (const auto& [name, merge] : merges) names.emplace_back(name);
  return names;
}

void Describe(CLI::App* app, Options* options) {
  app->add_option("FILE", options->file, "A result file of heapscope")->option_text(" ");
  app->add_option("--html", options->page, "Write a page for a browser to this file")
      ->option_text("OUT");
  app->add_option("--collapsed", options->collapsed,
                  "Write collapsed stacks for other viewers; - for standard output")
      ->option_text("OUT");
  CLI::Option* const diff =
      app->add_option("--diff", options->diff, "Say what changed from one result file to another")
          ->expected(2)
          ->option_text("OLD NEW");
  CLI::Option* const where =
      app->add_flag("--where", options->namesFrames,
                    "Name the functions in an answer of heapscope where, read from standard input");
  for (const char* other : {"FILE", "--collapsed"}) {
    diff->excludes(app->get_option(other));
    where->excludes(app->get_option(other));
  }
  where->excludes(diff);

  app->add_option("--metric", options->metric,
                  "Of --collapsed and --diff: bytes (the default), calls, live, peak or temporary")
      ->check(CLI::IsMember(NamesOf(kMetrics)))
      ->option_text("METRIC");
  app->add_option_function<std::string>(
         "--merge",
         [options](const std::string& name) {
           options->tables.merge =
               std::ranges::find(kMerges, name, &std::pair<std::string_view, Merge>::first)->second;
         },
         "Tables by whole path (the default), or by the line, function or module of the innermost "
         "frame")
      ->check(CLI::IsMember(NamesOf(kMerges)))
      ->option_text("HOW");
  app->add_option("--top", options->tables.top, "Call paths of each table: 10")
      ->check(CLI::Range(size_t{1}, kMaxPrinted))
      ->option_text("N");
  app->add_option("--depth", options->tables.depth, "Frames printed of a call path: 12")
      ->check(CLI::Range(size_t{1}, kMaxPrinted))
      ->option_text("N");
  // libdw looks for a relative directory beside each module.
  const auto inFull = [](std::string& directory) {
    directory = std::filesystem::absolute(directory).string();
    return std::string();
  };
  app->add_option("--debug-dir", options->debugDirs,
                  "Where separate debug files are, under .build-id; may be given again")
      ->check(CLI::ExistingDirectory)
      ->transform(CLI::Validator(inFull, "", ""))
      ->allow_extra_args(false)
      ->option_text("DIR");
  app->set_version_flag("--version", "heapscope-report " HEAPSCOPE_VERSION);
}

NamedResult Load(const std::string& file, const Options& options) {
  const auto read = [&] {
    Progress progress("Reading " + CleanText(file));
    return ReadResult(file, [&](size_t done, size_t all) { progress.Show(done, all); });
  };
  Result result = read();
  for (const std::string& damage : result.damage)
    std::fprintf(stderr, "heapscope-report: %s: %s\n", file.c_str(), damage.c_str());
  Progress progress("Looking up functions");
  return NameSites(std::move(result), options.debugDirs,
                   [&](size_t done, size_t all) { progress.Show(done, all); });
}

void WriteOut(const std::string& path, const std::string& text) {
  const bool isStandardOutput = path.empty() || path == "-";
  FILE* const stream = isStandardOutput ? stdout : std::fopen(path.c_str(), "wb");
  if (stream == nullptr) throw FileError(path + ": " + std::strerror(errno));
  bool isWritten = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
  isWritten = (isStandardOutput ? std::fflush(stream) : std::fclose(stream)) == 0 && isWritten;
  if (!isWritten)
    throw FileError((isStandardOutput ? "standard output" : path) + ": " + std::strerror(errno));
}

std::string ReadStandardInput() {
  std::string text;
  char piece[4096];
  while (const size_t got = std::fread(piece, 1, sizeof piece, stdin)) text.append(piece, got);
  return text;
}

void Run(const Options& options) {
  if (options.namesFrames) return WriteOut("", NameFrames(ReadStandardInput(), options.debugDirs));
  const Metric& metric = *FindMetric(options.metric);
  if (!options.diff.empty()) {
    const NamedResult before = Load(options.diff[0], options);
    const NamedResult after = Load(options.diff[1], options);
    WriteOut(options.page, options.page.empty() ? DiffText(before, after, metric, options.tables)
                                                : DiffPage(before, after));
    return;
  }
  const NamedResult named = Load(options.file, options);
  if (!options.page.empty()) WriteOut(options.page, Page(named));
  if (!options.collapsed.empty()) WriteOut(options.collapsed, CollapsedStacks(named, metric));
  if (options.page.empty() && options.collapsed.empty())
    WriteOut("", ReportText(named, options.tables));
}

int Main(int argc, char** argv) {
  CLI::App app("Shows what heapscope found: call paths by what they allocated.",
               "heapscope-report");
  Options options;
  Describe(&app, &options);
  try {
    app.parse(argc, argv);
    if (options.file.empty() && options.diff.empty() && !options.namesFrames)
      throw CLI::RequiredError("FILE, --diff OLD NEW or --where");
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsageError;
  }
  options.tables.style = Style::Of(stdout);
  Run(options);
  return 0;
}

}  // namespace
}  // namespace heapscope::report

int main(int argc, char** argv) {
  try {
    return heapscope::report::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "heapscope-report: %s\n", error.what());
  } catch (...) {
    std::fputs("heapscope-report: it failed\n", stderr);
  }
  return heapscope::report::kFailure;
}
