// The two shapes of every answer to the browser: a bare status reply
// ("HTTP/1.1 CODE REASON" and an empty line, which the web server takes as
// the response's status line) or a JSON reply (the content header, then one
// line of JSON written by the service).
//
// Everything goes through stdio's stdout, whose buffer exit() flushes; the
// services flush where the reply must leave the process earlier (before a
// fork, or before waiting on the daemon).
#ifndef TZR_CGI_REPLY_H_
#define TZR_CGI_REPLY_H_

#include <string>
#include <string_view>

void writeStatusReply(int code, std::string_view reason);
void writeBadRequest();           // 400, the empty read list
void writeInternalServerError();  // 500, daemon unreachable, failed put, exception

// "Content-Type: application/json" and the empty line that ends the headers.
void writeJsonHeader();

// `text` as it is, and `text` escaped by jsonEscape's rules.
void writeText(std::string_view text);
void writeJsonString(std::string_view text);

// Hands everything written so far to the web server.
void flushReply();

// Escapes `text` for the inside of a JSON string literal: quotation mark,
// backslash, slash, backspace, form feed, line feed, carriage return and tab
// get their two-character escapes; every other byte is copied unchanged.
std::string jsonEscape(const std::string& text);

#endif  // TZR_CGI_REPLY_H_
