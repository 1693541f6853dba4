#include "config_client/abandoned_reply.h"

bool replyAbandoned() {
  pollfd reply = {kReplyFd, 0, 0};
  return ::poll(&reply, 1, 0) == 1 && replyAbandoned(reply.revents);
}

void endAbandonedRequest() { _exit(0); }
