// libdwfl opens a module's file and finds its separate debug file. Which functions an address is in
// is looked up in indexes made here, as libdw would go through a whole compilation unit for each
// address: of the units by their ranges (.debug_aranges is not always there), and of the functions
// of a unit, made when the first address of it is asked for.

#include "examples/heapscope/report/symbols.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "examples/heapscope/report/text.h"

namespace heapscope::report {
namespace {

struct Range {
  uint64_t start, end;
  size_t of;
};

// Calls use(start, end) for each range of addresses of an entry.
template <typename Use>
void ForEachRange(Dwarf_Die* die, Use use) {
  Dwarf_Addr base, start, end;
  ptrdiff_t offset = 0;
  while ((offset = dwarf_ranges(die, offset, &base, &start, &end)) > 0) {
    if (start < end) use(start, end);
  }
}

// The ranges of units, and of functions, do not overlap.
const Range* FindRange(const std::vector<Range>& sorted, uint64_t address) {
  auto above = std::ranges::upper_bound(sorted, address, {}, &Range::start);
  if (above == sorted.begin()) return nullptr;
  const Range& range = *std::prev(above);
  return address < range.end ? &range : nullptr;
}

// The hash at the end of a Rust function's name, as in "core::fmt::write::h0123456789abcdef".
std::string WithoutRustHash(std::string name) {
  constexpr size_t kHash = 16;
  const size_t at = name.rfind("::h");
  if (at == std::string::npos || name.size() != at + 3 + kHash) return name;
  if (name.find_first_not_of("0123456789abcdef", at + 3) == std::string::npos) name.resize(at);
  return name;
}

// The library's own names for std::string and what has an inline namespace.
std::string WithPlainNames(std::string name) {
  constexpr std::pair<std::string_view, std::string_view> kPlain[] = {
      {"std::__cxx11::", "std::"},
      {"std::basic_string<char, std::char_traits<char>, std::allocator<char> >", "std::string"},
      {"std::basic_string_view<char, std::char_traits<char> >", "std::string_view"}};
  for (const auto& [from, to] : kPlain) {
    for (size_t at = 0; (at = name.find(from, at)) != std::string::npos; at += to.size())
      name.replace(at, from.size(), to);
  }
  return name;
}

std::string Demangled(const char* name) {
  if (std::strncmp(name, "_Z", 2) != 0) return CleanText(name);
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
  return status == 0 ? WithPlainNames(WithoutRustHash(CleanText(text.get()))) : CleanText(name);
}

std::string FunctionName(Dwarf_Die* die) {
  const char* const plain = dwarf_diename(die);
  for (const unsigned name : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
    Dwarf_Attribute attribute;
    const char* const linkage = dwarf_formstring(dwarf_attr_integrate(die, name, &attribute));
    // Rust's own mangling is beyond the demangler; the plain name says more.
    if (linkage != nullptr && (std::strncmp(linkage, "_R", 2) != 0 || plain == nullptr))
      return Demangled(linkage);
  }
  return plain != nullptr ? CleanText(plain) : "";
}

uint32_t NumberOf(Dwarf_Die* die, unsigned name) {
  Dwarf_Attribute attribute;
  Dwarf_Word value = 0;
  if (dwarf_formudata(dwarf_attr(die, name, &attribute), &value) != 0) return 0;
  return static_cast<uint32_t>(value);
}

// The functions of a compilation unit, with what was inlined into them.
class Unit {
 public:
  explicit Unit(Dwarf_Die die) : die_(die) {}

  std::vector<SourcePlace> Find(uint64_t address) {
    if (!isIndexed_) Index();
    SourcePlace place;
    if (Dwarf_Line* const line = dwarf_getsrc_die(&die_, address)) {
      int number = 0;
      if (const char* const file = dwarf_linesrc(line, nullptr, nullptr))
        place.file = CleanText(file);
      if (dwarf_lineno(line, &number) == 0 && number > 0)
        place.line = static_cast<uint32_t>(number);
    }
    const Range* const range = FindRange(outermost_, address);
    if (range == nullptr) return place.line != 0 ? std::vector{place} : std::vector<SourcePlace>();

    std::vector<size_t> chain;  // outermost first
    for (std::optional<size_t> inner = range->of; inner; inner = InlinedAt(*inner, address))
      chain.push_back(*inner);
    std::vector<SourcePlace> places;
    for (size_t i = chain.size(); i-- > 0;) {
      Function& function = functions_[chain[i]];
      place.function = NameOf(function);
      places.push_back(place);
      place = CallOf(function);
    }
    return places;
  }

