#include <vesk/record_session.h>

#include <condition_variable>
#include <exception>
#include <optional>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/log.h>
#include <vesk/recorder.h>
#include <vesk/video_device.h>
#include "platform/foundation/errors.h"
#include "platform/foundation/mutex.h"
#include "sessions/temporary_movie.h"

namespace vesk {
namespace {

/// Runs a step of a session's. What it throws, for want of memory, ends here, so that the session leaves no state
/// half-way. @return its status, else `otherwise`
template <class Step>
int32_t guarded(int32_t otherwise, const Step& step) noexcept {
  try {
    return step();
  } catch (const std::exception& error) {
    NSLog(LogLevel::kError, error.what());
  } catch (...) {
    NSLog(LogLevel::kError, "a recording met an unknown exception");
  }
  return otherwise;
}

/// Stands in the devices' delegate lists for the session. It leads straight to the movie's creator, which
/// hands on to the next one's where the recording goes on in another movie. It holds the session only while
/// that is running: a session whose start was refused can be let go.
class FrameRelay : public VeskAVDeviceDelegate {
 public:
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override {
    const bool isVideo = device->deviceType() == kVeskDeviceTypeVideo;
    mCreator->AddSampleToMovie(frame, length, static_cast<uint64_t>(timestamp),
                               isVideo ? VeskMovieCreator::VeskMediaTypeVideo : VeskMovieCreator::VeskMediaTypeAudio);
    if (isVideo && !mHasPictures) awaitPictures();
  }

  /// Before it is among a device's delegates.
  void set(std::shared_ptr<VeskMovieCreator> creator, const std::shared_ptr<VeskVideoDevice>& camera) {
    mCreator = std::move(creator);
    mCamera = camera;
  }

  /// By the thread that starts or stops the session.
  void setRunningSession(std::shared_ptr<VeskRecordSession> session) { mRunningSession = std::move(session); }

 private:
  /// Asks for a key frame while a movie that could have pictures has none: they begin with one, and that of a camera
  /// which is just starting may be older than the movie's first sound, which leaves it out. Its next may be seconds
  /// away. Asked again, since a camera that is only starting cannot be asked yet.
  void awaitPictures() {
    constexpr uint64_t kAskEvery = 15;  // pictures
    mHasPictures = mCreator->statistics().videoFrames != 0;
    if (mHasPictures || mLeftOut++ % kAskEvery != 0) return;
    if (const auto camera = mCamera.lock()) camera->requestKeyFrame();
  }

