#include "platform/media/sound_resampler.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>

namespace vesk {
namespace {

constexpr size_t kPhases = 256;  // between which the sinc is interpolated: at -104 dB
constexpr double kBeta = 8;      // of Kaiser's window: at -80 dB outside its band

}  // namespace

/// The sinc at each phase, each adding up to one.
struct SoundResampler::Kernel {
  std::array<std::array<float, kTaps>, kPhases + 1> taps;

  Kernel() {
    for (size_t phase = 0; phase <= kPhases; ++phase) {
      std::array<double, kTaps> exact;
      double sum = 0;
      for (size_t tap = 0; tap < kTaps; ++tap) {
        const double x = static_cast<double>(tap) - kBefore - static_cast<double>(phase) / kPhases;
        const double turn = std::numbers::pi * x;
        const double edge = x / kAfter;
        const double window = std::cyl_bessel_i(0, kBeta * std::sqrt(std::max(1 - edge * edge, 0.0)));
        exact[tap] = (x == 0 ? 1 : std::sin(turn) / turn) * window;
        sum += exact[tap];
      }
      for (size_t tap = 0; tap < kTaps; ++tap) taps[phase][tap] = static_cast<float>(exact[tap] / sum);
    }
  }
  static const Kernel& shared() {
    static const Kernel kernel;
    return kernel;
  }
};

SoundResampler::SoundResampler(uint32_t channels) : mChannels(channels) {}

void SoundResampler::process(std::span<const int16_t> in, double speed, std::vector<int16_t>& out) {
  if (in.empty()) return;
  // The first frame stands for those before it too.
  if (mWaiting.empty())
    for (size_t i = 0; i < kBefore; ++i) mWaiting.insert(mWaiting.end(), in.begin(), in.begin() + mChannels);
  mWaiting.insert(mWaiting.end(), in.begin(), in.end());
  const size_t count = frames();
  const Kernel& kernel = Kernel::shared();  // made for the first sound that needs it, which most never does
  while (mPosition + kAfter < static_cast<double>(count)) {
    appendFrame(kernel, out);
    mPosition += speed;
  }
  const auto done = std::min(static_cast<size_t>(mPosition) - kBefore, count - 1);
  mWaiting.erase(mWaiting.begin(), mWaiting.begin() + static_cast<std::ptrdiff_t>(done * mChannels));
  mPosition -= static_cast<double>(done);
}

void SoundResampler::restart() {
  mWaiting.clear();
  mPosition = kBefore;
}

double SoundResampler::heldFrames() const {
  return mWaiting.empty() ? 0 : static_cast<double>(frames()) - mPosition;
}

void SoundResampler::appendFrame(const Kernel& kernel, std::vector<int16_t>& out) const {
  const auto frame = static_cast<size_t>(mPosition);
  const double phases = (mPosition - static_cast<double>(frame)) * kPhases;
  const auto phase = static_cast<size_t>(phases);
  const auto part = static_cast<float>(phases - static_cast<double>(phase));
  const auto& taps = kernel.taps[phase];
  const auto& next = kernel.taps[phase + 1];
  std::array<float, kTaps> here;
  for (size_t tap = 0; tap < kTaps; ++tap) here[tap] = taps[tap] + part * (next[tap] - taps[tap]);

  const int16_t* samples = mWaiting.data() + (frame - kBefore) * mChannels;
  for (uint32_t channel = 0; channel < mChannels; ++channel, ++samples) {
    float value = 0;
    for (size_t tap = 0; tap < kTaps; ++tap) value += here[tap] * samples[tap * mChannels];
    constexpr float kLeast = std::numeric_limits<int16_t>::min();
    constexpr float kMost = std::numeric_limits<int16_t>::max();
    out.push_back(static_cast<int16_t>(std::lround(std::clamp(value, kLeast, kMost))));
  }
}

}  // namespace vesk
