#include "tools/zelctl/options.h"

#include <CLI/CLI.hpp>

#include "tools/zelctl/exit_status.h"

namespace zelctl {
namespace {

constexpr double kDefaultTimeout = 5;
constexpr double kMaxTimeout = 86400;
constexpr int kMaxPings = 1'000'000;

constexpr char kFooter[] =
    "Each command takes --timeout SECONDS, 5 unless said otherwise, and --json.\n"
    "Exit status: 0 done; 1 no channel, or it could not be done; 2 wrong usage;\n"
    "3 the channel's process is gone; 4 time-out.";

CLI::App* AddCommand(CLI::App& app, const char* name, const char* what) {
  CLI::App* const command = app.add_subcommand(name, what);
  command->footer(kFooter);
  return command;
}

// The names are those of the directory's option; with one that has no dashes it is also a
// positional.
void AddTarget(CLI::App& command, const char* names, Target& target) {
  CLI::Option* const directory =
      command.add_option(names, target.directory, "Directory of the channel");
  command.add_option("-p,--pid", target.pid, "Process whose channel it is")
      ->check(CLI::PositiveNumber)
      ->excludes(directory);
}

}  // namespace

Options ParseCommandLine(int argc, char** argv, int& exitStatus) {
  Options options;
  double seconds = kDefaultTimeout;
  CLI::App app("Steers data collectors that run inside other processes.", "zelctl");
  app.footer(kFooter);
  app.fallthrough();
  app.require_subcommand(1);
  app.set_version_flag("--version", "zelctl " ZELCTL_VERSION);
  app.add_option("-t,--timeout", seconds, "Seconds to wait at most")
      ->check(CLI::Range(0.0, kMaxTimeout))
      ->capture_default_str();
  app.add_flag("--json", options.isJson, "Print one JSON object");

  CLI::App* const list = AddCommand(app, "list", "Show the channels");
  list->add_option("DIRECTORY", options.directories,
                   "Directories of channels, or above them; the user's where none is given");

  CLI::App* const status = AddCommand(app, "status", "Show the state of a channel");
  AddTarget(*status, "-d,--directory,DIRECTORY", options.target);

  CLI::App* const send = AddCommand(app, "send", "Send a command");
  AddTarget(*send, "-d,--directory", options.target);
  send->add_option("CODE", options.numbers, "The code and up to four more numbers")
      ->required()
      ->expected(1, 5);
  send->add_option("--payload", options.payload, "TEXT, @FILE, or - for standard input");
  send->add_flag("--answer", options.wantsAnswer, "Wait for an answer and print it");

  CLI::App* const ping = AddCommand(app, "ping", "Measure round trips to the command thread");
  AddTarget(*ping, "-d,--directory,DIRECTORY", options.target);
  ping->add_option("-c,--count", options.count, "Round trips")
      ->check(CLI::Range(1, kMaxPings))
      ->capture_default_str();

  CLI::App* const reap = AddCommand(app, "reap", "Remove what dead processes have left");
  AddTarget(*reap, "-d,--directory,DIRECTORY", options.target);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitStatus = app.exit(error) == 0 ? kExitDone : kExitUsage;
    return options;
  }
  options.command = app.get_subcommands().front()->get_name();
  options.timeout = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
  return options;
}

}  // namespace zelctl
