// The annotations that a module's file carries.

#include "examples/heapscope/annotations.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace heapscope {
namespace {

constexpr char kSectionName[] = ".wex_notify_tab";
constexpr size_t kLargestSection = 128 * 1024;
constexpr int64_t kNear = int64_t{1} << 31;

// Reads an ELF file piece by piece. Nothing that it says of itself is believed.
class ElfFile {
 public:
  explicit ElfFile(const char* path) : descriptor_(open(path, O_RDONLY | O_CLOEXEC)) {}
  ~ElfFile() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  ElfFile(const ElfFile&) = delete;
  ElfFile& operator=(const ElfFile&) = delete;

  bool Find(const char* name, Elf64_Shdr* section) const {
    Elf64_Ehdr header;
    if (!Read(0, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64)
      return false;
    Elf64_Shdr names;
    if (!ReadSection(header, header.e_shstrndx, &names)) return false;
    for (size_t i = 0; i < header.e_shnum; ++i) {
      char found[sizeof kSectionName];
      if (ReadSection(header, i, section) &&
          Read(names.sh_offset + section->sh_name, found, std::strlen(name) + 1) &&
          std::memcmp(found, name, std::strlen(name) + 1) == 0)
        return true;
    }
    return false;
  }

  bool Read(uint64_t offset, void* to, size_t size) const {
    return descriptor_ >= 0 && offset < INT64_MAX &&
           pread(descriptor_, to, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
  }

 private:
  bool ReadSection(const Elf64_Ehdr& header, size_t index, Elf64_Shdr* section) const {
    return Read(header.e_shoff + index * sizeof *section, section, sizeof *section);
  }

  const int descriptor_;
};

struct Delivery {
  AnnotationProc proc;
  void* context;
  int64_t copy;       // where the bytes are now
  int64_t inTheFile;  // and where they belong
};

// Addresses that count from the table are near the copy, others are the file's already.
void Deliver(const ZelZCARecord* record, void* context) {
  const auto& delivery = *static_cast<const Delivery*>(context);
  ZelZCARecord inTheFile = *record;
  const int64_t fromCopy = static_cast<int64_t>(record->address) - delivery.copy;
  if (fromCopy > -kNear && fromCopy < kNear)
    inTheFile.address = static_cast<uint64_t>(delivery.inTheFile + fromCopy);
  delivery.proc(inTheFile, delivery.context);
}

}  // namespace

void ReadAnnotations(const char* path, AnnotationProc proc, void* context) {
  const ElfFile file(path);
  Elf64_Shdr section;
  if (!file.Find(kSectionName, &section) || section.sh_type != SHT_PROGBITS ||
      section.sh_size > kLargestSection)
    return;
  std::string bytes(section.sh_size, '\0');
  if (!file.Read(section.sh_offset, bytes.data(), bytes.size())) return;
  Delivery delivery = {proc, context, reinterpret_cast<int64_t>(bytes.data()),
                       static_cast<int64_t>(section.sh_addr)};
  __ZelZCAParseAndProcessRecords(0, bytes.data(), bytes.size(), Deliver, &delivery);
}

}  // namespace heapscope
