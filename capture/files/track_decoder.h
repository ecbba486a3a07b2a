#pragma once

#include <memory>
#include <optional>
#include <string>

#include "capture/files/track_reader.h"

namespace vesk::capture {

/// Decodes a track, frame by frame, in the order of presentation.
class TrackDecoder {
 public:
  /// @return null with one line for a person in `error`.
  static std::unique_ptr<TrackDecoder> open(std::unique_ptr<TrackReader> reader, std::string& error);

  bool start(int64_t time);
  /// The next frame, valid until the next call; null at the end.
  const AVFrame* next();
  /// Presentation time of the frame; none when the file does not say.
  std::optional<int64_t> time() const;

  TrackReader& reader() const { return *mReader; }
  const AVCodecContext& codec() const { return *mCodec; }
  /// Gives the reader back, at the beginning.
  std::unique_ptr<TrackReader> release();

 private:
  TrackDecoder() = default;
  void feed();

  std::unique_ptr<TrackReader> mReader;
  CodecHandle mCodec;
  FrameHandle mFrame;
  int64_t mCount = 0;
  bool mIsDraining = false;
};

}  // namespace vesk::capture
