#include "cgi/reply.h"

#include <cgicc/HTTPContentHeader.h>
#include <cgicc/HTTPResponseHeader.h>

#include <iostream>

void writeStatusReply(int code, const std::string& reason) {
  cgicc::HTTPResponseHeader("HTTP/1.1", code, reason).render(std::cout);
}

void writeBadRequest() { writeStatusReply(400, "Bad Request"); }

void writeInternalServerError() { writeStatusReply(500, "Internal Server Error"); }

void writeJsonHeader() { cgicc::HTTPContentHeader("application/json").render(std::cout); }

std::string jsonEscape(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size() * 2);
  for (char c : text) {
    switch (static_cast<unsigned char>(c)) {
      case '"':
        escaped += "\\\"";
        break;
      case '\\':
        escaped += "\\\\";
        break;
      case '/':
        escaped += "\\/";
        break;
      case '\b':
        escaped += "\\b";
        break;
      case '\f':
        escaped += "\\f";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      case '\t':
        escaped += "\\t";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}
