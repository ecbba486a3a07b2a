#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/sample_generators.h>
#include "capture/linux/sound/packetizer.h"
#include "tests/support/drifting_microphone.h"

namespace vesk {
namespace {

/// The machine's own microphones are corrected where they are read, which a movie leaves at that.
TEST(Drift, IsNotCorrectedTwice) {
  constexpr uint32_t kRate = 8'000;
  test::DriftingMicrophone microphone(kRate, 300, 8'000, 7'000'000);
  PCMAudioSampleGenerator generator(kRate, 1, 16, FrameTiming::kCapture);
  int packets = 0;
  uint64_t silence = 0;
  capture::SoundPacketizer packetizer(
      {kWaveFormatLinearPCM, 1, kRate, 16}, [&](const uint8_t* bytes, uint32_t length, int64_t timestamp) {
        const auto sample = generator.CreateSample(bytes, length, static_cast<uint64_t>(timestamp));
        if (!sample) return false;
        const uint64_t before = sample->attachments().insertedSilence * 2;
        EXPECT_EQ(before % length, 0U) << "whole packets";
        const auto sound = sample->data().subspan(before);
        EXPECT_TRUE(std::equal(sound.begin(), sound.end(), bytes, bytes + length)) << "packet " << packets;
        silence += before / 2;
        ++packets;
        return true;
      });
  std::vector<uint8_t> portion(160);
  for (int i = 0; i < 60'000; ++i) {
    for (size_t at = 0; at < portion.size(); ++at) portion[at] = static_cast<uint8_t>(at * 5 + static_cast<size_t>(i));
    packetizer.add(portion, microphone.measure());
    microphone.advance(80);
    if (i % 20'000 != 10'000) continue;
    microphone.advance(2'500);
    packetizer.lose(2'500);
  }
  EXPECT_GT(packets, 29'000);
  EXPECT_GT(silence, 3 * 2'000U);
  EXPECT_LT(silence, 3 * 2'500U);
}

}  // namespace
}  // namespace vesk
