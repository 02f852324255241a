#include "bench/table.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

using Line = std::vector<std::string>;

std::string Figure(double value) {
  const int decimals = value < 10 ? 2 : value < 1000 ? 1 : 0;
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// A ratio counts as it is printed, with two decimals: the next one is noise.
double Rounded(double ratio) {
  return static_cast<double>(static_cast<long>(ratio * 100 + 0.5)) / 100;
}

Line GoalCells(const Work& work, const Figures& figures, const Goal& goal) {
  const std::string& opponent = goal.opponent;
  const std::string limit = (goal.below ? "< " : "<= ") + Figure(goal.limit);
  const auto ours = figures.find(kOurs);
  const std::optional<double> theirs = OpponentFigure(work, figures, goal);
  if (ours == figures.end() || !theirs) return {"- " + opponent, limit, "-"};
  const double ratio = Rounded(ours->second / *theirs);
  const bool met = goal.below ? ratio < goal.limit : ratio <= goal.limit;
  return {Figure(ratio) + (opponent.empty() ? "" : " x " + opponent), limit,
          met ? "met" : "NOT MET"};
}

// The contenders of all works of a family, ours and its bounds in front.
std::vector<std::string> Columns(const MeasuredFamily& family) {
  std::vector<std::string> columns;
  for (const Role role : {Role::kOurs, Role::kVariant, Role::kBound, Role::kPeer}) {
    for (const auto& [work, figures] : family.works) {
      for (const Contender& contender : work.contenders) {
        const bool isNew =
            std::find(columns.begin(), columns.end(), contender.name) == columns.end();
        if (contender.role == role && isNew) columns.push_back(contender.name);
      }
    }
  }
  return columns;
}

void AppendSection(const MeasuredFamily& family, std::vector<Line>& lines) {
  const std::vector<std::string> columns = Columns(family);
  const std::string unit = family.unit;
  Line heading = {family.name + (unit.empty() ? "" : ", " + unit)};
  heading.insert(heading.end(), columns.begin(), columns.end());
  heading.insert(heading.end(), {"measured", "goal", ""});
  lines.push_back(heading);
  for (const auto& [work, figures] : family.works) {
    Line line = {work.name};
    for (const std::string& column : columns) {
      const auto figure = figures.find(column);
      line.push_back(figure != figures.end() ? Figure(figure->second) : "-");
    }
    // The first goal stands in the work's line, each other one in a line of its own.
    for (const Goal& goal : work.goals) {
      const Line cells = GoalCells(work, figures, goal);
      line.insert(line.end(), cells.begin(), cells.end());
      lines.push_back(line);
      line.assign(columns.size() + 1, "");
    }
    if (work.goals.empty()) lines.push_back(line);
  }
}

std::string Align(const std::vector<Line>& lines) {
  std::vector<size_t> widths;
  for (const Line& line : lines) {
    widths.resize(std::max(widths.size(), line.size()));
    for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  std::string text;
  for (const Line& line : lines) {
    for (size_t i = 0; i < line.size(); ++i) {
      const std::string padding(widths[i] - line[i].size(), ' ');
      const bool isText = i == 0 || i + 1 == line.size();
      text += isText ? line[i] + padding : padding + line[i];
      text += "  ";
    }
    text.erase(text.find_last_not_of(' ') + 1);
    text += '\n';
  }
  return text;
}

}  // namespace

std::string FormatTable(const std::vector<MeasuredFamily>& families) {
  std::string text;
  for (const MeasuredFamily& family : families) {
    std::vector<Line> lines;
    AppendSection(family, lines);
    text += Align(lines) + '\n';
  }
  return text;
}

}  // namespace bench
