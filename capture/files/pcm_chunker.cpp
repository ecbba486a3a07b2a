#include "capture/files/pcm_chunker.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <limits>

namespace vesk::capture {

namespace {

/// Containers round their times to a millisecond or so; what is off by more is a jump.
constexpr int64_t kJump = 10000;
constexpr int64_t kFrame = 1000000;  // millionths
/// The fewest.
constexpr uint32_t kPacketsPerSecond = 20;

}  // namespace

PcmChunker::PcmChunker(uint32_t samplesPerSecond, uint16_t channels, std::optional<Loop> loop)
    : mRate(samplesPerSecond),
      mFrameBytes(size_t{2} * channels),
      mPacketBytes(mFrameBytes * std::bit_floor(std::max(samplesPerSecond / kPacketsPerSecond, 1U))),
      mLoop(loop) {
  mLeftOver.reserve(mPacketBytes);
}

void PcmChunker::restart(int64_t from, bool again) {
  mRemainder = again ? std::clamp<int64_t>(millionthsToEnd(), -kFrame, kFrame) : 0;
  mFrom = from;
  mAnchor = again && mLoop ? std::optional(from) : std::nullopt;
  mJump.reset();
  mFramesOut = 0;
  mSilentFrames = 0;
  mInput = {};
  mLeftOver.clear();
  mLeftOverIsOut = false;
}

int64_t PcmChunker::frameTime(int64_t frame) const {
  return mAnchor.value_or(0) + (frame * 1000000 + mRate / 2) / mRate;
}

/// Of this stretch, delivered or not.
int64_t PcmChunker::framesTaken() const {
  const size_t bytes = (mLeftOverIsOut ? 0 : mLeftOver.size()) + mInput.size();
  return mFramesOut + mSilentFrames + static_cast<int64_t>(bytes / mFrameBytes);
}

/// Frames that this stretch still lacks to the loop's end, which without a loop is never.
int64_t PcmChunker::framesToEnd() const {
  if (!mLoop || !mAnchor || mJump) return std::numeric_limits<int64_t>::max();
  return (millionthsToEnd() + kFrame / 2) / kFrame;
}

/// The same in millionths of a frame. A turn is no whole number of frames long, which adds up over many.
int64_t PcmChunker::millionthsToEnd() const {
  if (!mLoop || !mAnchor) return 0;
  return (mLoop->end - *mAnchor) * mRate + mRemainder - framesTaken() * kFrame;
}

void PcmChunker::give(std::span<uint8_t> bytes, std::optional<int64_t> time) {
  if (mLeftOverIsOut) {
    mLeftOver.clear();
    mLeftOverIsOut = false;
  }
  const int64_t expected = frameTime(framesTaken());
  int64_t begin = time.value_or(mAnchor ? expected : 0);
  if (begin < mFrom) {
    const int64_t missing = std::min<int64_t>(mFrom - begin, int64_t{1} << 40);
    const auto early = static_cast<size_t>((missing * mRate + 999999) / 1000000);
    const size_t cut = std::min(bytes.size(), early * mFrameBytes);
    bytes = bytes.subspan(cut);
    begin = std::max(begin + static_cast<int64_t>(cut / mFrameBytes) * 1000000 / mRate, mFrom);
  }
  mInput = {};
  if (bytes.empty()) return;
  if (mLoop && begin >= mLoop->end) return;
  if (!mAnchor || std::llabs(begin - expected) > kJump) {
    if (mLoop && mAnchor && begin > expected)
      mSilentFrames = (begin - expected) * mRate / 1000000;
    else
      mJump = std::max<int64_t>(begin, 0);
  }
  if (mLoop) {
    const int64_t room = mJump ? (mLoop->end - *mJump) * mRate / 1000000 : framesToEnd();
    bytes = bytes.first(std::min(bytes.size(), static_cast<size_t>(std::max<int64_t>(room, 0)) * mFrameBytes));
  }
  mInput = bytes;
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
  if (end && mLoop && mAnchor && mInput.empty()) mSilentFrames += std::max<int64_t>(framesToEnd(), 0);
  if (mSilentFrames > 0) {
    mLeftOver.resize(wholeFrames(mLeftOver.size()));
    const size_t room = (mPacketBytes - mLeftOver.size()) / mFrameBytes;
    const auto frames = std::min<int64_t>(static_cast<int64_t>(room), mSilentFrames);
    mLeftOver.resize(mLeftOver.size() + static_cast<size_t>(frames) * mFrameBytes);
    mSilentFrames -= frames;
    if (mLeftOver.size() == mPacketBytes) return rest();
  }
  if (mLeftOver.empty() && mInput.size() >= mPacketBytes) {
    const auto whole = mInput.first(mPacketBytes);
    mInput = mInput.subspan(mPacketBytes);
    return packet(whole);
  }
  const size_t moved = std::min(mPacketBytes - mLeftOver.size(), mInput.size());
  mLeftOver.insert(mLeftOver.end(), mInput.begin(), mInput.begin() + static_cast<ptrdiff_t>(moved));
  mInput = mInput.subspan(moved);
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
