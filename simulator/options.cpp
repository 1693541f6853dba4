#include "simulator/options.h"

#include <charconv>
#include <utility>

#include "simulator/escape.h"

const char kUsage[] =
    "usage: cffs-sim [--socket PATH] [--config FILE] [--transcript FILE] [--verbose]\n"
    "                [--no-listen] [--reset-on TEXT | --hangup-on TEXT | --hangup-after-greeting]\n"
    "                [--chunk N] [--chunk-gap-ms MS] [--delay-ms MS] [--delay-command WORD]\n"
    "                [--trailer TEXT]\n"
    "--delay-command WORD: --delay-ms holds back only the replies to WORD requests\n"
    "--reset-on, --hangup-on TEXT: at the first request that begins with TEXT\n";

namespace {

bool parseInt(const std::string& text, int min, int& out) {
  int value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || value < min) return false;
  out = value;
  return true;
}

// Plants `fault`, unless one is planted already.
bool plant(Fault fault, const std::string& at, Options& options, std::string& error) {
  if (options.fault != Fault::None) {
    error = "one fault at a time";
    return false;
  }
  options.fault = fault;
  options.faultAt = unescape(at);
  return true;
}

}  // namespace

Options withFault(Fault fault, std::string at) {
  Options options;
  options.fault = fault;
  options.faultAt = std::move(at);
  return options;
}

Options delayed(std::string command, int ms) {
  Options options;
  options.delayCommand = std::move(command);
  options.delayMs = ms;
  return options;
}

ParseResult parseOptions(const std::vector<std::string>& args, Options& options,
                         std::string& error) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& name = args[i];
    if (name == "--help" || name == "-h") return ParseResult::Help;
    if (name == "--verbose") {
      options.verbose = true;
      continue;
    }
    if (name == "--no-listen") {
      options.noListen = true;
      continue;
    }
    if (name == "--hangup-after-greeting") {
      if (!plant(Fault::HangUpAfterGreeting, "", options, error)) return ParseResult::Error;
      continue;
    }
    if (i + 1 == args.size()) {
      error = name.rfind("--", 0) == 0 ? name + " needs a value" : "unknown argument " + name;
      return ParseResult::Error;
    }
    const std::string& value = args[++i];
    // Name, smallest accepted value, destination.
    struct Number {
      const char* name;
      int min;
      int* out;
    };
    int chunk = 0;
    const Number numbers[] = {
        {"--chunk", 1, &chunk},
        {"--chunk-gap-ms", 0, &options.chunkGapMs},
        {"--delay-ms", 0, &options.delayMs},
    };
    bool known = false;
    for (const Number& number : numbers) {
      if (name != number.name) continue;
      known = true;
      if (!parseInt(value, number.min, *number.out)) {
        error = name + " wants a whole number of at least " + std::to_string(number.min) +
                ", not \"" + value + "\"";
        return ParseResult::Error;
      }
    }
    if (chunk > 0) options.chunk = static_cast<size_t>(chunk);
    if (known) continue;

    if (name == "--socket" && value.empty()) {
      error = "--socket needs a path";
      return ParseResult::Error;
    } else if (name == "--socket") {
      options.socketPath = value;
    } else if (name == "--config") {
      options.configFile = value;
    } else if (name == "--transcript") {
      options.transcriptFile = value;
    } else if (name == "--delay-command") {
      options.delayCommand = value;
    } else if (name == "--trailer") {
      options.trailer = unescape(value);
    } else if (name == "--reset-on" || name == "--hangup-on") {
      if (!plant(name == "--reset-on" ? Fault::Reset : Fault::HangUp, value, options, error)) {
        return ParseResult::Error;
      }
    } else {
      error = "unknown argument " + name;
      return ParseResult::Error;
    }
  }
  return ParseResult::Run;
}