  std::shared_ptr<VeskMovieCreator> mCreator;
  std::weak_ptr<VeskVideoDevice> mCamera;
  // The camera's thread alone.
  bool mHasPictures = false;
  uint64_t mLeftOut = 0;  // pictures before the first that is in the movie
  std::shared_ptr<VeskRecordSession> mRunningSession;
};

/// One recording, from its start to its stop, with the devices it was started with.
struct Recording {
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
  const std::shared_ptr<FrameRelay> relay = std::make_shared<FrameRelay>();
};

Error noFile(const std::string& path) {
  return {Cause::kWrongUse, "\"" + path + "\" names no file that a movie could be written to", "Choose another name.",
          path};
}

/// Opens what is closed, and a movie for the session's present choices.
int32_t openRecording(const VeskRecordSession& session, std::shared_ptr<Recording>& opened, Error& why) {
  const auto camera = session.videoDevice();
  auto microphone = session.audioDevice();
  if (camera && !camera->isOpen()) camera->openDevice();
  if (microphone && !microphone->isOpen()) microphone->openDevice();
  if (microphone && !microphone->getFormat()) microphone = nullptr;

  const std::string finalPath = session.fileURL();
  auto movie = TemporaryMovie::reserve(finalPath, session.temporaryFolder());
  if (!movie) {
    why = noFile(finalPath);
    return kVeskStatusMovieNotOpened;
  }
  auto recording = std::make_shared<Recording>(std::move(*movie), finalPath, camera, microphone);
  recording->recorder->setFrameTiming(session.frameTiming());
  recording->recorder->setContinues(session.continues());
  const int32_t status = recording->recorder->openRecorderWithFilPath(recording->movie->path(), camera, microphone);
  why = recording->recorder->lastError();
  if (status != kVeskStatusSuccess) return status;
  recording->relay->set(recording->recorder->movieCreator(), camera);
  opened = std::move(recording);
  return status;
}

/// @param why of the device that was refused first
int32_t startCaptures(const Recording& recording, Error& why) {
  int32_t status = kVeskStatusSuccess;
  const auto start = [&](const auto& device) {
    if (!device || device->isCapturing()) return;
    status = device->startCapture();
    if (status != kVeskStatusSuccess && !why) why = device->lastError();
  };
  start(recording.videoDevice);
  start(recording.audioDevice);
  return status;
}

/// Ends what the recording takes part in, step by step: none is left out where another one fails.
void close(const Recording& recording) {
  guarded(kVeskStatusFailed, [&] {
    if (recording.videoDevice) recording.videoDevice->removeDelegate(recording.relay);
    return kVeskStatusSuccess;
  });
  guarded(kVeskStatusFailed, [&] {
    if (recording.audioDevice) recording.audioDevice->removeDelegate(recording.relay);
    return kVeskStatusSuccess;
  });
  guarded(kVeskStatusFailed, [&] { return recording.recorder->closeRecorder(); });
}

void discard(Recording& recording) {
  close(recording);
  recording.movie->remove();
}

/// Moves a movie that has ended to its final path.
RecordingOutcome place(TemporaryMovie& movie, const std::string& finalPath, RecordingStatistics statistics) {
  RecordingOutcome outcome;
  outcome.statistics = statistics;
  const int32_t status = guarded(kVeskStatusFailed, [&] {
    outcome.finalPath = finalPath;
    outcome.temporaryPath = movie.path();  // where it stays if it cannot be moved
    outcome.isLeft = true;
    TemporaryMovie::Placing placing = movie.moveTo(finalPath);
    outcome.isPlaced = !placing.error;
    outcome.temporaryPath = std::move(placing.left);
    outcome.isLeft = placing.isLeft;
    outcome.error = outcome.statistics.error ? outcome.statistics.error : std::move(placing.error);
    return kVeskStatusSuccess;
  });
  if (status != kVeskStatusSuccess) outcome.error.cause = Cause::kOther;  // no memory for more
  return outcome;
}

RecordingOutcome finish(Recording& recording) {
  guarded(kVeskStatusFailed, [&] {
    if (recording.audioDevice) recording.audioDevice->stopCapture();
    return kVeskStatusSuccess;
  });
  close(recording);
  return place(*recording.movie, recording.finalPath, recording.recorder->statistics());
}

enum class Stage { kIdle, kStarting, kRefused, kRunning, kContinuing, kStopping, kClearing };

}  // namespace

/// mMutex is held for moments only, and nothing is called under it.
struct VeskRecordSession::State {
  std::shared_ptr<Recording> recording() const VESK_EXCLUDES(mMutex);
  void setStage(Stage stage, std::shared_ptr<Recording> recording) VESK_EXCLUDES(mMutex);

