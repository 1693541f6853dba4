#include "simulator/server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/escape.h"
#include "simulator/output_queue.h"
#include "simulator/protocol.h"
#include "simulator/transcript.h"

namespace {

volatile sig_atomic_t stopRequested = 0;

void onStopSignal(int) { stopRequested = 1; }

constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kLongHead = 64;
constexpr size_t kMaxUnsentBytes = 1 << 20;
// How long to stop accepting when out of file descriptors; polling the
// listener meanwhile would spin.
constexpr std::chrono::milliseconds kAcceptPause{100};

struct Connection {
  Connection(int fdIn, int idIn, Pacing pacing) : fd(fdIn), id(idIn), output(pacing) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { ::close(fd); }

  const int fd;
  const int id;
  std::string input;  // Read from the socket, not yet a whole request.
  int requests = 0;   // Requests framed so far.
  // Of a request too long to keep: its first bytes and how many were dropped.
  std::string longHead;
  size_t longDropped = 0;
  OutputQueue output;
  bool reading = true;   // False after end of file or --hangup-at.
  bool blocked = false;  // The kernel refused the last send(); wait for POLLOUT.
  bool dead = false;     // Close now, dropping unsent replies.
};

std::string preview(std::string_view bytes) {
  constexpr size_t kMax = 72;
  std::string text = "\"" + escape(bytes.substr(0, kMax)) + "\"";
  if (bytes.size() > kMax) text += "...";
  return text;
}

ssize_t recvRetry(int fd, char* buffer, size_t size, int flags) {
  ssize_t n;
  do {
    n = ::recv(fd, buffer, size, flags | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n;
}

class Server {
 public:
  Server(const Options& options, Tree& tree, int readyFd, int stopFd)
      : options_(options),
        tree_(tree),
        pacing_{options.chunk,
                std::chrono::milliseconds(options.chunk > 0 ? options.chunkGapMs : 0)},
        delay_(options.delayMs),
        readyFd_(readyFd),
        stopFd_(stopFd) {}
  ~Server();

  int run();

 private:
  bool listen();
  void accept(Clock::time_point now);
  void read(Connection& c);
  void process(Connection& c);
  void flush(Connection& c, Clock::time_point now);
  void log(const Connection& c, const std::string& message) const;
  std::chrono::milliseconds delayFor(std::string_view text) const;

  const Options& options_;
  Tree& tree_;
  const Pacing pacing_;
  const std::chrono::milliseconds delay_;
  const int readyFd_;  // -1: "ready" on stdout
  const int stopFd_;   // -1: until SIGTERM or SIGINT
  Transcript transcript_;
  int listenFd_ = -1;
  bool bound_ = false;
  std::optional<Clock::time_point> acceptPausedUntil_;
  int nextId_ = 1;
  std::vector<std::unique_ptr<Connection>> connections_;
};

Server::~Server() {
  connections_.clear();
  if (listenFd_ >= 0) ::close(listenFd_);
  if (bound_) ::unlink(options_.socketPath.c_str());
}

std::chrono::milliseconds Server::delayFor(std::string_view text) const {
  if (options_.delayCommand.empty()) return delay_;
  return text.substr(0, text.find(' ')) == options_.delayCommand ? delay_
                                                                 : std::chrono::milliseconds(0);
}

void Server::log(const Connection& c, const std::string& message) const {
  if (options_.verbose) std::fprintf(stderr, "cffs-sim: conn %d: %s\n", c.id, message.c_str());
}

bool Server::listen() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (options_.socketPath.size() >= sizeof address.sun_path) {
    std::fprintf(stderr, "cffs-sim: socket path too long: %s\n", options_.socketPath.c_str());
    return false;
  }
  std::memcpy(address.sun_path, options_.socketPath.data(), options_.socketPath.size());

  // Only a socket nobody answers on is stale: anything else at the path is
  // someone's file, and a live socket another simulator's.
  struct stat st;
  if (::lstat(options_.socketPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live =
        probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (probe >= 0) ::close(probe);
    if (live) {
      std::fprintf(stderr, "cffs-sim: %s: someone is listening there already\n",
                   options_.socketPath.c_str());
      return false;
    }
    ::unlink(options_.socketPath.c_str());
  }

  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const char* step = "socket";
  if (listenFd_ >= 0) {
    step = "bind";
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      bound_ = true;
      step = "listen";
      if (options_.noListen || ::listen(listenFd_, SOMAXCONN) == 0) return true;
    }
  }
  std::fprintf(stderr, "cffs-sim: %s %s: %s\n", step, options_.socketPath.c_str(),
               std::strerror(errno));
  return false;
}

void Server::accept(Clock::time_point now) {
  for (;;) {
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::fprintf(stderr, "cffs-sim: accept: %s\n", std::strerror(errno));
        acceptPausedUntil_ = now + kAcceptPause;
      }
      return;
    }
    auto c = std::make_unique<Connection>(fd, nextId_++, pacing_);
    log(*c, "accepted");
    if (options_.hangupAt == 0) {
      log(*c, "hangup-at 0: closing before the greeting");
      continue;
    }
    c->output.push(kGreeting, options_.trailer, now + delayFor(""));
    connections_.push_back(std::move(c));
  }
}

