#pragma once

#include <memory>

#include "capture/files/track_reader.h"
#include "capture/files/unit_reader.h"
#include "platform/h264/access_unit_writer.h"

namespace vesk::capture {

/// Pictures as they stand in the file: what is common to H.264, Motion JPEG and packed 4:2:2.
class PictureUnits : public UnitReader {
 public:
  explicit PictureUnits(std::unique_ptr<TrackReader> reader) : mReader(std::move(reader)) {}

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mReader->damage(); }

 protected:
  const TrackReader& track() const { return *mReader; }
  struct Picture {
    std::span<uint8_t> bytes;
    bool isKey = true;
  };
  /// The picture in the packet last read, ready for delivery; none when it is broken.
  virtual std::optional<Picture> picture(TrackReader& reader) = 0;

 private:
  const std::unique_ptr<TrackReader> mReader;
  int64_t mFrom = 0;
  bool mWaitsForKey = false;
};

/// H.264 whose pictures are shown in the order in which they stand.
class H264Units : public PictureUnits {
 public:
  explicit H264Units(std::unique_ptr<TrackReader> reader);

 protected:
  std::optional<Picture> picture(TrackReader& reader) override;

 private:
  h264::AccessUnitWriter mWriter;
};

/// Motion JPEG: every packet a picture of its own.
class MotionJPEGUnits : public PictureUnits {
 public:
  using PictureUnits::PictureUnits;

 protected:
  std::optional<Picture> picture(TrackReader& reader) override;
};

/// Packed 4:2:2 (UYVY) without padding.
class Packed422Units : public PictureUnits {
 public:
  Packed422Units(std::unique_ptr<TrackReader> reader, size_t pictureBytes)
      : PictureUnits(std::move(reader)), mPictureBytes(pictureBytes) {}

 protected:
  std::optional<Picture> picture(TrackReader& reader) override;

 private:
  const size_t mPictureBytes;
};

}  // namespace vesk::capture
