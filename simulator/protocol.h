// The daemon's line protocol, without any I/O.
//
// A request is the bytes up to and including a carriage return; no LF is
// needed.  A LF that is the first byte of a request is dropped, so that a
// terminal sending CR LF works; any other LF is part of the request.  Every
// reply, the greeting included, ends with the prompt "/> ".
//
// The command is the request text up to the first blank:
//
//   ls PATH         PATH is all the rest, blanks included.  A stored
//                   parameter answers "VALUE\r\n"; a directory (PATH or
//                   PATH + "/" is a proper prefix of stored paths) answers
//                   its direct children, one "NAME\r\n" each, sorted;
//                   otherwise "No such file or directory\r\n".
//   put PATH VALUE  PATH runs up to the next blank and must not be empty;
//                   VALUE is all the rest and may be empty.  One pair of
//                   double quotes around a VALUE of two or more bytes is
//                   removed.  Answers nothing.  Without the blank after PATH:
//                   "Usage: put PATH VALUE\r\n" and nothing is stored.
//   apply           Answers nothing.
//   save            Writes the tree back to the configuration file; answers
//                   nothing, or "save failed: REASON\r\n".
//
// "ls" without a blank answers "Usage: ls PATH\r\n".  Anything after a blank
// following "apply" or "save" is ignored.  An empty request answers only the
// prompt; any other command answers "Unknown command: WORD\r\n".  Matching
// is exact and case-sensitive: "ls\t/x" and "LS /x" are unknown commands.

#ifndef TZR_SIMULATOR_PROTOCOL_H_
#define TZR_SIMULATOR_PROTOCOL_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "simulator/tree.h"

inline constexpr std::string_view kPrompt = "/> ";
inline constexpr std::string_view kGreeting = "Configuration daemon simulator\r\n/> ";

// The longest request carried out, CR not counted.  A longer one is answered
// by tooLongReply().
inline constexpr size_t kMaxRequestBytes = 1 << 20;

// The length of the first complete request in `input`, its CR included, or
// 0 while `input` holds no CR.
size_t frameRequest(std::string_view input);

// The text of a framed request: without its CR and without a leading LF.
std::string_view requestText(std::string_view request);

// The full reply to the request `text`, prompt included.  "put" changes
// `tree`; "save" writes it to `configFile`, or fails if that is empty.
std::string replyTo(std::string_view text, Tree& tree, const std::string& configFile);

// "Request too long\r\n" and the prompt.
std::string tooLongReply();

#endif  // TZR_SIMULATOR_PROTOCOL_H_
