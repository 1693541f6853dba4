// tzr4417.cgi: the configuration back end of the encoder's web interface.
// The web server runs it once per request (cgi/dispatch.h routes it).
#include <stdlib.h>
#include <syslog.h>

#include <exception>

#include "cgi/content_length_guard.h"
#include "cgi/dispatch.h"
#include "cgi/reply.h"

int main(int, char**) {
  openlog("tzr4417.cgi", LOG_PID, LOG_USER);
  if (contentLengthExceedsLimit()) exit(1);
  try {
    dispatchRequest(nullptr);
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "Caught exception %s", e.what());
    writeInternalServerError();
    writeText("Exception ");
    writeText(e.what());
    writeText("\n");
  }
  return 0;
}
