#include <vesk/record_session.h>

#include <optional>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/recorder.h>
#include <vesk/video_device.h>
#include "sessions/temporary_movie.h"

namespace vesk {
namespace {

void addSample(VeskRecorder& recorder, void* frame, uint32_t length, int64_t timestamp, const VeskDeviceInfo& device) {
  if (device.deviceType() == kVeskDeviceTypeVideo)
    recorder.addVideoSample(frame, length, timestamp);
  else
    recorder.addAudioSample(frame, length, timestamp);
}

}  // namespace

/// Stands in the devices' delegate lists for the session. It leads straight to the recorder and
/// holds the session only while that is running: a session whose start was refused can be let go.
class VeskRecordSession::FrameRelay : public VeskAVDeviceDelegate {
 public:
  explicit FrameRelay(std::shared_ptr<VeskRecorder> recorder) : mRecorder(std::move(recorder)) {}

  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override {
    addSample(*mRecorder, frame, length, timestamp, *device);
  }

  /// By the thread that starts or stops the session.
  void setRunningSession(std::shared_ptr<VeskRecordSession> session) { mRunningSession = std::move(session); }

 private:
  const std::shared_ptr<VeskRecorder> mRecorder;
  std::shared_ptr<VeskRecordSession> mRunningSession;
};

/// One recording, from its start to its stop, with the devices it was started with.
struct VeskRecordSession::Recording {
  Recording(TemporaryMovie temporaryMovie, std::string path, std::shared_ptr<VeskVideoDevice> video,
            std::shared_ptr<VeskAudioDevice> audio)
      : movie(std::move(temporaryMovie)),
        finalPath(std::move(path)),
        videoDevice(std::move(video)),
        audioDevice(std::move(audio)) {}

