#include <gtest/gtest.h>

#include <limits>

#include <vesk/four_char_code.h>
#include <vesk/sample_generators.h>
#include "movie/silence.h"
#include "tests/support/bytes.h"
#include "tests/support/captured_lines.h"

namespace vesk {
namespace {

using test::bytes;
using test::CapturedLines;
using Bytes = std::vector<uint8_t>;

CMSampleBufferRef make(ISampleGenerator& generator, const Bytes& buffer, uint64_t timestamp) {
  return generator.CreateSample(buffer.data(), static_cast<unsigned>(buffer.size()), timestamp);
}

Bytes dataOf(const CMSampleBufferRef& sample) {
  return {sample->data().begin(), sample->data().end()};
}

/// Presentation time and duration, in microseconds; -1 for no sample.
struct Times {
  int64_t start;
  int64_t duration;
  bool operator==(const Times&) const = default;
};
constexpr Times kNone{-1, -1};

std::ostream& operator<<(std::ostream& stream, const Times& times) {
  return stream << times.start << " for " << times.duration;
}

Times timesOf(const CMSampleBufferRef& sample) {
  if (!sample) return kNone;
  EXPECT_EQ(sample->presentationTimeStamp().timescale, 1'000'000);
  return {sample->presentationTimeStamp().value, sample->duration().value};
}

// Pictures.

struct Picture {
  uint64_t timestamp;
  Times times;
};

struct PictureRow {
  const char* label;
  std::vector<Picture> pictures;
};

TEST(VideoTiming, FollowsThePictureBeforeAndJumpsOnlyWhenFarBehind) {
  const PictureRow rows[] = {
      {"from zero", {{0, {0, 30'000}}, {33'333, {30'000, 30'000}}, {66'666, {60'000, 30'000}}}},
      {"sound came first", {{500'000, {0, 530'000}}, {533'333, {530'000, 30'000}}}},
      {"a little late", {{59'999, {0, 30'000}}, {60'000, {30'000, 30'000}}}},
      {"just late enough for its own time", {{60'000, {0, 90'000}}, {90'000, {90'000, 30'000}}}},
      {"59,999 behind", {{0, {0, 30'000}}, {89'999, {30'000, 30'000}}}},
      {"60,000 behind", {{0, {0, 30'000}}, {90'000, {90'000, 30'000}}}},
      {"back in time", {{0, {0, 30'000}}, {40'000, {30'000, 30'000}}, {39'999, kNone}, {40'000, {60'000, 30'000}}}},
      {"faster than 30 ms", {{0, {0, 30'000}}, {1, {30'000, 30'000}}, {2, {60'000, 30'000}}}},
      {"wild stamp, then right again",
       {{0, {0, 30'000}}, {std::numeric_limits<uint64_t>::max(), kNone}, {33'333, {30'000, 30'000}}}},
  };
  for (const PictureRow& row : rows) {
    SCOPED_TRACE(row.label);
    UncompressedSampleGenerator generator(2, 1, 30);
    for (const Picture& picture : row.pictures)
      EXPECT_EQ(timesOf(make(generator, bytes("01020304"), picture.timestamp)), picture.times) << picture.timestamp;
  }
}

TEST(VideoTiming, NineteenthPictureAtThirtyASecondJumps) {
  UncompressedSampleGenerator generator(2, 1, 30);
  for (uint64_t number = 0; number < 60; ++number) {
    const uint64_t round = number / 18;  // eighteen pictures of 30 ms, then one at its own time
    const auto expected = static_cast<int64_t>(round * 600'000 + number % 18 * 30'000);
    ASSERT_EQ(timesOf(make(generator, bytes("01020304"), number * 100'000 / 3)).start, expected) << number;
  }
}

TEST(H264Samples, HoldSlicesOnlyAndBeginWithBothParameterSets) {
  H264SampleGenerator generator(176, 144, 30);
  EXPECT_FALSE(make(generator, bytes("00000002 6588"), 0)) << "no parameter sets";
  EXPECT_FALSE(make(generator, bytes("00000004 6742C01E 00000002 6588"), 1)) << "one of two";
  EXPECT_FALSE(make(generator, bytes("00000002 68CE 00000002 0605"), 2)) << "both now, and no slice";

  const auto key = make(generator, bytes("00000002 0605 00000003 658811 00000002 09F0 00000002 6522"), 3);
  ASSERT_TRUE(key);
  EXPECT_EQ(dataOf(key), bytes("00000003 658811 00000002 6522"));
  EXPECT_EQ(timesOf(key), (Times{0, 30'000})) << "refused ones took no time";

  const auto format = std::dynamic_pointer_cast<const CMVideoFormatDescription>(key->formatDescription());
  ASSERT_TRUE(format);
  EXPECT_EQ(format->mediaSubType(), kCMVideoCodecType_H264);
  EXPECT_EQ(format->dimensions(), (CMVideoDimensions{176, 144}));
  EXPECT_EQ(format->extensions().sampleDescriptionExtensionAtoms.at("avcC"),
            bytes("01 42C01E FF E1 0004 6742C01E 01 0002 68CE"));

  const auto later = make(generator, bytes("00000004 67FFFFFF 00000002 6899 00000002 6588"), 4);
  ASSERT_TRUE(later);
  EXPECT_EQ(later->formatDescription(), key->formatDescription()) << "later sets change nothing";
}

TEST(H264Samples, SayWhichPicturesStandAlone) {
  H264SampleGenerator generator(176, 144, 30);
  const auto key = make(generator, bytes("00000004 6742C01E 00000002 68CE 00000002 6588"), 0);
  const auto other = make(generator, bytes("00000002 419A"), 33'333);
  ASSERT_TRUE(key && other);
  const struct {
    CMSampleAttachmentKey key;
    std::optional<bool> forKey;
    std::optional<bool> forOther;
  } rows[] = {
      {kCMSampleAttachmentKey_DependsOnOthers, false, true},
      {kCMSampleAttachmentKey_NotSync, std::nullopt, true},
      {kCMSampleAttachmentKey_DoNotDisplay, true, true},
      {kCMSampleAttachmentKey_EarlierDisplayTimesAllowed, false, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(key->sampleAttachments().value(row.key), row.forKey) << row.key;
    EXPECT_EQ(other->sampleAttachments().value(row.key), row.forOther) << row.key;
  }
}

TEST(H264Samples, StopAtAUnitThatRunsPastTheEnd) {
  H264SampleGenerator generator(176, 144, 30);
  ASSERT_TRUE(make(generator, bytes("00000004 6742C01E 00000002 68CE 00000002 6588"), 0));
  const auto sample = make(generator, bytes("00000002 419A 00000000 00000009 41"), 1);
  ASSERT_TRUE(sample);
  EXPECT_EQ(dataOf(sample), bytes("00000002 419A"));
  EXPECT_FALSE(make(generator, bytes("FFFFFFFF 41"), 2));
  EXPECT_FALSE(make(generator, {}, 3));
}

TEST(UncompressedSamples, FillThePictureWhateverTheLength) {
  UncompressedSampleGenerator generator(2, 2, 30);
  const struct {
    const char* label;
    const char* frame;
    const char* picture;
  } rows[] = {
      {"exact", "0102030405060708", "0102030405060708"},
      {"too long", "010203040506070809", "0102030405060708"},
      {"too short", "010203", "0102031080108010"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto sample = make(generator, bytes(row.frame), 0);
    ASSERT_TRUE(sample);
    EXPECT_EQ(dataOf(sample), bytes(row.picture));
    EXPECT_EQ(sample->sampleAttachments().value(kCMSampleAttachmentKey_DependsOnOthers), false);
    EXPECT_EQ(sample->sampleAttachments().value(kCMSampleAttachmentKey_DoNotDisplay), std::nullopt);
    const auto& format = dynamic_cast<const CMVideoFormatDescription&>(*sample->formatDescription());
    EXPECT_EQ(format.extensions().bytesPerRow, 4);
  }
  EXPECT_FALSE(make(generator, {}, 0));
}

// Sound.

struct Packet {
  uint64_t timestamp;
  int64_t start;     ///< of the sample, in the track's scale; -1 for none
  uint32_t silence;  ///< frames or packets before the packet
  const char* line = "";
};

struct SoundRow {
  const char* label;
  std::vector<Packet> packets;
};

Bytes pcmPacket() {
  Bytes packet(4096);
  for (size_t index = 0; index < packet.size(); ++index) packet[index] = static_cast<uint8_t>(index * 7 + 1);
  return packet;
}

TEST(PCMSamples, FollowEachOtherAndFillGapsWithZeroFrames) {
  const SoundRow rows[] = {
      {"in time", {{1'000'000, 1'000'000, 0}, {1'021'333, 1'021'333, 0}, {1'042'666, 1'042'666, 0}}},
      {"a gap of two packets and more",
       {{1'000'000, 1'000'000, 0},
        {1'021'333, 1'021'333, 0},
        {1'100'000, 1'042'666, 2048, "[WARNING]: Inserting 2 silence packets!!!\n"},
        {1'106'666, 1'106'666, 0}}},
      {"less than a packet late", {{0, 0, 0}, {26'333, 21'333, 0}}},
      {"exactly a packet late", {{0, 0, 0}, {42'666, 21'333, 1024, "[WARNING]: Inserting 1 silence packets!!!\n"}}},
      {"early", {{0, 0, 0}, {10'000, 21'333, 0}, {10'000, 42'666, 0}}},
      {"back in time",
       {{100, 100, 0},
        {99, -1, 0, "[WARNING]: Dropping out of order audio packet [last = 100, pts = 99]\n"},
        {100, 21'433, 0}}},
      {"wild stamp, then right again", {{0, 0, 0}, {~0ULL, -1, 0}, {21'333, 21'333, 0}}},
  };
  for (const SoundRow& row : rows) {
    SCOPED_TRACE(row.label);
    PCMAudioSampleGenerator generator(48'000, 2, 16);
    for (const Packet& packet : row.packets) {
      SCOPED_TRACE(packet.timestamp);
      CapturedLines lines;
      const auto sample = make(generator, pcmPacket(), packet.timestamp);
      EXPECT_EQ(lines.text(), packet.line);
      ASSERT_EQ(sample != nullptr, packet.start >= 0);
      if (!sample) continue;
      EXPECT_EQ(sample->presentationTimeStamp().value, packet.start);
      EXPECT_EQ(sample->attachments().insertedSilence, packet.silence);
      EXPECT_EQ(sample->numSamples(), packet.silence + 1024);
      Bytes expected(packet.silence * 4, 0);
      const Bytes sound = pcmPacket();
      expected.insert(expected.end(), sound.begin(), sound.end());
      EXPECT_EQ(dataOf(sample), expected);
    }
  }
}

TEST(PCMSamples, KeepWholeFramesOnly) {
  CapturedLines lines;
  PCMAudioSampleGenerator generator(48'000, 2, 16);
  EXPECT_FALSE(make(generator, bytes("010203"), 0)) << "less than a frame";
  const auto first = make(generator, bytes("0102030405"), 0);
  ASSERT_TRUE(first);
  EXPECT_EQ(dataOf(first), bytes("01020304"));
  const auto late = make(generator, bytes("0102030405"), 60);  // 20 us a packet: two fit before it
  ASSERT_TRUE(late);
  EXPECT_EQ(dataOf(late), bytes("0000000000000000 01020304"));
}

TEST(PCMSamples, LeaveHugeGapsToTheWriter) {
  PCMAudioSampleGenerator generator(48'000, 2, 16);
  ASSERT_TRUE(make(generator, pcmPacket(), 0));
  CapturedLines lines(CapturedLines::Stream::kError);
  const uint64_t years = 150'000'000'000'000;
  const auto sample = make(generator, pcmPacket(), years);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->numSamples(), 1024U);
  EXPECT_EQ(sample->presentationTimeStamp().value, static_cast<int64_t>(years));
  EXPECT_EQ(lines.count("too long for silence"), 1U);
  const auto next = make(generator, pcmPacket(), years + 21'333);
  EXPECT_EQ(next->presentationTimeStamp().value, static_cast<int64_t>(years + 21'333));
}

TEST(PCMSamples, CountLongSilenceInsteadOfHoldingIt) {
  CapturedLines lines;
  constexpr uint64_t kMostPackets = kMostSilentBytes / 4096;  // a minute and a half
  for (const uint64_t packets : {uint64_t{2900}, kMostPackets, kMostPackets + 1, kLongestSilence / 21'333}) {
    PCMAudioSampleGenerator generator(48'000, 2, 16);
    ASSERT_TRUE(make(generator, pcmPacket(), 1'000'000));
    const uint64_t time = 1'021'333 + packets * 21'333;
    const auto sample = make(generator, pcmPacket(), time);
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->presentationTimeStamp().value, 1'021'333);
    const bool isLeftOut = packets > kMostPackets;
    EXPECT_EQ(sample->attachments().insertedSilence, isLeftOut ? packets * 21'333 * 48 / 1000 : packets * 1024);
    EXPECT_EQ(sample->attachments().isSilenceLeftOut, isLeftOut);
    EXPECT_EQ(sample->numSamples(), 1024 * (isLeftOut ? 1 : packets + 1));
    const std::string inserted = std::to_string((sample->attachments().insertedSilence + 512) / 1024);
    EXPECT_EQ(lines.count("Inserting " + inserted + " silence packets!!!"), 1U);
    const auto next = make(generator, pcmPacket(), time + 21'333);
    const double error = static_cast<double>(next->presentationTimeStamp().value) - static_cast<double>(time + 21'333);
    EXPECT_NEAR(error, 0, isLeftOut ? 30 : 1400) << packets;
  }
}

TEST(PCMSamples, SurviveDescriptionsThatMakeNoSense) {
  struct Row {
    unsigned rate;
    uint16_t channels, bits;
    FrameTiming timing = FrameTiming::kSteady;
  };
  for (const Row& row :
       {Row{0, 2, 16}, Row{48'000, 0, 16}, Row{48'000, 1, 7}, Row{4'000'000'000, 1, 8}, Row{1, 65'535, 65'535},
        Row{0, 2, 16, FrameTiming::kCapture}, Row{4'000'000'000, 1, 16, FrameTiming::kCapture},
        Row{1, 2, 16, FrameTiming::kCapture}, Row{1, 65'535, 16, FrameTiming::kCapture}}) {
    PCMAudioSampleGenerator generator(row.rate, row.channels, row.bits, row.timing);
    CapturedLines output;
    CapturedLines errors(CapturedLines::Stream::kError);
    for (const uint64_t timestamp : {0ULL, 1ULL, 1'000ULL, 59'000'000ULL, 1ULL << 50}) {
      const auto sample = make(generator, pcmPacket(), timestamp);
      if (sample) {
        EXPECT_LE(sample->data().size(), 65U << 20);
      }
    }
  }
}

TEST(AACSamples, FollowEachOtherAndFillGapsWithSilentPackets) {
  const SoundRow rows[] = {
      {"in time", {{0, 0, 0}, {21'333, 1024, 0}, {42'666, 2048, 0}}},
      {"two packets late is still in time", {{0, 0, 0}, {21'333, 1024, 0}, {85'332, 2048, 0}}},
      {"more than two packets late",
       {{0, 0, 0},
        {21'333, 1024, 0},
        {85'333, 2048, 2, "[WARNING]: Inserting 2 silence packets\n"},
        {106'666, 5120, 0}}},
      {"picture came first", {{100'000, 0, 4, "[WARNING]: Inserting 4 silence packets\n"}, {106'666, 5120, 0}}},
      {"back in time",
       {{100, 0, 0},
        {99, -1, 0, "[WARNING]: Dropping out of order audio packet [pts = 99, last = 100]\n"},
        {100, 1024, 0}}},
  };
  for (const SoundRow& row : rows) {
    SCOPED_TRACE(row.label);
    AACAudioSampleGenerator generator(48'000, 2);
    bool isFirst = true;
    for (const Packet& packet : row.packets) {
      SCOPED_TRACE(packet.timestamp);
      CapturedLines lines(CapturedLines::Stream::kError);
      const auto sample = make(generator, bytes("2110AABBCC"), packet.timestamp);
      EXPECT_EQ(lines.text(), packet.line);
      ASSERT_EQ(sample != nullptr, packet.start >= 0);
      if (!sample) continue;
      EXPECT_EQ(sample->presentationTimeStamp().value, packet.start);
      EXPECT_EQ(sample->presentationTimeStamp().timescale, 48'000);
      EXPECT_EQ(sample->attachments().insertedSilence, packet.silence);
      EXPECT_EQ(sample->numSamples(), packet.silence + 1);
      Bytes expected;
      std::vector<uint32_t> sizes(packet.silence, 4);
      for (uint32_t index = 0; index < packet.silence; ++index)
        for (const uint8_t byte : {0x00, 0xD0, 0x00, 0x07}) expected.push_back(byte);
      for (const uint8_t byte : bytes("2110AABBCC")) expected.push_back(byte);
      sizes.push_back(5);
      EXPECT_EQ(dataOf(sample), expected);
      EXPECT_TRUE(std::equal(sizes.begin(), sizes.end(), sample->sampleSizes().begin(), sample->sampleSizes().end()));
      EXPECT_EQ(sample->attachments().trimDurationAtStart.has_value(), isFirst);
      if (isFirst) {
        EXPECT_EQ(sample->attachments().trimDurationAtStart->value, 1024);
      }
      isFirst = false;
    }
  }
}

TEST(AACSamples, AnEmptyPacketTakesItsTimeAndNothingElse) {
  AACAudioSampleGenerator generator(48'000, 1);
  EXPECT_FALSE(make(generator, {}, 0));
  const auto sample = make(generator, bytes("21"), 21'333);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->presentationTimeStamp().value, 1024);
  EXPECT_TRUE(sample->attachments().trimDurationAtStart) << "the first that was made";
}

TEST(AACSamples, LeaveHugeGapsToTheWriter) {
  CapturedLines lines(CapturedLines::Stream::kError);
  for (const unsigned rate : {48'000U, 0U, 1U, 2'147'483'647U, 4'294'967'295U}) {
    SCOPED_TRACE(rate);
    AACAudioSampleGenerator generator(rate, 1);
    for (const uint64_t timestamp : {0ULL, 150'000'000'000'000ULL, ISampleGenerator::kLatestTimestamp, ~0ULL}) {
      const auto sample = make(generator, bytes("2110"), timestamp);
      if (sample) {
        EXPECT_LE(sample->numSamples(), 400'001U);
      }
    }
  }
  AACAudioSampleGenerator generator(48'000, 1);
  make(generator, bytes("2110"), 0);
  const auto sample = make(generator, bytes("2110"), 150'000'000'000'000);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->numSamples(), 1U);
  EXPECT_EQ(sample->presentationTimeStamp().value, 150'000'000 * 48'000LL);
}

TEST(AACSamples, FillAGapOfHalfADay) {
  CapturedLines lines(CapturedLines::Stream::kError);
  for (const unsigned rate : {8'000U, 48'000U, 96'000U}) {
    for (const uint64_t late : {0ULL, 1'000'000ULL}) {
      AACAudioSampleGenerator generator(rate, 1);
      const auto sample = make(generator, bytes("2110"), kLongestSilence + late);
      ASSERT_TRUE(sample);
      const uint64_t packets = kLongestSilence / 1'000'000 * rate / 1024;
      EXPECT_EQ(sample->attachments().insertedSilence, late == 0 ? packets : 0) << rate;
      EXPECT_EQ(sample->attachments().isSilenceLeftOut, late == 0) << rate;
      EXPECT_EQ(sample->numSamples(), 1U) << rate;
    }
  }
}

TEST(AACSamples, BufferListAndDescriptionsMustAgree) {
  const AACAudioSampleGenerator generator(48'000, 1);
  const Bytes packet = bytes("2110");
  const AudioBuffer buffers[] = {{1, 2, packet.data()}, {1, 2, packet.data()}};
  const AudioStreamPacketDescription right[] = {{0, 0, 2}, {2, 0, 2}};
  const AudioStreamPacketDescription tooLong[] = {{0, 0, 2}, {2, 0, 3}};
  EXPECT_TRUE(generator.CreateSampleBufferFromBufferList(buffers, right, kCMTimeZero));
  EXPECT_FALSE(generator.CreateSampleBufferFromBufferList(buffers, tooLong, kCMTimeZero));
  EXPECT_FALSE(generator.CreateSampleBufferFromBufferList(buffers, {right, 1}, kCMTimeZero));
  EXPECT_FALSE(generator.CreateSampleBufferFromBufferList({}, {}, kCMTimeZero));
}

}  // namespace
}  // namespace vesk
