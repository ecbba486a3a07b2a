#include "sessions/movie_recording.h"

#include <gtest/gtest.h>

#include <vesk/movie_recovery.h>
#include "platform/writing/movie_file_writer.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using test::TemporaryFolder;

CMSampleBufferRef soundAt(int64_t microseconds, uint32_t frames) {
  AudioStreamBasicDescription sound{.mSampleRate = 48'000,
                                    .mFormatID = kAudioFormatLinearPCM,
                                    .mFormatFlags = 12,
                                    .mBytesPerPacket = 2,
                                    .mFramesPerPacket = 1,
                                    .mBytesPerFrame = 2,
                                    .mChannelsPerFrame = 1,
                                    .mBitsPerChannel = 16};
  auto block = CMBlockBuffer::create(frames * 2);
  block->fillDataBytes(1, 0, frames * 2);
  return CMSampleBuffer::createAudioWithPacketDescriptions(block, CMAudioFormatDescription::create(sound), frames,
                                                           CMTimeMake(microseconds, 1'000'000), {});
}

/// A movie of sound that its writer left in the middle: second after second from `times` on.
std::string leaveMovie(const TemporaryFolder& folder, const std::vector<int64_t>& times) {
  std::string path = folder.file("movie.mov");
  MovieFileWriter writer(path, FileSystem::posix());
  const size_t track = writer.addTrack(TrackKind::kSound);
  EXPECT_TRUE(writer.start());
  for (const int64_t time : times) EXPECT_TRUE(writer.append(track, soundAt(time, 48'000)));
  return path;
}

TEST(MovieRecording, AMovieTooLongForPlainTablesIsKept) {
  TemporaryFolder folder;
  constexpr int64_t kHours = 3'600'000'000;
  const std::string path = leaveMovie(folder, {0, 11 * kHours, 22 * kHours, 33 * kHours});
  ASSERT_EQ(recoverMovie(path).outcome, RecoveryOutcome::kNothingToRecover);
  EXPECT_TRUE(holdsFilm(path));
}

TEST(MovieRecording, WhatNobodyWouldMissIsNot) {
  const struct {
    const char* label;
    std::vector<int64_t> times;
    bool isKept;
  } rows[] = {{"no sample", {}, false}, {"a second of sound", {0}, false}, {"six", {0, 5'000'000}, true}};
  for (const auto& row : rows) {
    TemporaryFolder folder;
    EXPECT_EQ(holdsFilm(leaveMovie(folder, row.times)), row.isKept) << row.label;
  }
  TemporaryFolder folder;
  EXPECT_FALSE(holdsFilm(folder.file("none.mov")));
  EXPECT_TRUE(holdsFilm(folder.write("text.mov", "Something else."))) << "nobody knows";
}

}  // namespace
}  // namespace vesk
