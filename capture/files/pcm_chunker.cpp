#include "capture/files/pcm_chunker.h"

#include <algorithm>
#include <cstdlib>

namespace vesk::capture {

namespace {

/// Containers round their times to a millisecond or so; what is off by more is a jump.
constexpr int64_t kJump = 10000;

}  // namespace

PcmChunker::PcmChunker(uint32_t samplesPerSecond, uint16_t channels)
    : mRate(samplesPerSecond), mFrameBytes(size_t{2} * channels), mPacketBytes(mFrameBytes * kPacketFrames) {
  mLeftOver.reserve(mPacketBytes);
}

void PcmChunker::restart(int64_t from) {
  mFrom = from;
  mAnchor.reset();
  mJump.reset();
  mFramesOut = 0;
  mPortion = {};
  mLeftOver.clear();
  mLeftOverIsOut = false;
}

int64_t PcmChunker::frameTime(int64_t frame) const {
  return mAnchor.value_or(0) + (frame * 1000000 + mRate / 2) / mRate;
}

void PcmChunker::give(std::span<uint8_t> bytes, std::optional<int64_t> time) {
  if (mLeftOverIsOut) {
    mLeftOver.clear();
    mLeftOverIsOut = false;
  }
  const int64_t expected = frameTime(mFramesOut + static_cast<int64_t>(mLeftOver.size() / mFrameBytes));
  int64_t begin = time.value_or(mAnchor ? expected : 0);
  if (begin < mFrom) {
    const int64_t missing = std::min<int64_t>(mFrom - begin, int64_t{1} << 40);
    const auto early = static_cast<size_t>((missing * mRate + 999999) / 1000000);
    const size_t cut = std::min(bytes.size(), early * mFrameBytes);
    bytes = bytes.subspan(cut);
    begin = std::max(begin + static_cast<int64_t>(cut / mFrameBytes) * 1000000 / mRate, mFrom);
  }
  mPortion = bytes;
  if (bytes.empty()) return;
  if (!mAnchor || std::llabs(begin - expected) > kJump) mJump = std::max<int64_t>(begin, 0);
}

std::optional<MediaUnit> PcmChunker::take(bool end) {
  if (mLeftOverIsOut) {
    mLeftOver.clear();
    mLeftOverIsOut = false;
  }
  if (mJump) {
    if (auto unit = rest()) return unit;
    mLeftOver.clear();
    mAnchor = mJump;
    mJump.reset();
    mFramesOut = 0;
  }
  if (mLeftOver.empty() && mPortion.size() >= mPacketBytes) {
    const auto whole = mPortion.first(mPacketBytes);
    mPortion = mPortion.subspan(mPacketBytes);
    return packet(whole);
  }
  const size_t moved = std::min(mPacketBytes - mLeftOver.size(), mPortion.size());
  mLeftOver.insert(mLeftOver.end(), mPortion.begin(), mPortion.begin() + static_cast<ptrdiff_t>(moved));
  mPortion = mPortion.subspan(moved);
  return mLeftOver.size() == mPacketBytes || end ? rest() : std::nullopt;
}

std::optional<MediaUnit> PcmChunker::rest() {
  const size_t bytes = wholeFrames(mLeftOver.size());
  if (bytes == 0) return std::nullopt;
  mLeftOverIsOut = true;
  return packet(std::span(mLeftOver).first(bytes));
}

std::optional<MediaUnit> PcmChunker::packet(std::span<uint8_t> bytes) {
  const MediaUnit unit{bytes, frameTime(mFramesOut)};
  mFramesOut += static_cast<int64_t>(bytes.size() / mFrameBytes);
  return unit;
}

}  // namespace vesk::capture
