#include "cffs_sim/server.h"

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

#include "cffs_sim/escape.h"
#include "cffs_sim/output_queue.h"
#include "cffs_sim/protocol.h"
#include "cffs_sim/transcript.h"

namespace cffs_sim {
namespace {

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kLongHead = 64;
constexpr size_t kMaxUnsentBytes = 1 << 20;
// How long to stop accepting when out of file descriptors; polling the
// listener meanwhile would spin.
constexpr std::chrono::milliseconds kAcceptPause{100};

struct Connection {
  Connection(int fd_in, int id_in, Pacing pacing) : fd(fd_in), id(id_in), output(pacing) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { ::close(fd); }

  const int fd;
  const int id;
  std::string input;  // Read from the socket, not yet a whole request.
  int requests = 0;   // Requests framed so far.
  // Of a request too long to keep: its first bytes and how many were dropped.
  std::string long_head;
  size_t long_dropped = 0;
  OutputQueue output;
  bool reading = true;   // False after end of file or --hangup-at.
  bool blocked = false;  // The kernel refused the last send(); wait for POLLOUT.
  bool dead = false;     // Close now, dropping unsent replies.
};

std::string Preview(std::string_view bytes) {
  constexpr size_t kMax = 72;
  std::string text = "\"" + Escape(bytes.substr(0, kMax)) + "\"";
  if (bytes.size() > kMax) text += "...";
  return text;
}

ssize_t RecvRetry(int fd, char* buffer, size_t size, int flags) {
  ssize_t n;
  do {
    n = ::recv(fd, buffer, size, flags | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n;
}

class Server {
 public:
  Server(const Options& options, Tree* tree)
      : options_(options),
        tree_(tree),
        pacing_{options.chunk,
                std::chrono::milliseconds(options.chunk > 0 ? options.chunk_gap_ms : 0)},
        delay_(options.delay_ms) {}
  ~Server();

  int Run();

 private:
  bool Listen();
  void Accept(Clock::time_point now);
  void Read(Connection& c);
  void Process(Connection& c);
  void Flush(Connection& c, Clock::time_point now);
  void Log(const Connection& c, const std::string& message) const;
  std::chrono::milliseconds DelayFor(std::string_view text) const;

  const Options& options_;
  Tree* const tree_;
  const Pacing pacing_;
  const std::chrono::milliseconds delay_;
  Transcript transcript_;
  int listen_fd_ = -1;
  bool bound_ = false;
  std::optional<Clock::time_point> accept_paused_until_;
  int next_id_ = 1;
  std::vector<std::unique_ptr<Connection>> connections_;
};

Server::~Server() {
  connections_.clear();
  if (listen_fd_ >= 0) ::close(listen_fd_);
  if (bound_) ::unlink(options_.socket_path.c_str());
}

std::chrono::milliseconds Server::DelayFor(std::string_view text) const {
  if (options_.delay_command.empty()) return delay_;
  return text.substr(0, text.find(' ')) == options_.delay_command ? delay_
                                                                  : std::chrono::milliseconds(0);
}

void Server::Log(const Connection& c, const std::string& message) const {
  if (options_.verbose) std::fprintf(stderr, "cffs-sim: conn %d: %s\n", c.id, message.c_str());
}

bool Server::Listen() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (options_.socket_path.size() >= sizeof address.sun_path) {
    std::fprintf(stderr, "cffs-sim: socket path too long: %s\n", options_.socket_path.c_str());
    return false;
  }
  std::memcpy(address.sun_path, options_.socket_path.data(), options_.socket_path.size());

  // Only a socket nobody answers on is stale: anything else at the path is
  // someone's file, and a live socket another simulator's.
  struct stat st;
  if (::lstat(options_.socket_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live =
        probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (probe >= 0) ::close(probe);
    if (live) {
      std::fprintf(stderr, "cffs-sim: %s: someone is listening there already\n",
                   options_.socket_path.c_str());
      return false;
    }
    ::unlink(options_.socket_path.c_str());
  }

  listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const char* step = "socket";
  if (listen_fd_ >= 0) {
    step = "bind";
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      bound_ = true;
      step = "listen";
      if (options_.no_listen || ::listen(listen_fd_, SOMAXCONN) == 0) return true;
    }
  }
  std::fprintf(stderr, "cffs-sim: %s %s: %s\n", step, options_.socket_path.c_str(),
               std::strerror(errno));
  return false;
}

void Server::Accept(Clock::time_point now) {
  for (;;) {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::fprintf(stderr, "cffs-sim: accept: %s\n", std::strerror(errno));
        accept_paused_until_ = now + kAcceptPause;
      }
      return;
    }
    auto c = std::make_unique<Connection>(fd, next_id_++, pacing_);
    Log(*c, "accepted");
    if (options_.hangup_at == 0) {
      Log(*c, "hangup-at 0: closing before the greeting");
      continue;
    }
    c->output.Push(kGreeting, options_.trailer, now + DelayFor(""));
    connections_.push_back(std::move(c));
  }
}

// How many bytes of `data` to consume to take exactly `count` requests: up
// to and including the count-th CR, or all of it if it holds fewer.
size_t BytesForRequests(std::string_view data, int count) {
  size_t end = 0;
  for (int i = 0; i < count; ++i) {
    const size_t cr = data.find('\r', end);
    if (cr == std::string_view::npos) return data.size();
    end = cr + 1;
  }
  return end;
}

void Server::Read(Connection& c) {
  char buffer[kReadChunk];
  while (c.reading && !c.dead && c.output.bytes() < kMaxUnsentBytes) {
    ssize_t n;
    if (options_.reset_at > 0) {
      // Never take a byte of request K off the socket: peek, then consume
      // only what belongs to earlier requests.
      n = RecvRetry(c.fd, buffer, sizeof buffer, MSG_PEEK);
      if (n > 0) {
        const int allowed = options_.reset_at - 1 - c.requests;
        size_t want = BytesForRequests(std::string_view(buffer, static_cast<size_t>(n)), allowed);
        if (allowed == 0) {
          // A lone LF is the tail of the previous request's CR LF, not yet
          // request K; taking it keeps poll() from spinning on it.
          if (!c.input.empty() || buffer[0] != '\n' || n > 1) {
            Log(c, "reset-at " + std::to_string(options_.reset_at) +
                       ": closing with the request unread");
            c.dead = true;
            return;
          }
          want = 1;
        }
        n = RecvRetry(c.fd, buffer, want, 0);
      }
    } else {
      n = RecvRetry(c.fd, buffer, sizeof buffer, 0);
    }
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      Log(c, std::string("recv: ") + std::strerror(errno));
      c.dead = true;
      return;
    }
    if (n == 0) {
      Log(c, "end of file");
      c.reading = false;
      return;
    }
    c.input.append(buffer, static_cast<size_t>(n));
    Process(c);
  }
}

