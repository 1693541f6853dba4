#include "simulator/protocol.h"

#include <vector>

namespace {

std::string answer(std::string_view body) {
  std::string reply(body);
  reply += kPrompt;
  return reply;
}

std::string list(std::string_view path, const Tree& tree) {
  auto it = tree.find(std::string(path));
  if (it != tree.end()) return answer(it->second + "\r\n");
  std::vector<std::string> children;
  if (!listChildren(tree, path, children)) return answer("No such file or directory\r\n");
  std::string body;
  for (const std::string& name : children) body += name + "\r\n";
  return answer(body);
}

std::string put(std::string_view args, Tree& tree) {
  const size_t blank = args.find(' ');
  if (blank == std::string_view::npos || blank == 0) return answer("Usage: put PATH VALUE\r\n");
  std::string_view value = args.substr(blank + 1);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
  }
  tree[std::string(args.substr(0, blank))] = std::string(value);
  return answer("");
}

std::string save(const Tree& tree, const std::string& configFile) {
  if (configFile.empty()) return answer("save failed: no configuration file\r\n");
  std::string error;
  if (!saveTree(tree, configFile, error)) return answer("save failed: " + error + "\r\n");
  return answer("");
}

}  // namespace

size_t frameRequest(std::string_view input) {
  const size_t cr = input.find('\r');
  return cr == std::string_view::npos ? 0 : cr + 1;
}

std::string_view requestText(std::string_view request) {
  if (!request.empty() && request.back() == '\r') request.remove_suffix(1);
  if (!request.empty() && request.front() == '\n') request.remove_prefix(1);
  return request;
}

std::string tooLongReply() { return answer("Request too long\r\n"); }

std::string replyTo(std::string_view text, Tree& tree, const std::string& configFile) {
  if (text.empty()) return answer("");
  const size_t blank = text.find(' ');
  const std::string_view word = text.substr(0, blank);
  const std::string_view args =
      blank == std::string_view::npos ? std::string_view() : text.substr(blank + 1);
  const bool hasArgs = blank != std::string_view::npos;

  if (word == "ls") return hasArgs ? list(args, tree) : answer("Usage: ls PATH\r\n");
  if (word == "put") return hasArgs ? put(args, tree) : answer("Usage: put PATH VALUE\r\n");
  if (word == "apply") return answer("");
  if (word == "save") return save(tree, configFile);
  return answer("Unknown command: " + std::string(word) + "\r\n");
}
