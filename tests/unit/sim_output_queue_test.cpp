#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cffs_sim/output_queue.h"

namespace {

using cffs_sim::Clock;
using cffs_sim::OutputQueue;
using std::chrono::milliseconds;

struct Piece {
  std::string bytes;
  int due_ms;
};

std::vector<Piece> Drain(OutputQueue* queue, Clock::time_point start) {
  std::vector<Piece> pieces;
  while (!queue->empty()) {
    const OutputQueue::Piece& front = queue->front();
    pieces.push_back({front.bytes, static_cast<int>((front.due - start) / milliseconds(1))});
    queue->Consume(front.bytes.size());
  }
  return pieces;
}

TEST(SimOutputQueue, CutsRepliesIntoPacedPieces) {
  const struct {
    size_t chunk;
    int gap_ms;
    std::vector<std::string> replies;  // Pushed at start, start+1ms, ...
    std::string trailer;
    std::vector<Piece> expected;
  } cases[] = {
      {0, 0, {"value\r\n/> "}, "", {{"value\r\n/> ", 0}}},
      {0, 0, {"/> ", "x\r\n/> "}, "JUNK", {{"/> JUNK", 0}, {"x\r\n/> JUNK", 1}}},
      {2, 20, {"ab\r\n/> "}, "", {{"ab", 0}, {"\r\n", 20}, {"/>", 40}, {" ", 60}}},
      // The trailer leaves with the prompt's last byte, whatever the chunk.
      {4, 10, {"ok\r\n/> "}, "tail", {{"ok\r\n", 0}, {"/> tail", 10}}},
      // A reply queued behind another starts a gap after its last piece.
      {3, 20, {"/> ", "/> "}, "", {{"/> ", 0}, {"/> ", 20}}},
  };
  for (const auto& c : cases) {
    OutputQueue queue({c.chunk, milliseconds(c.gap_ms)});
    const Clock::time_point start = Clock::now();
    size_t total = 0;
    for (size_t i = 0; i < c.replies.size(); ++i) {
      queue.Push(c.replies[i], c.trailer, start + milliseconds(i));
      total += c.replies[i].size() + c.trailer.size();
    }
    EXPECT_EQ(queue.bytes(), total);
    const std::vector<Piece> pieces = Drain(&queue, start);
    ASSERT_EQ(pieces.size(), c.expected.size()) << c.replies[0];
    for (size_t i = 0; i < pieces.size(); ++i) {
      EXPECT_EQ(pieces[i].bytes, c.expected[i].bytes) << i;
      EXPECT_EQ(pieces[i].due_ms, c.expected[i].due_ms) << i;
    }
    EXPECT_EQ(queue.bytes(), 0u);
  }
}

}  // namespace
