#include "sessions/sound_watch.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <vesk/four_char_code.h>
#include "platform/metering/channel_squares.h"

namespace vesk {
namespace {

constexpr double kFullScale = 32768;

uint32_t measuredChannels(const AudioStreamBasicDescription& description) {
  const bool isMeasurable = description.mFormatID == kWaveFormatLinearPCM && description.mBitsPerChannel == 16;
  return isMeasurable && description.mSampleRate > 0 ? description.mChannelsPerFrame : 0;
}

}  // namespace

SoundWatch::SoundWatch(const CMAudioFormatDescription& format)
    : mChannels(measuredChannels(format.streamBasicDescription())),
      mRate(format.streamBasicDescription().mSampleRate),
      mLevel(-std::numeric_limits<float>::infinity()) {}

void SoundWatch::didCaptureFrame(void* packet, uint32_t length, int64_t /*timestamp*/,
                                 const std::shared_ptr<VeskDeviceInfo>& /*device*/) {
  ++mPackets;
  if (mChannels == 0) return;
  const size_t frameBytes = size_t{mChannels} * sizeof(int16_t);
  const size_t frames = length / frameBytes;
  if (frames == 0) return;
  const ChannelSquares squares = channelSquares(static_cast<const uint8_t*>(packet), frames, mChannels);
  const double loudest =
      static_cast<double>(*std::max_element(squares.begin(), squares.end())) / static_cast<double>(frames);
  const auto level = static_cast<float>(10 * std::log10(loudest / (kFullScale * kFullScale)));
  mLevel = level;
  if (level > kQuietSoundLevel) {
    mWasHeard = true;
    mQuietFrames = 0;
  } else {
    mQuietFrames += frames;
  }
}

double SoundWatch::quietFor() const {
  return mChannels == 0 ? 0 : static_cast<double>(mQuietFrames) / mRate;
}

}  // namespace vesk
