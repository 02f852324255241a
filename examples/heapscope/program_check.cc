// What keeps a program from being watched.

#include "examples/heapscope/program_check.h"

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace heapscope {
namespace {

std::string FindProgram(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  const char* const path = std::getenv("PATH");
  std::istringstream directories(path != nullptr ? path : "/bin:/usr/bin");
  for (std::string directory; std::getline(directories, directory, ':');) {
    std::string candidate = (directory.empty() ? "." : directory) + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return program;
}

// The contents of an ELF file; nothing that it says of itself is believed.
class ElfFile {
 public:
  explicit ElfFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(stream), {});
  }

  bool IsExecutable() const {
    const auto* const header = At<Elf64_Ehdr>(0);
    return header != nullptr && std::memcmp(header->e_ident, ELFMAG, SELFMAG) == 0;
  }
  bool Is64Bit() const {
    const auto* const header = At<Elf64_Ehdr>(0);
    return header->e_ident[EI_CLASS] == ELFCLASS64 && header->e_machine == EM_X86_64;
  }
  bool HasInterpreter() const {
    const auto* const header = At<Elf64_Ehdr>(0);
    for (size_t i = 0; i < header->e_phnum; ++i) {
      const auto* const segment = At<Elf64_Phdr>(header->e_phoff + i * sizeof(Elf64_Phdr));
      if (segment != nullptr && segment->p_type == PT_INTERP) return true;
    }
    return false;
  }
  bool Defines(const char* name) const {
    const auto* const header = At<Elf64_Ehdr>(0);
    for (size_t i = 0; i < header->e_shnum; ++i) {
      const auto* const section = Section(i);
      if (section == nullptr || section->sh_type != SHT_DYNSYM) continue;
      const auto* const names = Section(section->sh_link);
      if (names == nullptr) continue;
      for (uint64_t at = 0; at + sizeof(Elf64_Sym) <= section->sh_size; at += sizeof(Elf64_Sym)) {
        const auto* const symbol = At<Elf64_Sym>(section->sh_offset + at);
        if (symbol == nullptr) break;
        if (symbol->st_shndx != SHN_UNDEF && IsTextAt(names->sh_offset + symbol->st_name, name))
          return true;
      }
    }
    return false;
  }

 private:
  template <typename T>
  const T* At(uint64_t offset) const {
    if (offset % alignof(T) != 0 || offset > bytes_.size() || sizeof(T) > bytes_.size() - offset)
      return nullptr;
    return reinterpret_cast<const T*>(bytes_.data() + offset);
  }
  const Elf64_Shdr* Section(size_t index) const {
    return At<Elf64_Shdr>(At<Elf64_Ehdr>(0)->e_shoff + index * sizeof(Elf64_Shdr));
  }
  bool IsTextAt(uint64_t offset, const char* text) const {
    const size_t size = std::strlen(text) + 1;
    return offset < bytes_.size() && size <= bytes_.size() - offset &&
           std::memcmp(bytes_.data() + offset, text, size) == 0;
  }

  std::string bytes_;
};

}  // namespace

std::string ReasonNotToBeWatched(const std::string& program) {
  const std::string path = FindProgram(program);
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return "";
  if ((status.st_mode & (S_ISUID | S_ISGID)) != 0 && geteuid() != 0)
    return "it runs with the rights of its owner";
  const ElfFile file(path);
  if (!file.IsExecutable()) return "";  // a script, whose interpreter is as good as any program
  if (!file.Is64Bit()) return "it is not a 64-bit program of this machine";
  if (!file.HasInterpreter()) return "it is linked statically";
  if (file.Defines("malloc")) return "it has an allocator of its own";
  return "";
}

}  // namespace heapscope
