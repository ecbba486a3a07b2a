#include <vesk/recorder.h>

#include <chrono>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/log.h>
#include <vesk/run_loop.h>
#include <vesk/video_device.h>
#include "devices/capture_parameters.h"
#include "platform/foundation/errors.h"
#include "platform/foundation/mutex.h"

namespace vesk {
namespace {

constexpr int32_t kFrameRate = 30;
constexpr std::chrono::milliseconds kTimeBeforeClose{500};

_VeskVideoDescription describe(const CMVideoFormatDescription& format, FrameTiming timing) {
  return {.width = format.dimensions().width,
          .height = format.dimensions().height,
          .codec = format.mediaSubType(),
          .frameRate = kFrameRate,
          .reserved = static_cast<int32_t>(timing)};
}

_VeskAudioDescription describe(const CMAudioFormatDescription& format) {
  const ACICaptureParameters parameters = audioCaptureParameters(format);
  return {.format = parameters.formatCode,
          .channels = parameters.channels,
          .sampleRate = parameters.samplesPerSecond,
          .bitsPerChannel = parameters.bitsPerSample};
}

}  // namespace

/// Locks: mOpenCloseLock is held for a whole open or close, and comes first. mMutex guards the fields, is held for
/// moments only, and nothing is called under it.
struct VeskRecorder::State {
  int32_t openCreator(const std::string& path, std::shared_ptr<VeskMovieCreator>& opened) VESK_REQUIRES(mOpenCloseLock)
      VESK_EXCLUDES(mMutex);
  /// The creator, held for the length of a call; null when not recording.
  std::shared_ptr<VeskMovieCreator> creator() const VESK_EXCLUDES(mMutex);
  int32_t addSample(void* bytes, uint32_t length, int64_t timestamp, VeskMovieCreator::VeskMediaType type)
      VESK_EXCLUDES(mMutex);

  /// `status`, and why.
  int32_t failed(int32_t status, Error why) {
    mLastError.set(std::move(why));
    return status;
  }

  LastError mLastError;
  RecursiveMutex mOpenCloseLock;
  bool mIsClosing VESK_GUARDED_BY(mOpenCloseLock) = false;
  std::optional<_VeskVideoDescription> mVideo VESK_GUARDED_BY(mOpenCloseLock);  ///< of the movie being written
  std::optional<_VeskAudioDescription> mAudio VESK_GUARDED_BY(mOpenCloseLock);

  mutable Mutex mMutex;
  /// Present while recording. Shared, so that the last of the sample calls under way lets it go.
  std::shared_ptr<VeskMovieCreator> mMovieCreator VESK_GUARDED_BY(mMutex);
  std::optional<std::string> mFileURL VESK_GUARDED_BY(mMutex);
  std::weak_ptr<VeskVideoDevice> mVideoStream VESK_GUARDED_BY(mMutex);
  std::weak_ptr<VeskAudioDevice> mAudioStream VESK_GUARDED_BY(mMutex);
  RecordingStatistics mLastStatistics VESK_GUARDED_BY(mMutex);
  FrameTiming mFrameTiming VESK_GUARDED_BY(mMutex) = FrameTiming::kSteady;
  bool mContinues VESK_GUARDED_BY(mMutex) = false;
};

VeskRecorder::VeskRecorder() : mState(std::make_unique<State>()) {}

std::shared_ptr<VeskRecorder> VeskRecorder::init() {
  return std::shared_ptr<VeskRecorder>(new VeskRecorder);
}

VeskRecorder::~VeskRecorder() {
  closeRecorder();
}

int32_t VeskRecorder::openRecorderWithFilPath(const std::string& path,
                                              const std::shared_ptr<VeskVideoDevice>& videoDevice,
                                              const std::shared_ptr<VeskAudioDevice>& audioDevice) {
  const RecursiveMutexLock lock(mState->mOpenCloseLock);
  if (isRecording())
    return mState->failed(kVeskStatusAlreadyRecording, {Cause::kWrongUse, "a movie is being recorded already", ""});
  const auto videoFormat = videoDevice ? videoDevice->getFormat() : nullptr;
  const auto audioFormat = audioDevice ? audioDevice->getFormat() : nullptr;
  // A movie without the picture that was asked for is not what anybody wants.
  if (!videoFormat && (videoDevice || !audioFormat))
    return mState->failed(kVeskStatusNoFormat, {Cause::kNoFormat, "no format has been chosen for the camera", ""});

  mState->mVideo = videoFormat ? std::optional(describe(*videoFormat, frameTiming())) : std::nullopt;
  mState->mAudio = audioFormat ? std::optional(describe(*audioFormat)) : std::nullopt;
  std::shared_ptr<VeskMovieCreator> newCreator;
  const int32_t status = mState->openCreator(path, newCreator);
  if (status != kVeskStatusSuccess) return status;
  mState->mLastError.set(newCreator->statistics().error);

  const MutexLock fields(mState->mMutex);
  mState->mMovieCreator = std::move(newCreator);
  mState->mFileURL = path;
  return kVeskStatusSuccess;
}

int32_t VeskRecorder::State::openCreator(const std::string& path, std::shared_ptr<VeskMovieCreator>& opened) {
  std::shared_ptr<VeskMovieCreator> creator = CreateMovieCreator(path.c_str());
  if (!creator)
    return failed(kVeskStatusNoMovieCreator,
                  {Cause::kOther, "there is no memory for a movie", "Close other programs."});
  creator->SetRoomHandler([] { capture::Transport::shared().askAgain(); });
  if (creator->Open(mVideo ? &*mVideo : nullptr, mAudio ? &*mAudio : nullptr) != 0)
    return failed(kVeskStatusMovieNotOpened,
                  {Cause::kOther, "the movie \"" + path + "\" could not be opened", "", path});
  creator->SetContinues([this] {
    const MutexLock lock(mMutex);
    return mContinues;
  }());
  opened = std::move(creator);
  return kVeskStatusSuccess;
}

int32_t VeskRecorder::continueRecorder(const std::string& path, RecordingStatistics& ended) {
  const auto self = weak_from_this().lock();
  const RecursiveMutexLock lock(mState->mOpenCloseLock);
  const auto ending = mState->creator();
  if (!ending || mState->mIsClosing)
    return mState->failed(kVeskStatusNotRecording, {Cause::kWrongUse, "no movie is being recorded", ""});
  std::shared_ptr<VeskMovieCreator> next;
  const int32_t status = mState->openCreator(path, next);
  if (status != kVeskStatusSuccess) return status;
  if (RecordingStatistics statistics = next->statistics(); statistics.writerMissing)
    return mState->failed(kVeskStatusMovieNotOpened, std::move(statistics.error));

  std::optional<std::string> nextPath = path;  // before there is no way back
  ending->ContinueIn(next);
  {
    const MutexLock fields(mState->mMutex);
    mState->mMovieCreator = std::move(next);
    mState->mFileURL.swap(nextPath);
  }
  try {
    ending->Close();
  } catch (const std::exception& error) {  // the recording has moved on all the same
    NSLog(LogLevel::kError, error.what());
  }
  ended = ending->statistics();
  mState->mLastError.set(ended.error);
  return kVeskStatusSuccess;
}

int32_t VeskRecorder::addVideoSample(void* frame, uint32_t length, int64_t timestamp) {
  return mState->addSample(frame, length, timestamp, VeskMovieCreator::VeskMediaTypeVideo);
}

int32_t VeskRecorder::addAudioSample(void* packet, uint32_t length, int64_t timestamp) {
  return mState->addSample(packet, length, timestamp, VeskMovieCreator::VeskMediaTypeAudio);
}

int32_t VeskRecorder::State::addSample(void* bytes, uint32_t length, int64_t timestamp,
                                       VeskMovieCreator::VeskMediaType type) {
  const auto held = creator();
  return held ? held->AddSampleToMovie(bytes, length, static_cast<uint64_t>(timestamp), type) : 0;
}

std::shared_ptr<VeskMovieCreator> VeskRecorder::movieCreator() const {
  return mState->creator();
}

int32_t VeskRecorder::closeRecorder() {
  // What the run loop serves may let go of the host's last reference.
  const auto self = weak_from_this().lock();
  const RecursiveMutexLock lock(mState->mOpenCloseLock);
  const auto closing = mState->creator();
  if (!closing || mState->mIsClosing) return 0;

  mState->mIsClosing = true;
  int32_t status = 0;
  try {
    NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + kTimeBeforeClose);
    status = closing->Close();
  } catch (const std::exception& error) {  // letting the creator go closes it too
    NSLog(LogLevel::kError, error.what());
  }
  mState->mIsClosing = false;