// How many bytes of `data` to consume to take exactly `count` requests: up
// to and including the count-th CR, or all of it if it holds fewer.
size_t bytesForRequests(std::string_view data, int count) {
  size_t end = 0;
  for (int i = 0; i < count; ++i) {
    const size_t cr = data.find('\r', end);
    if (cr == std::string_view::npos) return data.size();
    end = cr + 1;
  }
  return end;
}

void Server::read(Connection& c) {
  char buffer[kReadChunk];
  while (c.reading && !c.dead && c.output.bytes() < kMaxUnsentBytes) {
    ssize_t n;
    if (options_.resetAt > 0) {
      // Never take a byte of request K off the socket: peek, then consume
      // only what belongs to earlier requests.
      n = recvRetry(c.fd, buffer, sizeof buffer, MSG_PEEK);
      if (n > 0) {
        const int allowed = options_.resetAt - 1 - c.requests;
        size_t want = bytesForRequests(std::string_view(buffer, static_cast<size_t>(n)), allowed);
        if (allowed == 0) {
          // A lone LF is the tail of the previous request's CR LF, not yet
          // request K; taking it keeps poll() from spinning on it.
          if (!c.input.empty() || buffer[0] != '\n' || n > 1) {
            log(c, "reset-at " + std::to_string(options_.resetAt) +
                       ": closing with the request unread");
            c.dead = true;
            return;
          }
          want = 1;
        }
        n = recvRetry(c.fd, buffer, want, 0);
      }
    } else {
      n = recvRetry(c.fd, buffer, sizeof buffer, 0);
    }
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      log(c, std::string("recv: ") + std::strerror(errno));
      c.dead = true;
      return;
    }
    if (n == 0) {
      log(c, "end of file");
      c.reading = false;
      return;
    }
    c.input.append(buffer, static_cast<size_t>(n));
    process(c);
  }
}

void Server::process(Connection& c) {
  const std::string_view input = c.input;
  size_t offset = 0;
  while (c.reading) {
    const size_t length = frameRequest(input.substr(offset));
    if (length == 0) break;
    std::string_view request = input.substr(offset, length);
    offset += length;
    ++c.requests;
    // A request too long to keep is answered all the same, but not carried
    // out; the transcript gets its first bytes and its length.
    const size_t size = c.longDropped + length;
    const bool tooLong = size - 1 > kMaxRequestBytes;
    if (tooLong) {
      if (c.longDropped == 0) c.longHead = std::string(request.substr(0, kLongHead));
      transcript_.record(c.longHead + "... (" + std::to_string(size) + " bytes)");
    } else {
      transcript_.record(request);
    }
    c.longDropped = 0;
    log(c, "request " + std::to_string(c.requests) + " " + preview(request));
    if (c.requests == options_.hangupAt) {
      log(c, "hangup-at " + std::to_string(c.requests) + ": closing without a reply");
      c.reading = false;
      break;
    }
    const std::string_view text = requestText(request);
    const std::string reply = tooLong ? tooLongReply() : replyTo(text, tree_, options_.configFile);
    log(c, "reply " + std::to_string(reply.size()) + " bytes " + preview(reply));
    c.output.push(reply, options_.trailer, Clock::now() + delayFor(text));
  }
  c.input.erase(0, offset);
  if (!c.reading) c.input.clear();
  if (c.input.size() > kMaxRequestBytes) {
    // Memory stays bounded: drop what came so far and wait for the CR.
    if (c.longDropped == 0) c.longHead = c.input.substr(0, kLongHead);
    c.longDropped += c.input.size();
    c.input.clear();
  }
}

