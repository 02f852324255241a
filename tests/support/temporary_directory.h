// A directory of its own for a test that writes files, and what it finds in them.
#pragma once

#include <set>
#include <string>

namespace zeltest {

// Makes a new directory and works in it; removes it, with all that is in it, and goes back.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string previous_;
  std::string path_;
};

// The whole content; "(cannot be read)" where there is no such file.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

// The descriptors that this process has open.
std::set<int> OpenDescriptors();

// The newest one: what was opened since `before`. -1 unless there is exactly one.
int DescriptorOpenedSince(const std::set<int>& before);

}  // namespace zeltest
