#include "platform/writing/asset_writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

#include <vesk/dispatch_queue.h>
#include "tests/support/temporary_folder.h"
#include "tests/unit/writing/movie_probe.h"
#include "tests/unit/writing/movie_samples.h"

namespace vesk::test {
namespace {

constexpr auto kMovie = AVFileType::AVFileTypeQuickTimeMovie;

/// A source that an input's block empties, like the queue of a recording.
class Feed {
 public:
  Feed(std::shared_ptr<AVAssetWriterInput> input, std::shared_ptr<DispatchQueue> queue) : mInput(std::move(input)) {
    mInput->requestMediaDataWhenReadyOnQueue(std::move(queue), [this] { pull(); });
  }
  void add(CMSampleBufferRef sample) {
    {
      std::lock_guard lock(mMutex);
      mWaiting.push_back(std::move(sample));
    }
    mInput->mediaDataAvailable();
  }
  void waitUntilEmpty() {
    std::unique_lock lock(mMutex);
    mEmptied.wait(lock, [this] { return mWaiting.empty() && !mAppending; });
  }
  int runs() const { return mRuns; }
  int refused() const { return mRefused; }

 private:
  void pull() {
    ++mRuns;
    std::unique_lock lock(mMutex);
    while (!mWaiting.empty()) {
      auto sample = std::move(mWaiting.front());
      mWaiting.pop_front();
      mAppending = true;
      lock.unlock();
      if (!mInput->isReadyForMoreMediaData() || !mInput->appendSampleBuffer(sample)) ++mRefused;
      lock.lock();
      mAppending = false;
    }
    mEmptied.notify_all();
  }

  std::shared_ptr<AVAssetWriterInput> mInput;
  std::mutex mMutex;
  std::condition_variable mEmptied;
  std::deque<CMSampleBufferRef> mWaiting;
  bool mAppending = false;
  std::atomic<int> mRuns{0};
  std::atomic<int> mRefused{0};
};

TEST(AVAssetWriter, WritesWhatItsInputsPull) {
  TemporaryFolder folder;
  const std::string path = folder.file("movie.mov");
  NSError error;
  auto writer = AVAssetWriter::initWithURL(path, kMovie, &error);
  ASSERT_TRUE(writer);
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Unknown);
  auto video = AVAssetWriterInput::initWithMediaType(AVMediaTypeVideo);
  auto sound = AVAssetWriterInput::initWithMediaType(AVMediaTypeAudio);
  for (const auto& input : {video, sound}) {
    EXPECT_TRUE(writer->canAddInput(*input));
    writer->addInput(input);
    EXPECT_FALSE(writer->canAddInput(*input));
    EXPECT_FALSE(input->isReadyForMoreMediaData());
  }
  ASSERT_TRUE(writer->startWriting());
  writer->startSessionAtSourceTime(kCMTimeZero);
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Writing);

  auto queue = DispatchQueue::createSerial("Media Writer Queue");
  Feed videoFeed(video, queue);
  Feed soundFeed(sound, queue);
  for (int i = 0; i < 100; ++i) {
    videoFeed.add(h264Sample(static_cast<size_t>(i), i * 30'000));
    soundFeed.add(pcmSample(pcmFormat(48000, 2), 1440, i * 30'000));
  }
  videoFeed.waitUntilEmpty();
  soundFeed.waitUntilEmpty();
  bool finished = false;
  queue->sync([&] { finished = writer->finishWriting(); });
  EXPECT_TRUE(finished);
  EXPECT_EQ(writer->status(), AVAssetWriterStatus::Completed);
  EXPECT_FALSE(writer->error());
  EXPECT_EQ(videoFeed.refused() + soundFeed.refused(), 0);
  EXPECT_FALSE(video->appendSampleBuffer(h264Sample(0, 9'000'000)));

  const int runs = videoFeed.runs();
  video->mediaDataAvailable();
  queue->sync([] {});
  EXPECT_EQ(videoFeed.runs(), runs) << "a finished input asks for nothing";

  const ProbedMovie movie = probeMovie(readFile(path), Probe::kDecode);
  EXPECT_EQ(movie.complaints, "");
  ASSERT_EQ(movie.tracks.size(), 2U);
  EXPECT_EQ(movie.tracks[0].decoded, 100);
  EXPECT_EQ(movie.tracks[1].decoded, 144'000);
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
