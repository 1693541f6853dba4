#include <gtest/gtest.h>

#include <string>

#include "cffs_sim/escape.h"

namespace {

using cffs_sim::Escape;
using cffs_sim::Unescape;

TEST(SimEscape, EscapesAndReadsBack) {
  const struct {
    std::string raw;
    std::string escaped;
  } cases[] = {
      {"", ""},
      {"plain value", "plain value"},
      {"a\\b", "a\\\\b"},
      {"save\r", "save\\r"},
      {"\nls /x\r", "\\nls /x\\r"},
      {"tab\there", "tab\\there"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"\x1b[0m\x7f", "\\x1B[0m\\x7F"},
      {"caf\xc3\xa9", "caf\xc3\xa9"},  // UTF-8 stays readable.
      {"\\x41", "\\\\x41"},            // Text that looks like an escape.
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Escape(c.raw), c.escaped) << c.escaped;
    EXPECT_EQ(Unescape(c.escaped), c.raw) << c.escaped;
  }
}

TEST(SimEscape, UnescapeKeepsWhatIsNoEscape) {
  const struct {
    std::string escaped;
    std::string raw;
  } cases[] = {
      {"C:\\dir", "C:\\dir"}, {"end\\", "end\\"},   {"\\x4", "\\x4"}, {"\\x4g", "\\x4g"},
      {"\\xg4", "\\xg4"},     {"\\x4a\\x4A", "JJ"}, {"\\\\n", "\\n"}, {"\\q\\n", "\\q\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(Unescape(c.escaped), c.raw) << c.escaped;
}

}  // namespace
