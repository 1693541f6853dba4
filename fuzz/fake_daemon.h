// The configuration daemon, played in process for the fuzz targets. Its
// LLVMFuzzerInitialize listens on a socket in a private temporary folder
// (fakeDaemon() says where, as any user) and mutes syslog and stdout. Its
// send(), recv() and poll() replace the C library's: send() checks each
// request line, recv() hands out the script in chunks of fuzzer-chosen
// sizes, poll() finds every descriptor ready: deterministic, in one thread.
#ifndef TZR_FUZZ_FAKE_DAEMON_H_
#define TZR_FUZZ_FAKE_DAEMON_H_

#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "config_client/daemon_setup.h"

struct DaemonScript {
  std::string stream;                // sent from the start, as it is
  std::vector<std::string> answers;  // one per request, each with the prompt
  unsigned seed = 0;                 // draws the chunk sizes, 1..maxChunk
  size_t maxChunk = 1;
  bool resetWhenDry = false;  // with all sent: ECONNRESET, not more prompts
};

// Where the client finds the fake daemon and its lock.
const DaemonSetup& fakeDaemon();

// The script of the next run's connection.
void playDaemon(DaemonScript script);

// A greeting and answers from the front of `in`, the rest from its end.
DaemonScript answeringScript(FuzzedDataProvider& in);

#endif  // TZR_FUZZ_FAKE_DAEMON_H_