  LastError mLastError;
  mutable Mutex mMutex;
  std::string mFileURL VESK_GUARDED_BY(mMutex);
  std::string mTemporaryFolder VESK_GUARDED_BY(mMutex);
  std::condition_variable_any mContinued;  ///< kContinuing has ended
  Stage mStage VESK_GUARDED_BY(mMutex) = Stage::kIdle;
  std::shared_ptr<VeskVideoDevice> mVideoDevice VESK_GUARDED_BY(mMutex);
  std::shared_ptr<VeskAudioDevice> mAudioDevice VESK_GUARDED_BY(mMutex);
  FrameTiming mFrameTiming VESK_GUARDED_BY(mMutex) = FrameTiming::kSteady;
  bool mContinues VESK_GUARDED_BY(mMutex) = false;
  std::shared_ptr<Recording> mRecording VESK_GUARDED_BY(mMutex);
  RecordingOutcome mLastOutcome VESK_GUARDED_BY(mMutex);
};

std::shared_ptr<VeskRecordSession> VeskRecordSession::initWithVideoDevice(std::shared_ptr<VeskVideoDevice> videoDevice,
                                                                          std::shared_ptr<VeskAudioDevice> audioDevice,
                                                                          std::string fileURL) {
  return std::shared_ptr<VeskRecordSession>(
      new VeskRecordSession(std::move(videoDevice), std::move(audioDevice), std::move(fileURL)));
}

VeskRecordSession::VeskRecordSession(std::shared_ptr<VeskVideoDevice> videoDevice,
                                     std::shared_ptr<VeskAudioDevice> audioDevice, std::string fileURL)
    : mState(std::make_unique<State>()) {
  const MutexLock lock(mState->mMutex);
  mState->mFileURL = std::move(fileURL);
  mState->mVideoDevice = std::move(videoDevice);
  mState->mAudioDevice = std::move(audioDevice);
}

VeskRecordSession::~VeskRecordSession() {
  // A running session is held by its devices and does not come here.
  if (const auto refused = mState->recording()) discard(*refused);
}

int32_t VeskRecordSession::startSession() {
  const auto self = shared_from_this();  // what the run loop serves may let go of the host's last reference
  std::shared_ptr<Recording> refused;
  {
    const MutexLock lock(mState->mMutex);
    if (mState->mStage != Stage::kIdle && mState->mStage != Stage::kRefused) {
      mState->mLastError.set({Cause::kWrongUse, "a recording is under way already", ""});
      return kVeskStatusAlreadyRecording;
    }
    mState->mStage = Stage::kStarting;
    refused = std::move(mState->mRecording);
  }
  if (refused) discard(*refused);

  std::shared_ptr<Recording> started;
  Error why;
  int32_t status = guarded(kVeskStatusMovieNotOpened, [&] { return openRecording(*this, started, why); });
  mState->mLastError.set(why);
  if (status != kVeskStatusSuccess) {
    mState->setStage(Stage::kIdle, nullptr);
    return status;
  }
  mState->setStage(Stage::kStarting, started);
  if (started->videoDevice) started->videoDevice->beginRecording();
  status = guarded(kVeskStatusFailed, [&] {
    if (started->videoDevice) started->videoDevice->addDelegate(started->relay);
    if (started->audioDevice) started->audioDevice->addDelegate(started->relay);
    return startCaptures(*started, why);
  });
  mState->mLastError.set(std::move(why));
  if (status == kVeskStatusSuccess) {
    started->relay->setRunningSession(self);
    mState->setStage(Stage::kRunning, started);
  } else {
    mState->setStage(Stage::kRefused, started);
    if (started->videoDevice) started->videoDevice->endRecording();
  }
  return status;
}

int32_t VeskRecordSession::stopSession() {
  const auto self = shared_from_this();  // the relay lets go of it below
  std::shared_ptr<Recording> stopping;
  bool wasRunning = false;
  {
    const MutexLock lock(mState->mMutex);
    while (mState->mStage == Stage::kContinuing) mState->mContinued.wait(mState->mMutex);
    if (mState->mStage != Stage::kRunning && mState->mStage != Stage::kRefused) return kVeskStatusSuccess;
    wasRunning = mState->mStage == Stage::kRunning;
    mState->mStage = wasRunning ? Stage::kStopping : Stage::kClearing;
    stopping = mState->mRecording;
  }
  if (wasRunning) {
    auto outcome = finish(*stopping);
    mState->mLastError.set(outcome.error);
    const MutexLock lock(mState->mMutex);
    mState->mLastOutcome = std::move(outcome);
  } else {
    discard(*stopping);
  }
  stopping->relay->setRunningSession(nullptr);
  mState->setStage(Stage::kIdle, nullptr);
  // Last, since a camera may take its time to stop: the movie is in its place by now.
  if (wasRunning && stopping->videoDevice) stopping->videoDevice->endRecording();
  return kVeskStatusSuccess;
}

int32_t VeskRecordSession::continueSession(const std::string& fileURL) {
  const auto self = shared_from_this();
  std::shared_ptr<Recording> current;
  {
    const MutexLock lock(mState->mMutex);
    if (mState->mStage != Stage::kRunning) {
      mState->mLastError.set({Cause::kWrongUse, "no recording is under way", ""});
      return kVeskStatusNotRecording;
    }
    mState->mStage = Stage::kContinuing;
    current = mState->mRecording;
  }
  RecordingOutcome outcome;
  std::string sessionPath;
  const int32_t status = guarded(kVeskStatusMovieNotOpened, [&]() -> int32_t {
    auto movie = TemporaryMovie::reserve(fileURL, temporaryFolder());
    if (!movie) {
      outcome.error = noFile(fileURL);
      return kVeskStatusMovieNotOpened;
    }
    sessionPath = fileURL;
    std::string recordingPath = fileURL;
    RecordingStatistics ended;
    const int32_t continued = current->recorder->continueRecorder(movie->path(), ended);
    if (continued != kVeskStatusSuccess) {
      outcome.error = current->recorder->lastError();
      return continued;
    }
    // The recorder writes the other movie from here on, so nothing may stand in the way of that.
    std::optional<TemporaryMovie> endedMovie = std::move(current->movie);
    current->movie.emplace(std::move(*movie));
    current->finalPath.swap(recordingPath);
    outcome = place(*endedMovie, recordingPath, ended);
    return kVeskStatusSuccess;
  });
  mState->mLastError.set(outcome.error);
  const MutexLock lock(mState->mMutex);
  mState->mStage = Stage::kRunning;
  mState->mContinued.notify_all();
  if (status != kVeskStatusSuccess) return status;
  mState->mLastOutcome = std::move(outcome);
  mState->mFileURL.swap(sessionPath);
  return status;
}

Error VeskRecordSession::lastError() const {
  return mState->mLastError.get();
}

void VeskRecordSession::didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                                        const std::shared_ptr<VeskDeviceInfo>& device) {
  const auto current = mState->recording();
  if (!current || !device) return;
  if (device->deviceType() == kVeskDeviceTypeVideo)
    current->recorder->addVideoSample(frame, length, timestamp);
  else
    current->recorder->addAudioSample(frame, length, timestamp);
}

