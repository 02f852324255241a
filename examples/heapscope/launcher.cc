// heapscope: starts a program with the collector loaded into it, and ends as the program does.
//
// The collector's library lies beside the launcher, as in a build directory, or where the
// installation puts it. It is told what the user wants through the environment.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "examples/heapscope/channel_directories.h"
#include "examples/heapscope/commands.h"
#include "examples/heapscope/control.h"
#include "examples/heapscope/file_pattern.h"
#include "examples/heapscope/options.h"
#include "examples/heapscope/program_check.h"
#include "zelrt/log.h"

namespace {

using heapscope::Options;

// As env and nohup have them: the launcher's own failures are told from those of the program.
constexpr int kLauncherFailed = 125;
constexpr int kProgramNotExecutable = 126;
constexpr int kProgramNotFound = 127;

constexpr char kLibraryName[] = "libheapscope.so";

constexpr char kUsage[] =
    "Usage: heapscope [OPTION...] -- PROGRAM [ARGUMENT...]\n"
    "       heapscope status|snapshot|pause|resume|reset PROCESS|DIRECTORY\n"
    "       heapscope where PROCESS|DIRECTORY ADDRESS\n"
    "Runs the program, counts its heap allocations, and writes a summary to standard error when\n"
    "it exits. The other forms ask a collector while its program runs.\n"
    "\n";

constinit Options g_options;

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

// What the collector is told: the options as they are in force, names of files in full.
class CollectorsOptions {
 public:
  void AddFlag(const char* name, bool value) { AddWord(value ? name : std::string("-no") + name); }
  void Add(const char* name, const std::string& value) {
    AddWord(name);
    AddWord(value);
  }
  const std::string& Text() const { return text_; }

 private:
  void AddWord(const std::string& word) {
    if (!text_.empty()) text_ += Options::kSeparator;
    text_ += word;
  }
  std::string text_;
};

std::string PrepareDirectory(const char* directory) {
  if (mkdir(directory, 0777) != 0 && errno != EEXIST) FailWithError(directory);
  char* const absolute = realpath(directory, nullptr);
  if (absolute == nullptr || access(absolute, W_OK | X_OK) != 0) FailWithError(directory);
  std::string result = absolute;
  std::free(absolute);
  return result;
}

std::string PreparePattern(const char* pattern) {
  std::string absolute = AbsolutePath(pattern);
  PrepareFile(absolute);
  return absolute;
}

void TellCollector() {
  CollectorsOptions options;
  constexpr const char* kStackNames[] = {"unwind", "fp", "caller"};
  options.Add("-stack", kStackNames[static_cast<size_t>(g_options.Stack())]);
  options.Add("-depth", std::to_string(g_options.Depth()));
  options.AddFlag("-children", g_options.KeepsChildren());
  options.AddFlag("-channel", g_options.WantsChannel());
  options.Add("-heartbeat", std::to_string(g_options.HeartbeatSeconds()));
  if (const char* const text = g_options.Dump(); text != nullptr) options.Add("-dump", text);
  if (const char* const out = g_options.OutDirectory(); out != nullptr)
    options.Add("-out", PrepareDirectory(out));
  if (const char* const log = g_options.LogPattern(); log != nullptr)
    options.Add("-log", PreparePattern(log));
  if (const char* const summary = g_options.SummaryPattern(); summary != nullptr)
    options.Add("-summary", PreparePattern(summary));
  SetVariable(Options::kVariable, options.Text());
}

// In the process that becomes the program: whose standard error a summary may go to.
void NameStandardError() {
  struct stat status = {};
  fstat(STDERR_FILENO, &status);  // one that is closed is no file's
  char expected[64];
  std::snprintf(expected, sizeof expected, "%d:%llu:%llu", getpid(), 0ULL + status.st_dev,
                0ULL + status.st_ino);
  SetVariable("HEAPSCOPE_STDERR", expected);
}

// The library ends the process when an option has a value that it does not take, after it has said
// which.
void ShowHelpAndFail(int32_t) {
  std::fputs(kUsage, stdout);
  g_options.PrintHelp();
  std::fflush(stdout);
  _exit(kLauncherFailed);
}

// The channel that the process that becomes the program may take.
void NameChannel(const std::string& directory) {
  if (!directory.empty())
    SetVariable(heapscope::kChannelVariable, std::to_string(getpid()) + ":" + directory);
}

[[noreturn]] void Become(char** program, const std::string& channel) {
  NameStandardError();
  NameChannel(channel);
  execvp(program[0], program);
  const int result = errno == ENOENT ? kProgramNotFound : kProgramNotExecutable;
  std::fprintf(stderr, "heapscope: %s: %s\n", program[0], strerror(errno));
  _exit(result);
}

// While the program runs, signals are its business: what the terminal sends goes to both, what is
// sent to the launcher is passed on.
constinit volatile pid_t g_program = 0;

void PassOn(int signal, siginfo_t* info, void*) {
  if (info->si_code <= 0 && g_program > 0) kill(g_program, signal);
}

constexpr int kPassedSignals[] = {SIGHUP,  SIGINT,  SIGQUIT,  SIGTERM, SIGUSR1,
                                  SIGUSR2, SIGALRM, SIGWINCH, SIGCONT};

// A result that was asked for and is not there wants an explanation.
void ExplainMissingResult() {
  if (g_options.OutDirectory() == nullptr) return;
  const std::string result =
      std::string(g_options.OutDirectory()) + "/heapscope." + std::to_string(g_program) + ".xml";
  if (access(result.c_str(), F_OK) == 0) return;
  std::fputs(
      "heapscope: the program left no result: it was replaced by another one, which -children\n"
      "follows, or the collector could not be loaded into it or not write\n",
      stderr);
}

// Ends as the program did.
[[noreturn]] void EndLike(int status) {
  if (WIFEXITED(status)) {
    ExplainMissingResult();
    _exit(WEXITSTATUS(status));
  }
  const int signal = WTERMSIG(status);
  const rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal);
  sigprocmask(SIG_UNBLOCK, &one, nullptr);
  kill(getpid(), signal);
  _exit(128 + signal);
}

