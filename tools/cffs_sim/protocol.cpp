#include "cffs_sim/protocol.h"

#include <vector>

namespace cffs_sim {
namespace {

std::string Answer(std::string_view body) {
  std::string reply(body);
  reply += kPrompt;
  return reply;
}

std::string List(std::string_view path, const Tree& tree) {
  auto it = tree.find(std::string(path));
  if (it != tree.end()) return Answer(it->second + "\r\n");
  std::vector<std::string> children;
  if (!ListChildren(tree, path, &children)) return Answer("No such file or directory\r\n");
  std::string body;
  for (const std::string& name : children) body += name + "\r\n";
  return Answer(body);
}

std::string Put(std::string_view args, Tree* tree) {
  const size_t blank = args.find(' ');
  if (blank == std::string_view::npos || blank == 0) return Answer("Usage: put PATH VALUE\r\n");
  std::string_view value = args.substr(blank + 1);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
  }
  (*tree)[std::string(args.substr(0, blank))] = std::string(value);
  return Answer("");
}

std::string Save(const Tree& tree, const std::string& config_file) {
  if (config_file.empty()) return Answer("save failed: no configuration file\r\n");
  std::string error;
  if (!SaveTree(tree, config_file, &error)) return Answer("save failed: " + error + "\r\n");
  return Answer("");
}

}  // namespace

size_t FrameRequest(std::string_view input) {
  const size_t cr = input.find('\r');
  return cr == std::string_view::npos ? 0 : cr + 1;
}

std::string_view RequestText(std::string_view request) {
  if (!request.empty() && request.back() == '\r') request.remove_suffix(1);
  if (!request.empty() && request.front() == '\n') request.remove_prefix(1);
  return request;
}

std::string TooLongReply() { return Answer("Request too long\r\n"); }

std::string Reply(std::string_view text, Tree* tree, const std::string& config_file) {
  if (text.empty()) return Answer("");
  const size_t blank = text.find(' ');
  const std::string_view word = text.substr(0, blank);
  const std::string_view args =
      blank == std::string_view::npos ? std::string_view() : text.substr(blank + 1);
  const bool has_args = blank != std::string_view::npos;

  if (word == "ls") return has_args ? List(args, *tree) : Answer("Usage: ls PATH\r\n");
  if (word == "put") return has_args ? Put(args, tree) : Answer("Usage: put PATH VALUE\r\n");
  if (word == "apply") return Answer("");
  if (word == "save") return Save(*tree, config_file);
  return Answer("Unknown command: " + std::string(word) + "\r\n");
}

}  // namespace cffs_sim
