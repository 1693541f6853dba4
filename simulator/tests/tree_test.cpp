#include "simulator/tree.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "simulator/escape.h"
#include "simulator/protocol.h"

namespace {

TEST(EscapeTest, EscapesAndUnescapesEveryByte) {
  const std::pair<std::string, std::string> rows[] = {
      {"/a b\"c#", "/a b\"c#"},
      {"\\\r\n\t", R"(\\\r\n\t)"},
      {std::string("\0\x01\x1f\x7f", 4), R"(\x00\x01\x1F\x7F)"},
      {"caf\xC3\xA9 \xFF", "caf\xC3\xA9 \xFF"}};
  for (const auto& [raw, escaped] : rows) {
    EXPECT_EQ(escaped, escape(raw));
    EXPECT_EQ(raw, unescape(escaped));
  }
  // As a person writes it: a backslash that starts no escape stays.
  EXPECT_EQ("C:\\dir JJ \\xZZ \\x4", unescape(R"(C:\dir \x4a\x4A \xZZ \x4)"));
}

TEST(TreeTest, FileTextRoundTrips) {
  const Tree tree = {{"/a", ""},         {"/b", "two  words "}, {"/c d", "\r\n\\x"},   {"#e#", "#"},
                     {"/f\\x20", "\\x"}, {"/g\t", {"\0", 1}},   {"/h\xC3\xA9", "\xFF"}};
  EXPECT_EQ(tree, parseTree(formatTree(tree)));
  EXPECT_EQ("\\x23x\\x20y# #v w\n/a \n", formatTree({{"/a", ""}, {"#x y#", "#v w"}}));
  // As a person writes it: comments, blank lines, no value, the last line wins.
  EXPECT_EQ((Tree{{"/a", "3"}, {"/b", ""}, {"/c", "two words"}, {"/d", "A\t"}}),
            parseTree("# comment\n\n/a 1\n/b\n/c two words\n/a 3\n/d \\x41\\t"));
}

// A save writes FILE.saving and renames it over FILE: a link to the old file
// keeps the old text, and the new file keeps the old one's mode. A save that
// fails leaves no FILE.saving; one cut short does, until a simulator starts.
TEST(TreeTest, SaveRenamesAWholeNewFileOverTheOld) {
  std::string folder = (std::filesystem::temp_directory_path() / "tree-XXXXXX").string(), error;
  ASSERT_NE(nullptr, mkdtemp(folder.data()));
  const std::string file = folder + "/tree.conf", old = folder + "/old";
  ASSERT_TRUE(saveTree({{"/a", "1"}}, file, error)) << error;
  ASSERT_EQ(0, chmod(file.c_str(), 0640) + link(file.c_str(), old.c_str()));
  ASSERT_TRUE(saveTree({{"/a", "2"}}, file, error)) << error;
  struct stat saved;
  EXPECT_EQ(0, stat(file.c_str(), &saved));
  EXPECT_EQ(0640u, saved.st_mode & 07777);
  Tree before, after, started;
  EXPECT_TRUE(loadTree(old, before, error) && loadTree(file, after, error)) << error;
  EXPECT_EQ("/a 1\n/a 2\n", formatTree(before) + formatTree(after));
  EXPECT_FALSE(saveTree({}, folder + "/none/tree.conf", error));
  EXPECT_EQ("No such file or directory", error);
  EXPECT_FALSE(saveTree({}, folder, error));
  EXPECT_EQ("Is a directory", error);
  for (const std::string& name : {file, folder}) {
    EXPECT_FALSE(std::filesystem::exists(savingFile(name))) << name;
  }
  std::ofstream(savingFile(file)) << "/a half";
  EXPECT_TRUE(loadTreeAtStart(file, started, error));
  EXPECT_EQ(after, started);
  EXPECT_FALSE(std::filesystem::exists(savingFile(file)));
  std::filesystem::remove_all(folder);
}

// One pair of double quotes around a value of two bytes or more goes.
TEST(ProtocolTest, PutStripsOnePairOfQuotes) {
  const std::pair<std::string, std::string> rows[] = {
      {R"("x y")", "x y"}, {R"("")", ""}, {R"(")", R"(")"},       {R"("x)", R"("x)"},
      {R"(x")", R"(x")"},  {"", ""},      {R"("a"b")", R"(a"b)"}, {R"(""x"")", R"("x")"}};
  for (const auto& [value, stored] : rows) {
    Tree tree;
    EXPECT_EQ(kPrompt, replyTo("put /p " + value, tree, ""));
    EXPECT_EQ((Tree{{"/p", stored}}), tree) << value;
  }
}

}  // namespace
