// The request size limit that the web server's environment may set in
// CGICC_MAX_CONTENTLENGTH. The cgicc we link throws when the limit is
// exceeded, which would answer 500; the program instead ends at once with
// exit status 1, writing and logging nothing, and before any body buffer is
// allocated.
#ifndef TZR_CGI_CONTENT_LENGTH_GUARD_H_
#define TZR_CGI_CONTENT_LENGTH_GUARD_H_

// True when REQUEST_METHOD is POST or PUT (in any letter case),
// CGICC_MAX_CONTENTLENGTH is set, and CONTENT_LENGTH (read with atol) is
// greater than the limit (read with atoi), both compared as unsigned long.
bool contentLengthExceedsLimit();

#endif  // TZR_CGI_CONTENT_LENGTH_GUARD_H_
