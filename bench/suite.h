// What is measured, as data: works, the contenders that do them, and what is asked of ours.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace bench {

enum class Role {
  kOurs,
  kVariant,  // another way to call ours
  kBound,    // the floor or the model: what the work costs without the library around it
  kPeer,
};

using Run = std::function<void(benchmark::State&)>;

struct Contender {
  std::string name;
  Role role;
  Run run;  // empty for what this machine does not have
};

inline constexpr char kOurs[] = "ours";
inline constexpr char kFloor[] = "floor";
inline constexpr char kModel[] = "model";
inline constexpr char kGlibc[] = "glibc";

inline constexpr char kBestPeer[] = "best peer";  // as an opponent: the peer with the least figure
inline constexpr char kItself[] = "";             // as an opponent: none, the figure counts

// Ours shall be at most, or below, `limit` times the opponent's figure.
struct Goal {
  std::string opponent;
  double limit;
  bool below = false;
};
inline Goal AtMost(double limit, const char* opponent = kItself) { return {opponent, limit}; }
inline Goal AheadOf(const char* opponent) { return {opponent, 1.0, true}; }

// How the figure of a work comes about.
enum class Measure {
  kTime,        // nanoseconds of an iteration, on the processor: of one thread that never waits
  kWallTime,    // nanoseconds of an iteration, on the clock: of threads that wait for each other
  kManualTime,  // nanoseconds of an iteration, as reported with SetIterationTime
  kCounter,     // the counter kFigure, set by a benchmark that runs for one iteration; any unit
};
inline constexpr char kFigure[] = "figure";

struct Work {
  std::string name;
  Measure measure = Measure::kTime;
  std::vector<Contender> contenders;
  std::vector<Goal> goals;
};

struct Family {
  const char* name;
  const char* unit;  // of the figures; empty when the works' names tell
  std::vector<Work> works;
};

// The median figure of each contender that could be measured.
using Figures = std::map<std::string, double>;

// Runs the contenders in random turns, each as often as --benchmark_repetitions says.
Figures RunWork(const Work& work);

// The opponent's figure; nothing when it was not measured.
std::optional<double> OpponentFigure(const Work& work, const Figures& figures, const Goal& goal);

// The families, each in a file of its own name.
Family Locks();
Family Allocator();
Family Footprint();
Family Xml();
Family Log();
Family RangeTable();
Family RedBlackTree();
Family HashTables();
Family Checksums();
Family Sets();
Family Annotations();
Family Vector();
Family Queue();
Family Modules();
Family Commands();

}  // namespace bench
