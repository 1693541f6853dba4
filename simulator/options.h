// The simulator's command line.
//
//   cffs-sim [--socket PATH] [--config FILE] [--transcript FILE] [--verbose]
//            [--no-listen] [--reset-at K] [--hangup-at K]
//            [--chunk N] [--chunk-gap-ms MS] [--delay-ms MS] [--delay-command WORD]
//            [--trailer TEXT]
//
// Each option is its own argument followed by its value as the next one
// ("--chunk 3", not "--chunk=3").  Numbers are plain decimal.

#ifndef TZR_SIMULATOR_OPTIONS_H_
#define TZR_SIMULATOR_OPTIONS_H_

#include <cstddef>
#include <string>
#include <vector>

struct Options {
  std::string socketPath = "/tmp/cffs_uds";
  std::string configFile;      // Empty: start with an empty tree, "save" fails.
  std::string transcriptFile;  // Empty: no transcript.
  bool verbose = false;

  // Fault injection, per connection, requests counted from 1.
  bool noListen = false;  // Bind the socket file but never listen().
  int resetAt = 0;        // Close with request K unread, so the peer sees a reset; 0: off.
  int hangupAt = -1;      // Read request K, then close without a reply; 0: before the greeting.
  size_t chunk = 0;       // Send replies in pieces of at most this many bytes; 0: whole.
  int chunkGapMs = 20;    // Pause between pieces; only with `chunk`.
  int delayMs = 0;        // Pause before the greeting and before each reply.
  // Non-empty: --delay-ms holds back only replies to requests whose command
  // word (up to the first blank) is this one, and not the greeting; so a
  // test can keep a client's "apply" waiting while its reads go at once.
  std::string delayCommand;
  std::string trailer;  // Decoded; sent after every prompt, greeting included.
};

enum class ParseResult { Run, Help, Error };

// Parses `args` (without the program name).  On Error, `error` says why.
ParseResult parseOptions(const std::vector<std::string>& args, Options& options,
                         std::string& error);

extern const char kUsage[];

#endif  // TZR_SIMULATOR_OPTIONS_H_
