#pragma once

#include <memory>
#include <vector>

#include "capture/files/track_decoder.h"
#include "capture/files/unit_reader.h"
#include "platform/pixels/picture_conversion.h"

namespace vesk::capture {

/// Any footage that can be decoded, as packed 4:2:2 pictures of one size: that of the first. Others are scaled
/// to fit into it, in the middle of black.
class DecodedPictures : public UnitReader {
 public:
  DecodedPictures(std::unique_ptr<TrackDecoder> decoder, int width, int height);

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mDecoder->reader().damage(); }

 private:
  bool convert(const AVFrame& frame);

  const std::unique_ptr<TrackDecoder> mDecoder;
  const int mWidth;
  const int mHeight;
  Packed422Converter mConverter;
  std::vector<uint8_t> mPicture;
  std::vector<uint8_t> mOther;  ///< a picture of another size
  int64_t mFrom = 0;
  int64_t mTime = 0;
};

}  // namespace vesk::capture
