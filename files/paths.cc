// Paths and folders, on standard strings.

#include "zelrt/paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "zelrt/files.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

constexpr size_t kMaxLink = 4096;

int AccessFlags(ZELFACCESSMODE mode) {
  switch (mode) {
    case ZELFACCESS_READ:
      return R_OK;
    case ZELFACCESS_WRITE:
      return W_OK;
    case ZELFACCESS_READWRITE:
      return R_OK | W_OK;
    default:
      return F_OK;
  }
}

// Errors of stat that tell that there is nothing of that name, as far as this process is concerned.
bool TellsAbsence(int error) {
  return error == ENOENT || error == EACCES || error == ENOTDIR || error == ENAMETOOLONG;
}

}  // namespace

bool CheckFileAccess(const std::string& path, ZELFACCESSMODE mode) {
  return !path.empty() && access(path.c_str(), AccessFlags(mode)) == 0;
}

bool CreateFolder(const std::string& path) {
  return !path.empty() && (mkdir(path.c_str(), 0777) == 0 || errno == EEXIST);
}

bool DeleteFolder(const std::string& path) { return !path.empty() && rmdir(path.c_str()) == 0; }

bool FolderExists(std::string path) {
  if (path.empty()) return false;
  if (path.back() == '/' || path.back() == '\\') path.pop_back();
  struct stat status;
  return stat(path.c_str(), &status) == 0 || !TellsAbsence(errno);
}

std::string SanitizePath(const std::string& path) {
  char* const copy = __ZelStrdup(path.c_str());
  if (copy == nullptr) return {};
  __ZelSanitizePath(copy);
  std::string result(copy);
  __ZelFree(copy);
  return result;
}

std::string GetFolderName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash != std::string::npos ? path.substr(0, slash) : std::string();
}

std::string GetBaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash != std::string::npos ? path.substr(slash + 1) : path;
}

std::string GetExecutableFilePath() {
  char link[128];
  __ZelSnprintf(link, sizeof link, "/proc/%d/exe", getpid());
  std::string target(kMaxLink + 1, '\0');  // the last one stays, so the text ends
  if (readlink(link, target.data(), kMaxLink) <= 0) return {};
  return SanitizePath(target);
}

}  // namespace zelrt
