// A file for what a benchmark writes, gone when the object is.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace bench {

class ScratchFile {
 public:
  ScratchFile() {
    const char* const folder = std::getenv("TMPDIR");
    path_ = std::string(folder != nullptr ? folder : "/tmp") + "/zelrt-bench-XXXXXX";
    close(mkstemp(path_.data()));
  }
  ~ScratchFile() { unlink(path_.c_str()); }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  const char* Path() const { return path_.c_str(); }

 private:
  std::string path_;
};

}  // namespace bench
