#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include <vesk/sample_generators.h>
#include "tests/support/captured_lines.h"
#include "tests/support/drifting_microphone.h"

namespace vesk {
namespace {

using test::CapturedLines;
using test::DriftingMicrophone;

constexpr double kSecond = 1e6;

/// A track of mono sound as the generator places it.
class Track {
 public:
  explicit Track(uint32_t rate, FrameTiming timing = FrameTiming::kCapture)
      : mRate(rate), mGenerator(rate, 1, 16, timing) {}

  /// The sample that a packet became; null for none.
  CMSampleBufferRef add(const std::vector<int16_t>& packet, int64_t timestamp) {
    auto sample = mGenerator.CreateSample(reinterpret_cast<const uint8_t*>(packet.data()),
                                          static_cast<unsigned>(packet.size() * 2), static_cast<uint64_t>(timestamp));
    if (!sample) return nullptr;
    silence += sample->attachments().insertedSilence;
    const auto at = static_cast<double>(sample->presentationTimeStamp().value);
    if (mFrames == 0) mBegin = at;
    EXPECT_NEAR(at, mBegin + static_cast<double>(mFrames) * kSecond / mRate, 1) << "the track counts frames";
    mFrames += sample->numSamples();
    return sample;
  }

  uint64_t silence = 0;  ///< frames