 private:
  struct Function {
    Dwarf_Die die;
    std::vector<Range> inlined;  // into it, by index of functions_
    std::string name;
  };

  void Index() {
    isIndexed_ = true;
    Dwarf_Die subUnit;
    Dwarf_Die* scopes = &die_;
    Dwarf_Half version;
    uint8_t type;
    // A unit whose entries are in a file of their own (.dwo).
    if (dwarf_cu_info(die_.cu, &version, &type, nullptr, &subUnit, nullptr, nullptr, nullptr) ==
            0 &&
        type == DW_UT_skeleton && dwarf_tag(&subUnit) != DW_TAG_invalid)
      scopes = &subUnit;
    AddScopesIn(scopes, std::nullopt, 0);
    std::ranges::sort(outermost_, {}, &Range::start);
  }

  void AddScopesIn(Dwarf_Die* parent, std::optional<size_t> function, int depth) {
    constexpr int kMaxDepth = 256;  // that of a compiler's output stays far below it
    Dwarf_Die child;
    if (depth == kMaxDepth || dwarf_child(parent, &child) != 0) return;
    do {
      switch (dwarf_tag(&child)) {
        case DW_TAG_subprogram:
          AddFunction(&child, std::nullopt, depth);
          break;
        case DW_TAG_inlined_subroutine:
          if (function) AddFunction(&child, function, depth);
          break;
        case DW_TAG_lexical_block:
        case DW_TAG_namespace:
        case DW_TAG_module:
        case DW_TAG_class_type:
        case DW_TAG_structure_type:
        case DW_TAG_try_block:
        case DW_TAG_catch_block:
          AddScopesIn(&child, function, depth + 1);
          break;
        default:
          break;
      }
    } while (dwarf_siblingof(&child, &child) == 0);
  }

  void AddFunction(Dwarf_Die* die, std::optional<size_t> into, int depth) {
    const size_t index = functions_.size();
    bool hasCode = false;
    ForEachRange(die, [&](uint64_t start, uint64_t end) {
      if (!hasCode) functions_.push_back({*die, {}, {}});
      hasCode = true;
      (into ? functions_[*into].inlined : outermost_).push_back({start, end, index});
    });
    // Functions without code of their own are declarations, or the originals of inlined ones; what
    // those contain has no code either.
    if (hasCode) AddScopesIn(die, index, depth + 1);
  }

  std::optional<size_t> InlinedAt(size_t function, uint64_t address) const {
    for (const Range& range : functions_[function].inlined) {
      if (address >= range.start && address < range.end) return range.of;
    }
    return std::nullopt;
  }

  static const std::string& NameOf(Function& function) {
    if (function.name.empty()) function.name = FunctionName(&function.die);
    return function.name;
  }

  // Where an inlined function was called.
  static SourcePlace CallOf(Function& function) {
    SourcePlace place;
    Dwarf_Die unit;
    Dwarf_Files* files = nullptr;
    size_t count = 0;
    place.line = NumberOf(&function.die, DW_AT_call_line);
    if (place.line == 0 || dwarf_diecu(&function.die, &unit, nullptr, nullptr) == nullptr ||
        dwarf_getsrcfiles(&unit, &files, &count) != 0)
      return place;
    const char* const file =
        dwarf_filesrc(files, NumberOf(&function.die, DW_AT_call_file), nullptr, nullptr);
    if (file != nullptr) place.file = CleanText(file);
    return place;
  }

