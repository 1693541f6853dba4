// tzr4417.cgi: the configuration back end of the encoder's web interface.
// The web server runs it once per request; the form field "read" selects the
// read service, "write" together with "value" the write service.
#include <cgicc/Cgicc.h>
#include <stdlib.h>
#include <syslog.h>

#include <exception>
#include <string>
#include <utility>

#include "cgi/content_length_guard.h"
#include "cgi/reply.h"
#include "read_service/read_request.h"
#include "write_service/write_request.h"

namespace {

void dispatch() {
  cgicc::Cgicc request;
  const auto end = request.getElements().end();
  // Field names match in any letter case; the first occurrence wins, and a
  // field of the POST body wins over one of the query string.
  const auto read = request.getElement("read");
  const auto write = request.getElement("write");
  const auto value = request.getElement("value");

  if (read != end) {
    handleReadRequest(read->getStrippedValue());
  } else if (write != end && value != end) {
    std::string name = write->getValue();
    std::string newValue = value->getValue();
    handleWriteRequest(std::move(name), std::move(newValue));
  }
}

}  // namespace

int main(int, char**) {
  openlog("tzr4417.cgi", LOG_PID, LOG_USER);
  if (contentLengthExceedsLimit()) exit(1);
  try {
    dispatch();
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "Caught exception %s", e.what());
    writeInternalServerError();
    writeText("Exception ");
    writeText(e.what());
    writeText("\n");
  }
  return 0;
}
