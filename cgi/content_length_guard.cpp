#include "cgi/content_length_guard.h"

#include <stdlib.h>
#include <strings.h>

namespace {

const char* environmentValue(const char* name) {
  const char* value = getenv(name);
  return value ? value : "";
}

}  // namespace

bool contentLengthExceedsLimit() {
  const char* method = environmentValue("REQUEST_METHOD");
  if (strcasecmp(method, "post") != 0 && strcasecmp(method, "put") != 0) return false;
  const char* limit = getenv("CGICC_MAX_CONTENTLENGTH");
  if (limit == nullptr) return false;
  // The conversions and the unsigned comparison are those of the library's
  // own check, so both agree on every input, negative and garbage included.
  unsigned long length = static_cast<unsigned long>(atol(environmentValue("CONTENT_LENGTH")));
  return length > static_cast<unsigned long>(atoi(limit));
}
