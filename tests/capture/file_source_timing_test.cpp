#include <gtest/gtest.h>

#include <algorithm>

#include "capture/files/track_stream.h"
#include "tests/capture/file_source_support.h"
#include "tests/support/temporary_folder.h"

namespace vesk::capture::test {
namespace {

using vesk::test::TemporaryFolder;

constexpr int64_t kAacPacket44100 = 23220;  // 1024 frames in microseconds

std::unique_ptr<Footage> footageAt(const std::string& path, bool wantsLength = false) {
  std::string error;
  auto footage = Footage::open(path, wantsLength, error);
  EXPECT_TRUE(footage) << error;
  return footage;
}

/// Copies a movie, its sound `shift` frames later, with or without edit lists.
void copyMovie(const std::string& from, const std::string& to, int64_t shift, bool hasEditLists) {
  AVFormatContext* in = nullptr;
  ASSERT_GE(avformat_open_input(&in, from.c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(in, nullptr), 0);
  AVFormatContext* out = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&out, nullptr, "mov", to.c_str()), 0);
  for (unsigned index = 0; index < in->nb_streams; ++index) {
    AVStream* stream = avformat_new_stream(out, nullptr);
    avcodec_parameters_copy(stream->codecpar, in->streams[index]->codecpar);
    stream->codecpar->codec_tag = 0;
    stream->time_base = in->streams[index]->time_base;
  }
  AVDictionary* options = nullptr;
  av_dict_set(&options, "use_editlist", hasEditLists ? "1" : "0", 0);
  out->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  ASSERT_GE(avio_open(&out->pb, to.c_str(), AVIO_FLAG_WRITE), 0);
  ASSERT_GE(avformat_write_header(out, &options), 0);
  av_dict_free(&options);
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(in, packet) >= 0) {
    const int index = packet->stream_index;
    if (in->streams[index]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      packet->pts += shift;
      packet->dts += shift;
    }
    av_packet_rescale_ts(packet, in->streams[index]->time_base, out->streams[index]->time_base);
    ASSERT_GE(av_interleaved_write_frame(out, packet), 0);
  }
  av_packet_free(&packet);
  ASSERT_GE(av_write_trailer(out), 0);
  avio_closep(&out->pb);
  avformat_free_context(out);
  avformat_close_input(&in);
}

TEST(FileTiming, SoundThatBeginsLaterStaysLater) {
  const auto footage = footageAt(dataPath("street-320x240-h264-latesound.mov"));
  EXPECT_EQ(unitsFrom(*pictureReader(*footage, kCMVideoCodecType_H264)).front().time, 0);
  const auto sound = unitsFrom(*soundReader(*footage, kWaveFormatLinearPCM));
  EXPECT_EQ(sound.front().time, 400000);
  EXPECT_EQ(sound[1].time, 464000);
}

TEST(FileTiming, DecodedPicturesComeInTheOrderOfPresentation) {
  const auto footage = footageAt(dataPath("street-reordered.mp4"));
  EXPECT_EQ(footage->pictures->codecs(), (std::vector<uint32_t>{kCMPixelFormat_422YpCbCr8}));
  const auto units = unitsFrom(*pictureReader(*footage, kCMPixelFormat_422YpCbCr8));
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
    EXPECT_EQ(unitsFrom(*pictureReader(*footage, kCMVideoCodecType_H264)).front().time, 0);
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
  const auto all = unitsFrom(*pictureReader(*clip, kCMVideoCodecType_H264));
  const auto late = unitsFrom(*pictureReader(*clip, kCMVideoCodecType_H264), 500000);
  ASSERT_FALSE(late.empty());
  EXPECT_GE(late.front().time, 500000);
  const auto nals = nalsOf(late.front().bytes);
  EXPECT_TRUE(std::any_of(nals.begin(), nals.end(), [](auto nal) { return (nal[0] & 0x1F) == 5; }));
  EXPECT_EQ(decodeUnits(late, AV_CODEC_ID_H264).size(), late.size());
  EXPECT_EQ(late.back().bytes, all.back().bytes);
  EXPECT_EQ(late.back().time, all.back().time);

  const auto movie = footageAt(dataPath("street-320x240-h264-latesound.mov"));
  EXPECT_EQ(unitsFrom(*soundReader(*movie, kWaveFormatLinearPCM), 2000000).front().time, 2000000);
  EXPECT_EQ(unitsFrom(*soundReader(*movie, kWaveFormatLinearPCM), 100000).front().time, 400000);
  EXPECT_EQ(unitsFrom(*pictureReader(*movie, kCMVideoCodecType_H264), 100000).front().time, 4000000);
  EXPECT_EQ(unitsFrom(*pictureReader(*movie, kCMPixelFormat_422YpCbCr8), 100000).front().time, 133333);
}

