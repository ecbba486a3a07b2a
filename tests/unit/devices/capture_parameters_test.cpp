#include "devices/capture_parameters.h"

#include <gtest/gtest.h>

#include <vesk/four_char_code.h>
#include "devices/enumeration.h"
#include "tests/support/device_test.h"

namespace vesk {
namespace {

using test::hexOf;

CMVideoFormatDescriptionRef video(const char (&code)[5], int32_t width, int32_t height) {
  return CMVideoFormatDescription::create(fourCharCode(code), width, height);
}

TEST(CaptureParameters, OfH264AreExact) {
  EXPECT_EQ(hexOf(videoCaptureParameters(*video("avc1", 1280, 720))),
            "01000000"  // H.264
            "6100760063003100"
            "000000000000000000000000000000000000"  // avc1 in 13 units
            "0000"
            "00050000"
            "d0020000"  // 1280 x 720
            "15160500"
            "80969800"  // 333333 / 10000000
            "00000000"
            "00401f00"    // 2048000 bits a second
            "18000000");  // 24
}

TEST(CaptureParameters, OfOtherFormatsHaveNoBitRate) {
  EXPECT_EQ(hexOf(videoCaptureParameters(*video("2vuy", 640, 480))),
            "00000000"
            "3200760075007900"
            "000000000000000000000000000000000000"
            "0000"
            "80020000"
            "e0010000"
            "15160500"
            "80969800"
            "00000000"
            "00000000"
            "00000000");
}

TEST(CaptureParameters, BitRateFollowsTheSizeAndTheRate) {
  struct Row {
    int32_t width, height;
    uint32_t bitRate;
  };
  for (const Row& row : {Row{320, 240, 512000}, Row{640, 360, 819200}, Row{640, 480, 921600}, Row{1280, 720, 2048000},
                         Row{864, 480, 1024000}, Row{480, 640, 1024000}, Row{1920, 1080, 1024000}})
    EXPECT_EQ(videoCaptureParameters(*video("avc1", row.width, row.height)).bitRate, row.bitRate)
        << row.width << "x" << row.height;
  for (const auto& [interval, bitRate] :
       {std::pair{333'667U, 2'048'000U}, std::pair{666'667U, 1'280'000U}, std::pair{2'000'000U, 768'000U},
        std::pair{166'667U, 3'584'000U}, std::pair{1U, 12'800'000U}, std::pair{UINT32_MAX, 512'000U}})
    EXPECT_EQ(videoCaptureParameters(*video("avc1", 1280, 720), interval).bitRate, bitRate) << interval;
}

TEST(CaptureParameters, OfSoundTakeTheLowBitsAndWholeRates) {
  AudioStreamBasicDescription description;
  description.mSampleRate = 22050.9;
  description.mFormatID = 0x6C70636D;
  description.mChannelsPerFrame = 0x10002;
  description.mBitsPerChannel = 0x10010;
  EXPECT_EQ(hexOf(audioCaptureParameters(*CMAudioFormatDescription::create(description))),
            "6d6302002256000010"
            "00");

  for (const double rate : {-1.0, 4294967296.0, std::numeric_limits<double>::quiet_NaN()}) {
    description.mSampleRate = rate;
    const auto parameters = audioCaptureParameters(*CMAudioFormatDescription::create(description));
    EXPECT_EQ(uint32_t{parameters.samplesPerSecond}, 0U) << rate;
  }
}

TEST(CaptureParameters, SoundDescriptionsCarryTheWaveFormatAndNothingElse) {
  const auto format = audioFormatDescription({0x636D, 2, 48000, 16, 0xFFFF});
  const AudioStreamBasicDescription& description = format->streamBasicDescription();
  EXPECT_EQ(description.mSampleRate, 48000.0);
  EXPECT_EQ(description.mFormatID, 0x636DU);
  EXPECT_EQ(description.mChannelsPerFrame, 2U);
  EXPECT_EQ(description.mBitsPerChannel, 16U);
  EXPECT_EQ(description.mFormatFlags + description.mBytesPerPacket + description.mFramesPerPacket +
                description.mBytesPerFrame + description.mReserved,
            0U);
}

struct Answer {
  int32_t status;
  uint32_t count;
};

/// Enumerates numbers from a library that answers the two calls so.
std::vector<uint32_t> enumerate(Answer first, Answer second, std::vector<uint32_t>& counts) {
  counts.clear();
  return enumerateRecords<uint32_t>([&](uint32_t* records, uint32_t* size, uint32_t* count) {
    EXPECT_EQ(*size, 0U);
    EXPECT_EQ(records != nullptr, counts.size() == 1) << "an array in the second call only";
    counts.push_back(*count);
    const Answer& answer = records ? second : first;
    if (records)
      for (uint32_t i = 0; i < *count && i < answer.count; ++i) records[i] = i + 1;
    *count = answer.count;
    return answer.status;
  });
}

TEST(Enumeration, AsksForTheCountAndThenForTheRecords) {
  const struct {
    const char* label;
    Answer first, second;
    std::vector<uint32_t> counts;  // as given to each call
    size_t found;
  } rows[] = {
      {"three", {8, 3}, {0, 3}, {0, 3}, 3},
      {"fewer than there were", {8, 3}, {0, 1}, {0, 3}, 1},
      {"more than were asked for", {8, 3}, {0, 9}, {0, 3}, 3},
      {"none, but more data", {8, 0}, {0, 0}, {0, 0}, 0},
      {"none", {0, 0}, {0, 0}, {0}, 0},
      {"success with a count", {0, 3}, {0, 3}, {0}, 0},
      {"a failure", {1, 3}, {0, 3}, {0}, 0},
      {"a failure of the second", {8, 3}, {1, 3}, {0, 3}, 0},
      {"too many to be true", {8, 4'000'000'000}, {0, 4096}, {0, 4096}, 4096},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::vector<uint32_t> counts;
    EXPECT_EQ(enumerate(row.first, row.second, counts).size(), row.found);
    EXPECT_EQ(counts, row.counts);
  }
}

}  // namespace
}  // namespace vesk
