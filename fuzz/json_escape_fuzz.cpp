// jsonEscape on any bytes: undoing the escapes gives the input back, and
// none of the eight escaped bytes is left raw.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "cgi/reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string escaped = jsonEscape(input);
  static const char kRaw[] = "\"\\/\b\f\n\r\t";
  static const char kLetter[] = "\"\\/bfnrt";
  std::string undone;
  for (size_t i = 0; i < escaped.size(); ++i) {
    char c = escaped[i];
    if (c != '\\') {
      if (memchr(kRaw, c, sizeof(kRaw) - 1) != nullptr) abort();
      undone += c;
      continue;
    }
    const char* letter = ++i < escaped.size() ? strchr(kLetter, escaped[i]) : nullptr;
    if (letter == nullptr || *letter == '\0') abort();
    undone += kRaw[letter - kLetter];
  }
  if (undone != input) abort();
  return 0;
}
