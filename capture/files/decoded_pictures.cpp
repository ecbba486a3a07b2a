#include "capture/files/decoded_pictures.h"

#include <fmt/format.h>

#include <algorithm>

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
  const int width = frame.width & ~1;
  if (width == mWidth && frame.height == mHeight) return mConverter.convert(frame, mWidth, mHeight, mPicture.data());
  if (width <= 0 || frame.height <= 0 || int64_t{width} * frame.height > kMaxFrameBytes / 2) return false;
  mOther.resize(size_t{2} * width * frame.height);
  return mConverter.convert(frame, width, frame.height, mOther.data()) &&
         mConverter.fit(mOther, width, frame.height, mWidth, mHeight, mPicture.data());
}

}  // namespace vesk::capture
