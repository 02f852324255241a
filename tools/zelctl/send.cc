#include <charconv>
#include <cstdio>

#include "tools/zelctl/channels.h"
#include "tools/zelctl/commands.h"
#include "tools/zelctl/output.h"
#include "tools/zelctl/payload.h"

namespace zelctl {
namespace {

constexpr size_t kTicketArgument = 4;

// Decimal, with a sign or without, or hexadecimal with 0x: the 32 bits, so 0xFFFFFFFF is -1.
int32_t ParseNumber(const std::string& text) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  const char* const first = text.data() + (isHex ? 2 : 0);
  const char* const last = text.data() + text.size();
  int64_t number = 0;
  const auto [end, error] = std::from_chars(first, last, number, isHex ? 16 : 10);
  const bool isNumber = error == std::errc() && end == last && !(isHex && *first == '-');
  if (!isNumber || number < INT32_MIN || number > (isHex ? UINT32_MAX : int64_t{INT32_MAX}))
    throw Failure{kExitUsage, "not a number of 32 bits: " + text};
  return static_cast<int32_t>(number);
}

ZelCommandRecord BuildCommand(const Options& options) {
  ZelCommandRecord command =
      zelrt::MakeCommand(0, {}, ReadPayload(options.payload, options.timeout));
  for (size_t i = 0; i < options.numbers.size(); ++i)
    command.arguments[i] = ParseNumber(options.numbers[i]);
  return command;
}

ExitStatus PrintAnswer(const Options& options, nlohmann::json result,
                       const zelrt::CommandAnswer& answer) {
  if (options.isJson) {
    result["answer"] = {{"ok", answer.isOk}, {"text", answer.text}};
    PrintJson(result);
  } else {
    std::FILE* const stream = answer.isOk ? stdout : stderr;
    std::fwrite(answer.text.data(), 1, answer.text.size(), stream);
    if (!answer.text.ends_with('\n')) std::fputc('\n', stream);
  }
  return answer.isOk ? kExitDone : kExitFailed;
}

}  // namespace

ExitStatus Send(const Options& options) {
  if (options.wantsAnswer && options.numbers.size() > kTicketArgument)
    throw Failure{kExitUsage, "the fifth number is the ticket of the answer: give at most four"};
  const ZelCommandRecord command = BuildCommand(options);
  zelrt::CommandController controller;
  Connect(options.target, controller);
  const nlohmann::json result = {{"directory", controller.directory()}, {"sent", 1}};
  if (options.wantsAnswer) {
    zelrt::CommandAnswer answer;
    Require(controller.Request(command, options.timeout, answer), controller);
    return PrintAnswer(options, result, answer);
  }
  Require(controller.Send(command, options.timeout), controller);
  if (options.isJson) PrintJson(result);
  return kExitDone;
}

}  // namespace zelctl
