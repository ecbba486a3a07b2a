#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include <vesk/movie_creator.h>

namespace vesk {

/// What a camera and a microphone sent after a change that their movie cannot hold, from a key picture on,
/// until the next movie takes it.
///
/// Threads: one call at a time; the movie creator holds its mutex.
class WaitingSamples {
 public:
  struct Sample {
    std::vector<uint8_t> bytes;
    uint64_t timestamp = 0;
    VeskMovieCreator::VeskMediaType type = VeskMovieCreator::VeskMediaTypeVideo;
  };

  /// Whether a picture has come with which the next movie can begin.
  bool hasBegun() const { return mBegin.has_value(); }
  /// Whether a sample of this time belongs to what waits: not what was captured before that picture.
  bool isFrom(uint64_t timestamp) const { return mBegin && timestamp >= *mBegin; }
  /// Whether there is room for so much more.
  bool hasRoom(size_t bytes) const { return bytes <= kMostBytes && mBytes <= kMostBytes - bytes; }
  size_t pictures() const { return mPictures; }

  /// Keeps a copy of `bytes`.
  void add(std::span<const uint8_t> bytes, uint64_t timestamp, VeskMovieCreator::VeskMediaType type);
  /// Hands over the first ones, in the order in which they came.
  std::vector<Sample> take(size_t most);
  /// Hands over everything and begins anew: nothing follows on it.
  std::vector<Sample> giveUp();

 private:
  /// Half a minute of the best that USB cameras send; a host that has not gone on by then will not.
  static constexpr uint64_t kMostBytes = uint64_t{64} << 20;

  std::optional<uint64_t> mBegin;
  std::deque<Sample> mSamples;
  uint64_t mBytes = 0;
  size_t mPictures = 0;
};

}  // namespace vesk