  Dwarf_Die die_;
  bool isIndexed_ = false;
  std::vector<Function> functions_;
  std::vector<Range> outermost_;  // of functions that are not inlined, by index of functions_
};

bool IsRegularFile(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string HexOf(const unsigned char* bytes, int count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

// A path in libdwfl's notation: "-" asks for no checksums, "" for the file's own directory.
std::string SearchPath(const std::vector<std::string>& debugDirs) {
  std::string path = "-";
  for (const std::string& directory : debugDirs) path += ":" + directory;
  return path + "::.debug:/usr/lib/debug";
}

}  // namespace

class ModuleSymbols::Files {
 public:
  Files(const std::string& path, const std::vector<std::string>& debugDirs)
      : searchPath_(SearchPath(debugDirs)), searchPathText_(searchPath_.data()) {
    // elfutils asks servers only when this names some.
    unsetenv("DEBUGINFOD_URLS");
    callbacks_.find_elf = [](Dwfl_Module*, void**, const char*, Dwarf_Addr, char**, Elf**) {
      return -1;
    };
    callbacks_.find_debuginfo = dwfl_standard_find_debuginfo;
    callbacks_.debuginfo_path = &searchPathText_;
    dwfl_.reset(dwfl_begin(&callbacks_));
    if (dwfl_ == nullptr) return;
    dwfl_report_begin(dwfl_.get());
    module_ = dwfl_report_elf(dwfl_.get(), path.c_str(), path.c_str(), -1, 0, true);
    dwfl_report_end(dwfl_.get(), nullptr, nullptr);
    if (module_ == nullptr || dwfl_module_getelf(module_, &bias_) == nullptr) module_ = nullptr;
  }

  bool IsOpen() const { return module_ != nullptr; }

  std::string BuildId() const {
    const unsigned char* bytes = nullptr;
    GElf_Addr address;
    const int count = dwfl_module_build_id(module_, &bytes, &address);
    return count > 0 ? HexOf(bytes, count) : "";
  }

  std::vector<SourcePlace> Find(uint64_t address) {
    if (!unitsAreIndexed_) IndexUnits();
    std::vector<SourcePlace> places;
    // Both biases are from addresses in a file to those that libdwfl gave the module.
    const uint64_t inDebugFile = address + bias_ - debugBias_;
    if (const Range* const range = FindRange(unitRanges_, inDebugFile))
      places = units_[range->of].Find(inDebugFile);
    if (places.empty()) places.emplace_back();
    if (places.back().function.empty()) places.back().function = SymbolAt(address + bias_);
    if (places.size() == 1 && places[0].function.empty() && places[0].line == 0) places.clear();
    return places;
  }

 private:
  struct EndDwfl {
    void operator()(Dwfl* dwfl) const { dwfl_end(dwfl); }
  };

  void IndexUnits() {
    unitsAreIndexed_ = true;
    Dwarf* const dwarf = dwfl_module_getdwarf(module_, &debugBias_);
    if (dwarf == nullptr) return;
    Dwarf_CU* unit = nullptr;
    Dwarf_Die die;
    while (dwarf_get_units(dwarf, unit, &unit, nullptr, nullptr, &die, nullptr) == 0) {
      if (dwarf_tag(&die) != DW_TAG_compile_unit && dwarf_tag(&die) != DW_TAG_skeleton_unit)
        continue;
      ForEachRange(&die, [&](uint64_t start, uint64_t end) {
        unitRanges_.push_back({start, end, units_.size()});
      });
      units_.emplace_back(die);
    }
    std::ranges::sort(unitRanges_, {}, &Range::start);
  }

  std::string SymbolAt(uint64_t address) const {
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* const name =
        dwfl_module_addrinfo(module_, address, &offset, &symbol, nullptr, nullptr, nullptr);
    // Without a full table, the last symbol below may be that of another function.
    if (name == nullptr || (symbol.st_size != 0 && offset >= symbol.st_size)) return "";
    return Demangled(name);
  }

  std::string searchPath_;
  char* searchPathText_;
  Dwfl_Callbacks callbacks_ = {};
  std::unique_ptr<Dwfl, EndDwfl> dwfl_;
  Dwfl_Module* module_ = nullptr;
  Dwarf_Addr bias_ = 0;
  Dwarf_Addr debugBias_ = 0;
  bool unitsAreIndexed_ = false;
  std::vector<Range> unitRanges_;
  std::vector<Unit> units_;
};

ModuleSymbols::ModuleSymbols(const std::string& path, const std::optional<std::string>& buildId,
                             const std::vector<std::string>& debugDirs) {
  // Only regular files are opened: to open another kind may wait for ever.
  if (!IsRegularFile(path)) {
    problem_ = "the file is not there";
    return;
  }
  files_ = std::make_unique<Files>(path, debugDirs);
  if (!files_->IsOpen()) {
    problem_ = "the file cannot be read";
  } else if (buildId.has_value() && files_->BuildId() != *buildId) {
    problem_ = "the file is another one now: its build id differs";
  }
  if (!problem_.empty()) files_.reset();
}

ModuleSymbols::~ModuleSymbols() = default;

std::vector<SourcePlace> ModuleSymbols::Find(uint64_t address) {
  return files_ != nullptr ? files_->Find(address) : std::vector<SourcePlace>();
}

}  // namespace heapscope::report
