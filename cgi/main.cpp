// tzr4417.cgi: the configuration back end of the encoder's web interface.
// The web server runs it once per request (cgi/dispatch.h routes it).
#include <signal.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <exception>

#include "cgi/content_length_guard.h"
#include "cgi/dispatch.h"
#include "cgi/reply.h"

namespace {

// The appliance's daemon and the lock beside it; the web server reads the
// reply from our standard output.
constexpr DaemonSetup kAppliance = {"/tmp/cffs_uds", "/tmp/cffs_uds.lock", "/tmp/cffs_uds.queue",
                                    STDOUT_FILENO};

}  // namespace

int main(int, char**) {
  openlog("tzr4417.cgi", LOG_PID, LOG_USER);
  if (contentLengthExceedsLimit()) exit(1);
  try {
    // A request nobody waits for ends without a word: what is left of the
    // reply in stdio's buffer has nobody to read it, and its flush at exit
    // fails quietly instead of raising SIGPIPE.
    if (!dispatchRequest(nullptr, kAppliance)) signal(SIGPIPE, SIG_IGN);
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "Caught exception %s", e.what());
    writeInternalServerError();
    writeText("Exception ");
    writeText(e.what());
    writeText("\n");
  }
  return 0;
}

// The appliance outlives 2038-01-19 03:14:07: a 32-bit build without 64-bit
// time and file offsets (cmake/arm-cross.cmake) stops here.
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8, "32-bit time_t or off_t");
