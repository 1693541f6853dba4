#include "simulator/output_queue.h"

#include <algorithm>

void OutputQueue::push(std::string_view reply, std::string_view trailer,
                       Clock::time_point earliest) {
  Clock::time_point due = earliest;
  if (!pieces_.empty()) due = std::max(due, pieces_.back().due + pacing_.gap);
  const size_t chunk = pacing_.chunk == 0 ? reply.size() : pacing_.chunk;
  do {
    Piece piece;
    piece.bytes = std::string(reply.substr(0, chunk));
    reply.remove_prefix(piece.bytes.size());
    if (reply.empty()) piece.bytes += trailer;
    piece.due = due;
    due += pacing_.gap;
    bytes_ += piece.bytes.size();
    pieces_.push_back(std::move(piece));
  } while (!reply.empty());
}

void OutputQueue::consume(size_t n) {
  Piece& piece = pieces_.front();
  piece.sent += n;
  bytes_ -= n;
  if (piece.sent >= piece.bytes.size()) pieces_.pop_front();
}
