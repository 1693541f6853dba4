// What the simulator does, and where it goes wrong on purpose: from its
// command line, or set by a program that runs it in process (in_process.h).
//
//   cffs-sim [--socket PATH] [--config FILE] [--transcript FILE] [--verbose]
//            [--no-listen] [--reset-on TEXT | --hangup-on TEXT | --hangup-after-greeting]
//            [--chunk N] [--chunk-gap-ms MS] [--delay-ms MS] [--delay-command WORD]
//            [--trailer TEXT]
//
// Each option is its own argument followed by its value as the next one
// ("--chunk 3", not "--chunk=3").  Numbers are plain decimal; TEXT is
// escaped as in escape.h.

#ifndef TZR_SIMULATOR_OPTIONS_H_
#define TZR_SIMULATOR_OPTIONS_H_

#include <cstddef>
#include <string>
#include <vector>

// The appliance daemon's socket, where the command line listens by default.
inline constexpr char kApplianceSocket[] = "/tmp/cffs_uds";

// A fault planted once in the simulator's life, at the first request
// (across all connections) whose text, without its CR and a leading LF,
// begins with Options::faultAt; "" is the first request.
enum class Fault {
  None,
  // That request is never read: the connection closes with it unread, so
  // the client's next recv() fails with ECONNRESET.  --reset-on TEXT
  Reset,
  // That request is read and recorded, and the connection closes without a
  // reply once earlier replies have gone out: the client reads end of file.
  // --hangup-on TEXT
  HangUp,
  // The first connection closes right after its greeting, reading nothing:
  // the client's first request meets a closed socket (EPIPE).
  // --hangup-after-greeting
  HangUpAfterGreeting,
};

struct Options {
  std::string socketPath;      // Empty in process: one in its private folder.
  std::string configFile;      // Empty: start with an empty tree, "save" fails.
  std::string transcriptFile;  // Empty: no transcript file.
  bool verbose = false;

  bool noListen = false;  // Bind the socket file but never listen().
  Fault fault = Fault::None;
  std::string faultAt;  // Decoded; of a request too long to keep, its first 64 bytes count.
  // Per connection:
  size_t chunk = 0;     // Send replies in pieces of at most this many bytes; 0: whole.
  int chunkGapMs = 20;  // Pause between pieces; only with `chunk`.
  int delayMs = 0;      // Pause before the greeting and before each reply.
  // Non-empty: --delay-ms holds back only replies to requests whose command
  // word (up to the first blank) is this one, and not the greeting; so a
  // test can keep a client's "apply" waiting while its reads go at once.
  std::string delayCommand;
  std::string trailer;  // Decoded; sent after every prompt, greeting included.
};

// Options with nothing but `fault` planted at the first request that begins
// with `at`.
Options withFault(Fault fault, std::string at = "");
// Options with nothing but the replies to `command` ("": to every request,
// and the greeting) held back `ms` milliseconds.
Options delayed(std::string command, int ms);

enum class ParseResult { Run, Help, Error };

// Parses `args` (without the program name) over `options`.  On Error,
// `error` says why.
ParseResult parseOptions(const std::vector<std::string>& args, Options& options,
                         std::string& error);

extern const char kUsage[];

#endif  // TZR_SIMULATOR_OPTIONS_H_
