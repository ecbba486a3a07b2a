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
    const bool fits = frame->width / 2 == mWidth / 2 && frame->height == mHeight;
    if (fits && mConverter.convert(*frame, mWidth, mHeight, mPicture.data())) return MediaUnit{mPicture, mTime};
    mDecoder->reader().noteDamage(
        fmt::format("a picture of {}x{} stands among those of {}x{}", frame->width, frame->height, mWidth, mHeight));
  }
  return std::nullopt;
}

}  // namespace vesk::capture
