#include "capture/linux/sound/packetizer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace vesk::capture {
namespace {

constexpr uint32_t kPacketsPerSecond = 50;

}  // namespace

SoundPacketizer::SoundPacketizer(const WaveFormat& format, Callback callback)
    : mRate(std::max(format.samplesPerSecond, kPacketsPerSecond)),
      mChannels(std::max<uint32_t>(format.channels, 1)),
      mPacketSamples(size_t{mRate / kPacketsPerSecond} * mChannels),
      mCallback(std::move(callback)),
      mResampler(mRate, mChannels) {}

void SoundPacketizer::add(std::span<const uint8_t> bytes, int64_t time) {
  bytes = joinSplitFrame(bytes, time);
  const size_t frameBytes = mChannels * sizeof(int16_t);
  const size_t whole = bytes.size() / frameBytes * frameBytes;
  if (whole > 0) {
    mWhole.resize(whole / sizeof(int16_t));
    std::memcpy(mWhole.data(), bytes.data(), whole);
    addFrames(mWhole, time);
  }
  const auto rest = bytes.subspan(whole);
  mSplitFrame.insert(mSplitFrame.end(), rest.begin(), rest.end());
}

/// Completes the frame that the last block ended in; answers the bytes after it.
std::span<const uint8_t> SoundPacketizer::joinSplitFrame(std::span<const uint8_t> bytes, int64_t time) {
  if (mSplitFrame.empty()) return bytes;
  const size_t frameBytes = mChannels * sizeof(int16_t);
  const size_t missing = std::min(frameBytes - mSplitFrame.size(), bytes.size());
  mSplitFrame.insert(mSplitFrame.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(missing));
  if (mSplitFrame.size() < frameBytes) return {};
  mWhole.resize(mChannels);
  std::memcpy(mWhole.data(), mSplitFrame.data(), frameBytes);
  mSplitFrame.clear();
  addFrames(mWhole, time);
  return bytes.subspan(missing);
}

void SoundPacketizer::lose(uint64_t frames) {
  mSplitFrame.clear();
  mResampler.lose(frames);
}

void SoundPacketizer::addFrames(std::span<const int16_t> samples, int64_t time) {
  if (!mHasBegun) mOrigin = time;
  mHasBegun = true;
  const uint64_t missing = mResampler.announce(time, samples.size() / mChannels);
  if (missing > 0) leaveGap(missing);
  mResampler.resample(samples, mSamples);
  deliver();
}

/// Silence ends the packet in the making and begins the next one; whole packets between are left to the stamps.
void SoundPacketizer::leaveGap(uint64_t frames) {
  const uint64_t packetFrames = mPacketSamples / mChannels;
  const uint64_t begun = mSamples.size() / mChannels;
  const uint64_t silent = begun > 0 ? std::min(frames, packetFrames - begun) : 0;
  mSamples.resize(mSamples.size() + silent * mChannels, 0);
  deliver();
  const uint64_t next = (frames - silent) % packetFrames;
  mOutTime += duration(static_cast<double>(frames - silent - next));
  mSamples.resize(mSamples.size() + next * mChannels, 0);
}

void SoundPacketizer::deliver() {
  size_t done = 0;
  while (mIsWanted && mSamples.size() - done >= mPacketSamples) {
    const int64_t timestamp = mOrigin + std::llround(mOutTime);
    mOutTime += duration(static_cast<double>(mPacketSamples) / mChannels);
    auto* bytes = reinterpret_cast<uint8_t*>(mSamples.data() + done);
    done += mPacketSamples;
    mIsWanted = mCallback(bytes, static_cast<uint32_t>(mPacketSamples * sizeof(int16_t)), timestamp);
  }
  if (!mIsWanted) {
    mSamples.clear();
    return;
  }
  mSamples.erase(mSamples.begin(), mSamples.begin() + static_cast<std::ptrdiff_t>(done));
}

}  // namespace vesk::capture