void Server::Process(Connection& c) {
  const std::string_view input = c.input;
  size_t offset = 0;
  while (c.reading) {
    const size_t length = FrameRequest(input.substr(offset));
    if (length == 0) break;
    std::string_view request = input.substr(offset, length);
    offset += length;
    ++c.requests;
    // A request too long to keep is answered all the same, but not carried
    // out; the transcript gets its first bytes and its length.
    const size_t size = c.long_dropped + length;
    const bool too_long = size - 1 > kMaxRequestBytes;
    if (too_long) {
      if (c.long_dropped == 0) c.long_head = std::string(request.substr(0, kLongHead));
      transcript_.Record(c.long_head + "... (" + std::to_string(size) + " bytes)");
    } else {
      transcript_.Record(request);
    }
    c.long_dropped = 0;
    Log(c, "request " + std::to_string(c.requests) + " " + Preview(request));
    if (c.requests == options_.hangup_at) {
      Log(c, "hangup-at " + std::to_string(c.requests) + ": closing without a reply");
      c.reading = false;
      break;
    }
    const std::string_view text = RequestText(request);
    const std::string reply = too_long ? TooLongReply() : Reply(text, tree_, options_.config_file);
    Log(c, "reply " + std::to_string(reply.size()) + " bytes " + Preview(reply));
    c.output.Push(reply, options_.trailer, Clock::now() + DelayFor(text));
  }
  c.input.erase(0, offset);
  if (!c.reading) c.input.clear();
  if (c.input.size() > kMaxRequestBytes) {
    // Memory stays bounded: drop what came so far and wait for the CR.
    if (c.long_dropped == 0) c.long_head = c.input.substr(0, kLongHead);
    c.long_dropped += c.input.size();
    c.input.clear();
  }
}

