#include "capture/files/decoded_frames.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/decompression/av_layout.h"

namespace vesk::capture {

DecodedFrames::DecodedFrames(std::unique_ptr<TrackDecoder> decoder, int width, int height)
    : mDecoder(std::move(decoder)), mWidth(width), mHeight(height), mFrame(size_t{2} * width * height) {}

bool DecodedFrames::start(int64_t time, bool) {
  mFrom = time;
  mTime = 0;
  return mDecoder->start(time);
}

std::optional<MediaUnit> DecodedFrames::next() {
  while (const AVFrame* frame = mDecoder->next()) {
    mTime = std::max<int64_t>(mDecoder->time().value_or(mTime + mDecoder->reader().choice().timeOfPackets(1)), 0);
    if (mTime < mFrom) continue;
    if (convert(*frame)) return MediaUnit{mFrame, mTime};
    mDecoder->reader().noteDamage(
        fmt::format("a picture of {}x{} is in a format that cannot be converted", frame->width, frame->height));
  }
  return std::nullopt;
}

bool DecodedFrames::convert(const AVFrame& frame) {
  RawPicture raw = rawPictureOf(frame);
  raw.width &= ~1;
  if (raw.width == mWidth && raw.height == mHeight) return mConverter.convert(raw, mFrame.data());
  if (raw.width <= 0 || raw.height <= 0) return false;
  if (int64_t{raw.width} * raw.height > kMaxFrameBytes / 2) return false;
  mOther.resize(size_t{2} * static_cast<size_t>(raw.width) * static_cast<size_t>(raw.height));
  return mConverter.convert(raw, mOther.data()) &&
         mConverter.fit(mOther, raw.width, raw.height, mWidth, mHeight, mFrame.data());
}

}  // namespace vesk::capture
