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
  bool reading = true;   // False after end of file or a hang-up.
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
  Server(const Options& options, Tree& tree, Transcript& transcript, int readyFd, int stopFd)
      : options_(options),
        tree_(tree),
        transcript_(transcript),
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
  bool waits(Fault fault) const { return !faultDone_ && options_.fault == fault; }
  // Whether `fault` waits for the request that begins with `start`.
  bool faultAt(Fault fault, std::string_view start) const;
  void fault(const Connection& c, const std::string& what);

  const Options& options_;
  Tree& tree_;
  Transcript& transcript_;
  const Pacing pacing_;
  const std::chrono::milliseconds delay_;
  const int readyFd_;  // -1: "ready" on stdout
  const int stopFd_;   // -1: until SIGTERM or SIGINT
  bool faultDone_ = false;
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

bool Server::faultAt(Fault fault, std::string_view start) const {
  if (!waits(fault)) return false;
  const std::string_view text = requestText(start);
  return text.substr(0, options_.faultAt.size()) == options_.faultAt;
}

void Server::fault(const Connection& c, const std::string& what) {
  faultDone_ = true;
  transcript_.recordFault();
  log(c, what);
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
    c->output.push(kGreeting, options_.trailer, now + delayFor(""));
    if (waits(Fault::HangUpAfterGreeting)) {
      // Shut for reading first: however soon the peer answers the greeting,
      // its send() fails, whether or not the close() has come yet.
      ::shutdown(fd, SHUT_RD);
      fault(*c, "hangup-after-greeting: closing once greeted");
      c->reading = false;
    }
    connections_.push_back(std::move(c));
  }
}

void Server::read(Connection& c) {
  char buffer[kReadChunk];
  while (c.reading && !c.dead && c.output.bytes() < kMaxUnsentBytes) {
    const bool resetWaits = waits(Fault::Reset);
    ssize_t n = recvRetry(c.fd, buffer, sizeof buffer, resetWaits ? MSG_PEEK : 0);
    if (resetWaits && n > 0) {
      // Never take the CR of the request to reset at off the socket: take
      // what comes before a request's CR, and through it only once the
      // whole request is in sight and is not the one.
      const std::string_view peeked(buffer, static_cast<size_t>(n));
      const size_t cr = peeked.find('\r');
      if (cr != std::string_view::npos &&
          faultAt(Fault::Reset, (c.longDropped > 0 ? c.longHead : c.input) +
                                    std::string(peeked.substr(0, cr + 1)))) {
        fault(c, "reset-on: closing with the request unread");
        c.dead = true;
        return;
      }
      n = recvRetry(c.fd, buffer, cr == std::string_view::npos ? peeked.size() : cr + 1, 0);
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
    const bool hangUp = faultAt(Fault::HangUp, c.longDropped > 0 ? c.longHead : request);
    c.longDropped = 0;
    log(c, "request " + std::to_string(c.requests) + " " + preview(request));
    if (hangUp) {
      fault(c, "hangup-on: closing without a reply");
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
  Transcript transcript;
  std::string error;
  if (!options.transcriptFile.empty() && !transcript.open(options.transcriptFile, error)) {
    std::fprintf(stderr, "cffs-sim: cannot open transcript %s: %s\n",
                 options.transcriptFile.c_str(), error.c_str());
    return 2;
  }
  Server server(options, tree, transcript, -1, -1);
  return server.run();
}

int serveInThread(const Options& options, Tree& tree, Transcript& transcript, int readyFd,
                  int stopFd) {
  Server server(options, tree, transcript, readyFd, stopFd);
  return server.run();
}
