// jsonEscape on any bytes: none of the eight escaped bytes is left raw, every
// backslash starts one of their escapes, and undoing them gives the input.
#include <stdlib.h>

#include <string>

#include "cgi/reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string kRaw = "\"\\/\b\f\n\r\t", kLetter = "\"\\/bfnrt";
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string escaped = jsonEscape(input);
  std::string undone;
  for (size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '\\') {
      if (kRaw.find(escaped[i]) != std::string::npos) abort();
      undone += escaped[i];
    } else if (++i == escaped.size() || kLetter.find(escaped[i]) == std::string::npos) {
      abort();
    } else {
      undone += kRaw[kLetter.find(escaped[i])];
    }
  }
  if (undone != input) abort();
  return 0;
}
