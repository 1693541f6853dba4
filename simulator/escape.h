// Byte escaping shared by the tree file, the transcript and --trailer.
//
// Escaped text is one line of printable ASCII: backslash, CR, LF and tab
// become \\ \r \n \t, every other byte below 0x20 and 0x7F becomes \xHH
// (upper-case hex).  Bytes 0x80 and up pass through unchanged, so UTF-8
// values stay readable in the file.

#ifndef TZR_SIMULATOR_ESCAPE_H_
#define TZR_SIMULATOR_ESCAPE_H_

#include <string>
#include <string_view>

std::string escape(std::string_view raw);

// Inverse of escape().  Lenient on purpose, because hand-edited files and
// command lines feed it: \xHH takes upper- or lower-case hex, and a backslash
// that starts no known escape (or ends the text) is kept as it is, so
// "C:\dir" survives.  unescape(escape(s)) == s for every s.
std::string unescape(std::string_view escaped);

#endif  // TZR_SIMULATOR_ESCAPE_H_
