// heapscope: starts a program with the collector loaded into it.
//
// The collector's library lies beside the launcher, as in a build directory, or where the
// installation puts it. It is told where to write through the environment, which children inherit.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "examples/heapscope/file_pattern.h"

namespace {

// As env and nohup have them: the launcher's own failures are told from those of the program.
constexpr int kLauncherFailed = 125;
constexpr int kProgramNotExecutable = 126;
constexpr int kProgramNotFound = 127;

constexpr char kLibraryName[] = "libheapscope.so";

constexpr char kUsage[] =
    "Usage: heapscope [-d DIRECTORY] [-o FILE] [--] PROGRAM [ARGUMENT...]\n"
    "Runs the program, counts its heap allocations, and writes a summary to standard error when\n"
    "it exits.\n"
    "\n"
    "  -d DIRECTORY\n"
    "           for each process, keep a result file and a log in DIRECTORY, which is made if "
    "need\n"
    "           be: heapscope.PROCESS.xml and heapscope.PROCESS.log\n"
    "  -o FILE  write to FILE, where the program's child processes write their summaries too; %p\n"
    "           in FILE stands for the process id, %% for a percent sign\n"
    "  -h       show this help\n";

[[noreturn]] void Fail(const std::string& text) {
  std::fprintf(stderr, "heapscope: %s\n", text.c_str());
  std::exit(kLauncherFailed);
}
[[noreturn]] void FailWithError(const std::string& text) { Fail(text + ": " + strerror(errno)); }

std::string OwnDirectory() {
  std::string path(4096, '\0');
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length < 0) FailWithError("cannot find itself");
  path.resize(static_cast<size_t>(length));
  return path.substr(0, path.rfind('/'));
}

std::string FindLibrary() {
  const std::string directory = OwnDirectory();
  for (const char* const place : {"/", HEAPSCOPE_INSTALLED_LIBRARY_DIR}) {
    std::string path = directory + place + kLibraryName;
    if (access(path.c_str(), R_OK) != 0) continue;
    // The loader takes these as ends of a name, and knows no way to quote them.
    if (path.find_first_of(" :") != std::string::npos)
      Fail("the loader cannot take a path with a space or a colon: " + path);
    return path;
  }
  Fail(std::string("cannot find ") + kLibraryName + " for " + directory);
}

void SetVariable(const char* name, const std::string& value) {
  if (setenv(name, value.c_str(), 1) != 0) FailWithError(name);
}

void PreloadLibrary() {
  constexpr char kPreload[] = "LD_PRELOAD";
  const char* const others = std::getenv(kPreload);
  std::string value = FindLibrary();
  if (others != nullptr && others[0] != '\0') value = value + ":" + others;
  SetVariable(kPreload, value);
}

std::string AbsolutePath(const std::string& path) {
  if (path.starts_with('/')) return path;
  char* const directory = getcwd(nullptr, 0);
  if (directory == nullptr) FailWithError("cannot find the current directory");
  std::string absolute;
  for (const char* c = directory; *c != '\0'; ++c)
    absolute += *c == '%' ? "%%" : std::string(1, *c);
  std::free(directory);
  return absolute + "/" + path;
}

// Empties the file that all processes are going to append to, or tells that they cannot. A file for
// each process is theirs to create.
void PrepareFile(const std::string& pattern) {
  if (heapscope::HasProcessId(pattern.c_str())) return;
  char path[PATH_MAX];
  if (!heapscope::ExpandFilePattern(pattern.c_str(), 0, path, sizeof path))
    Fail("the file's name is too long");
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (file < 0) FailWithError(path);
  close(file);
}

void DirectOutput(const char* pattern) {
  if (pattern != nullptr) {
    const std::string absolute = AbsolutePath(pattern);
    PrepareFile(absolute);
    SetVariable("HEAPSCOPE_OUTPUT", absolute);
    return;
  }
  unsetenv("HEAPSCOPE_OUTPUT");
  struct stat status = {};
  fstat(STDERR_FILENO, &status);  // one that is closed is no file's
  char expected[64];
  std::snprintf(expected, sizeof expected, "%d:%llu:%llu", getpid(), 0ULL + status.st_dev,
                0ULL + status.st_ino);
  SetVariable("HEAPSCOPE_STDERR", expected);
}

void DirectOwnFiles(const char* directory) {
  unsetenv("HEAPSCOPE_DIRECTORY");
  if (directory == nullptr) return;
  if (mkdir(directory, 0777) != 0 && errno != EEXIST) FailWithError(directory);
  char* const absolute = realpath(directory, nullptr);
  if (absolute == nullptr || access(absolute, W_OK | X_OK) != 0) FailWithError(directory);
  SetVariable("HEAPSCOPE_DIRECTORY", absolute);
  std::free(absolute);
}

}  // namespace

int main(int argc, char** argv) {
  const char* pattern = nullptr;
  const char* directory = nullptr;
  // The plus sign ends the options at the program's name.
  for (int option; (option = getopt(argc, argv, "+d:o:h")) != -1;) {
    switch (option) {
      case 'd':
        directory = optarg;
        break;
      case 'o':
        pattern = optarg;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        return EXIT_SUCCESS;
      default:
        std::fputs(kUsage, stderr);
        return kLauncherFailed;
    }
  }
  if (optind == argc) {
    std::fputs(kUsage, stderr);
    return kLauncherFailed;
  }
  PreloadLibrary();
  DirectOutput(pattern);
  DirectOwnFiles(directory);
  execvp(argv[optind], argv + optind);
  const int result = errno == ENOENT ? kProgramNotFound : kProgramNotExecutable;
  std::fprintf(stderr, "heapscope: %s: %s\n", argv[optind], strerror(errno));
  return result;
}