  // By the thread that starts, continues or stops the session.
  std::optional<TemporaryMovie> movie;  // gives its path back after the recorder has closed
  std::string finalPath;
  const std::shared_ptr<VeskVideoDevice> videoDevice;
  const std::shared_ptr<VeskAudioDevice> audioDevice;
  const std::shared_ptr<VeskRecorder> recorder = VeskRecorder::init();
  const std::shared_ptr<FrameRelay> relay = std::make_shared<FrameRelay>(recorder);
};

std::shared_ptr<VeskRecordSession> VeskRecordSession::initWithVideoDevice(std::shared_ptr<VeskVideoDevice> videoDevice,
                                                                          std::shared_ptr<VeskAudioDevice> audioDevice,
                                                                          std::string fileURL) {
  return std::shared_ptr<VeskRecordSession>(
      new VeskRecordSession(std::move(videoDevice), std::move(audioDevice), std::move(fileURL)));
}

VeskRecordSession::VeskRecordSession(std::shared_ptr<VeskVideoDevice> videoDevice,
                                     std::shared_ptr<VeskAudioDevice> audioDevice, std::string fileURL)
    : mFileURL(std::move(fileURL)), mVideoDevice(std::move(videoDevice)), mAudioDevice(std::move(audioDevice)) {}

VeskRecordSession::~VeskRecordSession() {
  // A running session is held by its devices and does not come here.
  if (mRecording) discard(*mRecording);
}

int32_t VeskRecordSession::startSession() {
  const auto self = shared_from_this();  // what the run loop serves may let go of the host's last reference
  std::shared_ptr<Recording> refused;
  {
    const MutexLock lock(mMutex);
    if (mState != State::kIdle && mState != State::kRefused) return kVeskStatusAlreadyRecording;
    mState = State::kStarting;
    refused = std::move(mRecording);
  }
  if (refused) discard(*refused);

  std::shared_ptr<Recording> started;
  int32_t status = openRecording(started);
  if (status != kVeskStatusSuccess) {
    setState(State::kIdle, nullptr);
    return status;
  }
  setState(State::kStarting, started);
  if (started->videoDevice) started->videoDevice->addDelegate(started->relay);
  if (started->audioDevice) started->audioDevice->addDelegate(started->relay);
  if (started->videoDevice) started->videoDevice->beginRecording();
  status = startCaptures(*started);
  if (status == kVeskStatusSuccess) {
    started->relay->setRunningSession(self);
    setState(State::kRunning, started);
  } else {
    setState(State::kRefused, started);
    if (started->videoDevice) started->videoDevice->endRecording();
  }
  return status;
}

int32_t VeskRecordSession::openRecording(std::shared_ptr<Recording>& opened) {
  const auto camera = videoDevice();
  auto microphone = audioDevice();
  if (camera && !camera->isOpen()) camera->openDevice();
  if (microphone && !microphone->isOpen()) microphone->openDevice();
  if (microphone && !microphone->getFormat()) microphone = nullptr;

  const std::string finalPath = fileURL();
  auto movie = TemporaryMovie::reserve(finalPath);
  if (!movie) return kVeskStatusMovieNotOpened;
  auto recording = std::make_shared<Recording>(std::move(*movie), finalPath, camera, microphone);
  recording->recorder->setFrameTiming(frameTiming());
  recording->recorder->setContinues(continues());
  const int32_t status = recording->recorder->openRecorderWithFilPath(recording->movie->path(), camera, microphone);
  if (status == kVeskStatusSuccess) opened = std::move(recording);
  return status;
}

int32_t VeskRecordSession::startCaptures(const Recording& recording) {
  int32_t status = kVeskStatusSuccess;
  if (recording.videoDevice && !recording.videoDevice->isCapturing()) status = recording.videoDevice->startCapture();
  if (recording.audioDevice && !recording.audioDevice->isCapturing()) status = recording.audioDevice->startCapture();
  return status;
}

int32_t VeskRecordSession::stopSession() {
  const auto self = shared_from_this();  // the relay lets go of it below
  std::shared_ptr<Recording> stopping;
  bool wasRunning = false;
  {
    const MutexLock lock(mMutex);
    while (mState == State::kContinuing) mContinued.wait(mMutex);
    if (mState != State::kRunning && mState != State::kRefused) return kVeskStatusSuccess;
    wasRunning = mState == State::kRunning;
    mState = wasRunning ? State::kStopping : State::kClearing;
    stopping = mRecording;
  }
  if (wasRunning) {
    auto outcome = finish(*stopping);
    const MutexLock lock(mMutex);
    mLastOutcome = std::move(outcome);
  } else {
    discard(*stopping);
  }
  stopping->relay->setRunningSession(nullptr);
  setState(State::kIdle, nullptr);
  // Last, since a camera may take its time to stop: the movie is in its place by now.
  if (wasRunning && stopping->videoDevice) stopping->videoDevice->endRecording();
  return kVeskStatusSuccess;
}

int32_t VeskRecordSession::continueSession(const std::string& fileURL) {
  const auto self = shared_from_this();
  std::shared_ptr<Recording> current;
  {
    const MutexLock lock(mMutex);
    if (mState != State::kRunning) return kVeskStatusNotRecording;
    mState = State::kContinuing;
    current = mRecording;
  }
  auto movie = TemporaryMovie::reserve(fileURL);
  RecordingStatistics ended;
  const int32_t status =
      movie ? current->recorder->continueRecorder(movie->path(), ended) : int32_t{kVeskStatusMovieNotOpened};
  std::optional<RecordingOutcome> outcome;
  if (status == kVeskStatusSuccess) {
    outcome = place(*current, ended);
    current->movie.emplace(std::move(*movie));
    current->finalPath = fileURL;
  }
  const MutexLock lock(mMutex);
  mState = State::kRunning;
  mContinued.notify_all();
  if (!outcome) return status;
  mLastOutcome = std::move(*outcome);
  mFileURL = fileURL;
  return status;
}

RecordingOutcome VeskRecordSession::finish(Recording& recording) {
  if (recording.audioDevice) recording.audioDevice->stopCapture();
  leaveDevices(recording);
  recording.recorder->closeRecorder();
  return place(recording, recording.recorder->statistics());
}

/// Moves the movie that has ended to its final path.
RecordingOutcome VeskRecordSession::place(Recording& recording, RecordingStatistics statistics) {
  RecordingOutcome outcome;
  outcome.finalPath = recording.finalPath;
  outcome.statistics = statistics;
  TemporaryMovie::Placing placing = recording.movie->moveTo(recording.finalPath);
  outcome.moveError = std::move(placing.error);
  outcome.temporaryPath = std::move(placing.left);
  return outcome;
}

void VeskRecordSession::discard(Recording& recording) {
  leaveDevices(recording);
  recording.recorder->closeRecorder();
  recording.movie->remove();
}

void VeskRecordSession::leaveDevices(const Recording& recording) {
  if (recording.videoDevice) recording.videoDevice->removeDelegate(recording.relay);
  if (recording.audioDevice) recording.audioDevice->removeDelegate(recording.relay);
}

void VeskRecordSession::didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                                        const std::shared_ptr<VeskDeviceInfo>& device) {
  const auto current = recording();
  if (current && device) addSample(*current->recorder, frame, length, timestamp, *device);
}

