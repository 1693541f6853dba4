#include "cgi/reply.h"

#include <gtest/gtest.h>

TEST(JsonEscapeTest, EscapesExactlyEightBytes) {
  // Other control bytes, DEL, UTF-8 and stray high bytes pass unchanged: no \u escapes.
  const std::string other("\0\x01\x07\x0b\x0e\x1f\x7f caf\xc3\xa9 \xff", 15);
  const std::pair<std::string, std::string> rows[] = {
      {"/configuration/network/ip_addr", R"(\/configuration\/network\/ip_addr)"},
      {"a\"b\\c", R"(a\"b\\c)"},
      {"\b\f\n\r\t", R"(\b\f\n\r\t)"},
      {other, other}};
  for (const auto& [text, escaped] : rows) EXPECT_EQ(escaped, jsonEscape(text)) << escaped;
}