void Server::flush(Connection& c, Clock::time_point now) {
  c.blocked = false;
  while (!c.dead && !c.output.empty() && c.output.front().due <= now) {
    const OutputQueue::Piece& piece = c.output.front();
    const ssize_t n = ::send(c.fd, piece.bytes.data() + piece.sent, piece.bytes.size() - piece.sent,
                             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        c.blocked = true;
        return;
      }
      log(c, std::string("send: ") + std::strerror(errno));
      c.dead = true;
      return;
    }
    c.output.consume(static_cast<size_t>(n));
  }
}

int Server::run() {
  if (!options_.transcriptFile.empty()) {
    std::string error;
    if (!transcript_.open(options_.transcriptFile, error)) {
      std::fprintf(stderr, "cffs-sim: cannot open transcript %s: %s\n",
                   options_.transcriptFile.c_str(), error.c_str());
      return 2;
    }
  }

  // The stop signals stay blocked except inside ppoll(), so one arriving
  // between the stopRequested check and the wait still ends the wait. In a
  // thread of someone else's process the signals are that process's own:
  // every send() here passes MSG_NOSIGNAL anyway.
  sigset_t stopSignals, waitMask;
  const bool embedded = stopFd_ >= 0;
  if (!embedded) {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
    action.sa_handler = onStopSignal;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    ::sigprocmask(SIG_BLOCK, &stopSignals, &waitMask);
    sigdelset(&waitMask, SIGTERM);
    sigdelset(&waitMask, SIGINT);
  }

  if (!listen()) return 1;
  if (embedded) {
    if (::write(readyFd_, "r", 1) != 1) return 1;
  } else {
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
  }

  std::vector<pollfd> fds;
  while (!stopRequested) {
    Clock::time_point now = Clock::now();
    for (auto& c : connections_) flush(*c, now);
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                      [this](const std::unique_ptr<Connection>& c) {
                                        const bool done =
                                            c->dead || (!c->reading && c->output.empty());
                                        if (done) log(*c, "closed");
                                        return done;
                                      }),
                       connections_.end());

    if (acceptPausedUntil_ && *acceptPausedUntil_ <= now) acceptPausedUntil_.reset();
    std::optional<Clock::time_point> wake = acceptPausedUntil_;
    const bool accepting = !options_.noListen && !acceptPausedUntil_;
    fds.clear();
    if (accepting) fds.push_back({listenFd_, POLLIN, 0});
    for (auto& c : connections_) {
      short events = 0;
      if (c->reading && c->output.bytes() < kMaxUnsentBytes) events |= POLLIN;
      if (c->blocked) events |= POLLOUT;
      if (!c->blocked && !c->output.empty()) {
        wake = wake ? std::min(*wake, c->output.front().due) : c->output.front().due;
      }
      fds.push_back({c->fd, events, 0});
    }
    if (embedded) fds.push_back({stopFd_, POLLIN, 0});

    timespec timeout{};
    if (wake) {
      const auto wait = std::max(std::chrono::nanoseconds(0), *wake - now);
      timeout.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(wait).count();
      timeout.tv_nsec = (wait % std::chrono::seconds(1)).count();
    }
    if (::ppoll(fds.data(), fds.size(), wake ? &timeout : nullptr, embedded ? nullptr : &waitMask) <
        0) {
      if (errno == EINTR) continue;
      std::fprintf(stderr, "cffs-sim: poll: %s\n", std::strerror(errno));
      return 1;
    }

    if (embedded && fds.back().revents != 0) break;
    now = Clock::now();
    const size_t first = accepting ? 1 : 0;
    for (size_t i = first; i < first + connections_.size(); ++i) {
      Connection& c = *connections_[i - first];
      const short revents = fds[i].revents;
      // Requests a client sent just before it vanished still count, as a
      // put followed by close() would on the appliance; but no reply can
      // reach it any more.
      if (c.reading && (revents & (POLLIN | POLLHUP | POLLERR))) read(c);
      if (revents & (POLLHUP | POLLERR)) {
        log(c, "peer gone");
        c.dead = true;
      }
    }
    if (accepting && (fds[0].revents & POLLIN)) accept(now);
  }
  return 0;
}

}  // namespace

int serve(const Options& options, Tree& tree) {
  Server server(options, tree, -1, -1);
  return server.run();
}

int serveInThread(const Options& options, Tree& tree, int readyFd, int stopFd) {
  Server server(options, tree, readyFd, stopFd);
  return server.run();
}
