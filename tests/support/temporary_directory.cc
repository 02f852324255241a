#include "tests/support/temporary_directory.h"

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace zeltest {

TemporaryDirectory::TemporaryDirectory() : previous_(std::filesystem::current_path()) {
  std::string name = std::filesystem::temp_directory_path() / "zelrt-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) std::abort();
  path_ = name;
  std::filesystem::current_path(path_);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::filesystem::current_path(previous_);
  std::filesystem::remove_all(path_);
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return "(cannot be read)";
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::set<int> OpenDescriptors() {
  std::set<int> descriptors;
  DIR* const directory = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') descriptors.insert(std::atoi(entry->d_name));
  }
  descriptors.erase(dirfd(directory));
  closedir(directory);
  return descriptors;
}

int DescriptorOpenedSince(const std::set<int>& before) {
  const std::set<int> now = OpenDescriptors();
  std::vector<int> opened;
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(opened));
  return opened.size() == 1 ? opened[0] : -1;
}

}  // namespace zeltest
