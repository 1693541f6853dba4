#include "simulator/escape.h"

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string escape(std::string_view raw) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(raw.size());
  for (char c : raw) {
    const unsigned char b = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (b < 0x20 || b == 0x7F) {
          out += "\\x";
          out += kHex[b >> 4];
          out += kHex[b & 0xF];
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string unescape(std::string_view escaped) {
  std::string out;
  out.reserve(escaped.size());
  for (size_t i = 0; i < escaped.size(); ++i) {
    const char c = escaped[i];
    if (c != '\\' || i + 1 == escaped.size()) {
      out += c;
      continue;
    }
    const char next = escaped[i + 1];
    switch (next) {
      case '\\':
        out += '\\';
        ++i;
        continue;
      case 'r':
        out += '\r';
        ++i;
        continue;
      case 'n':
        out += '\n';
        ++i;
        continue;
      case 't':
        out += '\t';
        ++i;
        continue;
      default:
        break;
    }
    int high = -1;
    int low = -1;
    if (next == 'x' && i + 3 < escaped.size()) {
      high = hexDigit(escaped[i + 2]);
      low = hexDigit(escaped[i + 3]);
    }
    if (high >= 0 && low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 3;
    } else {
      out += c;  // Not an escape: keep the backslash, read on normally.
    }
  }
  return out;
}
