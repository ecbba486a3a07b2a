#include "platform/media/sound_resampler.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vesk {

void SoundResampler::process(std::span<const int16_t> in, double speed, std::vector<int16_t>& out) {
  if (in.empty()) return;
  // The first frame stands for the one before it too.
  if (mWaiting.empty()) mWaiting.assign(in.begin(), in.begin() + mChannels);
  mWaiting.insert(mWaiting.end(), in.begin(), in.end());
  const size_t count = frames();
  while (mPosition + 2 < static_cast<double>(count)) {
    const auto frame = static_cast<size_t>(mPosition);
    const double fraction = mPosition - static_cast<double>(frame);
    for (uint32_t channel = 0; channel < mChannels; ++channel) out.push_back(interpolate(frame, channel, fraction));
    mPosition += speed;
  }
  const auto done = std::min(static_cast<size_t>(mPosition) - 1, count - 1);
  mWaiting.erase(mWaiting.begin(), mWaiting.begin() + static_cast<std::ptrdiff_t>(done * mChannels));
  mPosition -= static_cast<double>(done);
}

void SoundResampler::restart() {
  mWaiting.clear();
  mPosition = 1;
}

double SoundResampler::heldFrames() const {
  return mWaiting.empty() ? 0 : static_cast<double>(frames()) - mPosition;
}

int16_t SoundResampler::interpolate(size_t frame, uint32_t channel, double fraction) const {
  const int16_t* at = mWaiting.data() + frame * mChannels + channel;
  const double before = *(at - mChannels);
  const double here = *at;
  const double next = *(at + mChannels);
  const double after = *(at + 2 * static_cast<std::ptrdiff_t>(mChannels));
  const double slope = (next - before) / 2;
  const double nextSlope = (after - here) / 2;
  const double square = 3 * (next - here) - 2 * slope - nextSlope;
  const double cube = 2 * (here - next) + slope + nextSlope;
  const double value = here + fraction * (slope + fraction * (square + fraction * cube));
  constexpr double kLeast = std::numeric_limits<int16_t>::min();
  constexpr double kMost = std::numeric_limits<int16_t>::max();
  return static_cast<int16_t>(std::lround(std::clamp(value, kLeast, kMost)));
}

}  // namespace vesk
