#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "capture/files/unit_reader.h"

namespace vesk::capture {

/// Cuts 16-bit PCM of any portions into packets of 25 to 50 ms: 2048 frames of 44.1 and 48 kHz. Times are counted in
/// frames, so that the packets join without rounding; where the footage jumps, a shorter packet ends there. In a loop
/// nothing jumps forward: silence fills gaps, also those before the loop's ends, and what goes beyond its end is cut.
class PcmChunker {
 public:
  PcmChunker(uint32_t samplesPerSecond, uint16_t channels, std::optional<Loop> loop = std::nullopt);

  /// Forgets what is left over; frames before `from` will be left out. `again` lets a loop follow on itself.
  void restart(int64_t from, bool again = false);
  /// Hands over the next portion, which begins at `time` (none: where the last one ended) and stays
  /// valid until it is used up: until take answers none.
  void give(std::span<uint8_t> bytes, std::optional<int64_t> time);
  /// The next packet; none when more is wanted. At the `end` the rest comes as a shorter packet.
  std::optional<MediaUnit> take(bool end);
  /// The loop's end has been reached: what is still handed over is left out.
  bool isFull() const { return framesToEnd() <= 0; }

 private:
  int64_t frameTime(int64_t frame) const;
  size_t wholeFrames(size_t bytes) const { return bytes / mFrameBytes * mFrameBytes; }
  std::optional<MediaUnit> packet(std::span<uint8_t> bytes);
  int64_t framesTaken() const;
  int64_t framesToEnd() const;
  int64_t millionthsToEnd() const;
  std::optional<MediaUnit> rest();

  const uint32_t mRate;
  const size_t mFrameBytes;
  const size_t mPacketBytes;
  int64_t mFrom = 0;
  const std::optional<Loop> mLoop;
  std::optional<int64_t> mAnchor;  ///< time of frame 0 of this stretch; none until there is one
  int64_t mFramesOut = 0;          ///< of this stretch
  std::optional<int64_t> mJump;    ///< where the stretch after the left-overs begins
  int64_t mRemainder = 0;          ///< millionths of a frame that the turn before was too short
  int64_t mSilentFrames = 0;       ///< that go before the portion
  std::span<uint8_t> mInput;
  std::vector<uint8_t> mLeftOver;
  bool mLeftOverIsOut = false;  ///< delivered, to be forgotten at the next call
};

}  // namespace vesk::capture
