// Functions and lines of addresses in the files of modules, inlined functions with them.
//
// All is looked up on this machine: nothing is ever asked of a network.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace heapscope::report {

struct SourcePlace {
  std::string function;  // demangled; empty when it is not known
  std::string file;      // empty when the line is not known
  uint32_t line = 0;

  bool operator==(const SourcePlace&) const = default;
};

// The symbols of one module. A file that is gone, or is not the one that was recorded, has none.
class ModuleSymbols {
 public:
  // Without a build id the file is taken for the one that is meant. Separate debug files are looked
  // for in debugDirs, then where the system has them.
  ModuleSymbols(const std::string& path, const std::optional<std::string>& buildId,
                const std::vector<std::string>& debugDirs);
  ~ModuleSymbols();
  ModuleSymbols(const ModuleSymbols&) = delete;
  ModuleSymbols& operator=(const ModuleSymbols&) = delete;

  // Why there are none; empty when there are.
  const std::string& Problem() const { return problem_; }

  // An address of the file: the function that it is in and, behind it, those that this was inlined
  // into. Empty when nothing is known.
  std::vector<SourcePlace> Find(uint64_t address);

 private:
  class Files;  // keeps elfutils' headers to the source file
  std::unique_ptr<Files> files_;
  std::string problem_;
};

}  // namespace heapscope::report
