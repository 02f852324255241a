// Runs one work at a time, so that contenders which are compared are measured in the same minute.

#include "bench/suite.h"

#include <algorithm>

namespace bench {
namespace {

// Keeps the medians and prints nothing.
class MedianCollector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || !IsMedian(run)) continue;
      const auto counter = run.counters.find(kFigure);
      figures_[run.run_name.function_name] =
          counter != run.counters.end() ? counter->second.value : run.GetAdjustedRealTime();
    }
  }

  const Figures& Get() const { return figures_; }

 private:
  // A single repetition has no aggregates: it is its own median.
  static bool IsMedian(const Run& run) {
    return run.run_type == Run::RT_Aggregate ? run.aggregate_name == "median"
                                             : run.repetitions <= 1;
  }

  Figures figures_;
};

void Register(const Contender& contender, Measure measure) {
  benchmark::internal::Benchmark* const registered =
      benchmark::RegisterBenchmark(contender.name, contender.run);
  if (measure == Measure::kTime) registered->UseRealTime();
  if (measure == Measure::kManualTime) registered->UseManualTime();
  if (measure == Measure::kCounter) registered->Iterations(1);
}

}  // namespace

Figures RunWork(const Work& work) {
  for (const Contender& contender : work.contenders) {
    if (contender.run) Register(contender, work.measure);
  }
  MedianCollector collector;
  benchmark::RunSpecifiedBenchmarks(&collector, "all");
  benchmark::ClearRegisteredBenchmarks();
  return collector.Get();
}

std::optional<double> OpponentFigure(const Work& work, const Figures& figures, const Goal& goal) {
  if (goal.opponent == kItself) return 1.0;
  std::optional<double> least;
  for (const Contender& contender : work.contenders) {
    const bool isMeant = goal.opponent == kBestPeer ? contender.role == Role::kPeer
                                                    : std::string(contender.name) == goal.opponent;
    const auto figure = figures.find(contender.name);
    if (isMeant && figure != figures.end())
      least = std::min(least.value_or(figure->second), figure->second);
  }
  return least;
}

}  // namespace bench
