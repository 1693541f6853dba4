#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "cffs_sim/tree.h"

namespace {

namespace fs = std::filesystem;
using cffs_sim::Tree;

TEST(SimTree, ParsesLines) {
  const struct {
    std::string text;
    Tree expected;
  } cases[] = {
      {"# comment\n\n/a/b 1\n", {{"/a/b", "1"}}},
      {"/a two words \n/b\n/c \n", {{"/a", "two words "}, {"/b", ""}, {"/c", ""}}},
      {"/a 1\n/a 2", {{"/a", "2"}}},  // Last line wins, final LF optional.
      {"/v \\x00\\r\\n\\\\\\t\n", {{"/v", std::string("\0\r\n\\\t", 5)}}},
      {"/p\\x20q v\n\\x23hash v\n", {{"/p q", "v"}, {"#hash", "v"}}},
  };
  for (const auto& c : cases) EXPECT_EQ(cffs_sim::ParseTree(c.text), c.expected) << c.text;
}

TEST(SimTree, FormatThenParseIsIdentity) {
  std::string all_bytes;
  for (int b = 0; b < 256; ++b) all_bytes += static_cast<char>(b);
  const Tree tree = {
      {"/a/empty", ""},        {"/a/blanks", "  two  "}, {"/a/quoted", "\"q\""},
      {"/a/bytes", all_bytes}, {"/odd path\n", "v"},     {"#not a comment", "v"},
      {"", "empty path"},
  };
  const std::string text = cffs_sim::FormatTree(tree);
  EXPECT_EQ(cffs_sim::ParseTree(text), tree);
  EXPECT_EQ(text.substr(0, text.find('\n')), " empty path");  // Sorted by path bytes.
}

class SimTreeFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/sim-tree-test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::vector<fs::path> Entries() const {
    return {fs::directory_iterator(dir_), fs::directory_iterator()};
  }

  fs::path dir_;
};

TEST_F(SimTreeFile, SaveThenLoadRoundTripsAndLeavesNoTemporaryFile) {
  Tree tree;
  std::string error;
  ASSERT_TRUE(cffs_sim::LoadTree(TZR_DEFAULT_CONFIG, &tree, &error)) << error;
  ASSERT_EQ(tree.count("/configuration/network/hostname"), 1u);
  tree["/binary"] = std::string("a\0b\r\n", 5);
  const fs::path file = dir_ / "tree.conf";
  ASSERT_TRUE(cffs_sim::SaveTree({{"/old", "gone"}}, file, &error)) << error;
  ASSERT_TRUE(cffs_sim::SaveTree(tree, file, &error)) << error;  // Over an existing file.
  Tree loaded;
  ASSERT_TRUE(cffs_sim::LoadTree(file, &loaded, &error)) << error;
  EXPECT_EQ(loaded, tree);
  EXPECT_EQ(Entries(), std::vector<fs::path>{file});
}

}  // namespace
