// The simulated configuration tree and the text file it lives in.
//
// The tree is a flat map from full parameter path ("/configuration/network/dhcp")
// to value; directories exist only as prefixes of stored paths.  Values are
// arbitrary bytes.
//
// File format, one parameter per line:
//
//   PATH VALUE
//
// PATH ends at the first blank; VALUE is the rest of the line and may be
// empty or hold further blanks.  Both are escaped as in escape.h.  Empty
// lines and lines starting with '#' are ignored; a line without a blank is
// a parameter with an empty value.  A later line for the same path wins.
//
// Paths are escaped too (with blanks and a leading '#' written as \x20 and
// \x23), so that any path a client manages to store survives a save and a
// load; the paths of a real configuration contain none of these bytes and
// read the same either way.

#ifndef TZR_SIMULATOR_TREE_H_
#define TZR_SIMULATOR_TREE_H_

#include <map>
#include <string>
#include <string_view>
#include <vector>

using Tree = std::map<std::string, std::string>;

Tree parseTree(std::string_view text);

// The file text for `tree`, sorted by path.  parseTree(formatTree(t)) == t.
std::string formatTree(const Tree& tree);

// Replaces `tree` with the contents of `file`.  On failure returns false and
// sets `error` to the strerror() text; `tree` is left alone.
bool loadTree(const std::string& file, Tree& tree, std::string& error);

// Writes `tree` to `file` so that a crash at any point leaves either the old
// or the new file complete: savingFile(file) in the same directory is
// written and fsync'ed, renamed over `file`, then the directory is fsync'ed.
// The new file keeps the old one's permission bits.  On failure returns
// false, sets `error` to the strerror() text and removes the temporary file.
bool saveTree(const Tree& tree, const std::string& file, std::string& error);

// FILE.saving: where a save writes before it renames. A crash in a save
// leaves it behind.
std::string savingFile(const std::string& file);

// loadTree() for a simulator that starts: first removes the savingFile()
// that a save cut short left behind.
bool loadTreeAtStart(const std::string& file, Tree& tree, std::string& error);

// If `dir` names a directory of `tree` (some stored path continues it past
// a '/'), fills `names` with its direct children in order and returns true.
// `dir` may end in '/' or not; "/" is the root.
bool listChildren(const Tree& tree, std::string_view dir, std::vector<std::string>& names);

#endif  // TZR_SIMULATOR_TREE_H_
