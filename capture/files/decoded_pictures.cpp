#include "capture/files/decoded_pictures.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/decompression/av_layout.h"

namespace vesk::capture {

DecodedPictures::DecodedPictures(std::unique_ptr<TrackDecoder> decoder, int width, int height)
    : mDecoder(std::move(decoder)), mWidth(width), mHeight(height), mPicture(size_t{2} * width * height) {}

bool DecodedPictures::start(int64_t time, bool) {
  mFrom = time;
  mTime = 0;
  return mDecoder->start(time);
}

std::optional<MediaUnit> DecodedPictures::next() {
  while (const AVFrame* frame = mDecoder->next()) {
    mTime = std::max<int64_t>(mDecoder->time().value_or(mTime + mDecoder->reader().choice().timeOfPackets(1)), 0);
    if (mTime < mFrom) continue;
    if (convert(*frame)) return MediaUnit{mPicture, mTime};
    mDecoder->reader().noteDamage(
        fmt::format("a picture of {}x{} is of a form that cannot be converted", frame->width, frame->height));
  }
  return std::nullopt;
}

bool DecodedPictures::convert(const AVFrame& frame) {
  RawPicture picture = rawPictureOf(frame);
  picture.width &= ~1;
  if (picture.width == mWidth && picture.height == mHeight) return mConverter.convert(picture, mPicture.data());
  if (picture.width <= 0 || picture.height <= 0) return false;
  if (int64_t{picture.width} * picture.height > kMaxFrameBytes / 2) return false;
  mOther.resize(size_t{2} * static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height));
  return mConverter.convert(picture, mOther.data()) &&
         mConverter.fit(mOther, picture.width, picture.height, mWidth, mHeight, mPicture.data());
}

}  // namespace vesk::capture
