#include <vesk/movie_creator.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include <vesk/four_char_code.h>
#include <vesk/h264_bitstream.h>
#include "movie/movie_asset_creator_state.h"
#include "platform/media/aac_silence.h"
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
using test::TemporaryFolder;

constexpr auto kAudio = VeskMovieCreator::VeskMediaTypeAudio;
constexpr auto kVideo = VeskMovieCreator::VeskMediaTypeVideo;
constexpr _VeskVideoDescription kH264{176, 144, kCMVideoCodecType_H264, 30, 0};
constexpr _VeskAudioDescription kPCM{kWaveFormatLinearPCM, 2, 48'000, 16};

/// A camera's clock starts anywhere.
constexpr uint64_t kStart = 7'000'000'000;

int32_t add(VeskMovieCreator& creator, Bytes buffer, uint64_t timestamp, VeskMovieCreator::VeskMediaType type) {
  return creator.AddSampleToMovie(buffer.data(), buffer.size(), timestamp, type);
}

/// A recording in a folder of its own, its lines kept off the test's output.
class MovieCreator : public testing::Test {
 protected:
  const TemporaryFolder mFolder;
  CapturedLines mLines;
  CapturedLines mErrors{CapturedLines::Stream::kError};
  const std::string mPath = mFolder.file("a.mov");
  std::unique_ptr<VeskMovieCreator> mCreator = CreateMovieCreator(mPath.c_str());
};

TEST_F(MovieCreator, RecordsPicturesAndSoundAsTheyAre) {
  for (const char* clip : {"MIDR_MW_D.264", "SVA_Base_B.264"}) {
    SCOPED_TRACE(clip);
    const auto pictures = test::accessUnitsOf(clip);
    const auto creator = CreateMovieCreator(mPath.c_str());
    ASSERT_EQ(creator->Open(&kH264, &kPCM), 0);
    Bytes sound;
    uint32_t packet = 0;
    for (size_t number = 0; number < pictures.size(); ++number) {
      const uint64_t time = number * 100'000 / 3;
      for (; packet * 1024ULL * 1'000'000 / 48'000 <= time; ++packet) {
        const Bytes bytes = test::soundPacket(packet);
        sound.insert(sound.end(), bytes.begin(), bytes.end());
        ASSERT_EQ(add(*creator, bytes, kStart + packet * 1024ULL * 1'000'000 / 48'000, kAudio), 0);
      }
      ASSERT_EQ(add(*creator, pictures[number].stream, kStart + time, kVideo), 0);
    }
    ASSERT_EQ(creator->Close(), 0);

    const auto movie = test::readMovie(mPath);
    ASSERT_EQ(movie.video.samples.size(), pictures.size());
    for (size_t number = 0; number < pictures.size(); ++number) {
      const auto& sample = movie.video.samples[number];
      ASSERT_EQ(sample.data, pictures[number].slices) << number;
      ASSERT_EQ(sample.isKey, pictures[number].isKey) << number;
      const size_t round = number / 18;  // eighteen pictures of 30 ms, then one at its own time
      ASSERT_EQ(sample.time, static_cast<int64_t>(round * 600'000 + number % 18 * 30'000)) << number;
    }
    EXPECT_EQ(movie.audio.allBytes(), sound);
    EXPECT_EQ(movie.audio.samples.front().time, 0);

    const RecordingStatistics statistics = creator->statistics();
    EXPECT_EQ(statistics.videoFrames, pictures.size());
    EXPECT_EQ(statistics.audioPackets, packet);
    EXPECT_EQ(statistics.videoDropped + statistics.audioDropped + statistics.videoHeldBack + statistics.audioSilence,
              0U);
    EXPECT_EQ(statistics.bytes, std::filesystem::file_size(mPath));
    EXPECT_EQ(statistics.status, 0);
  }
}

/// A decoder that meets one channel's packet in a stereo track may give silence from there on.
TEST_F(MovieCreator, WritesSilenceOfAACWithTheTracksOwnChannels) {
  for (const uint16_t channels : {1, 2, 6}) {
    SCOPED_TRACE(channels);
    const _VeskAudioDescription sound{kWaveFormatAAC, channels, 48'000, 0};
    const auto creator = CreateMovieCreator(mPath.c_str());
    ASSERT_EQ(creator->Open(&kH264, &sound), 0);
    const auto pictures = test::accessUnitsOf("MIDR_MW_D.264");
    ASSERT_EQ(add(*creator, pictures[0].stream, kStart, kVideo), 0);
    const Bytes packet(100, 0x21);
    ASSERT_EQ(add(*creator, packet, kStart + 200'000, kAudio), 0);
    ASSERT_EQ(creator->Close(), 0);

    const auto movie = test::readMovie(mPath);
    ASSERT_EQ(movie.audio.samples.size(), 10U);
    const auto silence = silentAACPacket(channels);
    for (size_t number = 0; number < 9; ++number)
      EXPECT_EQ(movie.audio.samples[number].data, Bytes(silence.begin(), silence.end())) << number;
    EXPECT_EQ(movie.audio.samples.back().data, packet);
  }
}

TEST_F(MovieCreator, KeepsCaptureTimesWhereTheHostChoosesThem) {
  constexpr _VeskVideoDescription kCaptured{176, 144, kCMVideoCodecType_H264, 30,
                                            static_cast<int32_t>(FrameTiming::kCapture)};
  ASSERT_EQ(mCreator->Open(&kCaptured, &kPCM), 0);
  const auto pictures = test::accessUnitsOf("MIDR_MW_D.264");
  std::vector<uint64_t> times;
  for (uint32_t packet = 0; packet < 200; ++packet) {
    const uint64_t time = packet * 1024ULL * 1'000'000 / 48'000;
    ASSERT_EQ(add(*mCreator, test::soundPacket(packet), kStart + time, kAudio), 0);
    // The camera begins after half a second and sends 15 a second; one picture is lost on the way.
    while (times.size() < 40) {
      const size_t number = times.size();
      const uint64_t captured = 500'000 + (number < 20 ? number : number + 1) * 66'667;
      if (captured > time) break;
      ASSERT_EQ(add(*mCreator, pictures[number].stream, kStart + captured, kVideo), 0);
      times.push_back(captured);
    }
  }
  ASSERT_EQ(mCreator->Close(), 0);

  const auto movie = test::readMovie(mPath);
  ASSERT_EQ(movie.video.samples.size(), times.size());
  for (size_t number = 0; number < times.size(); ++number)
    EXPECT_NEAR(static_cast<double>(movie.video.samples[number].time), static_cast<double>(times[number]), 20)
        << number;
  EXPECT_EQ(movie.audio.samples.front().time, 0);
}

TEST_F(MovieCreator, TellsOnceWhenPicturesComeFasterThanItShowsThem) {
  const struct {
    const char* label;
    FrameTiming timing;
    uint64_t interval;
    uint64_t late;  ///< after 150 pictures
  } rows[] = {{"60 a second, steady", FrameTiming::kSteady, 16'667, 149 * (30'000 - 16'667)},
              {"30 a second, steady", FrameTiming::kSteady, 33'333, 0},
              {"60 a second, as captured", FrameTiming::kCapture, 16'667, 0}};
  for (const auto& row : rows) {
    test::LogRecorder log;
    const _VeskVideoDescription video{4, 2, kCMPixelFormat_422YpCbCr8, 30, static_cast<int32_t>(row.timing)};
    const auto creator = CreateMovieCreator(mPath.c_str());
    ASSERT_EQ(creator->Open(&video, nullptr), 0);
    for (uint64_t number = 0; number < 150; ++number)
      ASSERT_EQ(add(*creator, Bytes(16), kStart + number * row.interval, kVideo), 0);
    EXPECT_NEAR(static_cast<double>(creator->statistics().videoLate), static_cast<double>(row.late), 100) << row.label;
    ASSERT_EQ(creator->Close(), 0);
    EXPECT_EQ(log.count("come faster"), row.late == 0 ? 0U : 1U) << row.label;
  }
}

TEST_F(MovieCreator, FillsAGapInTheSoundAndCountsIt) {
  const _VeskAudioDescription formats[] = {kPCM, {kWaveFormatAAC, 2, 48'000, 0}};
  for (const _VeskAudioDescription& format : formats) {
    SCOPED_TRACE(format.format);
    const auto creator = CreateMovieCreator(mPath.c_str());
    creator->Open(nullptr, &format);
    for (const uint64_t time : {0, 21'333, 42'666, 149'333, 170'666})
      ASSERT_EQ(add(*creator, test::soundPacket(1), kStart + time, kAudio), 0);
    EXPECT_EQ(creator->statistics().audioSilence, 4U);
    EXPECT_EQ(creator->statistics().audioPackets, 5U);
    EXPECT_NEAR(static_cast<double>(creator->statistics().duration), 192'000, 10);
    creator->Close();
    const auto movie = test::readMovie(mPath);
    EXPECT_TRUE(movie.audio.exists);
    EXPECT_FALSE(movie.video.exists);
    if (format.format == kWaveFormatLinearPCM) {
      EXPECT_EQ(movie.audio.allBytes().size(), 9U * 4096);
    } else {
      EXPECT_EQ(movie.audio.samples.size(), 9U);
    }
  }
}

TEST_F(MovieCreator, TwoRecordersOfOneCameraRecordTheSame) {
  const std::string otherPath = mFolder.file("b.mov");
  const auto other = CreateMovieCreator(otherPath.c_str());
  mCreator->Open(&kH264, nullptr);
  other->Open(&kH264, nullptr);
  const auto pictures = test::accessUnitsOf("MIDR_MW_D.264");
  for (size_t number = 0; number < pictures.size(); ++number) {
    Bytes buffer = pictures[number].stream;  // one buffer for both, as a device hands it on
    const auto first = number % 2 == 0 ? mCreator.get() : other.get();
    const auto second = number % 2 == 0 ? other.get() : mCreator.get();
    first->AddSampleToMovie(buffer.data(), buffer.size(), kStart + number * 33'333, kVideo);
    second->AddSampleToMovie(buffer.data(), buffer.size(), kStart + number * 33'333, kVideo);
  }
  mCreator->Close();
  other->Close();
  const auto movie = test::readMovie(mPath);
  ASSERT_EQ(movie.video.samples.size(), pictures.size());
  for (size_t number = 0; number < pictures.size(); ++number)
    ASSERT_EQ(movie.video.samples[number].data, pictures[number].slices);
  EXPECT_EQ(test::readMovie(otherPath).video.samples, movie.video.samples);
}

TEST_F(MovieCreator, RewritesTheBufferEvenWhenNothingComesOfIt) {
  mCreator->Open(&kH264, nullptr);
  Bytes buffer = test::bytes("00000001 419A");
  EXPECT_EQ(mCreator->AddSampleToMovie(buffer.data(), buffer.size(), kStart, kVideo), 0);
  EXPECT_EQ(buffer, test::bytes("00000002 419A"));
  EXPECT_EQ(mCreator->statistics().videoHeldBack, 1U);
}

TEST_F(MovieCreator, FirstSampleOfAnyKindIsTheZero) {
  constexpr _VeskVideoDescription kUncompressed{16, 16, kCMPixelFormat_422YpCbCr8, 30, 0};
  mCreator->Open(&kUncompressed, &kPCM);
  const Bytes frame(512, 0x55);
  EXPECT_EQ(add(*mCreator, test::soundPacket(0), 5'000'000, kAudio), 0);
  EXPECT_EQ(add(*mCreator, frame, 4'999'000, kVideo), 0);
  EXPECT_EQ(add(*mCreator, test::soundPacket(0), 4'980'000, kAudio), 0);
  EXPECT_EQ(add(*mCreator, frame, 5'033'000, kVideo), 0);
  EXPECT_EQ(add(*mCreator, frame, 5'100'000, kVideo), 0);
  EXPECT_EQ(mCreator->statistics().videoFrames, 2U);
  EXPECT_EQ(mCreator->statistics().videoHeldBack, 1U);
  EXPECT_EQ(mCreator->statistics().audioHeldBack, 1U);
  EXPECT_EQ(mCreator->statistics().audioDropped, 0U) << "nothing that belongs into the movie is lost";
  mCreator->Close();
  const auto movie = test::readMovie(mPath);
  ASSERT_EQ(movie.video.samples.size(), 2U);
  EXPECT_EQ(movie.video.samples[0].time, 0);
  EXPECT_EQ(movie.video.samples[1].time, 100'000);
  EXPECT_EQ(movie.audio.samples.at(0).time, 0);
}

TEST_F(MovieCreator, IgnoresWhatItCannotRecord) {
  EXPECT_EQ(add(*mCreator, test::soundPacket(0), kStart, kAudio), 0) << "before Open";
  constexpr _VeskVideoDescription kMotionJPEG{176, 144, kCMVideoCodecType_MotionJPEG, 30, 0};
  mCreator->Open(&kMotionJPEG, nullptr);
  const auto unknown = static_cast<VeskMovieCreator::VeskMediaType>(2);
  EXPECT_EQ(add(*mCreator, {1, 2}, kStart, unknown), -197);
  EXPECT_EQ(add(*mCreator, {1, 2}, kStart, unknown), -197);
  EXPECT_EQ(add(*mCreator, {1, 2}, kStart - 1, unknown), 0) << "older than the first";
  EXPECT_EQ(mLines.count("*** Unsupported media type [2] -- ignoring data\n"), 2U);
  EXPECT_EQ(add(*mCreator, {1, 2}, kStart, kVideo), 0) << "no generator for the codec";
  EXPECT_EQ(add(*mCreator, {1, 2}, kStart, kAudio), 0) << "no sound wanted";
  EXPECT_EQ(mCreator->AddSampleToMovie(nullptr, 8, kStart, kVideo), 0);
  EXPECT_EQ(mCreator->Close(), 0);
  EXPECT_EQ(add(*mCreator, test::soundPacket(0), kStart, kAudio), 0) << "after Close";
  EXPECT_EQ(mCreator->Close(), 0);
  EXPECT_FALSE(std::filesystem::exists(mPath));
}

TEST_F(MovieCreator, OpensOnceOnly) {
  mCreator->Open(nullptr, &kPCM);
  add(*mCreator, test::soundPacket(0), kStart, kAudio);
  EXPECT_EQ(mCreator->Open(&kH264, &kPCM), kMovieAlreadyOpen);
  add(*mCreator, test::soundPacket(1), kStart + 21'333, kAudio);
  mCreator->Close();
  EXPECT_EQ(mCreator->Open(nullptr, &kPCM), kMovieAlreadyOpen) << "the finished movie stays";
  EXPECT_EQ(test::readMovie(mPath).audio.allBytes().size(), 2U * 4096);
}

TEST_F(MovieCreator, MakesNoneWithoutAPathAndReportsAMissingWriter) {
  EXPECT_EQ(CreateMovieCreator(nullptr), nullptr);
  const auto creator = CreateMovieCreator("/no such folder/a.mov");
  EXPECT_EQ(creator->Open(&kH264, &kPCM), 0);
  EXPECT_TRUE(creator->statistics().writerMissing);
  EXPECT_EQ(add(*creator, test::soundPacket(0), kStart, kAudio), 0);
  EXPECT_EQ(creator->Close(), 0);
}

TEST(RecordingCounters, CallWhoWaitsOnceThereIsRoom) {
  RecordingCounters counters;
  int calls = 0;
  counters.setRoomHandler([&] { ++calls; });
  const auto take = [&](uint64_t samples) {
    RecordingCounters::add(counters.video.taken, samples);
    counters.noteRoom();
  };
  counters.video.queued = kVideoQueueCapacity;
  take(kVideoQueueCapacity);
  EXPECT_EQ(calls, 0) << "nobody has asked";
  counters.video.queued = 2 * kVideoQueueCapacity;
  EXPECT_TRUE(counters.levelsForSource().isBusy());
  take(kVideoQueueCapacity * 3 / 4 - 1);
  EXPECT_EQ(calls, 0);
  take(1);
  EXPECT_EQ(calls, 1);
  take(1);
  EXPECT_EQ(calls, 1);
}

TEST_F(MovieCreator, HandsTheWritersFailureToTheCallerAndGoesOn) {
  test::MemoryFileSystem files;
  MovieAssetCreatorIn creator(files, "no such folder/a.mov");
  const test::LogRecorder log;
  creator.Open(nullptr, &kPCM);
  files.setFaults([](auto, size_t number, uint64_t, size_t) {
    return test::MemoryFileSystem::Fault{number < 6 ? 0 : ENOSPC};  // some of it can be written
  });
  int32_t status = 0;
  for (uint32_t number = 0; number < 90'000 && status == 0; ++number) {
    status = add(creator, test::soundPacket(number), kStart + number * 21'334ULL, kAudio);
    if (creator.waiting().audioWaiting > creator.waiting().audioCapacity / 2) std::this_thread::yield();
  }
  EXPECT_EQ(status, -199);
  EXPECT_GT(creator.statistics().bytes, 0U);
  EXPECT_EQ(add(creator, test::soundPacket(0), kStart + 90'001 * 21'334ULL, kAudio), -199);
  EXPECT_EQ(creator.Close(), 0);
  EXPECT_EQ(creator.statistics().status, -199);
}

}  // namespace
}  // namespace vesk