 private:
  const uint32_t mRate;
  PCMAudioSampleGenerator mGenerator;
  double mBegin = 0;
  uint64_t mFrames = 0;
};

std::vector<int16_t> soundOf(const CMSampleBuffer& sample) {
  const auto* samples = reinterpret_cast<const int16_t*>(sample.data().data());
  return {samples, samples + sample.numSamples()};
}

class Drift : public testing::TestWithParam<double> {};
INSTANTIATE_TEST_SUITE_P(Crystals, Drift, testing::Values(-500.0, 500.0));

/// The sound tells when it was recorded: it counts the milliseconds. How many frames there are a second makes no
/// difference but to the time that this takes.
TEST_P(Drift, SoundStaysWithinTwentyMillisecondsOfItsCaptureTimeForFourHours) {
  constexpr uint32_t kRate = 250;
  constexpr double kRange = 20'000;
  DriftingMicrophone microphone(kRate, GetParam(), 5'000, 7'000'000);
  Track track(kRate);
  std::vector<int16_t> packet(25);
  double worst = 0;
  while (microphone.truth() < 4 * 3600 * kSecond) {
    for (size_t i = 0; i < packet.size(); ++i)
      packet[i] = static_cast<int16_t>(std::fmod(microphone.truth(i) / 1000, kRange) - kRange / 2);
    const auto sample = track.add(packet, microphone.measure());
    microphone.advance(packet.size());
    ASSERT_TRUE(sample);
    const double shownAt = std::fmod(static_cast<double>(sample->presentationTimeStamp().value) / 1000, kRange);
    if (shownAt < 100 || shownAt > kRange - 100) continue;  // where the count begins anew
    const double capturedAt = *reinterpret_cast<const int16_t*>(sample->data().data()) + kRange / 2;
    worst = std::max(worst, std::abs(shownAt - capturedAt));
  }
  EXPECT_LT(worst, 10);
  EXPECT_EQ(track.silence, 0U);
}

/// The energy of `sound` further than 100 Hz from its tone, in decibels of the tone.
double noiseBeside(double frequency, uint32_t rate, std::span<const double> sound) {
  constexpr double kResolution = 20;  // hertz
  const size_t count = static_cast<size_t>(rate / kResolution);
  double loudest = -300;
  for (size_t at = 0; at + count <= sound.size(); at += count / 2) {
    std::vector<double> windowed(count);
    double all = 0;
    for (size_t i = 0; i < count; ++i) {  // Blackman and Harris: its side lobes are at -92 dB
      const double x = 2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(count);
      const double window = 0.35875 - 0.48829 * std::cos(x) + 0.14128 * std::cos(2 * x) - 0.01168 * std::cos(3 * x);
      windowed[i] = window * sound[at + i];
      all += windowed[i] * windowed[i];
    }
    double tone = 0;
    for (double each = frequency - 100; each <= frequency + 100; each += kResolution) {
      const auto turn = std::polar(1.0, -2 * std::numbers::pi * each / rate);
      std::complex<double> sum;
      for (size_t i = count; i-- > 0;) sum = sum * turn + windowed[i];
      tone += 2 * std::norm(sum) / static_cast<double>(count);
    }
    loudest = std::max(loudest, 10 * std::log10(std::max(all - tone, 1e-6) / tone));
  }
  return loudest;
}

TEST_P(Drift, IsCorrectedWithoutAClick) {
  constexpr uint32_t kRate = 48'000;
  DriftingMicrophone microphone(kRate, GetParam(), 3'000, 7'000'000);
  Track track(kRate);
  std::vector<int16_t> packet(960);
  std::vector<double> heard;
  bool isResampled = false;
  while (microphone.truth() < 25 * kSecond) {
    for (size_t i = 0; i < packet.size(); ++i) {
      const double turns = 1000 * microphone.truth(i) / kSecond;
      packet[i] = static_cast<int16_t>(std::lround(20'000 * std::sin(2 * std::numbers::pi * turns)));
    }
    const auto sample = track.add(packet, microphone.measure());
    microphone.advance(packet.size());
    ASSERT_TRUE(sample);
    const auto sound = soundOf(*sample);
    isResampled = isResampled || sound.size() != packet.size();
    heard.insert(heard.end(), sound.begin(), sound.end());
  }
  EXPECT_TRUE(isResampled);
  EXPECT_LT(noiseBeside(1000, kRate, heard), -85);
  // What the measure says of a click: one frame left out.
  heard.resize(kRate);
  heard.erase(heard.begin() + kRate / 2);
  EXPECT_GT(noiseBeside(1000, kRate, heard), -40);
}

/// Sound of a source that corrects it already, or whose stamps jitter a little, is not touched.
TEST(DriftCorrection, PassesSoundThatIsInTimeBitForBit) {
  struct Row {
    const char* label;
    double jitter;
    uint32_t rate;
    size_t frames;
  };
  for (const Row& row : {Row{"stamps rounded", 0, 44'100, 1024}, Row{"one millisecond off", 1'000, 16'000, 1024},
                         Row{"small packets", 0, 48'000, 48}, Row{"large packets", 0, 8'000, 16'000}}) {
    SCOPED_TRACE(row.label);
    DriftingMicrophone microphone(row.rate, 0, row.jitter, 7'000'000);
    Track track(row.rate);
    std::vector<int16_t> packet(row.frames);
    for (int16_t count = 0; count < 3'000; ++count) {
      for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<int16_t>(i * 31 + static_cast<size_t>(count));
      const auto sample = track.add(packet, microphone.measure());
      microphone.advance(packet.size());
      ASSERT_TRUE(sample);
      ASSERT_EQ(soundOf(*sample), packet);
    }
  }
}

/// What was lost is silence of its own length at its own place, at once.
TEST(DriftCorrection, LeavesGapsWhereTheyWere) {
  struct Row {
    const char* label;
    double partsPerMillion, jitter;
    uint64_t lost;     ///< frames of 1/48000 s
    double tolerance;  ///< microseconds
  };
  constexpr uint32_t kRate = 48'000;
  const Row rows[] = {
      {"one packet", 0, 0, 960, 100},
      {"one packet, jitter", 0, 3'000, 960, 5'000},
      {"one packet while it is corrected", 400, 0, 960, 500},
      {"ten packets and a half", 0, 0, 10'080, 100},
      {"the machine slept for 20 s", 400, 0, 20 * 48'000 + 77, 500},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    CapturedLines lines;
    DriftingMicrophone microphone(kRate, row.partsPerMillion, row.jitter, 7'000'000);
    Track track(kRate);
    const std::vector<int16_t> packet(960, 1000);
    for (int i = 0; i < 2'000; ++i) {
      track.add(packet, microphone.measure());
      microphone.advance(960);
    }
    EXPECT_EQ(track.silence, 0U);
    microphone.advance(row.lost);
    const auto sample = track.add(packet, microphone.measure());
    ASSERT_TRUE(sample);
    const uint32_t silence = sample->attachments().insertedSilence;
    const double lost = static_cast<double>(row.lost) * kSecond / kRate;
    EXPECT_NEAR(silence * kSecond / kRate, lost, row.tolerance + lost * 1e-3);
    const auto sound = soundOf(*sample);
    EXPECT_EQ(std::count(sound.begin(), sound.end(), 0), silence);
    EXPECT_EQ(sound.back(), 1000);
    const double heardAt = static_cast<double>(sample->presentationTimeStamp().value) + silence * kSecond / kRate;
    EXPECT_NEAR(heardAt, microphone.truth(), row.tolerance);
    EXPECT_EQ(lines.count("[WARNING]: Inserting"), 1U);
    for (int i = 0; i < 500; ++i) {
      microphone.advance(960);
      track.add(packet, microphone.measure());
    }
    EXPECT_EQ(track.silence, silence);
  }
}

/// A stamp may be late by chance, which cannot be told from a gap; but only once.
TEST(DriftCorrection, TakesStampsThatAreLateByChanceForAGapOnlyOnce) {
  constexpr uint32_t kRate = 1'000;
  CapturedLines lines;
  DriftingMicrophone microphone(kRate, 0, 0, 7'000'000);
  Track track(kRate);
  const std::vector<int16_t> packet(20, 1000);
  int64_t last = 0;
  for (int i = 0; i < 30'000; ++i) {
    last = std::max(last, microphone.measure() + (i % 500 == 499 ? 35'000 : 0));
    track.add(packet, last);
    microphone.advance(20);
  }
  EXPECT_EQ(track.silence, 35U);
}

TEST(DriftCorrection, LeavesOtherTimingAndOtherSamplesAlone) {
  CapturedLines lines;
  for (const auto& [timing, bits] :
       {std::pair(FrameTiming::kSteady, uint16_t{16}), std::pair(FrameTiming::kCapture, uint16_t{24})}) {
    PCMAudioSampleGenerator generator(1'000, 1, bits, timing);
    const std::vector<uint8_t> packet(size_t{bits} / 8 * 100, 1);
    for (uint64_t i = 0; i < 1'000; ++i) {
      const auto sample = generator.CreateSample(packet.data(), static_cast<unsigned>(packet.size()), i * 99'950);
      ASSERT_TRUE(sample);
      ASSERT_EQ(sample->numSamples(), 100U);
      ASSERT_EQ(sample->presentationTimeStamp().value, static_cast<int64_t>(i * 100'000));
    }
  }
}

}  // namespace
}  // namespace vesk
