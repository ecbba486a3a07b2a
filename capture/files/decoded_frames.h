#pragma once

#include <memory>
#include <vector>

#include "capture/files/track_decoder.h"
#include "capture/files/unit_reader.h"
#include "platform/pixels/picture_conversion.h"

namespace vesk::capture {

/// Any footage that can be decoded, as packed 4:2:2 frames of one size: that of the first. Others are scaled
/// to fit into it, in the middle of black.
class DecodedFrames : public UnitReader {
 public:
  DecodedFrames(std::unique_ptr<TrackDecoder> decoder, int width, int height);

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mDecoder->reader().damage(); }

 private:
  bool convert(const AVFrame& frame);

  const std::unique_ptr<TrackDecoder> mDecoder;
  const int mWidth;
  const int mHeight;
  Packed422Converter mConverter;
  std::vector<uint8_t> mFrame;
  std::vector<uint8_t> mOther;  ///< a frame of another size
  int64_t mFrom = 0;
  int64_t mTime = 0;
};

}  // namespace vesk::capture
