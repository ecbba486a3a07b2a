#include "sessions/sound_watch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <vesk/four_char_code.h>

namespace vesk {
namespace {

CMAudioFormatDescriptionRef format(uint32_t codec, uint32_t channels) {
  AudioStreamBasicDescription description;
  description.mFormatID = codec;
  description.mSampleRate = 48000;
  description.mChannelsPerFrame = channels;
  description.mBitsPerChannel = 16;
  return CMAudioFormatDescription::create(description);
}

/// `count` packets of 10 ms with this value in the last channel and nothing in the others.
void send(SoundWatch& watch, int count, int16_t value, uint32_t channels = 1) {
  std::vector<int16_t> packet(size_t{480} * channels);
  for (size_t i = channels - 1; i < packet.size(); i += channels) packet[i] = value;
  for (int i = 0; i < count; ++i)
    watch.didCaptureFrame(packet.data(), static_cast<uint32_t>(packet.size() * sizeof(int16_t)), i, nullptr);
}

TEST(SoundWatch, MeasuresTheLoudestChannel) {
  for (const uint32_t channels : {1U, 2U, 12U}) {
    SoundWatch watch(*format(kWaveFormatLinearPCM, channels));
    send(watch, 1, channels > 8 ? 0 : 3277, channels);
    if (channels > 8)
      EXPECT_TRUE(std::isinf(watch.level()));
    else
      EXPECT_NEAR(watch.level(), -20, 0.1);
  }
}

TEST(SoundWatch, KnowsForHowLongItHasBeenQuiet) {
  SoundWatch watch(*format(kWaveFormatLinearPCM, 2));
  EXPECT_EQ(watch.quietFor(), 0);
  send(watch, 500, 20, 2);  // -64 dB
  EXPECT_FALSE(watch.wasHeard());
  EXPECT_NEAR(watch.quietFor(), 5, 0.01);
  send(watch, 1, 60, 2);  // -55 dB
  EXPECT_TRUE(watch.wasHeard());
  EXPECT_EQ(watch.quietFor(), 0);
  send(watch, 100, 0, 2);
  EXPECT_NEAR(watch.quietFor(), 1, 0.01);
}

TEST(SoundWatch, DoesNotMeasureWhatIsNotPlainSound) {
  SoundWatch watch(*format(kWaveFormatAAC, 2));
  send(watch, 2000, 0, 2);
  EXPECT_FALSE(watch.isMeasuring());
  EXPECT_EQ(watch.quietFor(), 0);
}

TEST(SoundWatch, TakesPacketsOfAnyLength) {
  SoundWatch watch(*format(kWaveFormatLinearPCM, 2));
  std::vector<uint8_t> bytes(7, 0x7F);
  for (uint32_t length = 0; length <= bytes.size(); ++length) watch.didCaptureFrame(bytes.data(), length, 0, nullptr);
  EXPECT_NEAR(watch.level(), 0, 0.1);
}

}  // namespace
}  // namespace vesk
