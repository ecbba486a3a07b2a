#pragma once

#include <memory>

#include "capture/files/track_reader.h"
#include "capture/files/unit_reader.h"
#include "platform/h264/access_unit_writer.h"

namespace vesk::capture {

/// Frames as they stand in the file: what is common to H.264, Motion JPEG and packed 4:2:2.
class VideoFrames : public UnitReader {
 public:
  explicit VideoFrames(std::unique_ptr<TrackReader> reader) : mReader(std::move(reader)) {}

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mReader->damage(); }

 protected:
  const TrackReader& track() const { return *mReader; }
  struct Frame {
    std::span<uint8_t> bytes;
    bool isKey = true;
  };
  /// The frame in the packet last read, ready for delivery; none when it is broken.
  virtual std::optional<Frame> frame(TrackReader& reader) = 0;

 private:
  const std::unique_ptr<TrackReader> mReader;
  int64_t mFrom = 0;
  bool mWaitsForKey = false;
};

/// H.264 whose frames are shown in the order in which they stand.
class H264Frames : public VideoFrames {
 public:
  explicit H264Frames(std::unique_ptr<TrackReader> reader);

 protected:
  std::optional<Frame> frame(TrackReader& reader) override;

 private:
  h264::AccessUnitWriter mWriter;
};

/// Motion JPEG: every packet a frame of its own.
class MotionJPEGFrames : public VideoFrames {
 public:
  using VideoFrames::VideoFrames;

 protected:
  std::optional<Frame> frame(TrackReader& reader) override;
};

/// Packed 4:2:2 (UYVY) without padding.
class Packed422Frames : public VideoFrames {
 public:
  Packed422Frames(std::unique_ptr<TrackReader> reader, size_t frameBytes)
      : VideoFrames(std::move(reader)), mFrameBytes(frameBytes) {}

 protected:
  std::optional<Frame> frame(TrackReader& reader) override;

 private:
  const size_t mFrameBytes;
};

}  // namespace vesk::capture
