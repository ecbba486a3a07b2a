#include <vesk/recorder.h>

#include <chrono>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/run_loop.h>
#include <vesk/video_device.h>
#include "devices/capture_parameters.h"

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

std::shared_ptr<VeskRecorder> VeskRecorder::init() {
  return std::shared_ptr<VeskRecorder>(new VeskRecorder);
}

VeskRecorder::~VeskRecorder() {
  closeRecorder();
}

int32_t VeskRecorder::openRecorderWithFilPath(const std::string& path,
                                              const std::shared_ptr<VeskVideoDevice>& videoDevice,
                                              const std::shared_ptr<VeskAudioDevice>& audioDevice) {
  const RecursiveMutexLock lock(mOpenCloseLock);
  if (isRecording()) return kVeskStatusAlreadyRecording;
  const auto videoFormat = videoDevice ? videoDevice->getFormat() : nullptr;
  const auto audioFormat = audioDevice ? audioDevice->getFormat() : nullptr;
  // A movie without the picture that was asked for is not what anybody wants.
  if (!videoFormat && (videoDevice || !audioFormat)) return kVeskStatusNoFormat;

  mVideo = videoFormat ? std::optional(describe(*videoFormat, frameTiming())) : std::nullopt;
  mAudio = audioFormat ? std::optional(describe(*audioFormat)) : std::nullopt;
  std::shared_ptr<VeskMovieCreator> newCreator;
  const int32_t status = openCreator(path, newCreator);
  if (status != kVeskStatusSuccess) return status;

  const MutexLock fields(mMutex);
  mMovieCreator = std::move(newCreator);
  mFileURL = path;
  return kVeskStatusSuccess;
}

int32_t VeskRecorder::openCreator(const std::string& path, std::shared_ptr<VeskMovieCreator>& opened) {
  std::shared_ptr<VeskMovieCreator> creator = CreateMovieCreator(path.c_str());
  if (!creator) return kVeskStatusNoMovieCreator;
  if (creator->Open(mVideo ? &*mVideo : nullptr, mAudio ? &*mAudio : nullptr) != 0) return kVeskStatusMovieNotOpened;
  creator->SetContinues(continues());
  opened = std::move(creator);
  return kVeskStatusSuccess;
}

int32_t VeskRecorder::continueRecorder(const std::string& path, RecordingStatistics& ended) {
  const auto self = weak_from_this().lock();
  const RecursiveMutexLock lock(mOpenCloseLock);
  const auto ending = creator();
  if (!ending || mIsClosing) return kVeskStatusNotRecording;
  std::shared_ptr<VeskMovieCreator> next;
  const int32_t status = openCreator(path, next);
  if (status != kVeskStatusSuccess) return status;
  if (next->statistics().writerMissing) return kVeskStatusMovieNotOpened;

  ending->ContinueIn(next);
  {
    const MutexLock fields(mMutex);
    mMovieCreator = std::move(next);
    mFileURL = path;
  }
  ending->Close();
  ended = ending->statistics();
  return kVeskStatusSuccess;
}

int32_t VeskRecorder::addVideoSample(void* frame, uint32_t length, int64_t timestamp) {
  return addSample(frame, length, timestamp, VeskMovieCreator::VeskMediaTypeVideo);
}

int32_t VeskRecorder::addAudioSample(void* packet, uint32_t length, int64_t timestamp) {
  return addSample(packet, length, timestamp, VeskMovieCreator::VeskMediaTypeAudio);
}

int32_t VeskRecorder::addSample(void* bytes, uint32_t length, int64_t timestamp, VeskMovieCreator::VeskMediaType type) {
  const auto held = creator();
  return held ? held->AddSampleToMovie(bytes, length, static_cast<uint64_t>(timestamp), type) : 0;
}

int32_t VeskRecorder::closeRecorder() {
  // What the run loop serves may let go of the host's last reference.
  const auto self = weak_from_this().lock();
  const RecursiveMutexLock lock(mOpenCloseLock);
  const auto closing = creator();
  if (!closing || mIsClosing) return 0;

  mIsClosing = true;
  NSRunLoop::currentRunLoop()->runUntilDate(std::chrono::steady_clock::now() + kTimeBeforeClose);
  const int32_t status = closing->Close();
  mIsClosing = false;

  const RecordingStatistics last = closing->statistics();
  const MutexLock fields(mMutex);
  mLastStatistics = last;
  mMovieCreator.reset();
  mFileURL.reset();
  return status;
}

std::shared_ptr<VeskMovieCreator> VeskRecorder::creator() const {
  const MutexLock lock(mMutex);
  return mMovieCreator;
}

FrameTiming VeskRecorder::frameTiming() const {
  const MutexLock lock(mMutex);
  return mFrameTiming;
}

void VeskRecorder::setFrameTiming(FrameTiming timing) {
  const MutexLock lock(mMutex);
  mFrameTiming = timing;
}

bool VeskRecorder::continues() const {
  const MutexLock lock(mMutex);
  return mContinues;
}

void VeskRecorder::setContinues(bool continues) {
  std::shared_ptr<VeskMovieCreator> current;
  {
    const MutexLock lock(mMutex);
    mContinues = continues;
    current = mMovieCreator;
  }
  if (current) current->SetContinues(continues);
}

std::optional<std::string> VeskRecorder::fileURL() const {
  const MutexLock lock(mMutex);
  return mFileURL;
}

void VeskRecorder::setFileURL(std::optional<std::string> path) {
  const MutexLock lock(mMutex);
  mFileURL = std::move(path);
}

bool VeskRecorder::isRecording() const {
  const MutexLock lock(mMutex);
  return mMovieCreator != nullptr;
}

std::shared_ptr<VeskVideoDevice> VeskRecorder::videoStream() const {
  const MutexLock lock(mMutex);
  return mVideoStream.lock();
}

void VeskRecorder::setVideoStream(const std::shared_ptr<VeskVideoDevice>& device) {
  const MutexLock lock(mMutex);
  mVideoStream = device;
}

std::shared_ptr<VeskAudioDevice> VeskRecorder::audioStream() const {
  const MutexLock lock(mMutex);
  return mAudioStream.lock();
}

void VeskRecorder::setAudioStream(const std::shared_ptr<VeskAudioDevice>& device) {
  const MutexLock lock(mMutex);
  mAudioStream = device;
}

RecordingStatistics VeskRecorder::statistics() const {
  if (const auto held = creator()) return held->statistics();
  const MutexLock lock(mMutex);
  return mLastStatistics;
}

QueueLevels VeskRecorder::waiting() const {
  const auto held = creator();
  return held ? held->waiting() : QueueLevels();
}

}  // namespace vesk
