#include "simulator/tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "simulator/escape.h"

namespace {

// escape() plus the two bytes that would change how the line is split or
// whether it is read at all.
std::string escapePath(std::string_view path) {
  std::string escaped = escape(path);
  std::string out;
  out.reserve(escaped.size());
  for (char c : escaped) {
    if (c == ' ') {
      out += "\\x20";
    } else if (c == '#' && out.empty()) {
      out += "\\x23";
    } else {
      out += c;
    }
  }
  return out;
}

bool fail(std::string& error) {
  error = std::strerror(errno);
  return false;
}

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

std::string directoryOf(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return file.substr(0, slash);
}

}  // namespace

std::string savingFile(const std::string& file) { return file + ".saving"; }

Tree parseTree(std::string_view text) {
  Tree tree;
  while (!text.empty()) {
    const size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
    if (line.empty() || line[0] == '#') continue;
    const size_t blank = line.find(' ');
    std::string_view path = line.substr(0, blank);
    std::string_view value =
        blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
    tree[unescape(path)] = unescape(value);
  }
  return tree;
}

std::string formatTree(const Tree& tree) {
  std::string text;
  for (const auto& [path, value] : tree) {
    text += escapePath(path);
    text += ' ';
    text += escape(value);
    text += '\n';
  }
  return text;
}

bool loadTree(const std::string& file, Tree& tree, std::string& error) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return fail(error);
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int saved = errno;
      ::close(fd);
      errno = saved;
      return fail(error);
    }
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  tree = parseTree(text);
  return true;
}

bool loadTreeAtStart(const std::string& file, Tree& tree, std::string& error) {
  ::unlink(savingFile(file).c_str());
  return loadTree(file, tree, error);
}

bool saveTree(const Tree& tree, const std::string& file, std::string& error) {
  // One name, not a fresh one per save: a save cut short by a crash leaves
  // at most this file, which the next save starts over.
  const std::string temp = savingFile(file);
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return fail(error);

  // A save must not loosen or tighten the original's permissions.
  struct stat original;
  const mode_t mode = ::stat(file.c_str(), &original) == 0 ? (original.st_mode & 07777) : 0644;
  bool ok = ::fchmod(fd, mode) == 0 && writeAll(fd, formatTree(tree)) && ::fsync(fd) == 0;
  int saved = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    saved = errno;
  }
  if (ok && ::rename(temp.c_str(), file.c_str()) != 0) {
    ok = false;
    saved = errno;
  }
  if (!ok) {
    ::unlink(temp.c_str());
    errno = saved;
    return fail(error);
  }

  // Without this the rename itself may not survive a power cut.
  const int dir = ::open(directoryOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return fail(error);
  ok = ::fsync(dir) == 0;
  saved = errno;
  ::close(dir);
  errno = saved;
  return ok || fail(error);
}

bool listChildren(const Tree& tree, std::string_view dir, std::vector<std::string>& names) {
  std::string prefix(dir);
  if (prefix.empty() || prefix.back() != '/') prefix += '/';
  // Not a look back at the last name: "b.x" sorts between "b" and "b/c".
  std::set<std::string> children;
  for (auto it = tree.upper_bound(prefix); it != tree.end(); ++it) {
    const std::string& path = it->first;
    if (path.compare(0, prefix.size(), prefix) != 0) break;
    children.insert(path.substr(prefix.size(), path.find('/', prefix.size()) - prefix.size()));
  }
  names.assign(children.begin(), children.end());
  return !names.empty();
}
