// What one connection still has to send, and when.
//
// Replies are cut into pieces, each with the time it may go out.  The server
// sends the front piece once it is due, in one send() call when the socket
// takes it all, and otherwise asks poll() to wake it at the earliest due
// time.  That is how delays and chunk gaps stay off the other clients' backs.

#ifndef TZR_SIMULATOR_OUTPUT_QUEUE_H_
#define TZR_SIMULATOR_OUTPUT_QUEUE_H_

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

using Clock = std::chrono::steady_clock;

struct Pacing {
  size_t chunk = 0;                  // Largest piece in bytes; 0 sends each reply whole.
  std::chrono::milliseconds gap{0};  // Between two pieces, when chunking.
};

class OutputQueue {
 public:
  struct Piece {
    std::string bytes;
    size_t sent = 0;  // Bytes of `bytes` already handed to the kernel.
    Clock::time_point due;
  };

  explicit OutputQueue(Pacing pacing) : pacing_(pacing) {}

  // Queues `reply` followed by `trailer`, its first piece due no earlier than
  // `earliest` and no earlier than a gap after the piece queued before it.
  // The trailer rides in the last piece, so that it leaves in the same send()
  // call as the reply's last byte; that piece may exceed the chunk size.
  void push(std::string_view reply, std::string_view trailer, Clock::time_point earliest);

  bool empty() const { return pieces_.empty(); }
  size_t bytes() const { return bytes_; }  // Not yet sent.
  Piece& front() { return pieces_.front(); }
  const Piece& front() const { return pieces_.front(); }

  // Records that `n` more bytes of the front piece were sent, and drops the
  // piece once all of it is.
  void consume(size_t n);

 private:
  Pacing pacing_;
  std::deque<Piece> pieces_;
  size_t bytes_ = 0;
};

#endif  // TZR_SIMULATOR_OUTPUT_QUEUE_H_