void Server::Flush(Connection& c, Clock::time_point now) {
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
      Log(c, std::string("send: ") + std::strerror(errno));
      c.dead = true;
      return;
    }
    c.output.Consume(static_cast<size_t>(n));
  }
}

int Server::Run() {
  if (!options_.transcript_file.empty()) {
    std::string error;
    if (!transcript_.Open(options_.transcript_file, &error)) {
      std::fprintf(stderr, "cffs-sim: cannot open transcript %s: %s\n",
                   options_.transcript_file.c_str(), error.c_str());
      return 2;
    }
  }

  // The stop signals stay blocked except inside ppoll(), so one arriving
  // between the g_stop check and the wait still ends the wait.
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &action, nullptr);
  action.sa_handler = OnStopSignal;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
  sigset_t stop_signals, wait_mask;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  ::sigprocmask(SIG_BLOCK, &stop_signals, &wait_mask);
  sigdelset(&wait_mask, SIGTERM);
  sigdelset(&wait_mask, SIGINT);

  if (!Listen()) return 1;
  std::fputs("ready\n", stdout);
  std::fflush(stdout);

  std::vector<pollfd> fds;
  while (!g_stop) {
    Clock::time_point now = Clock::now();
    for (auto& c : connections_) Flush(*c, now);
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                      [this](const std::unique_ptr<Connection>& c) {
                                        const bool done =
                                            c->dead || (!c->reading && c->output.empty());
                                        if (done) Log(*c, "closed");
                                        return done;
                                      }),
                       connections_.end());

    if (accept_paused_until_ && *accept_paused_until_ <= now) accept_paused_until_.reset();
    std::optional<Clock::time_point> wake = accept_paused_until_;
    const bool accepting = !options_.no_listen && !accept_paused_until_;
    fds.clear();
    if (accepting) fds.push_back({listen_fd_, POLLIN, 0});
    for (auto& c : connections_) {
      short events = 0;
      if (c->reading && c->output.bytes() < kMaxUnsentBytes) events |= POLLIN;
      if (c->blocked) events |= POLLOUT;
      if (!c->blocked && !c->output.empty()) {
        wake = wake ? std::min(*wake, c->output.front().due) : c->output.front().due;
      }
      fds.push_back({c->fd, events, 0});
    }

    timespec timeout{};
    if (wake) {
      const auto wait = std::max(std::chrono::nanoseconds(0), *wake - now);
      timeout.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(wait).count();
      timeout.tv_nsec = (wait % std::chrono::seconds(1)).count();
    }
    if (::ppoll(fds.data(), fds.size(), wake ? &timeout : nullptr, &wait_mask) < 0) {
      if (errno == EINTR) continue;
      std::fprintf(stderr, "cffs-sim: poll: %s\n", std::strerror(errno));
      return 1;
    }

    now = Clock::now();
    const size_t first = accepting ? 1 : 0;
    for (size_t i = first; i < fds.size(); ++i) {
      Connection& c = *connections_[i - first];
      const short revents = fds[i].revents;
      // Requests a client sent just before it vanished still count, as a
      // put followed by close() would on the appliance; but no reply can
      // reach it any more.
      if (c.reading && (revents & (POLLIN | POLLHUP | POLLERR))) Read(c);
      if (revents & (POLLHUP | POLLERR)) {
        Log(c, "peer gone");
        c.dead = true;
      }
    }
    if (accepting && (fds[0].revents & POLLIN)) Accept(now);
  }
  return 0;
}

}  // namespace

int Serve(const Options& options, Tree* tree) {
  Server server(options, tree);
  return server.Run();
}

}  // namespace cffs_sim
