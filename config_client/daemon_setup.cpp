#include "config_client/daemon_setup.h"

bool replyAbandoned(int replyFd) {
  pollfd reply = {replyFd, 0, 0};
  return ::poll(&reply, 1, 0) == 1 && readerGone(reply.revents);
}
