// The log: one record that is in the file when the call returns.

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

#ifdef ZELRT_BENCH_HAS_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif
#ifdef ZELRT_BENCH_HAS_GLOG
#include <glog/logging.h>
#endif

#include "bench/scratch_file.h"
#include "bench/suite.h"
#include "bench/two_threads.h"
#include "zelrt/log.h"

namespace bench {
namespace {

constexpr uint32_t kRecordsPerRound = 2'000;
constexpr char kPath[] = "/usr/lib/collector/data/results<1>.xml";

template <typename Record>
void OnOneThread(benchmark::State& state, Record record) {
  for (auto _ : state) record();
}

template <typename Record>
void OnTwoThreads(benchmark::State& state, Record record) {
  while (state.KeepRunningBatch(2 * kRecordsPerRound)) {
    state.SetIterationTime(RunOnBothThreads([&record](int) {
      for (uint32_t left = kRecordsPerRound; left > 0; --left) record();
    }));
  }
}

enum class Threads { kOne, kTwo };

template <typename Record>
void Measured(benchmark::State& state, Threads threads, Record record) {
  threads == Threads::kOne ? OnOneThread(state, record) : OnTwoThreads(state, record);
}

Run Ours(Threads threads) {
  return [threads](benchmark::State& state) {
    const ScratchFile scratch;
    __ZelCreateLogger("bench", scratch.Path(), 0);
    Measured(state, threads,
             [] { zelrt::Log(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_FAIL_OPEN_FILE, kPath); });
  };
}

// As many bytes as a record of ours has.
Run PlainWrite(Threads threads) {
  return [threads](benchmark::State& state) {
    static const std::string bytes =
        "\n\t<msg id='123456' source='zelrt'>\n\t\t<type>FAIL_OPEN_FILE</type>\n\t\t<severity>ERROR"
        "</severity>\n\t\t<timestamp>Mon Nov 16 16:20:20 2026</timestamp>\n\t\t<arg "
        "name='filename'>"
        "/usr/lib/collector/data/results&lt;1&gt;.xml</arg>\n\t</msg>";
    const ScratchFile scratch;
    const int file = open(scratch.Path(), O_WRONLY | O_TRUNC);
    Measured(state, threads, [file] {
      if (write(file, bytes.data(), bytes.size()) < 0) std::abort();
    });
    close(file);
  };
}

Run Spdlog([[maybe_unused]] Threads threads) {
#ifdef ZELRT_BENCH_HAS_SPDLOG
  return [threads](benchmark::State& state) {
    const ScratchFile scratch;
    const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(scratch.Path(), true);
    spdlog::logger logger("bench", sink);
    logger.flush_on(spdlog::level::trace);
    Measured(state, threads, [&logger] { logger.error("FAIL_OPEN_FILE filename={}", kPath); });
  };
#else
  return {};
#endif
}

Run Glog([[maybe_unused]] Threads threads) {
#ifdef ZELRT_BENCH_HAS_GLOG
  return [threads](benchmark::State& state) {
    static const ScratchFile& scratch = []() -> const ScratchFile& {
      static const ScratchFile file;
      google::InitGoogleLogging("zelrt_bench");
      FLAGS_logbuflevel = -1;  // every record is flushed
      FLAGS_stderrthreshold = google::NUM_SEVERITIES;
      for (const int severity : {google::GLOG_INFO, google::GLOG_WARNING, google::GLOG_ERROR})
        google::SetLogDestination(severity, severity == google::GLOG_WARNING ? file.Path() : "");
      return file;
    }();
    static_cast<void>(scratch);
    Measured(state, threads, [] { LOG(WARNING) << "FAIL_OPEN_FILE filename=" << kPath; });
  };
#else
  return {};
#endif
}

Work RecordOn(Threads threads, const char* name, double limit) {
  return {.name = name,
          .measure = threads == Threads::kOne ? Measure::kTime : Measure::kManualTime,
          .contenders = {{kOurs, Role::kOurs, Ours(threads)},
                         {"write", Role::kBound, PlainWrite(threads)},
                         {"spdlog", Role::kPeer, Spdlog(threads)},
                         {"glog", Role::kPeer, Glog(threads)}},
          .goals = {AtMost(limit, "write"), AheadOf("spdlog"), AheadOf("glog")}};
}

}  // namespace

Family Log() {
  return {"log",
          "ns",
          {RecordOn(Threads::kOne, "a record and its flush", 1.25),
           RecordOn(Threads::kTwo, "a record and its flush, 2 threads", 1.4)}};
}

}  // namespace bench
