#include <gtest/gtest.h>

#include "capture/files/pcm_chunker.h"
#include "tests/unit/capture/file_source_support.h"

namespace vesk::capture::test {
namespace {

constexpr int64_t kAacPacket44100 = 23220;  // 1024 frames in microseconds

TEST(FileTiming, SoundThatBeginsLaterStaysLater) {
  const auto footage = footageAt(dataPath("street.mov"));
  EXPECT_EQ(unitsFrom(*videoReader(*footage, kCMVideoCodecType_H264)).front().time, 0);
  const auto sound = unitsFrom(*soundReader(*footage, kWaveFormatLinearPCM));
  EXPECT_EQ(sound.front().time, 400000);
  EXPECT_EQ(sound[1].time, 432000);
}

TEST(FileTiming, DecodedPicturesComeInTheOrderOfPresentation) {
  const auto footage = footageAt(dataPath("street-reordered.mp4"));
  EXPECT_EQ(footage->video->codecs(), (std::vector<uint32_t>{kCMPixelFormat_422YpCbCr8}));
  const auto units = unitsFrom(*videoReader(*footage, kCMPixelFormat_422YpCbCr8));
  ASSERT_EQ(units.size(), 36u);
  for (size_t at = 0; at < units.size(); ++at) {
    EXPECT_NEAR(static_cast<double>(units[at].time), static_cast<double>(at) * 1e6 / 30, 2);
  }
}

// A recording hides the first packet: a packet stamped s is heard 1024 frames before s.
TEST(FileTiming, StampsAACSoThatItIsHeardWhereTheOriginalLetsItBeHeard) {
  const TemporaryFolder folder;
  const std::string original = dataPath("town-h264-aac.mp4");
  const auto packets = readOriginal(original, AVMEDIA_TYPE_AUDIO).packets;
  const Bytes silence = bytes("00 D0 00 07");
  const struct {
    const char* label;
    int64_t shift;       // frames, on top of one packet of priming
    bool hasEditLists;   // without, players hear the priming and the picture waits for it
    size_t silent;       // packets of silence first
    size_t leftOut;      // packets of the original at the beginning
    int64_t firstStamp;  // of the first packet from the original
  } rows[] = {
      {"one packet of priming", 0, true, 0, 0, 0},
      {"two packets of priming", -1024, true, 0, 1, 0},
      {"priming of 2112 frames", -1088, true, 0, 1, 0},
      {"no priming", 1024, true, 1, 0, kAacPacket44100},
      {"heard two thirds of a packet after the picture", 1707, true, 2, 0, kAacPacket44100 * 1707 / 1024},
      {"heard long after the picture", 1024 + 44100 / 2, true, 0, 0, kAacPacket44100 + 500000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string copy = folder.file("copy.mov");
    copyMovie(original, copy, row.shift, row.hasEditLists);
    const auto footage = footageAt(copy);
    const auto units = unitsFrom(*soundReader(*footage, kWaveFormatAAC));
    ASSERT_EQ(units.size(), packets.size() + row.silent - row.leftOut);
    for (size_t at = 0; at < row.silent; ++at) {
      EXPECT_EQ(units[at].bytes, silence);
      EXPECT_EQ(units[at].time, static_cast<int64_t>(at) * kAacPacket44100);
    }
    EXPECT_EQ(units[row.silent].bytes, packets[row.leftOut]);
    // The copy's edit lists are rounded to milliseconds.
    EXPECT_NEAR(static_cast<double>(units[row.silent].time), static_cast<double>(row.firstStamp), 600);
    EXPECT_EQ(unitsFrom(*videoReader(*footage, kCMVideoCodecType_H264)).front().time, 0);
  }
}

TEST(FileTiming, DecodedAACHasNoPriming) {
  const auto footage = footageAt(dataPath("town-h264-aac.mp4"));
  const auto units = unitsFrom(*soundReader(*footage, kWaveFormatLinearPCM));
  size_t frames = 0;
  for (const Unit& unit : units) frames += unit.bytes.size() / 2;
  EXPECT_EQ(units.front().time, 0);
  EXPECT_EQ(frames, 44u * 1024);  // 45 packets, the first of them priming
}

TEST(FileTiming, ALateJoinerBeginsAtTheNextKeyPictureAndAtTheNextSound) {
  const auto clip = footageAt(dataPath("MIDR_MW_D.264"));
  const auto all = unitsFrom(*videoReader(*clip, kCMVideoCodecType_H264));
  const auto late = unitsFrom(*videoReader(*clip, kCMVideoCodecType_H264), 500000);
  ASSERT_FALSE(late.empty());
  EXPECT_GE(late.front().time, 500000);
  EXPECT_TRUE(vesk::test::holdsKeyPicture(late.front().bytes));
  EXPECT_EQ(decodeUnits(late, AV_CODEC_ID_H264).size(), late.size());
  EXPECT_EQ(late.back().bytes, all.back().bytes);
  EXPECT_EQ(late.back().time, all.back().time);

  const auto movie = footageAt(dataPath("street.mov"));
  EXPECT_EQ(unitsFrom(*soundReader(*movie, kWaveFormatLinearPCM), 2000000).front().time, 2000000);
  EXPECT_EQ(unitsFrom(*soundReader(*movie, kWaveFormatLinearPCM), 100000).front().time, 400000);
  EXPECT_EQ(unitsFrom(*videoReader(*movie, kCMVideoCodecType_H264), 100000).front().time, 4000000);
  EXPECT_EQ(unitsFrom(*videoReader(*movie, kCMPixelFormat_422YpCbCr8), 100000).front().time, 133333);
}

struct Chunk {
  size_t bytes;
  int64_t time;
  bool operator==(const Chunk&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Chunk& chunk) {
  return out << chunk.bytes << "@" << chunk.time;
}

struct Portion {
  size_t bytes;
  std::optional<int64_t> time;
};

/// Mono at 32 kHz: a packet of 1024 frames, 2048 bytes, lasts 32 ms.
std::vector<Chunk> chunked(std::initializer_list<Portion> portions, int64_t from, Bytes* content = nullptr) {
  PcmChunker chunker(32000, 1);
  chunker.restart(from);
  std::vector<Chunk> chunks;
  const auto drain = [&](bool end) {
    while (const auto unit = chunker.take(end)) {
      chunks.push_back({unit->bytes.size(), unit->time});
      if (content) content->insert(content->end(), unit->bytes.begin(), unit->bytes.end());
    }
  };
  uint8_t next = 0;
  for (const Portion& portion : portions) {
    Bytes sound(portion.bytes);
    for (uint8_t& byte : sound) byte = next++;
    chunker.give(sound, portion.time);
    drain(false);
  }
  drain(true);
  return chunks;
}

TEST(PcmChunker, MakesWholePacketsOfAnyPortions) {
  const std::vector<Chunk> whole = {{2048, 0}, {2048, 32000}, {2048, 64000}, {1024, 96000}};
  EXPECT_EQ(chunked({{7168, 0}}, 0), whole);
  EXPECT_EQ(chunked({{1000, 0}, {5144, 15625}, {1024, 96000}}, 0), whole);
  Bytes content;
  EXPECT_EQ(chunked({{3001, 0}, {1, std::nullopt}, {4166, std::nullopt}}, 0, &content), whole) << "odd bytes";
  for (size_t at = 0; at < content.size(); ++at) ASSERT_EQ(content[at], static_cast<uint8_t>(at));
}

TEST(PcmChunker, FollowsJumpsAndIgnoresRounding) {
  EXPECT_EQ(chunked({{3072, 5000}, {2048, 53007}}, 0),
            (std::vector<Chunk>{{2048, 5000}, {2048, 37000}, {1024, 69000}}));
  EXPECT_EQ(chunked({{3072, 0}, {2048, 98000}}, 0), (std::vector<Chunk>{{2048, 0}, {1024, 32000}, {2048, 98000}}));
}

TEST(PcmChunker, BeginsAtTheFrameAskedFor) {
  EXPECT_EQ(chunked({{2048, 0}, {4096, 32000}}, 48000), (std::vector<Chunk>{{2048, 48000}, {1024, 80000}}));
  EXPECT_EQ(chunked({{4096, -32000}}, 0), (std::vector<Chunk>{{2048, 0}}));
}

}  // namespace
}  // namespace vesk::capture::test
