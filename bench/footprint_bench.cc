// What the library adds to a process: time to load it and to get going, resident memory. Each
// sample is a new process; see probe.cc.

#include <cstdio>
#include <string>

#include "bench/peer_libraries.h"
#include "bench/suite.h"

namespace bench {
namespace {

enum class Host { kC, kCxx };  // the second has the C++ library in it before ours comes

void AskProbe(benchmark::State& state, const std::string& command) {
  for (auto _ : state) {
    std::FILE* const output = popen(command.c_str(), "r");
    double answer = 0;
    const bool isAnswer = output != nullptr && std::fscanf(output, "%lf", &answer) == 1;
    if (output != nullptr) pclose(output);
    if (!isAnswer) state.SkipWithError("the probe did not answer");
    state.counters[kFigure] = answer;
  }
}

Run Probe(const std::string& question, Host host, const std::string& contender) {
  const std::string preload = host == Host::kCxx ? "LD_PRELOAD=libstdc++.so.6 " : "";
  const std::string ours = contender == kOurs ? " " ZELRT_BENCH_LIBRARY : "";
  const std::string command = preload + ZELRT_BENCH_PROBE + " " + question + " " + contender + ours;
  return [command](benchmark::State& state) { AskProbe(state, command); };
}

Run ProbePeer(const std::string& question, Host host, const PeerLibrary& library) {
  return LoadPeer(library) != nullptr ? Probe(question, host, library.name) : nullptr;
}

constexpr char kLoading[] = "loading";

Work WorkOfProbe(const char* name, const std::string& question, Host host, Goal goal) {
  // Every process has this one loaded.
  const Run glibc = question == kLoading ? nullptr : Probe(question, host, kGlibc);
  return {.name = name,
          .measure = Measure::kCounter,
          .contenders = {{kOurs, Role::kOurs, Probe(question, host, kOurs)},
                         {kGlibc, Role::kPeer, glibc},
                         {kJemalloc.name, Role::kPeer, ProbePeer(question, host, kJemalloc)},
                         {kMimalloc.name, Role::kPeer, ProbePeer(question, host, kMimalloc)},
                         {kTcmalloc.name, Role::kPeer, ProbePeer(question, host, kTcmalloc)}},
          .goals = {goal}};
}

}  // namespace

Family Footprint() {
  return {
      "footprint",
      "",
      {WorkOfProbe("1 million of 48 bytes: resident bytes per live byte", "resident-per-live-byte",
                   Host::kC, AtMost(1.36)),
       WorkOfProbe("first allocation of a process: us", "first-allocation", Host::kC, AtMost(100)),
       WorkOfProbe("start-up and first use, C host: resident KiB", "resident-after-first-use",
                   Host::kC, AtMost(400)),
       WorkOfProbe("start-up and first use, C++ host: resident KiB", "resident-after-first-use",
                   Host::kCxx, AtMost(400)),
       WorkOfProbe("dlopen, C host: us", kLoading, Host::kC, AtMost(1.0, kMimalloc.name)),
       WorkOfProbe("dlopen, C++ host: us", kLoading, Host::kCxx, AtMost(1.0, kMimalloc.name))}};
}

}  // namespace bench