/// What a stream delivers: its first `count` units, or all when it ends before.
std::vector<Unit> played(std::unique_ptr<UnitReader> reader, std::optional<int64_t> loopLength, size_t count,
                         int64_t from = 0) {
  std::vector<Unit> units;
  int64_t due = 0;
  TrackStream stream(
      std::move(reader),
      [&](uint8_t* data, uint32_t length, int64_t) {
        units.push_back({Bytes(data, data + length), due});
        std::fill(data, data + length, uint8_t{0xEE});  // a receiver may do as it likes with the bytes
      },
      loopLength, "clip");
  stream.seek(from);
  while (units.size() < count) {
    const auto next = stream.nextTime();
    if (!next) break;
    due = *next;
    stream.deliver(due);
  }
  return units;
}

TEST(FileTiming, ALoopGoesOnWithoutAGapAndWithTheSameFootage) {
  const struct {
    const char* clip;
    uint32_t codec;
    size_t units;
  } rows[] = {
      {"street-320x240-h264-latesound.mov", kCMVideoCodecType_H264, 90},
      {"SVA_Base_B.264", kCMVideoCodecType_H264, 17},
      {"street-mjpeg.avi", kCMVideoCodecType_MotionJPEG, 6},
      {"street-reordered.mp4", kCMPixelFormat_422YpCbCr8, 36},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.clip);
    const auto footage = footageAt(dataPath(row.clip), true);
    const int64_t length = footage->pictures->end;
    EXPECT_NEAR(static_cast<double>(length), static_cast<double>(row.units) * footage->pictures->interval / 10, 40);
    const auto units = played(pictureReader(*footage, row.codec), length, 3 * row.units + 1);
    ASSERT_EQ(units.size(), 3 * row.units + 1);
    for (size_t at = row.units; at < units.size(); ++at) {
      ASSERT_EQ(units[at].time, units[at - row.units].time + length) << at;
      ASSERT_EQ(units[at].bytes, units[at - row.units].bytes) << at;
    }
    const auto late = played(pictureReader(*footage, row.codec), length, 1, 2 * length);
    ASSERT_EQ(late.size(), 1u);
    EXPECT_EQ(late.front().time, 2 * length);
  }
}

TEST(FileTiming, AACInALoopIsPrimedOnce) {
  for (const char* clip : {"town-h264-aac.mp4", "voice-48k-mono.aac"}) {
    SCOPED_TRACE(clip);
    const auto footage = footageAt(dataPath(clip), true);
    const size_t packets = unitsFrom(*soundReader(*footage, kWaveFormatAAC)).size();
    const auto units = played(soundReader(*footage, kWaveFormatAAC), footage->sound->end, 3 * packets);
    ASSERT_EQ(units.size(), 3 * packets);
    const double packetTime = 1024e6 / footage->sound->samplesPerSecond;
    for (size_t at = 0; at < units.size(); ++at) {
      ASSERT_NEAR(static_cast<double>(units[at].time), static_cast<double>(at) * packetTime, 10) << at;
    }
  }
}

TEST(FileTiming, ALoopWithNothingInItEnds) {
  struct Nothing : UnitReader {
    bool start(int64_t, bool) override { return true; }
    std::optional<MediaUnit> next() override { return std::nullopt; }
    const std::string& damage() const override { return none; }
    std::string none;
  };
  EXPECT_TRUE(played(std::make_unique<Nothing>(), 1000000, 1).empty());
  EXPECT_TRUE(played(std::make_unique<Nothing>(), 1000000, 1, 1500000).empty());
}

}  // namespace
}  // namespace vesk::capture::test