std::shared_ptr<VeskRecordSession::Recording> VeskRecordSession::recording() const {
  const MutexLock lock(mMutex);
  return mRecording;
}

void VeskRecordSession::setState(State state, std::shared_ptr<Recording> recording) {
  const MutexLock lock(mMutex);
  mState = state;
  mRecording.swap(recording);
}

std::shared_ptr<VeskVideoDevice> VeskRecordSession::videoDevice() const {
  const MutexLock lock(mMutex);
  return mVideoDevice;
}

void VeskRecordSession::setVideoDevice(std::shared_ptr<VeskVideoDevice> device) {
  const MutexLock lock(mMutex);
  mVideoDevice.swap(device);
}

std::shared_ptr<VeskAudioDevice> VeskRecordSession::audioDevice() const {
  const MutexLock lock(mMutex);
  return mAudioDevice;
}

void VeskRecordSession::setAudioDevice(std::shared_ptr<VeskAudioDevice> device) {
  const MutexLock lock(mMutex);
  mAudioDevice.swap(device);
}

FrameTiming VeskRecordSession::frameTiming() const {
  const MutexLock lock(mMutex);
  return mFrameTiming;
}

void VeskRecordSession::setFrameTiming(FrameTiming timing) {
  const MutexLock lock(mMutex);
  mFrameTiming = timing;
}

bool VeskRecordSession::continues() const {
  const MutexLock lock(mMutex);
  return mContinues;
}

void VeskRecordSession::setContinues(bool continues) {
  std::shared_ptr<Recording> current;
  {
    const MutexLock lock(mMutex);
    mContinues = continues;
    current = mRecording;
  }
  if (current) current->recorder->setContinues(continues);
}

std::string VeskRecordSession::fileURL() const {
  const MutexLock lock(mMutex);
  return mFileURL;
}

bool VeskRecordSession::isRunning() const {
  const MutexLock lock(mMutex);
  return mState == State::kRunning || mState == State::kContinuing || mState == State::kStopping;
}

RecordingStatistics VeskRecordSession::statistics() const {
  const auto current = recording();
  return current ? current->recorder->statistics() : lastOutcome().statistics;
}

RecordingOutcome VeskRecordSession::lastOutcome() const {
  const MutexLock lock(mMutex);
  return mLastOutcome;
}

QueueLevels VeskRecordSession::waiting() const {
  const auto current = recording();
  return current ? current->recorder->waiting() : QueueLevels();
}

bool VeskRecordSession::isWriterBusy() const {
  return waiting().isBusy();
}

}  // namespace vesk
