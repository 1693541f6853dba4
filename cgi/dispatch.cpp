#include "cgi/dispatch.h"

#include <cgicc/Cgicc.h>

#include <string>
#include <utility>

#include "read_service/read_request.h"
#include "write_service/write_request.h"

bool dispatchRequest(cgicc::CgiInput* input, const DaemonSetup& daemon) {
  cgicc::Cgicc request(input);
  const auto end = request.getElements().end();
  const auto read = request.getElement("read");
  const auto write = request.getElement("write");
  const auto value = request.getElement("value");

  if (read != end) return handleReadRequest(read->getStrippedValue(), daemon);
  if (write != end && value != end) {
    std::string name = write->getValue();
    std::string newValue = value->getValue();
    return handleWriteRequest(std::move(name), std::move(newValue), daemon);
  }
  return true;
}
