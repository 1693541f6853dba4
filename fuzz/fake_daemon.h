// The configuration daemon played in process for the fuzz targets (docs/testing.md):
// its connect(), send(), recv() and poll() replace the C library's.
#ifndef TZR_FUZZ_FAKE_DAEMON_H_
#define TZR_FUZZ_FAKE_DAEMON_H_

#include <fuzzer/FuzzedDataProvider.h>

#include "config_client/daemon_setup.h"

// Where the client finds the fake daemon and its lock.
const DaemonSetup& fakeDaemon();

// Scripts the next connection from `in`: a greeting and one answer a request
// from its front, how they are cut and how they end from its end.
void playDaemon(FuzzedDataProvider& in);

#endif  // TZR_FUZZ_FAKE_DAEMON_H_