  const RecordingStatistics last = closing->statistics();
  mState->mLastError.set(last.error);
  const MutexLock fields(mState->mMutex);
  mState->mLastStatistics = last;
  mState->mMovieCreator.reset();
  mState->mFileURL.reset();
  return status;
}

Error VeskRecorder::lastError() const {
  return mState->mLastError.get();
}

std::shared_ptr<VeskMovieCreator> VeskRecorder::State::creator() const {
  const MutexLock lock(mMutex);
  return mMovieCreator;
}

FrameTiming VeskRecorder::frameTiming() const {
  const MutexLock lock(mState->mMutex);
  return mState->mFrameTiming;
}

void VeskRecorder::setFrameTiming(FrameTiming timing) {
  const MutexLock lock(mState->mMutex);
  mState->mFrameTiming = timing;
}

bool VeskRecorder::continues() const {
  const MutexLock lock(mState->mMutex);
  return mState->mContinues;
}

void VeskRecorder::setContinues(bool continues) {
  std::shared_ptr<VeskMovieCreator> current;
  {
    const MutexLock lock(mState->mMutex);
    mState->mContinues = continues;
    current = mState->mMovieCreator;
  }
  if (current) current->SetContinues(continues);
}

std::optional<std::string> VeskRecorder::fileURL() const {
  const MutexLock lock(mState->mMutex);
  return mState->mFileURL;
}

void VeskRecorder::setFileURL(std::optional<std::string> path) {
  const MutexLock lock(mState->mMutex);
  mState->mFileURL = std::move(path);
}

bool VeskRecorder::isRecording() const {
  const MutexLock lock(mState->mMutex);
  return mState->mMovieCreator != nullptr;
}

std::shared_ptr<VeskVideoDevice> VeskRecorder::videoStream() const {
  const MutexLock lock(mState->mMutex);
  return mState->mVideoStream.lock();
}

void VeskRecorder::setVideoStream(const std::shared_ptr<VeskVideoDevice>& device) {
  const MutexLock lock(mState->mMutex);
  mState->mVideoStream = device;
}

std::shared_ptr<VeskAudioDevice> VeskRecorder::audioStream() const {
  const MutexLock lock(mState->mMutex);
  return mState->mAudioStream.lock();
}

void VeskRecorder::setAudioStream(const std::shared_ptr<VeskAudioDevice>& device) {
  const MutexLock lock(mState->mMutex);
  mState->mAudioStream = device;
}

RecordingStatistics VeskRecorder::statistics() const {
  if (const auto held = mState->creator()) return held->statistics();
  const MutexLock lock(mState->mMutex);
  return mState->mLastStatistics;
}

QueueLevels VeskRecorder::waiting() const {
  const auto held = mState->creator();
  return held ? held->waiting() : QueueLevels();
}

}  // namespace vesk
