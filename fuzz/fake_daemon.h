// The configuration daemon played in process for the fuzz targets (docs/testing.md):
// its connect(), send(), recv() and poll() replace the C library's.
#ifndef TZR_FUZZ_FAKE_DAEMON_H_
#define TZR_FUZZ_FAKE_DAEMON_H_

#include <fuzzer/FuzzedDataProvider.h>

#include "config_client/daemon_setup.h"

const DaemonSetup& fakeDaemon();  // where the client finds it and its lock

// Scripts the next connection from `in`: a greeting and one answer a request
// from its front, how they are cut and how they end from its end.
void playDaemon(FuzzedDataProvider& in);

#endif  // TZR_FUZZ_FAKE_DAEMON_H_
