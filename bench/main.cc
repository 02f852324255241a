// Measures the works whose names match --benchmark_filter and prints the table. Takes the options
// of Google Benchmark; those that are set below are for a full run.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "bench/suite.h"
#include "bench/table.h"
#include "bench/two_threads.h"
#include "host/host.h"
#include "zelrt/runtime.h"

namespace {

const char* const kDefaults[] = {
    "--benchmark_repetitions=25",
    "--benchmark_min_time=0.04",
    "--benchmark_enable_random_interleaving=true",
};

// Some peers keep more static thread storage than the loader leaves to libraries that are loaded
// late. It reads its tunables at the start of a process, so start again with a larger value.
void MakeRoomForThreadStorage(char** argv) {
  constexpr char kTunables[] = "GLIBC_TUNABLES";
  if (getenv(kTunables) != nullptr) return;
  setenv(kTunables, "glibc.rtld.optional_static_tls=16384", 1);
  execv("/proc/self/exe", argv);
}

void InitializeBenchmark(int argc, char** argv) {
  std::vector<std::string> arguments(argv, argv + 1);
  arguments.insert(arguments.end(), std::begin(kDefaults), std::end(kDefaults));
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) exit(1);
}

bench::MeasuredFamily Measure(const bench::Family& family, const std::regex& filter) {
  bench::MeasuredFamily measured = {family.name, family.unit, {}};
  for (const bench::Work& work : family.works) {
    if (!std::regex_search(family.name + (": " + work.name), filter)) continue;
    std::fprintf(stderr, "measuring %s: %s\n", family.name, work.name.c_str());
    measured.works.emplace_back(work, bench::RunWork(work));
  }
  return measured;
}

}  // namespace

int main(int argc, char** argv) {
  MakeRoomForThreadStorage(argv);
  InitializeBenchmark(argc, argv);
  zelhost::Install();
  __ZelRtStartup();
  bench::StartSecondThread();

  const std::regex filter(benchmark::GetBenchmarkFilter());
  std::vector<bench::MeasuredFamily> measured;
  for (const bench::Family& family :
       {bench::Locks(), bench::Allocator(), bench::Footprint(), bench::Xml(), bench::Log(),
        bench::HashTables(), bench::RedBlackTree(), bench::RangeTable(), bench::Vector(),
        bench::Queue(), bench::Sets(), bench::Checksums(), bench::Modules(), bench::Annotations(),
        bench::Commands()}) {
    bench::MeasuredFamily one = Measure(family, filter);
    if (!one.works.empty()) measured.push_back(std::move(one));
  }
  std::fputs(bench::FormatTable(measured).c_str(), stdout);
}
