#include "platform/writing/movie_file_writer.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/memory_file_system.h"
#include "tests/writing/movie_probe.h"
#include "tests/writing/movie_samples.h"

namespace vesk::test {
namespace {

constexpr char kPath[] = "movie.mov";

/// A writer on files in memory.
class MovieFileWriterTest : public ::testing::Test {
 protected:
  size_t addVideo() { return mWriter.addTrack(TrackKind::kVideo); }
  size_t addSound() { return mWriter.addTrack(TrackKind::kSound); }
  ProbedMovie probe(Probe depth = Probe::kDecode) { return probeMovie(mFiles.bytes(kPath), depth); }

  MemoryFileSystem mFiles;
  MovieFileWriter mWriter{kPath, mFiles};
};

constexpr int64_t kFrames = 1024;

TEST_F(MovieFileWriterTest, WritesH264AndPCM) {
  const size_t video = addVideo();
  const size_t sound = addSound();
  const auto format = pcmFormat(48000, 2);
  ASSERT_TRUE(mWriter.start());
  int64_t written = 0;
  for (size_t i = 0; i < 100; ++i) {
    ASSERT_TRUE(mWriter.append(video, h264Sample(i, static_cast<int64_t>(i) * 30'000)));
    for (; written * 1'000'000 / 48000 < static_cast<int64_t>(i) * 30'000; written += kFrames) {
      ASSERT_TRUE(mWriter.append(
          sound, pcmSample(format, kFrames, written * 1'000'000 / 48000, static_cast<uint32_t>(written))));
    }
  }
  const ProbedMovie growing = probe();
  EXPECT_EQ(growing.complaints, "");
  ASSERT_EQ(growing.tracks.size(), 2U);
  EXPECT_GE(growing.tracks[0].decoded, 66);

  ASSERT_TRUE(mWriter.finish());
  const ProbedMovie movie = probe();
  EXPECT_EQ(movie.complaints, "");
  ASSERT_EQ(movie.tracks.size(), 2U);
  EXPECT_EQ(movie.tracks[0].codec, "h264");
  EXPECT_EQ(movie.tracks[0].packets, 100);
  EXPECT_EQ(movie.tracks[0].decoded, 100);
  EXPECT_EQ(movie.tracks[0].keyPackets, 6);
  EXPECT_EQ(movie.tracks[0].endTime, 3'000'000);
  EXPECT_EQ(movie.tracks[1].codec, "pcm_s16le");
  EXPECT_EQ(movie.tracks[1].decoded, written);
  EXPECT_EQ(movie.software, "Vesk 0.1.0");
}

}  // namespace
}  // namespace vesk::test
