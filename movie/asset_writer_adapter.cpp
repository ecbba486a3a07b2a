#include <vesk/asset_writer_adapter.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <limits>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include "movie/asset_writer_adapter_state.h"
#include "platform/foundation/errors.h"
#include "platform/foundation/file_manager.h"

namespace vesk {
namespace {

/// Samples that are gathered before the writer is woken, and how long the first may wait for others.
constexpr size_t kGatheredSamples = 96;
constexpr uint64_t kGatheredBytes = uint64_t{4} << 20;
constexpr std::chrono::milliseconds kLongestWait{100};

/// With less free space than this a failure counts as a full disk, whatever the writer says.
constexpr uint64_t kLeastFreeSpace = 4'000'000;

constexpr int32_t kMicroseconds = 1'000'000;

int64_t durationOf(const CMSampleBuffer& sample) {
  const auto& format = sample.formatDescription();
  if (const auto* const sound = format ? format->asSound() : nullptr) {
    const AudioStreamBasicDescription& description = sound->streamBasicDescription();
    const double frames = static_cast<double>(sample.numSamples()) * description.mFramesPerPacket;
    return description.mSampleRate >= 1 ? static_cast<int64_t>(frames * kMicroseconds / description.mSampleRate) : 0;
  }
  const CMTime duration = CMTimeConvertScale(sample.duration(), kMicroseconds);
  return duration.valid ? duration.value : 0;
}

/// Where a sample ends, in microseconds of the movie; 0 when its times do not say.
uint64_t endOf(const CMSampleBuffer& sample) {
  const CMTime start = CMTimeConvertScale(sample.presentationTimeStamp(), kMicroseconds);
  const auto end = start.valid ? static_cast<uint64_t>(start.value) + static_cast<uint64_t>(durationOf(sample)) : 0;
  return end <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ? end : 0;
}

}  // namespace

AVAssetWriterAdapter::AVAssetWriterAdapter(const std::string& path, bool hasVideo, bool hasAudio)
    : AVAssetWriterAdapter(std::make_unique<State>(path, hasVideo, hasAudio, std::make_shared<RecordingCounters>(),
                                                   FileSystem::posix())) {}

AVAssetWriterAdapter::AVAssetWriterAdapter(std::unique_ptr<State> state) : mState(std::move(state)) {}

AVAssetWriterAdapter::~AVAssetWriterAdapter() {
  try {
    finish();
  } catch (const std::exception& error) {  // no memory: the movie stays in fragments, and may be recovered
    NSLog(LogLevel::kError, error.what());
  }
}

CountedAssetWriterAdapter::CountedAssetWriterAdapter(const std::string& path, bool hasVideo, bool hasAudio,
                                                     std::shared_ptr<RecordingCounters> counters,
                                                     FileSystem& fileSystem)
    : AVAssetWriterAdapter(std::make_unique<State>(path, hasVideo, hasAudio, std::move(counters), fileSystem)) {}

int32_t AVAssetWriterAdapter::addVideoSample(const CMSampleBufferRef& sample) {
  return mState->addVideoSample(sample);
}

int32_t AVAssetWriterAdapter::addAudioSample(const CMSampleBufferRef& sample) {
  return mState->addAudioSample(sample);
}

int32_t AVAssetWriterAdapter::addSample(const CMSampleBufferRef& sample,
                                        const std::shared_ptr<AVAssetWriterInput>& input) {
  return mState->addSample(sample, input);
}

std::shared_ptr<AVAssetWriterInput> AVAssetWriterAdapter::audioInput() const {
  return mState->audioInput();
}

std::shared_ptr<AVAssetWriterInput> AVAssetWriterAdapter::videoInput() const {
  return mState->videoInput();
}

void AVAssetWriterAdapter::finish() {
  mState->finish();
}

int32_t AVAssetWriterAdapter::AVErrorToMovieCreatorError(int64_t code) const {
  return mState->AVErrorToMovieCreatorError(code);
}

int32_t AVAssetWriterAdapter::movieCreatorError(int64_t code, std::optional<uint64_t> freeSpace) {
  if (code == AVErrorDiskFull) return kMovieDiskFull;
  if (code == AVErrorFileFailedToWrite) return kMovieFileFailedToWrite;
  return freeSpace && *freeSpace < kLeastFreeSpace ? kMovieDiskFull : kMovieWriterFailed;
}

AVAssetWriterAdapter::State::State(const std::string& path, bool hasVideo, bool hasAudio,
                                   std::shared_ptr<RecordingCounters> counters, FileSystem& fileSystem)
    : mFilePath(path),
      mHasAudio(hasAudio),
      mHasVideo(hasVideo),
      mFileSystem(fileSystem),
      mCounters(std::move(counters)),
      mWriting(std::make_shared<Writing>()) {
  setup();
}

void AVAssetWriterAdapter::State::setup() {
  MutexLock lock(mMutex);
  deleteOldFile();
  NSError error;
  mWriter = AVAssetWriter::initWithURL(mFilePath, AVFileType::AVFileTypeQuickTimeMovie, &error, mFileSystem);
  if (mWriter && !error) {
    if (mHasVideo) mVideoInput = makeInput(AVMediaTypeVideo);
    if (mHasAudio) mAudioInput = makeInput(AVMediaTypeAudio);
  }
  mCounters->writerMissing = !mWriter;
  if (!mWriter) mCounters->noteFailure(0, errorOf(error));
  *mWriting = {mWriter.get(), mAudioInput.get(), mVideoInput.get()};
  mWriterQueue = DispatchQueue::createSerial("Media Writer Queue");
  printToOutput("Starting writing [%s] with audio = %p, video = %p\n", mFilePath.c_str(),
                static_cast<void*>(mAudioInput.get()), static_cast<void*>(mVideoInput.get()));
}

/// A movie that another recording is writing stays; the writer then finds its path taken.
void AVAssetWriterAdapter::State::deleteOldFile() {
  int error = 0;
  const auto old = mFileSystem.open(mFilePath, FileMode::kReadWrite, error);
  if (old && old->lock() == EWOULDBLOCK) return NSLog(mFilePath + " is being recorded by another program");
  mFileSystem.remove(mFilePath);
}

std::shared_ptr<AVAssetWriterInput> AVAssetWriterAdapter::State::makeInput(MediaType mediaType) {
  auto input = AVAssetWriterInput::initWithMediaType(mediaType);
  if (mWriter->canAddInput(*input)) {
    mWriter->addInput(input);
    input->setExpectsMediaDataInRealTime(true);
  }
  return input;
}

std::shared_ptr<AVAssetWriterInput> AVAssetWriterAdapter::State::audioInput() const {
  MutexLock lock(mMutex);
  return mAudioInput;
}

std::shared_ptr<AVAssetWriterInput> AVAssetWriterAdapter::State::videoInput() const {
  MutexLock lock(mMutex);
  return mVideoInput;
}

// Adding samples, on the callers' threads.

int32_t AVAssetWriterAdapter::State::addVideoSample(const CMSampleBufferRef& sample) {
  if (!sample) return 0;
  MutexLock lock(mMutex);
  if (mDiscardSamples && mustBeDiscarded(*sample)) {
    RecordingCounters::add(mCounters->video.heldBack);
    printToOutput("Samples are being discarded!!!\n");
    return 0;
  }
  const int32_t result = addSampleLocked(sample, mVideoInput);
  mDiscardSamples = result != 0;
  return result;
}

bool AVAssetWriterAdapter::State::mustBeDiscarded(const CMSampleBuffer& sample) {
  if (sample.formatDescription()->mediaSubType() != kCMVideoCodecType_H264) return false;
  return sample.sampleAttachments().valueOr(kCMSampleAttachmentKey_DependsOnOthers, true);
}

int32_t AVAssetWriterAdapter::State::addAudioSample(const CMSampleBufferRef& sample) {
  MutexLock lock(mMutex);
  return addSampleLocked(sample, mAudioInput);
}

int32_t AVAssetWriterAdapter::State::addSample(const CMSampleBufferRef& sample,
                                               const std::shared_ptr<AVAssetWriterInput>& input) {
  MutexLock lock(mMutex);
  return addSampleLocked(sample, input);
}

int32_t AVAssetWriterAdapter::State::addSampleLocked(const CMSampleBufferRef& sample,
                                                     const std::shared_ptr<AVAssetWriterInput>& input) {
  if (!sample || !input || mFinished) return 0;
  const bool isVideo = input == mVideoInput;
  SampleQueue& queue = isVideo ? mVideoQueue : mAudioQueue;
  RecordingCounters::Track& counters = isVideo ? mCounters->video : mCounters->audio;

  const size_t size = sample->data().size();
  const uint64_t waiting = counters.bytesWaiting();
  const bool hasRoom = queue.count() == 0 || (waiting < kQueueBytes && size <= kQueueBytes - waiting);
  RecordingCounters::add(counters.queued);  // before the writer queue can take it
  RecordingCounters::add(counters.bytesQueued, size);
  if (hasRoom && queue.enqueue(CMSampleBufferRef(sample))) {
    mCounters->noteEnd(endOf(*sample));
  } else {
    counters.queued.fetch_sub(1, std::memory_order_relaxed);
    counters.bytesQueued.fetch_sub(size, std::memory_order_relaxed);
    RecordingCounters::add(counters.dropped);
    printToError("[FATAL] dropping packet!\n");
  }
  const int32_t result = addSamplePriv(sample, input);
  wakeWriter(queue.count(), size, *input);
  return result;
}

int32_t AVAssetWriterAdapter::State::addSamplePriv(const CMSampleBufferRef& sample,
                                                   const std::shared_ptr<AVAssetWriterInput>& input) {
  if (!sample || !input) return 0;
  switch (mWriter->status()) {
    case AVAssetWriterStatus::Unknown:
      startWriting();
      return 0;
    case AVAssetWriterStatus::Failed:
      return reportFailure(*mWriter);
    case AVAssetWriterStatus::Writing:
    case AVAssetWriterStatus::Completed:
    case AVAssetWriterStatus::Cancelled:
      return 0;
  }
  return 0;
}

void AVAssetWriterAdapter::State::startWriting() {
  if (mWriter->startWriting()) mWriter->startSessionAtSourceTime(kCMTimeZero);
  // The blocks belong to the inputs, so they hold neither; `writing` says whether those are still there.
  const auto request = [this, writerQueue = mWriterQueue](AVAssetWriterInput* input, SampleQueue& queue,
                                                          RecordingCounters::Track& counters) {
    if (!input) return;
    input->requestMediaDataWhenReadyOnQueue(writerQueue, [this, writing = mWriting, input, &queue, &counters] {
      if (writing->alive) AddSampleFromQueue(queue, input, counters);
    });
  };
  request(mAudioInput.get(), mAudioQueue, mCounters->audio);
  request(mVideoInput.get(), mVideoQueue, mCounters->video);
}

/// After a sample of `size` bytes, with which `waiting` samples wait: at once for every so many samples or bytes that
/// have gathered, so that the writer runs seldom and for long; else soon.
void AVAssetWriterAdapter::State::wakeWriter(size_t waiting, uint64_t size, AVAssetWriterInput& input) {
  const uint64_t bytes = mCounters->levels().bytesWaiting;
  const bool haveBytesGathered = bytes / kGatheredBytes > (bytes - std::min(size, bytes)) / kGatheredBytes;
  if ((waiting != 0 && waiting % kGatheredSamples == 0) || haveBytesGathered) return input.mediaDataAvailable();
  // An exchange here and there: a sample queued while a wake is pending is seen by its pull.
  if (!mWakePending.exchange(true)) wakeSoon(*mWriterQueue);
}

/// Pulls every so often while samples come. From the second time on it is the writer queue itself that asks for the
/// next time, which wakes no thread.
void AVAssetWriterAdapter::State::wakeSoon(DispatchQueue& writerQueue) {
  try {
    // The queue is there as long as `alive` says so: it is waited for before it goes.
    writerQueue.asyncAfter(kLongestWait, [this, writing = mWriting, &writerQueue] {
      if (!writing->alive) return;
      const bool isInUse = mAudioQueue.count() + mVideoQueue.count() != 0;
      if (!isInUse) mWakePending.exchange(false);
      pullWaiting();  // what was queued while the wake was pending, too
      if (isInUse) wakeSoon(writerQueue);
    });
  } catch (...) {
    mWakePending = false;  // no memory for this wake; the next sample asks for another
    throw;
  }
}

int32_t AVAssetWriterAdapter::State::reportFailure(const AVAssetWriter& writer) const {
  const NSError error = writer.error();
  NSLog("Asset writer failed [" + error.description + "]");
  return noteFailure(error);
}

/// @return the status code that the error means
int32_t AVAssetWriterAdapter::State::noteFailure(NSError error) const {
  const int32_t status = AVErrorToMovieCreatorError(error.code);
  if (status == kMovieDiskFull) error.cause = Cause::kDiskFull;  // whatever the system made of that
  mCounters->noteFailure(status, errorOf(error));
  return status;
}

int32_t AVAssetWriterAdapter::State::AVErrorToMovieCreatorError(int64_t code) const {
  return movieCreatorError(code, NSFileManager::defaultManager().freeSpaceAtPath(mFilePath));
}

// Writing, on the writer queue.

void AVAssetWriterAdapter::State::pullWaiting() {
  AddSampleFromQueue(mAudioQueue, mWriting->audioInput, mCounters->audio);
  AddSampleFromQueue(mVideoQueue, mWriting->videoInput, mCounters->video);
}

int32_t AVAssetWriterAdapter::State::AddSampleFromQueue(SampleQueue& queue, AVAssetWriterInput* input,
                                                        RecordingCounters::Track& counters) {
  if (!input) return 0;
  while (input->isReadyForMoreMediaData()) {
    const CMSampleBufferRef sample = queue.dequeue();
    if (!sample) break;
    counters.taken.fetch_add(1, std::memory_order_release);
    counters.bytesTaken.fetch_add(sample->data().size(), std::memory_order_release);
    mCounters->noteRoom();
    if (!input->appendSampleBuffer(sample)) {
      NSLog("[FATAL]: Failed to insert sample!!!");
      RecordingCounters::add(counters.refused);
    }
  }
  const AVAssetWriter& writer = *mWriting->writer;
  mCounters->noteWriting(writer.bytesWritten(), writer.writing());
  // A source that waits for these queues sends no further sample, with which the failure would be noted.
  if (writer.status() == AVAssetWriterStatus::Failed) noteFailure(writer.error());
  return 0;
}

// Finishing.

void AVAssetWriterAdapter::State::finish() {
  std::shared_ptr<AVAssetWriterInput> audioInput;
  std::shared_ptr<AVAssetWriterInput> videoInput;
  std::shared_ptr<AVAssetWriter> writer;
  std::shared_ptr<DispatchQueue> queue;
  {
    MutexLock lock(mMutex);
    if (std::exchange(mFinished, true)) return;
    audioInput = std::move(mAudioInput);
    videoInput = std::move(mVideoInput);
    writer = std::move(mWriter);
    queue = std::move(mWriterQueue);
  }
  queue->sync([&] {
    if (writer) finishWriting(*writer);
    mWriting->alive = false;
    videoInput.reset();
    audioInput.reset();
    writer.reset();
  });
  // Letting go of a queue waits for its work. A wake that is still to come may take its time
  // elsewhere: finishing does not wait for it.
  if (mWakePending) DispatchQueue::globalQueue()->async([held = std::move(queue)] {});

  drain(mAudioQueue, mCounters->audio);
  drain(mVideoQueue, mCounters->video);
  printToOutput("Finished writing [%s]\n", mFilePath.c_str());
}

void AVAssetWriterAdapter::State::finishWriting(AVAssetWriter& writer) {
  const AVAssetWriterStatus status = writer.status();
  if (status != AVAssetWriterStatus::Writing && status != AVAssetWriterStatus::Failed) return;
  pullWaiting();
  if (mWriting->videoInput) mWriting->videoInput->markAsFinished();
  if (mWriting->audioInput) mWriting->audioInput->markAsFinished();
  if (!writer.finishWriting() && writer.status() == AVAssetWriterStatus::Failed) reportFailure(writer);
  mCounters->noteWriting(writer.bytesWritten(), writer.writing());
}

void AVAssetWriterAdapter::State::drain(SampleQueue& queue, RecordingCounters::Track& counters) {
  while (const CMSampleBufferRef sample = queue.dequeue()) {
    RecordingCounters::add(counters.bytesTaken, sample->data().size());
    RecordingCounters::add(counters.refused);
    RecordingCounters::add(counters.taken);
  }
}

}  // namespace vesk
