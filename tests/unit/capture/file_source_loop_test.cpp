#include <gtest/gtest.h>

#include <algorithm>

#include "capture/files/file_source.h"
#include "capture/files/track_stream.h"
#include "tests/support/frame_recorder.h"
#include "tests/unit/capture/file_source_support.h"

namespace vesk::capture::test {
namespace {

/// What a stream delivers: its first `count` units, or all when it ends before.
std::vector<Unit> played(std::unique_ptr<UnitReader> reader, const std::optional<Loop>& loop, size_t count,
                         int64_t from = 0) {
  std::vector<Unit> units;
  int64_t due = 0;
  TrackStream stream(
      std::move(reader),
      [&](uint8_t* data, uint32_t length, int64_t) {
        units.push_back({Bytes(data, data + length), due});
        std::fill(data, data + length, uint8_t{0xEE});  // a receiver may do as it likes with the bytes
      },
      loop, "clip");
  stream.seek(from);
  while (units.size() < count) {
    const auto next = stream.nextTime();
    if (!next) break;
    due = *next;
    stream.deliver(due);
  }
  return units;
}

TEST(FileLoop, ALoopGoesOnWithoutAGapAndWithTheSameFootage) {
  const struct {
    const char* clip;
    uint32_t codec;
    size_t units;
  } rows[] = {
      {"street.mov", kCMVideoCodecType_H264, 90},
      {"SVA_Base_B.264", kCMVideoCodecType_H264, 17},
      {"street-mjpeg.avi", kCMVideoCodecType_MotionJPEG, 6},
      {"street-reordered.mp4", kCMPixelFormat_422YpCbCr8, 36},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.clip);
    const auto footage = footageAt(dataPath(row.clip), true);
    const int64_t length = footage->video->end;
    EXPECT_NEAR(static_cast<double>(length), static_cast<double>(row.units) * footage->video->interval / 10, 40);
    const Loop loop{0, length};
    const auto units = played(videoReader(*footage, row.codec), loop, 3 * row.units + 1);
    ASSERT_EQ(units.size(), 3 * row.units + 1);
    for (size_t at = row.units; at < units.size(); ++at) {
      ASSERT_EQ(units[at].time, units[at - row.units].time + length) << at;
      ASSERT_EQ(units[at].bytes, units[at - row.units].bytes) << at;
    }
    const auto late = played(videoReader(*footage, row.codec), loop, 1, 2 * length);
    ASSERT_EQ(late.size(), 1u);
    EXPECT_EQ(late.front().time, 2 * length);
  }
}

TEST(FileLoop, AACInALoopIsPrimedOnce) {
  for (const char* clip : {"town-h264-aac.mp4", "voice-48k-mono.aac"}) {
    SCOPED_TRACE(clip);
    const auto footage = footageAt(dataPath(clip), true);
    const size_t packets = unitsFrom(*soundReader(*footage, kWaveFormatAAC)).size();
    const Loop loop{0, footage->sound->end};
    const auto units = played(soundReader(*footage, kWaveFormatAAC, loop), loop, 3 * packets);
    ASSERT_EQ(units.size(), 3 * packets);
    const double packetTime = 1024e6 / footage->sound->samplesPerSecond;
    for (size_t at = 0; at < units.size(); ++at) {
      ASSERT_NEAR(static_cast<double>(units[at].time), static_cast<double>(at) * packetTime, 10) << at;
    }
  }
}

TEST(FileLoop, ALoopWithNothingInItEnds) {
  struct Nothing : UnitReader {
    bool start(int64_t, bool) override { return true; }
    std::optional<MediaUnit> next() override { return std::nullopt; }
    const std::string& damage() const override { return none; }
    std::string none;
  };
  EXPECT_TRUE(played(std::make_unique<Nothing>(), Loop{0, 1000000}, 1).empty());
  EXPECT_TRUE(played(std::make_unique<Nothing>(), Loop{0, 1000000}, 1, 1500000).empty());
}

/// The sound of `units` as one stretch of 16-bit mono, from the first one's time on.
std::vector<int16_t> joined(const std::vector<Unit>& units) {
  std::vector<int16_t> sound;
  for (const Unit& unit : units) {
    for (size_t at = 0; at + 1 < unit.bytes.size(); at += 2)
      sound.push_back(static_cast<int16_t>(unit.bytes[at] | unit.bytes[at + 1] << 8));
  }
  return sound;
}

struct LoopRow {
  const char* label;
  Loop loop;
};
// Mono at 16 kHz from 0.4 to 6.45 s; the pictures end at 6 s.
const LoopRow kLoops[] = {
    {"the pictures end first", {0, 6000000}},
    {"the sound ends first", {0, 7123457}},
    {"the pictures begin later", {733333, 6000000}},
};

TEST(FileLoop, SoundFollowsThePicturesOverAHundredTurns) {
  const auto footage = footageAt(dataPath("street.mov"));
  const auto once = unitsFrom(*soundReader(*footage, kWaveFormatLinearPCM));
  const auto original = joined(once);
  for (const LoopRow& row : kLoops) {
    SCOPED_TRACE(row.label);
    const size_t packets = static_cast<size_t>(row.loop.length() * 100 / 32000);
    const auto units = played(soundReader(*footage, kWaveFormatLinearPCM, row.loop), row.loop, packets);
    ASSERT_EQ(units.size(), packets);
    EXPECT_EQ(units.front().time, 400000);
    double expected = 400000;
    for (const Unit& unit : units) {
      ASSERT_NEAR(static_cast<double>(unit.time), expected, 130) << "a gap, or more sound than time";
      expected += static_cast<double>(unit.bytes.size()) / 2 / 16000 * 1e6;
    }
    const auto sound = joined(units);
    for (const int turn : {1, 50, 95}) {
      // A second of footage that every loop here holds, at its time: in every turn the same as once.
      const int64_t time = turn * row.loop.length() + 2000000;
      const auto at = static_cast<size_t>((time - 400000) * 16 / 1000);
      const auto wanted = std::span(original).subspan(1600000 * 16 / 1000, 16000);
      int64_t off = -1;
      for (int64_t shift = 0; shift <= 2 && off < 0; ++shift) {  // rounded
        for (const int64_t sign : {-1, 1}) {
          const auto heard = std::span(sound).subspan(at + static_cast<size_t>(sign * shift), 16000);
          if (std::equal(heard.begin(), heard.end(), wanted.begin())) off = shift;
        }
      }
      EXPECT_GE(off, 0) << "turn " << turn;
    }
  }
}

TEST(FileLoop, PacketsOfAACFollowThePicturesOverAHundredTurns) {
  const auto footage = footageAt(dataPath("town-h264-aac.mp4"));
  const auto once = unitsFrom(*soundReader(*footage, kWaveFormatAAC));
  const double packetTime = 1024e6 / footage->sound->samplesPerSecond;
  for (const Loop& loop : {Loop{0, 1000000}, Loop{0, 900123}, Loop{0, 1300000}, Loop{100000, 1000000}}) {
    SCOPED_TRACE(loop.begin);
    SCOPED_TRACE(loop.end);
    const auto packets = static_cast<size_t>(static_cast<double>(loop.length()) * 100 / packetTime);
    const auto units = played(soundReader(*footage, kWaveFormatAAC, loop), loop, packets);
    ASSERT_EQ(units.size(), packets);
    int known = 0;
    for (size_t at = 0; at < units.size(); ++at) {
      ASSERT_NEAR(static_cast<double>(units[at].time), static_cast<double>(at) * packetTime, 10) << "packet " << at;
      const auto same =
          std::find_if(once.begin(), once.end(), [&](const Unit& unit) { return unit.bytes == units[at].bytes; });
      if (same == once.end()) continue;  // silence
      ++known;
      const int64_t turn = (units[at].time - loop.begin - 23220 + 11610) / loop.length();
      ASSERT_NEAR(static_cast<double>(units[at].time - turn * loop.length()), static_cast<double>(same->time), 11700)
          << "packet " << at;
    }
    EXPECT_GT(known, 3500);
  }
}

/// The whole source: whatever the lengths of its tracks, its pictures come evenly, beginning again without a hole.
TEST(FileLoop, LeavesNoHoleInThePictures) {
  const TemporaryFolder folder;
  const struct {
    const char* label;
    int64_t shift;  // frames by which the sound comes later
  } rows[] = {{"sound ends later", 0}, {"sound begins 0.4 s earlier", -6400 * 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string path = folder.file("copy.mov");
    ASSERT_NO_FATAL_FAILURE(copyMovie(dataPath("street.mov"), path, row.shift, true));
    Transport transport;
    Error error;
    const auto source = makeFileSource(path, {Pace::kFast, true}, error, transport);
    ASSERT_TRUE(source) << error.what;
    const auto camera = source->open(DeviceKind::kVideo, source->devices(DeviceKind::kVideo).front().path);
    const auto microphone = source->open(DeviceKind::kAudio, source->devices(DeviceKind::kAudio).front().path);
    vesk::test::Recorder<int64_t> pictures;
    vesk::test::Recorder<int64_t> packets;
    transport.hold();
    camera->start(1, vesk::test::timesInto(pictures));
    microphone->start(0, vesk::test::timesInto(packets));
    transport.release();
    const auto times = pictures.waitFor(300);
    camera->stop(1);
    microphone->stop(0);
    for (size_t at = 1; at < times.size(); ++at)
      ASSERT_NEAR(static_cast<double>(times[at] - times[at - 1]), 66667, 400) << at;
    const auto heard = packets.items();
    for (size_t at = 1; at < heard.size(); ++at) ASSERT_LE(heard[at] - heard[at - 1], 64500) << at;
  }
}

}  // namespace
}  // namespace vesk::capture::test
