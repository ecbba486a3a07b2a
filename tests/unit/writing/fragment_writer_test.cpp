#include "platform/writing/fragment_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <ostream>
#include <random>
#include <thread>

#include "platform/foundation/byte_reader.h"
#include "platform/writing/movie_recovery_in.h"
#include "tests/support/memory_file_system.h"
#include "tests/unit/writing/movie_probe.h"
#include "tests/unit/writing/recording.h"

namespace vesk::test {
namespace {

using Operation = MemoryFileSystem::Operation;
using Thread = FragmentWriter::Thread;

constexpr char kPath[] = "movie.mov";

struct Recovered {
  RecoveryResult result;
  ProbedMovie movie;
};

Recovered recover(const std::vector<uint8_t>& bytes) {
  MemoryFileSystem files;
  files.put(kPath, bytes);
  Recovered recovered{recoverMovieIn(files, kPath), {}};
  recovered.movie = probeMovie(files.bytes(kPath));
  return recovered;
}

/// Whether the samples of every `moof` are those of the finished movie, which has them in the same place.
bool areValidFragmentsWhole(const std::vector<uint8_t>& file, const std::vector<uint8_t>& finished) {
  bool isValid = false;
  for (size_t at = 0; at + 8 <= file.size();) {
    const size_t size = readBigEndian32(file.data() + at);
    const uint32_t type = readBigEndian32(file.data() + at + 4);
    if (type == fourCharCode("moof")) isValid = true;
    if (size < 8 || size > file.size() - at) return !isValid;
    if (type == fourCharCode("mdat")) {
      const auto begin = file.begin() + static_cast<ptrdiff_t>(at);
      if (isValid &&
          !std::equal(begin, begin + static_cast<ptrdiff_t>(size), finished.begin() + static_cast<ptrdiff_t>(at)))
        return false;
      isValid = false;
    }
    at += size;
  }
  return !isValid;
}

struct Way {
  Content content;
  bool isDirect;
  Thread thread;
};

std::ostream& operator<<(std::ostream& out, const Way& way) {
  return out << static_cast<int>(way.content) << (way.isDirect ? "Direct" : "Buffered")
             << (way.thread == Thread::kOwn ? "Threaded" : "");
}

std::string nameOf(const ::testing::TestParamInfo<Way>& row) {
  return ::testing::PrintToString(row.param);
}

class PowerCutTest : public ::testing::TestWithParam<Way> {};

/// Cuts the power before each operation of a recording and of its end, on a disk that loses, reorders and tears what
/// was not synced. What was synced is there; what is more is what was recorded, or it is not there.
TEST_P(PowerCutTest, LosesNothingThatWasSyncedAndKeepsNothingThatWasNot) {
  const Way& way = GetParam();
  // With a thread, small ones gather in fragments of four seconds.
  const size_t pictures = way.content == Content::kLargeAndPCM ? 90 : way.thread == Thread::kOwn ? 500 : 80;
  struct Cut {
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> durable;
  };
  std::vector<Cut> cuts;
  std::mt19937 random(7);
  MemoryFileSystem files;
  files.setDirect(way.isDirect);
  files.setVolatile([&] {
    for (int i = 0; i < 4; ++i) cuts.push_back({files.afterPowerCut(kPath, random), files.durable(kPath)});
  });
  {
    MovieFileWriter writer(kPath, files, way.thread);
    Recording recording(writer, way.content);
    ASSERT_TRUE(writer.start());
    ASSERT_TRUE(recording.recordUpTo(pictures));
    ASSERT_TRUE(writer.finish());
    EXPECT_EQ(writer.writing().direct > 0, way.isDirect);
    EXPECT_EQ(writer.writing().buffered > 0, !way.isDirect);
    if (!way.isDirect) {
      EXPECT_EQ(files.preallocated(), 0U) << "it may be memory";
    }
  }
  const std::vector<uint8_t> finished = files.bytes(kPath);
  const ProbedMovie whole = probeMovie(finished);
  EXPECT_EQ(whole.complaints, "");
  EXPECT_EQ(whole.tracks[0].packets, static_cast<int>(pictures));
  EXPECT_GE(cuts.size(), 40U);
  size_t recovered = 0;
  for (const Cut& cut : cuts) {
    const Recovered after = recover(cut.bytes);
    const uint64_t synced = recover(cut.durable).result.frames;
    ASSERT_GE(after.result.frames, synced);
    EXPECT_TRUE(areValidFragmentsWhole(cut.bytes, finished));
    if (after.result.frames == 0) continue;
    expectBeginningOf(after.movie, whole);
    ++recovered;
    ASSERT_TRUE(after.result.outcome == RecoveryOutcome::kRecovered ||
                after.result.outcome == RecoveryOutcome::kAlreadyPlain);
    EXPECT_EQ(after.movie.complaints, "");
    EXPECT_EQ(after.movie.tracks[0].packets, static_cast<int>(after.result.frames));
    if (HasFailure()) return;
  }
  EXPECT_GE(recovered, 10U);
}

INSTANTIATE_TEST_SUITE_P(
    All, PowerCutTest,
    ::testing::Values(Way{Content::kH264AndPCM, true, Thread::kNone}, Way{Content::kH264AndPCM, true, Thread::kOwn},
                      Way{Content::kH264AndPCM, false, Thread::kNone}, Way{Content::kH264AndAAC, false, Thread::kOwn},
                      Way{Content::kLargeAndPCM, true, Thread::kNone}, Way{Content::kLargeAndPCM, false, Thread::kOwn},
                      Way{Content::kArenas, true, Thread::kOwn}),
    nameOf);

TEST(PowerCut, LosesNothingWhileATrackComesLate) {
  std::mt19937 random(7);
  MemoryFileSystem files;
  files.setVolatile([&] {
    const uint64_t synced = recover(files.durable(kPath)).result.frames;
    for (int i = 0; i < 20; ++i) EXPECT_GE(recover(files.afterPowerCut(kPath, random)).result.frames, synced);
  });
  MovieFileWriter writer(kPath, files, Thread::kNone);
  const size_t video = writer.addTrack(TrackKind::kVideo);
  const size_t sound = writer.addTrack(TrackKind::kSound);
  ASSERT_TRUE(writer.start());
  for (size_t i = 0; i < 40; ++i) ASSERT_TRUE(writer.append(video, h264Sample(i, static_cast<int64_t>(i) * 30'000)));
  ASSERT_TRUE(writer.append(sound, pcmSample(pcmFormat(48000, 1), 1440, 1'200'000)));
  ASSERT_TRUE(writer.finish());
}

class FaultTest : public ::testing::TestWithParam<Way> {};

/// Lets each operation fail once, of whatever kind.
TEST_P(FaultTest, CostsNothingOrEndsAPlayableMovie) {
  const Way& way = GetParam();
  ProbedMovie whole;
  int failures = 0;
  for (size_t victim = SIZE_MAX;; victim = victim == SIZE_MAX ? 0 : victim + 1) {
    MemoryFileSystem files;
    files.setDirect(way.isDirect);
    MovieFileWriter writer(kPath, files, way.thread);
    Recording recording(writer, way.content);
    ASSERT_TRUE(writer.start());
    bool failed = false;
    files.setFaults([&](Operation, size_t number, uint64_t, size_t bytes) {
      if (number != victim) return MemoryFileSystem::Fault{};
      failed = true;
      return MemoryFileSystem::Fault{EIO, bytes / 2};
    });
    recording.recordUpTo(70);
    const bool finished = writer.finish();
    if (victim != SIZE_MAX && !failed) break;
    EXPECT_EQ(finished, writer.status() == AVAssetWriterStatus::Completed);
    if (victim == SIZE_MAX) {
      ASSERT_TRUE(finished);
      whole = probeMovie(files.bytes(kPath));
      continue;
    }
    if (!finished) {
      ++failures;
      EXPECT_EQ(writer.error().code, AVErrorFileFailedToWrite) << victim;
    }
    if (!files.exists(kPath)) continue;
    const ProbedMovie movie = probeMovie(files.bytes(kPath));
    expectBeginningOf(movie, whole);
    if (finished) {
      EXPECT_EQ(movie.tracks[0].packets, whole.tracks[0].packets) << victim;
      EXPECT_EQ(movie.complaints, "") << victim;
    }
    const Recovered after = recover(files.bytes(kPath));
    expectBeginningOf(after.movie, whole);
    EXPECT_GE(after.movie.tracks[0].packets, movie.tracks[0].packets) << victim;
  }
  EXPECT_GT(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(All, FaultTest,
                         ::testing::Values(Way{Content::kH264AndPCM, true, Thread::kNone},
                                           Way{Content::kH264AndPCM, false, Thread::kNone},
                                           Way{Content::kLargeAndPCM, true, Thread::kOwn},
                                           Way{Content::kArenas, true, Thread::kNone}),
                         nameOf);

/// A sync that failed once is tried again, so that who reads the movie that is left finds all that was written.
TEST(FragmentWriter, MakesValidWhatAFailedSyncLeft) {
  MemoryFileSystem files;
  int syncs = 0;
  {
    MovieFileWriter writer(kPath, files, Thread::kNone);
    Recording recording(writer, Content::kH264AndPCM);
    ASSERT_TRUE(writer.start());
    files.setFaults([&](Operation operation, size_t, uint64_t, size_t) {
      return MemoryFileSystem::Fault{operation == Operation::kSync && ++syncs == 3 ? EIO : 0};
    });
    ASSERT_FALSE(recording.recordUpTo(100));
  }
  const ProbedMovie movie = probeMovie(files.bytes(kPath));
  EXPECT_GT(movie.tracks[0].packets, 0);
  EXPECT_EQ(static_cast<uint64_t>(movie.tracks[0].packets), recover(files.bytes(kPath)).result.frames);
}

/// Ends the disk at each of the last 100 blocks of a movie.
TEST(FragmentWriter, EndsAPlayableMovieWhereverTheDiskEnds) {
  constexpr uint64_t kBlock = 4096;
  ProbedMovie whole;
  uint64_t size = 0;
  for (const bool isDirect : {true, false}) {
    for (uint64_t missing = 0; missing <= 100; ++missing) {
      MemoryFileSystem files;
      files.setDirect(isDirect);
      if (missing > 0) files.setCapacity(alignedUp(size) - missing * kBlock);
      MovieFileWriter writer(kPath, files, Thread::kNone);
      Recording recording(writer, Content::kH264AndPCM);
      ASSERT_TRUE(writer.start());
      recording.recordUpTo(100);
      const bool finished = writer.finish();
      EXPECT_EQ(finished, missing == 0) << missing;
      const ProbedMovie movie = probeMovie(files.bytes(kPath));
      ASSERT_EQ(movie.tracks.size(), 2U) << missing;
      EXPECT_EQ(movie.complaints, "") << missing;
      if (missing == 0) {
        whole = movie;
        size = files.bytes(kPath).size();
        continue;
      }
      EXPECT_EQ(writer.error().code, AVErrorDiskFull);
      expectBeginningOf(movie, whole);
      // The 400 kB that are missing are two seconds, and the fragment that meets the end is a third.
      EXPECT_GE(movie.tracks[0].packets, 5) << missing;
    }
  }
}

/// A recording leaves others as much of a small disk as it sets aside, and says when a quota lets it have no more.
TEST(FragmentWriter, LeavesOthersHalfOfTheRoomThereIs) {
  for (const bool hasQuota : {false, true}) {
    MemoryFileSystem files;
    files.setCapacity(uint64_t{100} << 20);
    if (hasQuota) files.setQuota(uint64_t{1} << 20);
    std::atomic<int> tries{0};
    files.setFaults([&](Operation operation, size_t, uint64_t, size_t bytes) {
      if (operation != Operation::kPreallocate) return MemoryFileSystem::Fault{};
      ++tries;
      EXPECT_LE(bytes, files.roomBeside(kPath) / 2);
      return MemoryFileSystem::Fault{};
    });
    MovieFileWriter writer(kPath, files);
    Recording recording(writer, Content::kLargeAndPCM);
    ASSERT_TRUE(writer.start());
    while (tries < 3) ASSERT_TRUE(recording.recordUpTo(recording.pictures() + 1));
    if (hasQuota) {
      while (!writer.writing().isSpaceShort) ASSERT_TRUE(recording.recordUpTo(recording.pictures() + 1));
    }
    ASSERT_TRUE(writer.finish());
    EXPECT_EQ(writer.writing().isSpaceShort, hasQuota);
    EXPECT_EQ(probeMovie(files.bytes(kPath)).complaints, "");
  }
}

/// A disk whose syncs take until they are let go on.
class SlowDiskTest : public ::testing::Test {
 protected:
  SlowDiskTest() {
    mFiles.setSlowSync([this] {
      std::unique_lock lock(mMutex);
      mChanged.wait(lock, [this] { return !mIsHeld; });
    });
  }

  void hold(bool isHeld) {
    const std::lock_guard lock(mMutex);
    mIsHeld = isHeld;
    mChanged.notify_all();
  }

  /// Appends pictures of 600 kB that lie `step` microseconds apart.
  void append(int count, int64_t step) {
    for (int i = 0; i < count; ++i, ++mPictures, mTime += step)
      ASSERT_TRUE(mWriter.append(mVideo, packedSample(mFormat, static_cast<uint8_t>(mPictures), mTime, step)));
  }

  MemoryFileSystem mFiles;
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mIsHeld = false;
  MovieFileWriter mWriter{kPath, mFiles};
  const size_t mVideo = mWriter.addTrack(TrackKind::kVideo);
  const CMVideoFormatDescriptionRef mFormat = packedFormat(640, 480);
  int mPictures = 0;
  int64_t mTime = 0;
};

TEST_F(SlowDiskTest, LetsThePageCacheHelpALiveRecordingUntilTheDiskKeepsUp) {
  ASSERT_TRUE(mWriter.start());
  hold(true);
  append(140, 1);  // 84 MB in no time, as far as the clock is concerned
  EXPECT_EQ(mWriter.writing().fellBehind, 1U);
  EXPECT_GT(mWriter.writing().buffered, uint64_t{50} << 20);
  EXPECT_GT(mWriter.writing().direct + mWriter.writing().buffered, uint64_t{60} << 20);
  hold(false);
  const uint64_t before = mWriter.writing().direct;
  while (mWriter.writing().direct == before) append(1, 1);
  ASSERT_TRUE(mWriter.finish());
  const ProbedMovie movie = probeMovie(mFiles.bytes(kPath));
  EXPECT_EQ(movie.complaints, "");
  EXPECT_EQ(movie.tracks[0].packets, mPictures);
}

TEST_F(SlowDiskTest, MakesASourceWaitThatIsFasterThanRealTime) {
  ASSERT_TRUE(mWriter.start());
  hold(true);
  auto appended = std::async(std::launch::async, [this] { append(60, 1'000'000); });
  while (mWriter.bytesWritten() < (uint64_t{2} << 20)) std::this_thread::yield();
  hold(false);
  appended.get();
  ASSERT_TRUE(mWriter.finish());
  EXPECT_EQ(mWriter.writing().fellBehind, 0U);
  EXPECT_EQ(mWriter.writing().buffered, 0U);
  EXPECT_EQ(probeMovie(mFiles.bytes(kPath)).tracks[0].packets, 60);
}

/// A source that always has more for the disk than that has written: what is written becomes durable all the same.
TEST_F(SlowDiskTest, SyncsWhileASourceKeepsTheQueueFull) {
  constexpr size_t kFragment = 600'000;
  constexpr int kFragments = 1000;
  std::atomic<int> syncs{0};
  std::atomic<int> fragments{0};
  mFiles.setSlowSync([&] { ++syncs; });
  mFiles.setFaults([&](Operation operation, size_t, uint64_t offset, size_t bytes) {
    const bool isFragment = operation == Operation::kWrite && bytes >= kFragment;
    fragments += isFragment ? 1 : 0;
    if (isFragment)
      std::this_thread::sleep_for(std::chrono::milliseconds(4));  // of so many, far longer than four syncs
    while (isFragment && syncs < 4 && mWriter.bytesWritten() < offset + bytes + kFragment) std::this_thread::yield();
    return MemoryFileSystem::Fault{ENOSPC * (fragments > kFragments)};
  });
  ASSERT_TRUE(mWriter.start());
  while (syncs < 4 && !HasFailure()) append(1, 1'000'000);
  ASSERT_TRUE(mWriter.finish());
  EXPECT_EQ(mWriter.writing().buffered, 0U);
}

}  // namespace
}  // namespace vesk::test
