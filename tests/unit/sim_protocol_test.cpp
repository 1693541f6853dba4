#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "cffs_sim/protocol.h"

namespace {

using cffs_sim::Tree;

TEST(SimProtocol, FramesRequestsAtTheCarriageReturn) {
  const struct {
    std::string input;
    size_t length;
    std::string text;
  } cases[] = {
      {"", 0, ""},
      {"ls /a", 0, ""},
      {"ls /a\n", 0, ""},  // LF does not end a request.
      {"\r", 1, ""},
      {"ls /a\rput", 6, "ls /a"},
      {"\nls /a\r", 7, "ls /a"},  // The CR LF of a terminal.
      {"\n\nls\r", 5, "\nls"},    // Only one LF is dropped.
      {"put /a x\ny\r", 11, "put /a x\ny"},
  };
  for (const auto& c : cases) {
    const size_t length = cffs_sim::FrameRequest(c.input);
    EXPECT_EQ(length, c.length) << c.input;
    if (length > 0) {
      EXPECT_EQ(cffs_sim::RequestText(c.input.substr(0, length)), c.text);
    }
  }
}

TEST(SimProtocol, RepliesAndUpdatesTheTree) {
  const struct {
    std::string text;
    std::string reply;
    std::string path;  // Looked up after the request.
    std::optional<std::string> value;
  } cases[] = {
      {"", "/> ", "/n/host", "box"},
      {"ls /n/host", "box\r\n/> ", "/n/host", "box"},
      {"ls /n", "dhcp\r\nhost\r\n/> ", "/n", std::nullopt},
      {"ls /", "n\r\n/> ", "/", std::nullopt},
      {"ls /n/ho", "No such file or directory\r\n/> ", "/n/ho", std::nullopt},
      {"ls /n/host ", "No such file or directory\r\n/> ", "/n/host", "box"},
      {"ls", "Usage: ls PATH\r\n/> ", "", std::nullopt},
      {"put /n/host new", "/> ", "/n/host", "new"},
      {"put /n/host two words", "/> ", "/n/host", "two words"},
      {"put /n/host \"quoted value\"", "/> ", "/n/host", "quoted value"},
      {"put /n/host \"", "/> ", "/n/host", "\""},
      {"put /n/host \"a\"b\"", "/> ", "/n/host", "a\"b"},
      {"put /n/host ", "/> ", "/n/host", ""},
      {"put /new/leaf v", "/> ", "/new/leaf", "v"},
      {std::string("put /bin \0\xff", 11), "/> ", "/bin", std::string("\0\xff", 2)},
      {"put /n/host", "Usage: put PATH VALUE\r\n/> ", "/n/host", "box"},
      {"put  v", "Usage: put PATH VALUE\r\n/> ", "", std::nullopt},
      {"apply", "/> ", "/n/host", "box"},
      {"frob /n/host x", "Unknown command: frob\r\n/> ", "/n/host", "box"},
      {"lsx /n/host", "Unknown command: lsx\r\n/> ", "/n/host", "box"},
      {"save", "save failed: no configuration file\r\n/> ", "/n/host", "box"},
  };
  for (const auto& c : cases) {
    Tree tree = {{"/n/host", "box"}, {"/n/dhcp", "no"}};
    EXPECT_EQ(cffs_sim::Reply(c.text, &tree, ""), c.reply) << c.text;
    const auto it = tree.find(c.path);
    EXPECT_EQ(it == tree.end() ? std::nullopt : std::optional<std::string>(it->second), c.value)
        << c.text;
  }
}

TEST(SimProtocol, SaveFailureNamesTheReason) {
  Tree tree = {{"/a", "1"}};
  EXPECT_EQ(cffs_sim::Reply("save", &tree, "/nonexistent-dir/x.conf"),
            "save failed: No such file or directory\r\n/> ");
}

}  // namespace
