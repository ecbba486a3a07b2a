#include "platform/writing/asset_writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include <vesk/dispatch_queue.h>
#include "tests/support/temporary_folder.h"
#include "tests/unit/writing/movie_probe.h"
#include "tests/unit/writing/movie_samples.h"

namespace vesk::test {
namespace {

constexpr auto kMovie = AVFileType::AVFileTypeQuickTimeMovie;

TEST(AVAssetWriter, WritesWhatItsInputsTakeUntilItIsFinished) {
  TemporaryFolder folder;
  const std::string path = folder.file("movie.mov");
  NSError error;
  auto writer = AVAssetWriter::initWithURL(path, kMovie, &error);
  ASSERT_TRUE(writer);
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Unknown);
  auto video = AVAssetWriterInput::initWithMediaType(AVMediaTypeVideo);
  EXPECT_TRUE(writer->canAddInput(*video));
  writer->addInput(video);
  EXPECT_FALSE(writer->canAddInput(*video));
  EXPECT_FALSE(video->isReadyForMoreMediaData());
  ASSERT_TRUE(writer->startWriting());
  writer->startSessionAtSourceTime(kCMTimeZero);
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Writing);
  EXPECT_TRUE(video->isReadyForMoreMediaData() && video->appendSampleBuffer(h264Sample(0, 0)));
  EXPECT_TRUE(writer->finishWriting());
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Completed);
  EXPECT_FALSE(writer->error());
  EXPECT_FALSE(video->appendSampleBuffer(h264Sample(0, 9'000'000)));
  int runs = 0;
  auto queue = DispatchQueue::createSerial("test");
  video->requestMediaDataWhenReadyOnQueue(queue, [&] { ++runs; });
  video->mediaDataAvailable();
  queue->sync([] {});
  EXPECT_EQ(runs, 0) << "a finished input asks for nothing";
  EXPECT_EQ(probeMovie(readFile(path)).tracks.at(0).packets, 1);
}

TEST(AVAssetWriterInput, RunsItsBlockAtOnceAndOncePerWaitingCall) {
  auto input = AVAssetWriterInput::initWithMediaType(AVMediaTypeVideo);
  auto queue = DispatchQueue::createSerial("test");
  std::mutex held;
  std::atomic<int> runs{0};
  input->mediaDataAvailable();  // nothing asked yet
  held.lock();
  input->requestMediaDataWhenReadyOnQueue(queue, [&] {
    std::lock_guard lock(held);
    ++runs;
  });
  for (int i = 0; i < 100; ++i) input->mediaDataAvailable();
  held.unlock();
  queue->sync([] {});
  EXPECT_GE(runs, 1);
  EXPECT_LE(runs, 2) << "calls while a run waits its turn are one";
  input->markAsFinished();
  input->mediaDataAvailable();
  queue->sync([] {});
  EXPECT_LE(runs, 2);
}

TEST(AVAssetWriterInput, MayBeFinishedByItsOwnBlock) {
  auto input = AVAssetWriterInput::initWithMediaType(AVMediaTypeVideo);
  auto queue = DispatchQueue::createSerial("test");
  auto alive = std::make_shared<int>(1);
  std::weak_ptr<int> watched = alive;
  input->requestMediaDataWhenReadyOnQueue(queue, [input, alive = std::move(alive)] { input->markAsFinished(); });
  queue->sync([] {});
  EXPECT_TRUE(watched.expired()) << "the block and what it holds are let go";
}

TEST(AVAssetWriter, SaysWhyItCannotWrite) {
  TemporaryFolder folder;
  NSError error;
  EXPECT_FALSE(AVAssetWriter::initWithURL(folder.file("none/movie.mov"), kMovie, &error));
  EXPECT_EQ(error.code, AVErrorFileFailedToWrite);
  EXPECT_NE(error.description.find("none/movie.mov"), std::string::npos);
  EXPECT_FALSE(AVAssetWriter::initWithURL("", kMovie, nullptr));

  auto writer = AVAssetWriter::initWithURL(folder.file("movie.mov"), kMovie, &error);
  ASSERT_TRUE(writer);
  EXPECT_FALSE(error);
  folder.write("movie.mov", "");
  EXPECT_FALSE(writer->finishWriting()) << "never started";
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Unknown);
}

}  // namespace
}  // namespace vesk::test
