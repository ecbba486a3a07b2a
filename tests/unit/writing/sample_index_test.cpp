#include "platform/writing/sample_index.h"

#include <gtest/gtest.h>

#include <random>

#include <vesk/four_char_code.h>
#include "platform/writing/atom_reader.h"
#include "platform/writing/atom_writer.h"

namespace vesk::test {
namespace {

/// The numbers behind version and flags of a table's atom, each of `width` bytes.
std::vector<uint64_t> numbersOf(std::span<const uint8_t> tables, const char (&type)[5], int width = 4) {
  const auto outer = findAtom(tables, fourCharCode("stbl"));
  const auto body = outer ? findAtom(*outer, fourCharCode(type)) : std::nullopt;
  std::vector<uint64_t> numbers;
  if (!body) return numbers;
  ByteReader reader(body->subspan(4));
  numbers.push_back(reader.u32().value_or(0));
  if (width == 4) {
    while (const auto value = reader.u32()) numbers.push_back(*value);
  } else {
    while (const auto value = reader.u64()) numbers.push_back(*value);
  }
  return numbers;
}

std::vector<uint8_t> tablesOf(const SampleIndex& index, const TrackDescription& track) {
  std::vector<uint8_t> bytes;
  AtomWriter writer(bytes);
  index.writeTables(writer, track);
  return bytes;
}

using Numbers = std::vector<uint64_t>;

TEST(SampleIndex, GroupsWhatIsAlike) {
  SampleIndex index(0);
  index.beginChunk(1000);
  index.addSample(50, 30, true);
  index.addSample(60, 30, false);
  index.beginChunk(2000);
  index.addSample(70, 40, false);
  index.addSample(10, 30, true);
  index.beginChunk(2500);
  index.addSample(20, 30, false);
  const auto tables = tablesOf(index, {.hasKeySamples = true});
  EXPECT_EQ(numbersOf(tables, "stts"), (Numbers{3, 2, 30, 1, 40, 2, 30}));
  EXPECT_EQ(numbersOf(tables, "stss"), (Numbers{2, 1, 4}));
  EXPECT_EQ(numbersOf(tables, "stsc"), (Numbers{2, 1, 2, 1, 3, 1, 1}));
  EXPECT_EQ(numbersOf(tables, "stsz"), (Numbers{0, 5, 50, 60, 70, 10, 20}));
  EXPECT_EQ(numbersOf(tables, "stco"), (Numbers{3, 1000, 2000, 2500}));
  EXPECT_EQ(index.duration(), 160U);
}

TEST(SampleIndex, LetsTheLastSampleEndWhereTheNextBegins) {
  SampleIndex index(0);
  index.beginChunk(0);
  index.addSample(1, 30, true);
  index.addSample(1, 30, true);
  index.moveEnd(100);
  index.addSample(1, 30, true);
  index.moveEnd(50);  // before its own beginning
  EXPECT_EQ(numbersOf(tablesOf(index, {}), "stts"), (Numbers{3, 1, 30, 1, 70, 1, 1}));
  EXPECT_EQ(index.duration(), 101U);
}

TEST(SampleIndex, CountsFramesOfPCM) {
  SampleIndex index(4);
  index.beginChunk(100);
  index.addFrames(4000);
  index.beginChunk(10'000);
  index.addFrames(400);
  const auto tables = tablesOf(index, {});
  EXPECT_EQ(numbersOf(tables, "stts"), (Numbers{1, 1100, 1}));
  EXPECT_EQ(numbersOf(tables, "stsz"), (Numbers{4, 1100}));
  EXPECT_EQ(numbersOf(tables, "stsc"), (Numbers{2, 1, 1000, 1, 2, 100, 1}));
  EXPECT_EQ(numbersOf(tables, "stco"), (Numbers{2, 100, 10'000}));
}

TEST(SampleIndex, LetsAllGapsShareOneStretchOfSilence) {
  SampleIndex pcm(4, {.size = 4});  // 64 kB of silence are 16384 frames
  pcm.beginChunk(100);
  pcm.addFrames(400);
  pcm.moveEnd(100 + 40'000);
  pcm.beginChunk(500);
  pcm.addFrames(400);
  pcm.moveEnd(40'200 + 7);
  pcm.beginChunk(900);
  pcm.addFrames(4);
  EXPECT_EQ(pcm.silentStretch(), 16'384U);
  std::vector<uint8_t> tables;
  AtomWriter writer(tables);
  pcm.writeTables(writer, {}, 5000);
  EXPECT_EQ(numbersOf(tables, "stco"), (Numbers{7, 100, 5000, 5000, 5000, 500, 5000, 900}));
  EXPECT_EQ(numbersOf(tables, "stsc"), (Numbers{6, 1, 100, 1, 2, 16'384, 1, 4, 7232, 1, 5, 100, 1, 6, 7, 1, 7, 1, 1}));
  EXPECT_EQ(numbersOf(tables, "stts"), (Numbers{1, 40'208, 1}));
  EXPECT_EQ(numbersOf(tables, "stsz"), (Numbers{4, 40'208}));

  SampleIndex packets(0, {.size = 9, .duration = 1024, .longestStretch = 2048});
  packets.moveEnd(3 * 1024);  // a track may begin with silence
  packets.beginChunk(100);
  packets.addSample(50, 1024, true);
  packets.moveEnd(4 * 1024 + 2048);  // short enough
  packets.beginChunk(200);
  packets.addSample(60, 1024, true);
  packets.moveEnd(7 * 1024 + 2049);
  packets.beginChunk(300);
  packets.addSample(60, 1024, true);
  tables.clear();
  packets.writeTables(writer, {}, 0x1'0000'0000);
  EXPECT_EQ(numbersOf(tables, "stts"), (Numbers{5, 3, 1024, 1, 3072, 2, 1024, 1, 1025, 1, 1024}));
  EXPECT_EQ(numbersOf(tables, "stsz"), (Numbers{0, 8, 9, 9, 9, 50, 60, 9, 9, 60}));
  EXPECT_EQ(numbersOf(tables, "co64", 8), (Numbers{5, 0x1'0000'0000, 100, 200, 0x1'0000'0000, 300}));
  EXPECT_EQ(packets.silentStretch(), 3U);
}

TEST(SampleIndex, KnowsWhichSilenceMakesTablesTooLarge) {
  SampleIndex pcm(4, {.size = 4});
  EXPECT_TRUE(pcm.canReach(0xFFFFFFFF));
  EXPECT_FALSE(pcm.canReach(0x1'0000'0000));
  SampleIndex wide(4096, {.size = 4096});  // 16 frames a chunk
  EXPECT_FALSE(wide.canReach(0xFFFFFFFF));
  SampleIndex packets(0, {.size = 4, .duration = 1024, .longestStretch = 2048});
  EXPECT_TRUE(packets.canReach(uint64_t{4'000'000} * 1024));
  EXPECT_FALSE(packets.canReach(uint64_t{5'000'000} * 1024));
  EXPECT_TRUE(SampleIndex(0).canReach(UINT64_MAX)) << "a picture may last as long as it likes";
}

TEST(SampleIndex, TakesACoarserScaleForDurationsThatReadersTakeForNegative) {
  SampleIndex index(0);
  const TrackDescription track{.timescale = kVideoTimescale};
  index.beginChunk(0);
  for (int i = 0; i < 3; ++i) index.addSample(1, 33'333, true);
  EXPECT_EQ(index.timeDivisor(kVideoTimescale), 1U);
  index.moveEnd(5'000'066'666);  // of the third
  for (int i = 0; i < 3; ++i) index.addSample(1, 33'337, true);
  EXPECT_EQ(index.timeDivisor(kVideoTimescale), 10U);
  const auto durations = numbersOf(tablesOf(index, track), "stts");
  EXPECT_EQ(durations, (Numbers{5, 1, 3333, 1, 3334, 1, 500'000'000, 1, 3333, 2, 3334}));
}

TEST(SampleIndex, UsesWideOffsetsWhenTheLastChunkNeedsThem) {
  SampleIndex index(1);
  index.beginChunk(0xFFFFFFFF);
  index.addFrames(10);
  EXPECT_EQ(numbersOf(tablesOf(index, {}), "stco"), (Numbers{1, 0xFFFFFFFF}));
  index.beginChunk(0x1'0000'0009);
  index.addFrames(10);
  EXPECT_EQ(numbersOf(tablesOf(index, {}), "co64", 8), (Numbers{2, 0xFFFFFFFF, 0x1'0000'0009}));
}

/// Four hours as a camera and a microphone deliver them, with offsets beyond 4 GiB.
TEST(SampleIndex, HoldsHoursInFewBytesAndLosesNothing) {
  std::mt19937 random(1);
  SampleIndex video(0);
  SampleIndex sound(0);
  Numbers videoSizes{0, 0};
  Numbers soundSizes{0, 0};
  Numbers offsets{0};
  uint64_t end = 100;
  uint64_t afterFirstHour = 0;
  for (int half = 0; half < 4 * 7200; ++half) {
    if (half == 7200) afterFirstHour = video.memory() + sound.memory();
    end += 500;  // headers
    offsets.push_back(end);
    video.beginChunk(end);
    for (int i = 0; i < 15; ++i) {
      const uint32_t size = half % 2 == 0 && i == 0 ? 120'000 : 25'000 + random() % 16'000;
      video.addSample(size, i % 19 == 18 ? 60'000 : 30'000 + random() % 2, i == 0);
      videoSizes.push_back(size);
      end += size;
    }
    sound.beginChunk(end);
    for (int i = 0; i < 23 + half % 2; ++i) {
      const uint32_t size = 200 + random() % 400;
      sound.addSample(size, 1024, true);
      soundSizes.push_back(size);
      end += size;
    }
  }
  EXPECT_LT((video.memory() + sound.memory() - afterFirstHour) / 3, 1'000'000U) << "bytes an hour";
  videoSizes[1] = videoSizes.size() - 2;
  soundSizes[1] = soundSizes.size() - 2;
  offsets[0] = offsets.size() - 1;
  EXPECT_EQ(numbersOf(tablesOf(video, {}), "stsz"), videoSizes);
  EXPECT_EQ(numbersOf(tablesOf(video, {}), "co64", 8), offsets);
  EXPECT_EQ(numbersOf(tablesOf(sound, {}), "stsz"), soundSizes);
}

}  // namespace
}  // namespace vesk::test