// The program may have been killed: what its channel left is the launcher's to remove.
[[noreturn]] void End(int status, const std::string& channel) {
  if (!channel.empty()) heapscope::RemoveChannel(channel);
  if (g_options.KeepsChildren()) heapscope::RemoveStaleChannels();
  EndLike(status);
}

[[noreturn]] void RunProgram(char** program) {
  // Without one, the program runs all the same.
  const std::string channel = g_options.WantsChannel() ? heapscope::MakeChannel() : "";
  sigset_t passed, maskBefore;
  sigemptyset(&passed);
  for (const int signal : kPassedSignals) sigaddset(&passed, signal);
  sigprocmask(SIG_BLOCK, &passed, &maskBefore);
  g_program = fork();
  if (g_program < 0) FailWithError("cannot make a process");
  if (g_program == 0) {
    sigprocmask(SIG_SETMASK, &maskBefore, nullptr);
    Become(program, channel);
  }
  struct sigaction action = {};
  action.sa_sigaction = PassOn;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  for (const int signal : kPassedSignals) sigaction(signal, &action, nullptr);
  sigprocmask(SIG_SETMASK, &maskBefore, nullptr);

  int status;
  for (;;) {
    if (waitpid(g_program, &status, WUNTRACED) < 0) {
      if (errno == EINTR) continue;
      FailWithError("cannot wait for the program");
    }
    if (!WIFSTOPPED(status)) End(status, channel);
    // Stopped together, and continued together.
    kill(getpid(), SIGSTOP);
    kill(g_program, SIGCONT);
  }
}

// Where the program stands: behind two dashes, or first when there are no options.
int FindProgram(int argc, char** argv) {
  if (argc < 2 || argv[1][0] != '-') return 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) return i + 1;
  }
  return argc;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && heapscope::IsControl(argv[1])) return heapscope::Control(argc, argv);
  const int first = FindProgram(argc, argv);
  const bool hasDashes = first > 1 && std::strcmp(argv[first - 1], "--") == 0;
  g_options.Register();
  __ZelSetExitHandler(ShowHelpAndFail);
  const bool isUnderstood = g_options.Parse(first - 1 - (hasDashes ? 1 : 0), argv + 1);
  if (isUnderstood && g_options.WantsHelp()) {
    std::fputs(kUsage, stdout);
    g_options.PrintHelp();
    return EXIT_SUCCESS;
  }
  if (!isUnderstood || first >= argc) ShowHelpAndFail(0);
  PreloadLibrary();
  TellCollector();
  if (const std::string reason = heapscope::ReasonNotToBeWatched(argv[first]); !reason.empty()) {
    std::fprintf(stderr, "heapscope: nothing will be recorded of %s: %s\n", argv[first],
                 reason.c_str());
  }
  RunProgram(argv + first);
}
