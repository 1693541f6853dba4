#include "cgi/reply.h"

#include <stdio.h>

#include <array>
#include <charconv>

namespace {

// For each byte, the letter that follows the backslash of its escape, or 0
// for a byte that is copied unchanged.
constexpr std::array<char, 256> kEscapes = [] {
  std::array<char, 256> table{};
  table['"'] = '"';
  table['\\'] = '\\';
  table['/'] = '/';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  return table;
}();

// Writes `text`, escaped, to `out`, which must have room for twice the
// text. Returns the length written.
size_t escapeInto(std::string_view text, char* out) {
  size_t used = 0;
  for (char c : text) {
    const char letter = kEscapes[static_cast<unsigned char>(c)];
    if (letter == 0) {
      out[used++] = c;
    } else {
      out[used++] = '\\';
      out[used++] = letter;
    }
  }
  return used;
}

}  // namespace

void writeStatusReply(int code, std::string_view reason) {
  char digits[16];
  const char* end = std::to_chars(digits, digits + sizeof(digits), code).ptr;
  writeText("HTTP/1.1 ");
  writeText(std::string_view(digits, static_cast<size_t>(end - digits)));
  writeText(" ");
  writeText(reason);
  writeText("\n\n");
}

void writeBadRequest() { writeStatusReply(400, "Bad Request"); }

void writeInternalServerError() { writeStatusReply(500, "Internal Server Error"); }

void writeJsonHeader() { writeText("Content-Type: application/json\n\n"); }

void writeText(std::string_view text) { fwrite(text.data(), 1, text.size(), stdout); }

void writeJsonString(std::string_view text) {
  // Escaped a slice at a time into a buffer, which reaches stdio in one call.
  constexpr size_t kSlice = 2048;
  char buffer[2 * kSlice];
  for (size_t at = 0; at < text.size(); at += kSlice) {
    size_t used = escapeInto(text.substr(at, kSlice), buffer);
    fwrite(buffer, 1, used, stdout);
  }
}

void flushReply() { fflush(stdout); }

std::string jsonEscape(const std::string& text) {
  std::string escaped(2 * text.size(), '\0');
  escaped.resize(escapeInto(text, escaped.data()));
  return escaped;
}
