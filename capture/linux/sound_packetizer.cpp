#include "capture/linux/sound_packetizer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace vesk::capture {
namespace {

constexpr uint32_t kPacketsPerSecond = 50;
constexpr double kMostCorrection = 500e-6;  // of the speed: beyond that the ear may notice
constexpr double kCorrectionSeconds = 10;   // in which the count makes up for what it is off
constexpr double kFarOff = 40'000;          // microseconds: beyond that lips and voice come apart,
constexpr double kFastCorrection = 3e-3;    // which is worse than a twentieth of a semitone

}  // namespace

SoundPacketizer::SoundPacketizer(const WaveFormat& format, Callback callback)
    : mRate(std::max(format.samplesPerSecond, kPacketsPerSecond)),
      mChannels(std::max<uint32_t>(format.channels, 1)),
      mPacketSamples(size_t{mRate / kPacketsPerSecond} * mChannels),
      mCallback(std::move(callback)),
      mClock(mRate),
      mResampler(mChannels) {}

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

/// Completes the frame that the last portion ended in; answers the bytes after it.
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
  mHasLost = true;
  mSplitFrame.clear();
  mClock.lose(frames);
}

void SoundPacketizer::addFrames(std::span<const int16_t> samples, int64_t time) {
  const auto stamp = mClock.next(time, samples.size() / mChannels);
  if (!mHasBegun) {
    mHasBegun = true;
    mOrigin = stamp.time;
  } else if (stamp.missingTime > 0 || mHasLost) {
    leaveGap(lateness(stamp.time, 0));
  }
  mHasLost = false;
  mResampler.process(samples, correctedSpeed(stamp.time), mSamples);
  deliver();
}

/// The packet in the making ends in silence; what is missing beyond it is left to the stamps.
void SoundPacketizer::leaveGap(double missing) {
  mResampler.restart();
  const auto frames = static_cast<uint64_t>(std::llround(std::max(missing, 0.0) * mRate / 1e6));
  const uint64_t room = (mPacketSamples - mSamples.size()) / mChannels;
  const bool isBegun = !mSamples.empty();
  const uint64_t silent = isBegun ? std::min(frames, room) : 0;
  mSamples.resize(mSamples.size() + silent * mChannels, 0);
  deliver();
  mOutTime += duration(static_cast<double>(frames - silent));
}

/// By how many microseconds the count of frames, `heldFrames` among them, is behind `time`.
double SoundPacketizer::lateness(int64_t time, double heldFrames) const {
  const double counted = mOutTime + duration(static_cast<double>(mSamples.size()) / mChannels + heldFrames);
  return static_cast<double>(time - mOrigin) - counted;
}

/// The device's speed, and a little more or less while the count of frames is off.
double SoundPacketizer::correctedSpeed(int64_t time) const {
  const double late = lateness(time, mResampler.heldFrames());
  const double most = std::abs(late) > kFarOff ? kFastCorrection : kMostCorrection;
  const double correction = std::clamp(-late / (kCorrectionSeconds * 1e6), -most, most);
  return mClock.speed() + correction;
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
