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

TEST(SimTree, ListsDirectChildren) {
  const Tree tree = {
      {"/a/b", "1"}, {"/a/b.x", "2"}, {"/a/b/c", "3"}, {"/a/d/e/f", "4"}, {"/ab", "5"}};
  const struct {
    const char* dir;
    std::vector<std::string> children;
  } cases[] = {
      {"/", {"a", "ab"}},
      {"/a", {"b", "b.x", "d"}},
      {"/a/", {"b", "b.x", "d"}},
      {"/a/d", {"e"}},
      {"/a/b", {"c"}},
      {"/a/b/c", {}},
      {"/a/b.", {}},
      {"/x", {}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> names = {"stale"};
    EXPECT_EQ(cffs_sim::ListChildren(tree, c.dir, &names), !c.children.empty()) << c.dir;
    EXPECT_EQ(names, c.children) << c.dir;
  }
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

TEST_F(SimTreeFile, FailuresReportTheReasonAndChangeNothing) {
  std::string error;
  EXPECT_FALSE(cffs_sim::SaveTree({{"/a", "1"}}, dir_ / "missing" / "tree.conf", &error));
  EXPECT_EQ(error, "No such file or directory");
  Tree tree = {{"/keep", "1"}};
  EXPECT_FALSE(cffs_sim::LoadTree(dir_ / "tree.conf", &tree, &error));
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_FALSE(cffs_sim::LoadTree(dir_, &tree, &error));
  EXPECT_EQ(error, "Is a directory");
  EXPECT_EQ(tree, (Tree{{"/keep", "1"}}));
  EXPECT_TRUE(Entries().empty());
}

}  // namespace
