// Runs one work at a time, so that contenders which are compared are measured in the same minute.

#include "bench/suite.h"

#include <algorithm>

namespace bench {
namespace {

// Keeps the medians and prints nothing.
class MedianCollector : public benchmark::BenchmarkReporter {
 public:
  explicit MedianCollector(Measure measure) : measure_(measure) {}

  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || !IsMedian(run)) continue;
      figures_[run.run_name.function_name] = FigureOf(run);
    }
  }

  const Figures& Get() const { return figures_; }

 private:
  double FigureOf(const Run& run) const {
    if (measure_ == Measure::kTime) return run.GetAdjustedCPUTime();
    if (measure_ == Measure::kWallTime || measure_ == Measure::kManualTime)
      return run.GetAdjustedRealTime();
    return run.counters.at(kFigure).value;
  }

  // A single repetition has no aggregates: it is its own median.
  static bool IsMedian(const Run& run) {
    return run.run_type == Run::RT_Aggregate ? run.aggregate_name == "median"
                                             : run.repetitions <= 1;
  }

  const Measure measure_;
  Figures figures_;
};

void Register(const Contender& contender, Measure measure) {
  benchmark::internal::Benchmark* const registered =
      benchmark::RegisterBenchmark(contender.name.c_str(), contender.run);
  if (measure == Measure::kWallTime) registered->UseRealTime();
  if (measure == Measure::kManualTime) registered->UseManualTime();
  if (measure == Measure::kCounter) registered->Iterations(1);
}

}  // namespace

Figures RunWork(const Work& work) {
  for (const Contender& contender : work.contenders) {
    if (contender.run) Register(contender, work.measure);
  }
  MedianCollector collector(work.measure);
  benchmark::RunSpecifiedBenchmarks(&collector, "all");
  benchmark::ClearRegisteredBenchmarks();
  return collector.Get();
}

std::optional<double> OpponentFigure(const Work& work, const Figures& figures, const Goal& goal) {
  if (goal.opponent == kItself) return 1.0;
  std::optional<double> least;
  for (const Contender& contender : work.contenders) {
    const bool isMeant = goal.opponent == kBestPeer ? contender.role == Role::kPeer
                                                    : contender.name == goal.opponent;
    const auto figure = figures.find(contender.name);
    if (isMeant && figure != figures.end())
      least = std::min(least.value_or(figure->second), figure->second);
  }
  return least;
}

}  // namespace bench
