#include "cgi/dispatch.h"

#include <cgicc/Cgicc.h>

#include <string>
#include <utility>

#include "read_service/read_request.h"
#include "write_service/write_request.h"

void dispatchRequest(cgicc::CgiInput* input) {
  cgicc::Cgicc request(input);
  const auto end = request.getElements().end();
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
