#include <vesk/asset_writer_adapter.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include <vesk/h264_bitstream.h>
#include <vesk/sample_generators.h>
#include "movie/asset_writer_adapter_state.h"
#include "tests/support/captured_lines.h"
#include "tests/support/h264_stream.h"
#include "tests/support/log_recorder.h"
#include "tests/support/memory_file_system.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/movie/movie_reader.h"

namespace vesk {
namespace {

using test::Bytes;
using test::CapturedLines;
using test::MemoryFileSystem;
using test::TemporaryFolder;

/// Samples of real pictures, and of sound, each at the time of its number.
class Samples {
 public:
  CMSampleBufferRef picture(size_t number) {
    Bytes stream = mPictures.at(number).stream;
    EnsureH264BoxFormat(stream.data(), static_cast<uint32_t>(stream.size()));
    return mVideo.CreateSample(stream.data(), static_cast<unsigned>(stream.size()), number * 30'000);
  }
  CMSampleBufferRef sound(uint32_t number, uint32_t frames = 1024) {
    const Bytes packet = test::soundPacket(number, frames);
    return mAudio.CreateSample(packet.data(), static_cast<unsigned>(packet.size()),
                               uint64_t{number} * frames * 1'000'000 / 48'000);
  }
  const std::vector<test::AccessUnit>& pictures() const { return mPictures; }

 private:
  std::vector<test::AccessUnit> mPictures = test::accessUnitsOf("MIDR_MW_D.264");
  H264SampleGenerator mVideo{176, 144, 30};
  PCMAudioSampleGenerator mAudio{48'000, 2, 16};
};

class AssetWriterAdapterTest : public ::testing::Test {
 protected:
  /// Lets the disk in memory hang at its first write, until `gate` opens.
  void holdDisk(int error = 0) {
    files.setFaults([this, error](auto operation, size_t, uint64_t, size_t) {
      if (operation == MemoryFileSystem::Operation::kWrite) {
        reached.open();
        gate.wait();
      }
      return MemoryFileSystem::Fault{error};
    });
  }

  const TemporaryFolder folder;
  const std::string path = folder.file("a.mov");
  test::Gate reached, gate;
  MemoryFileSystem files;
  Samples samples;
  const std::shared_ptr<RecordingCounters> counters = std::make_shared<RecordingCounters>();
  CapturedLines lines;
};

TEST_F(AssetWriterAdapterTest, HoldsPicturesBackUntilOneStandsAlone) {
  const auto key = samples.picture(0);
  const auto dependent = samples.picture(1);
  {
    CountedAssetWriterAdapter adapter(path, true, false, counters);
    EXPECT_EQ(adapter.addVideoSample(dependent), 0);
    EXPECT_EQ(adapter.addVideoSample(dependent), 0);
    EXPECT_EQ(adapter.addVideoSample(key), 0);
    EXPECT_EQ(adapter.addVideoSample(dependent), 0);
  }
  EXPECT_EQ(lines.count("Samples are being discarded!!!\n"), 2U);
  EXPECT_EQ(counters->statistics().videoHeldBack, 2U);
  EXPECT_EQ(counters->statistics().videoFrames, 2U);
  const auto movie = test::readMovie(path);
  ASSERT_EQ(movie.video.samples.size(), 2U);
  EXPECT_TRUE(movie.video.samples[0].isKey);
  EXPECT_FALSE(movie.video.samples[1].isKey);
}

TEST_F(AssetWriterAdapterTest, SaysWhatItStartsAndFinishesAndDeletesTheOldFile) {
  folder.write("a.mov", "old");
  {
    AVAssetWriterAdapter adapter(path, true, false);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(adapter.audioInput(), nullptr);
    EXPECT_NE(adapter.videoInput(), nullptr);
    EXPECT_EQ(adapter.addAudioSample(samples.sound(0)), 0) << "a track that is not wanted";
  }
  EXPECT_EQ(lines.count("Starting writing [" + path + "] with audio = (nil), video = 0x"), 1U);
  EXPECT_EQ(lines.count("Finished writing [" + path + "]\n"), 1U);
  EXPECT_FALSE(std::filesystem::exists(path)) << "nothing came, nothing is written";
}

TEST_F(AssetWriterAdapterTest, WritesEverythingQueuedBeforeItFinishes) {
  CountedAssetWriterAdapter adapter(path, true, true, counters);
  for (uint32_t number = 0; number < 100; ++number) {
    ASSERT_EQ(adapter.addVideoSample(samples.picture(number)), 0);
    ASSERT_EQ(adapter.addAudioSample(samples.sound(number)), 0);
  }
  adapter.finish();
  EXPECT_EQ(adapter.addVideoSample(samples.picture(0)), 0) << "too late, and harmless";
  adapter.finish();
  EXPECT_EQ(lines.count("Finished writing"), 1U);

  const auto movie = test::readMovie(path);
  EXPECT_EQ(movie.video.samples.size(), 100U);
  EXPECT_EQ(movie.audio.allBytes().size(), 100U * 4096);
  const RecordingStatistics statistics = counters->statistics();
  EXPECT_EQ(statistics.videoFrames, 100U);
  EXPECT_EQ(statistics.audioPackets, 100U);
  EXPECT_EQ(statistics.videoWaiting + statistics.audioWaiting, 0U);
  EXPECT_EQ(statistics.bytes, std::filesystem::file_size(path));
  EXPECT_EQ(statistics.duration, 3'000'000U) << "the pictures reach further than the sound";
}

TEST_F(AssetWriterAdapterTest, WakesTheWriterForASingleSample) {
  CountedAssetWriterAdapter adapter(path, false, true, counters);
  for (uint32_t number = 0; number < 3; ++number) {
    ASSERT_EQ(adapter.addAudioSample(samples.sound(number)), 0);
    while (counters->levels().audioWaiting != 0) std::this_thread::yield();
  }
}

TEST_F(AssetWriterAdapterTest, DropsWhatItsQueueCannotHold) {
  CapturedLines errors(CapturedLines::Stream::kError);
  CountedAssetWriterAdapter adapter("a.mov", false, true, counters, files);
  holdDisk();  // the first write, of the movie's header, is the writer queue's own
  uint32_t number = 0;
  ASSERT_EQ(adapter.addAudioSample(samples.sound(number++)), 0);
  reached.wait();
  while (counters->levels().audioWaiting < kAudioQueueCapacity)
    ASSERT_EQ(adapter.addAudioSample(samples.sound(number++)), 0);
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(adapter.addAudioSample(samples.sound(number++)), 0);
  EXPECT_EQ(errors.text(), "[FATAL] dropping packet!\n");
  EXPECT_EQ(counters->statistics().audioDropped, 1U);
  EXPECT_EQ(counters->statistics().audioWaiting, kAudioQueueCapacity);
  gate.open();
  adapter.finish();
  EXPECT_EQ(counters->statistics().audioPackets, number - 1);
  EXPECT_EQ(counters->statistics().audioWaiting, 0U);
}

/// What waits for a disk that hangs is bounded in bytes too: large pictures fill memory long before
/// there are 300 of them.
TEST_F(AssetWriterAdapterTest, DropsWhatTakesTooManyBytes) {
  constexpr uint32_t kSide = 4096;  // 32 MiB a picture
  constexpr size_t kMost = kQueueBytes / (kSide * kSide * 2);
  CapturedLines errors(CapturedLines::Stream::kError);
  UncompressedSampleGenerator generator(kSide, kSide, 30);
  const auto picture = generator.CreateSample(Bytes(64, 0x55).data(), 64, 0);
  ASSERT_TRUE(picture);
  CountedAssetWriterAdapter adapter("a.mov", true, true, counters, files);
  holdDisk(ENOSPC);  // nobody wants to write half a gigabyte afterwards
  ASSERT_EQ(adapter.addAudioSample(samples.sound(0)), 0);
  ASSERT_EQ(adapter.addVideoSample(picture), 0);
  reached.wait();  // with the first picture
  for (size_t number = 0; number < kMost; ++number) ASSERT_EQ(adapter.addVideoSample(picture), 0);
  EXPECT_EQ(counters->statistics().videoDropped, 0U);
  EXPECT_EQ(adapter.addVideoSample(picture), 0);
  EXPECT_EQ(adapter.addVideoSample(picture), 0);
  EXPECT_EQ(adapter.addAudioSample(samples.sound(1)), 0);
  EXPECT_EQ(counters->statistics().videoDropped, 2U);
  EXPECT_EQ(counters->statistics().audioDropped, 0U) << "sound has a queue of its own";
  EXPECT_EQ(errors.count("[FATAL] dropping packet!\n"), 2U);
  gate.open();
  adapter.finish();
  EXPECT_EQ(counters->levels().bytesWaiting, 0U);
}

TEST_F(AssetWriterAdapterTest, SaysHowMuchOfADiskThatBecomesShortIsItsOwn) {
  constexpr uint64_t kQuota = uint64_t{100} << 20;
  files.setQuota(kQuota);
  CountedAssetWriterAdapter adapter("a.mov", false, true, counters, files);
  for (uint32_t number = 0; number < 30'000 && !counters->statistics().isDiskShort; ++number) {
    ASSERT_EQ(adapter.addAudioSample(samples.sound(number)), 0);
    while (counters->levels().audioWaiting > kAudioQueueCapacity / 2) std::this_thread::yield();
  }
  EXPECT_TRUE(counters->statistics().isDiskShort);
  EXPECT_GT(counters->statistics().bytesReserved, kQuota / 2);
  EXPECT_LE(counters->statistics().bytesReserved, kQuota);
}

TEST_F(AssetWriterAdapterTest, LeavesAMovieAloneThatIsBeingRecorded) {
  const test::LogRecorder log;
  {
    AVAssetWriterAdapter first(path, true, false);
    ASSERT_EQ(first.addVideoSample(samples.picture(0)), 0);
    AVAssetWriterAdapter second(path, true, false);
    EXPECT_EQ(second.addVideoSample(samples.picture(0)), 0) << "finds the name taken";
    EXPECT_NE(second.addVideoSample(samples.picture(0)), 0);
  }
  EXPECT_EQ(test::readMovie(path).video.samples.size(), 1U);
}

TEST(AssetWriterAdapter, AnswersTheCodeOfTheFailure) {
  const struct {
    const char* label;
    int error;
    int32_t status;
    Cause cause;
  } rows[] = {
      {"disk full", ENOSPC, kMovieDiskFull, Cause::kDiskFull},
      {"quota used up", EDQUOT, kMovieDiskFull, Cause::kDiskFull},
      {"file as large as may be", EFBIG, kMovieDiskFull, Cause::kDiskFull},
      {"file gone", ENOENT, kMovieFileFailedToWrite, Cause::kFolderGone},
      {"name taken", EEXIST, kMovieWriterFailed, Cause::kFileExists},
      {"disk broken", EIO, kMovieFileFailedToWrite, Cause::kFileError},
      {"no more open files", EMFILE, kMovieWriterFailed, Cause::kOther},
      {"anything else, free space not known", EBADF, kMovieWriterFailed, Cause::kFileError},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    MemoryFileSystem files;
    Samples samples;
    const auto key = samples.picture(0);
    const auto dependent = samples.picture(1);
    const auto counters = std::make_shared<RecordingCounters>();
    test::LogRecorder log;
    {
      CountedAssetWriterAdapter adapter("no such folder/a.mov", true, true, counters, files);
      files.setFaults([&](auto, size_t, uint64_t, size_t) { return MemoryFileSystem::Fault{row.error}; });
      ASSERT_EQ(adapter.addVideoSample(key), 0) << "starts the writer";
      int32_t status = 0;
      for (uint32_t number = 1; number < 90'000 && status == 0; ++number) {
        status = adapter.addAudioSample(samples.sound(number));
        if (status == 0 && counters->levels().audioWaiting > kAudioQueueCapacity / 2) std::this_thread::yield();
      }
      EXPECT_EQ(status, row.status);
      EXPECT_EQ(adapter.addVideoSample(key), row.status);
      EXPECT_EQ(adapter.addVideoSample(dependent), 0) << "held back until a picture stands alone";
      EXPECT_EQ(adapter.addVideoSample(key), row.status);
    }
    EXPECT_NE(log.count("Samples are being discarded!!!"), 0U);
    const RecordingStatistics statistics = counters->statistics();
    EXPECT_EQ(statistics.status, row.status);
    EXPECT_EQ(causeName(statistics.error.cause), causeName(row.cause)) << statistics.error.what;
    EXPECT_NE(statistics.error.what.find("no such folder/a.mov could not be written"), std::string::npos);
    EXPECT_NE(statistics.error.remedy, "");
    EXPECT_NE(log.count("Asset writer failed ["), 0U);
  }
}

TEST(AssetWriterAdapter, MapsErrorsByCodeThenByFreeSpace) {
  const struct {
    int64_t code;
    std::optional<uint64_t> freeSpace;
    int32_t status;
  } rows[] = {
      {-11807, 1ULL << 40, -199},   {-3000, 0, -198}, {-11800, 3'999'999, -199}, {-11800, 4'000'000, -200},
      {-11800, std::nullopt, -200}, {-1, 0, -199},
  };
  for (const auto& row : rows)
    EXPECT_EQ(AVAssetWriterAdapter::movieCreatorError(row.code, row.freeSpace), row.status) << row.code;
}

}  // namespace
}  // namespace vesk