std::shared_ptr<Recording> VeskRecordSession::State::recording() const {
  const MutexLock lock(mMutex);
  return mRecording;
}

void VeskRecordSession::State::setStage(Stage stage, std::shared_ptr<Recording> recording) {
  const MutexLock lock(mMutex);
  mStage = stage;
  mRecording.swap(recording);
}

std::shared_ptr<VeskVideoDevice> VeskRecordSession::videoDevice() const {
  const MutexLock lock(mState->mMutex);
  return mState->mVideoDevice;
}

void VeskRecordSession::setVideoDevice(std::shared_ptr<VeskVideoDevice> device) {
  const MutexLock lock(mState->mMutex);
  mState->mVideoDevice.swap(device);
}

std::shared_ptr<VeskAudioDevice> VeskRecordSession::audioDevice() const {
  const MutexLock lock(mState->mMutex);
  return mState->mAudioDevice;
}

void VeskRecordSession::setAudioDevice(std::shared_ptr<VeskAudioDevice> device) {
  const MutexLock lock(mState->mMutex);
  mState->mAudioDevice.swap(device);
}

FrameTiming VeskRecordSession::frameTiming() const {
  const MutexLock lock(mState->mMutex);
  return mState->mFrameTiming;
}

void VeskRecordSession::setFrameTiming(FrameTiming timing) {
  const MutexLock lock(mState->mMutex);
  mState->mFrameTiming = timing;
}

bool VeskRecordSession::continues() const {
  const MutexLock lock(mState->mMutex);
  return mState->mContinues;
}

void VeskRecordSession::setContinues(bool continues) {
  std::shared_ptr<Recording> current;
  {
    const MutexLock lock(mState->mMutex);
    mState->mContinues = continues;
    current = mState->mRecording;
  }
  if (current) current->recorder->setContinues(continues);
}

std::string VeskRecordSession::temporaryFolder() const {
  const MutexLock lock(mState->mMutex);
  return mState->mTemporaryFolder;
}

void VeskRecordSession::setTemporaryFolder(std::string folder) {
  const MutexLock lock(mState->mMutex);
  mState->mTemporaryFolder.swap(folder);
}

std::string VeskRecordSession::fileURL() const {
  const MutexLock lock(mState->mMutex);
  return mState->mFileURL;
}

bool VeskRecordSession::isRunning() const {
  const MutexLock lock(mState->mMutex);
  return mState->mStage == Stage::kRunning || mState->mStage == Stage::kContinuing ||
         mState->mStage == Stage::kStopping;
}

RecordingStatistics VeskRecordSession::statistics() const {
  const auto current = mState->recording();
  return current ? current->recorder->statistics() : lastOutcome().statistics;
}

RecordingOutcome VeskRecordSession::lastOutcome() const {
  const MutexLock lock(mState->mMutex);
  return mState->mLastOutcome;
}

QueueLevels VeskRecordSession::waiting() const {
  const auto current = mState->recording();
  return current ? current->recorder->waiting() : QueueLevels();
}

bool VeskRecordSession::isWriterBusy() const {
  return waiting().isBusy();
}

}  // namespace vesk
