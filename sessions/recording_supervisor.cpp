#include <vesk/recording_supervisor.h>

#include <fmt/format.h>

#include <atomic>
#include <cctype>
#include <exception>
#include <filesystem>
#include <future>
#include <system_error>
#include <utility>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/capture_choices.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include <vesk/notification_center.h>
#include <vesk/video_device.h>
#include "platform/foundation/file_manager.h"
#include "platform/foundation/mutex.h"
#include "platform/foundation/timer.h"
#include "sessions/device_name.h"
#include "sessions/movie_recording.h"
#include "sessions/movie_watch.h"
#include "sessions/recording_devices.h"
#include "sessions/returned_microphone.h"
#include "sessions/supervisor_environment.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;
using Kind = RecordingEventKind;
using capture::Transport;

/// How often a camera that has just come may refuse.
constexpr int kMostRetries = 5;
/// A camera that has changed its parameter sets is gone on from in another movie after so many looks: sound that was
/// heard before the change, and belongs into this movie, may still be on its way.
constexpr int kLooksToContinue = 2;
/// Not worth a movie, in seconds.
constexpr double kShortest = 0.1;

bool isMovieName(const std::string& file) {
  std::string ending = fs::path(file).extension().string();
  for (char& character : ending) character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  return ending == ".mov" || ending == ".qt";
}

Error noCamera() {
  return {Cause::kNoDevice, "no camera was found", "Plug one in."};
}

/// The writer of the movie under way, for those who ask on a capture thread.
struct Writer : std::enable_shared_from_this<Writer> {
  /// Busy as long as somebody holds what this answers.
  std::shared_ptr<void> pause() {
    ++pauses;
    return std::shared_ptr<void>(this, [self = shared_from_this()](void*) { --self->pauses; });
  }
  bool isBusy() const {
    if (pauses > 0) return true;
    std::shared_ptr<VeskRecordSession> held;
    {
      const MutexLock lock(mutex);
      held = session.lock();
    }
    return held && held->isWriterBusy();
  }
  void set(const std::shared_ptr<VeskRecordSession>& newSession) {
    const MutexLock lock(mutex);
    session = newSession;
  }

  std::atomic<int> pauses{0};
  mutable Mutex mutex;
  std::weak_ptr<VeskRecordSession> session VESK_GUARDED_BY(mutex);
};

/// What a thread that finishes movies hands back.
struct Finished {
  std::vector<RecordedMovie> movies;
  std::shared_ptr<MovieRecording> next;  ///< the one that goes on, after a change of the parameter sets
  Error notContinued;
  /// Kept until the main thread lets go of them: devices close with the last reference.
  std::vector<std::shared_ptr<MovieRecording>> held;
};

/// Goes on in another movie, where the camera has changed its parameter sets.
void continueMovie(Finished& finished, const std::string& firstFile) {
  const std::shared_ptr<MovieRecording> ended = finished.held.back();
  finished.next = ended->continueIn(freeName(firstFile, ended->plan().file), finished.notContinued);
  if (!finished.next) return;
  finished.movies.push_back(ended->conclude(false));
  finished.held.push_back(finished.next);
}

}  // namespace

/// The recording as a chain of states, all on the main thread. What waits for a disk runs on a thread of its own, one
/// piece at a time, and hands back what it found. Events go through the main queue, so that a host that does whatever
/// it likes in one is inside nothing of this.
class VeskRecordingSupervisor::Core : public std::enable_shared_from_this<Core> {
 public:
  Core(EventHandler handler, SupervisorEnvironment environment)
      : mHandler(std::move(handler)), mEnvironment(std::move(environment)) {}

  bool start(RecordingSettings settings) {
    if (mState != State::kIdle) return false;
    attempt([&] {
      reset(std::move(settings));
      if (Error error = checkFile(mSettings.file, mSettings.replacesFile)) return fail({std::move(error), nullptr});
      watchDevices();
      lookForCamera();
    });
    return true;
  }

  void stop() {
    later([](Core& core) { core.askForEnd(); });
  }

  /// The host has let go: ends the recording with its movie in place.
  void abandon() noexcept {
    mIsAbandoned = true;
    mHandler = nullptr;
    try {
      if (mState == State::kContinuing) {
        mJob.wait();
        if (mContinued->next) mMovie = mContinued->next;
        finishMovie();
      } else if (mState == State::kRecording) {
        finishMovie();
      }
      if (mJob.valid()) mJob.wait();
    } catch (const std::exception& exception) {  // no memory: here then, whatever that takes
      NSLog(exception.what());
      if (mMovie) mMovie->stop();
    }
    try {
      letGo();
    } catch (const std::exception& exception) {
      NSLog(LogLevel::kError, exception.what());
    }
  }

  bool isActive() const { return mState != State::kIdle; }
  FrameTiming frameTiming() const { return mFrameTiming; }
  void setFrameTiming(FrameTiming timing) { mFrameTiming = timing; }
  std::shared_ptr<VeskVideoDevice> camera() const { return mMovie ? mDevices.camera() : nullptr; }
  std::shared_ptr<VeskAudioDevice> microphone() const {
    if (!mMovie) return nullptr;
    return mReturned ? mReturned->microphone() : mDevices.microphone();
  }
  std::function<bool()> writerBusy() const {
    return [writer = mWriter] { return writer->isBusy(); };
  }

  RecordingProgress progress() const {
    RecordingProgress progress;
    if (!mMovie) return progress;
    progress.file = mMovie->plan().file;
    progress.statistics = mMovie->statistics();
    progress.isSoundMissing = mWatch->isMicrophoneLost();
    progress.secondsLeftOnDisk = mWatch->secondsLeftOnDisk();
    if (const auto& watch = mMovie->soundWatch(); watch && watch->isMeasuring()) progress.level = watch->level();
    return progress;
  }

 private:
  enum class State {
    kIdle,
    kStarting,              ///< calls the host, and devices that may serve the main loop
    kWaitingForCamera,      ///< until it is plugged in
    kWaitingToTryAgain,     ///< with a camera that has just come, and refuses
    kWaitingForMicrophone,  ///< which comes a little after its camera
    kRecording,
    kContinuing,  ///< one movie is being finished while the next one is recorded
    kFinishing,
  };

  /// Runs `work` on the main thread, outside of what is under way. From any thread, which does not hold the core.
  template <class Work>
  static void later(const std::weak_ptr<Core>& weak, Work work) {
    DispatchQueue::mainQueue()->async([weak, work = std::move(work)] {
      const auto self = weak.lock();
      if (self && !self->mIsAbandoned) work(*self);
    });
  }
  template <class Work>
  void later(Work work) {
    later(weak_from_this(), std::move(work));
  }

  /// Runs a step towards a movie. What it throws, or a function of the host's in it, ends the recording.
  template <class Step>
  void attempt(const Step& step) {
    mState = State::kStarting;
    std::string why;
    try {
      return step();
    } catch (const std::exception& exception) {
      why = exception.what();
    } catch (...) {
      why = "an unknown exception";
    }
    if (!mIsAbandoned) fail({{Cause::kOther, "the recording could not be started: " + why, ""}, nullptr});
  }

  void emit(RecordingEvent event) {
    later([event = std::move(event)](Core& core) {
      const EventHandler handler = core.mHandler;  // the host may let go of this one inside
      if (handler) handler(event);
    });
  }
  void emit(Kind kind, std::shared_ptr<VeskDeviceInfo> device = nullptr, Error error = {}) {
    RecordingEvent event;
    event.kind = kind;
    event.device = std::move(device);
    event.error = std::move(error);
    emit(std::move(event));
  }
  void emitFile(Kind kind, std::string file) {
    RecordingEvent event;
    event.kind = kind;
    event.file = std::move(file);
    emit(std::move(event));
  }

  void reset(RecordingSettings settings) {
    mSettings = std::move(settings);
    mDevices.reset();
    mError = {};
    mErrorDevice.reset();
    mRecorded = 0;
    mMovies = 0;
    mRetries = 0;
    mHasWaited = false;
    mIsOver = false;
  }

  void watchDevices() {
    mTimer = NSTimer::scheduledTimer(mEnvironment.tick, true, [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      try {
        self->tick();
      } catch (const std::exception& exception) {  // no memory, maybe: the next look is soon
        NSLog(exception.what());
      }
    });
    // Posted on the source's thread. A source that can wait does, until the change is handled: otherwise one that is
    // ahead of the clock would run on for minutes of its time without the device that has gone.
    const auto observe = [this](const char* name, void (Core::*handle)(const std::shared_ptr<VeskDeviceInfo>&)) {
      return NSNotificationCenter::defaultCenter().addObserver(
          name,
          [weak = weak_from_this(), writer = mWriter, key = std::string(name), handle](const NSNotification& posted) {
            const auto* const info = posted.value<std::shared_ptr<VeskDeviceInfo>>(key);
            if (!info) return;
            later(weak, [info = *info, pause = writer->pause(), handle](Core& core) { (core.*handle)(info); });
          });
    };
    mAdded = observe(KVXDeviceAdded, &Core::deviceAdded);
    mRemoved = observe(KVXDeviceRemoved, &Core::deviceRemoved);
  }

  void deviceAdded(const std::shared_ptr<VeskDeviceInfo>& info) {
    if (mState == State::kWaitingForCamera) return attempt([this] { lookForCamera(); });
    if ((mState == State::kRecording || mState == State::kContinuing) && mWatch->isMicrophoneLost() &&
        mDevices.isMicrophone(*info))
      microphoneReturned(info);
  }

  void deviceRemoved(const std::shared_ptr<VeskDeviceInfo>& info) {
    if (mState == State::kWaitingForMicrophone && mDevices.isCamera(*info)) {
      mDevices.close();
      return attempt([this] { lookForCamera(); });
    }
    if (mState != State::kRecording && mState != State::kContinuing) return;
    if (mDevices.isCamera(*info)) {
      emit(Kind::kCameraRemoved, info);
      mIsCameraGone = true;
      mIsCutShort = !mIsOver;
      mPause = mWriter->pause();
      if (mState == State::kRecording) finishMovie();
    } else if (mDevices.isMicrophone(*info)) {
      emit(Kind::kMicrophoneRemoved, info);
      mReturned.reset();
      mWatch->microphoneRemoved();
    }
  }

  void microphoneReturned(const std::shared_ptr<VeskDeviceInfo>& info) {
    mWatch->microphoneReturned();
    Error error;
    mReturned = ReturnedMicrophone::open(info, mMovie->plan(), *mMovie, error);
    emit(Kind::kMicrophoneReturned, info, error);
  }

  void askForEnd() {
    mIsOver = true;
    switch (mState) {
      case State::kRecording:
        return finishMovie();
      case State::kWaitingForCamera:
      case State::kWaitingToTryAgain:
      case State::kWaitingForMicrophone:
        return end();
      case State::kIdle:
      case State::kStarting:
      case State::kContinuing:
      case State::kFinishing:
        return;  // who comes to the end of that looks whether it is over
    }
  }

  void tick() {
    switch (mState) {
      case State::kRecording:
        return watchRecording();
      case State::kWaitingToTryAgain:
        if (mEnvironment.now() >= mDeadline) attempt([this] { lookForCamera(); });
        return;
      case State::kWaitingForMicrophone:
        if (mEnvironment.now() < mDeadline && !mDevices.isMicrophoneThere()) return;
        return attempt([this] { begin(); });
      case State::kIdle:
      case State::kStarting:
      case State::kWaitingForCamera:
      case State::kContinuing:
      case State::kFinishing:
        return;
    }
  }

  // Before a movie. The host is called on the way, and may let go of everything: then this ends.

  void lookForCamera() {
    bool isThere = false;
    const DeviceError error = mDevices.openCamera(isThere);
    if (mIsAbandoned) return;
    if (error.error) return failed(error);
    if (!isThere) return waitForCamera();
    if (mIsOver) return end();
    if (!mHasWaited || !mSettings.withSound || mDevices.hasGivenMicrophone()) return begin();
    mState = State::kWaitingForMicrophone;
    mDeadline = mEnvironment.now() + mEnvironment.arrival;
  }

  void waitForCamera() {
    if (mIsOver) return end();
    if (!mSettings.waitsForCamera) return fail({noCamera(), nullptr});
    mState = State::kWaitingForCamera;
    mHasWaited = true;
    emit(Kind::kWaiting);
  }

  void begin() {
    if (mSettings.withSound) {
      Error missing;
      const DeviceError error = mDevices.openMicrophone(missing);
      if (mIsAbandoned) return;
      if (error.error) return failed(error);
      if (missing && !mHasWaited) return failed({missing, nullptr});
      if (missing) emit(Kind::kSoundMissing, nullptr, missing);
    }
    if (mIsOver) return end();
    record();
  }

  void record() {
    const bool isFirst = mMovies == 0;
    MoviePlan plan =
        mDevices.planFor(isFirst ? mSettings.file : freeName(mSettings.file), isFirst && mSettings.replacesFile);
    Error error;
    const auto movie = MovieRecording::make(std::move(plan), mFrameTiming, error);
    if (!movie) return fail({error, nullptr});
    // Sources that keep their own time let camera and microphone begin at the same moment of it.
    Transport& transport = Transport::shared();
    const bool isHeldByHost = transport.isHeld();
    if (!isHeldByHost) transport.hold();
    mWriter->set(movie->session());
    const DeviceError refusal = movie->start();
    if (!isHeldByHost) transport.release();
    if (mIsAbandoned) {
      movie->stop();
      movie->conclude(true);
      return;
    }
    if (refusal.error) return failed(refusal);
    mMovie = movie;
    mState = State::kRecording;
    mRetries = 0;
    mIsCameraGone = false;
    mIsCutShort = false;
    mDevices.camera()->beginRecording();  // ends on the main thread, and with it what was asked of the camera meanwhile
    mIsHoldingCamera = true;
    beginWatching();
    emitFile(Kind::kStarted, movie->plan().file);
    if (mIsOver) finishMovie();
  }

  /// A device that has just come may refuse a few times.
  void failed(const DeviceError& error) {
    if (mIsAbandoned) return;
    if (mIsOver) return end();
    if (!error.isRefusal || !mHasWaited || ++mRetries > kMostRetries) return fail(error);
    mDevices.close();
    mState = State::kWaitingToTryAgain;
    mDeadline = mEnvironment.now() + mEnvironment.retry;
  }

  void fail(const DeviceError& error) {
    mError = error.error;
    mErrorDevice = error.device;
    end();
  }

  // During a movie.

  /// A microphone that is unplugged stays so in the next movie.
  void beginWatching() {
    const bool isMicrophoneLost = mWatch && mWatch->isMicrophoneLost();
    mWatch.emplace(mEnvironment);
    if (isMicrophoneLost) mWatch->microphoneRemoved();
    mLooksToContinue = 0;
  }

  std::optional<double> remaining() const {
    return mSettings.duration ? std::optional(*mSettings.duration - mRecorded) : std::nullopt;
  }

  void watchRecording() {
    if (mIsOver || mIsCameraGone) return finishMovie();  // what kept it from being finished is over, maybe
    const RecordingStatistics statistics = mMovie->statistics();
    const auto left = remaining();
    if (left && static_cast<double>(statistics.duration) >= *left * 1e6) return askForEnd();
    if (statistics.writerMissing || statistics.status != 0) return finishMovie();
    mLooksToContinue = mMovie->isToContinue() ? mLooksToContinue + 1 : 0;
    if (mLooksToContinue > kLooksToContinue) return continueInNext();
    for (RecordingEvent& event : mWatch->look(*mMovie, microphone().get(), statistics)) emit(std::move(event));
    if (!mWatch->mustEnd()) return;
    mError = mWatch->mustEnd();
    finishMovie();
  }

  // At the end of a movie.

  /// Runs `work` on another thread, and then `handle` on the main thread with what it found.
  template <class Work>
  std::shared_ptr<Finished> run(Work work, void (Core::*handle)(Finished&)) {
    auto finished = std::make_shared<Finished>();
    finished->held.push_back(mMovie);
    auto done = std::make_shared<std::promise<void>>();
    mJob = done->get_future();
    DispatchQueue::globalQueue()->async([weak = weak_from_this(), finished, done, work = std::move(work), handle]() {
      try {
        work(*finished);
      } catch (const std::exception& exception) {
        NSLog(LogLevel::kError, exception.what());
        if (finished->movies.empty()) finished->movies.emplace_back().error = {Cause::kOther, exception.what(), ""};
      }
      // The main thread lets go of the movies, and with them of the devices.
      DispatchQueue::mainQueue()->async([weak, finished, handle] {
        const auto self = weak.lock();
        if (self && !self->mIsAbandoned) ((*self).*handle)(*finished);
        *finished = {};
      });
      done->set_value();
    });
    return finished;
  }

  void continueInNext() {
    mContinued =
        run([first = mSettings.file](Finished& finished) { continueMovie(finished, first); }, &Core::movieContinued);
    mState = State::kContinuing;
  }

  void movieContinued(Finished& finished) {
    mContinued.reset();
    mState = State::kRecording;
    takeOver(finished);
    if (mIsOver || mIsCameraGone) finishMovie();
  }

  /// The camera is left on for a preview, the microphone is not.
  void finishMovie() {
    mReturned.reset();
    if (const auto& microphone = mDevices.microphone()) {
      microphone->stopCapture();
      if (mMovie->soundWatch()) microphone->removeDelegate(mMovie->soundWatch());
    }
    // A camera that came for less than a frame leaves no movie behind, which is no failure there.
    const bool mayBeEmpty = mSettings.waitsForCamera && mIsCameraGone;
    run(
        [first = mSettings.file, mayBeEmpty](Finished& finished) {
          if (finished.held.back()->isToContinue()) continueMovie(finished, first);
          MovieRecording& last = *finished.held.back();
          last.stop();
          finished.movies.push_back(last.conclude(mayBeEmpty));
        },
        &Core::movieFinished);
    mState = State::kFinishing;
  }

  /// Reports the movies that are finished; the one that goes on takes their place.
  void takeOver(Finished& finished) {
    const auto report = [this](RecordedMovie& movie) {
      if (movie.error.cause == Cause::kNone && movie.file.empty()) return;  // a camera that came for a moment
      if (!movie.error) {
        ++mMovies;
        mRecorded += static_cast<double>(movie.statistics.duration) / 1e6;
      } else if (!mError) {
        mError = movie.error;
      }
      RecordingEvent event;
      event.kind = Kind::kMovieFinished;
      event.movie = movie;
      emit(std::move(event));
    };
    if (finished.notContinued) emit(Kind::kNotContinued, mDevices.camera()->deviceInfo(), finished.notContinued);
    for (size_t index = 0; index < finished.movies.size(); ++index) {
      report(finished.movies[index]);
      if (index > 0 || !finished.next) continue;
      mMovie = finished.next;
      beginWatching();
      emitFile(Kind::kContinued, mMovie->plan().file);
    }
  }

  void movieFinished(Finished& finished) {
    takeOver(finished);
    const auto camera = mDevices.camera()->deviceInfo();
    const std::string file = mMovie->plan().file;
    mDevices.keepToThese();
    leaveMovie();
    if (mError) return end();
    const bool isLongEnough = remaining().value_or(kShortest) < kShortest;
    // Who asks for the end while a movie that was cut short is being finished is told of that all the same.
    const bool isEndAsked = mIsOver && (!mIsCutShort || mSettings.waitsForCamera);
    if (isEndAsked || isLongEnough) return end();
    if (!mSettings.waitsForCamera)
      return fail({{Cause::kUnplugged, fmt::format("\"{}\" was unplugged; the movie ends there", displayName(*camera)),
                    fmt::format("What was recorded is whole, at \"{}\".", file), displayName(*camera)},
                   camera});
    mHasWaited = true;
    attempt([this] { lookForCamera(); });
  }

  /// Lets go of what a movie has held.
  void leaveMovie() {
    mReturned.reset();
    mMovie.reset();
    mWatch.reset();
    mWriter->set(nullptr);
    mPause.reset();
    if (std::exchange(mIsHoldingCamera, false)) mDevices.camera()->endRecording();
    mDevices.close();
  }

  void letGo() {
    if (mTimer) mTimer->invalidate();
    mTimer.reset();
    mAdded = {};
    mRemoved = {};
    leaveMovie();
    mState = State::kIdle;
  }

  void end() {
    letGo();
    emit(Kind::kEnded, std::exchange(mErrorDevice, nullptr), mError);
    mSettings = {};  // what the host gave may be large, or hold the host
  }

  EventHandler mHandler;
  const SupervisorEnvironment mEnvironment;
  const std::shared_ptr<Writer> mWriter = std::make_shared<Writer>();
  FrameTiming mFrameTiming = FrameTiming::kCapture;
  State mState = State::kIdle;
  bool mIsAbandoned = false;

  // Of the recording.
  RecordingSettings mSettings;
  RecordingDevices mDevices{mSettings, mIsAbandoned};
  std::shared_ptr<NSTimer> mTimer;
  NSNotificationObserver mAdded;
  NSNotificationObserver mRemoved;
  Error mError;  ///< why it ends
  std::shared_ptr<VeskDeviceInfo> mErrorDevice;
  double mRecorded = 0;  ///< seconds, in all movies
  int mMovies = 0;
  int mRetries = 0;
  WatchClock::time_point mDeadline;
  bool mHasWaited = false;
  bool mIsOver = false;

  // Of the movie.
  std::shared_ptr<MovieRecording> mMovie;
  std::unique_ptr<ReturnedMicrophone> mReturned;
  std::future<void> mJob;                ///< of the thread that finishes movies
  std::shared_ptr<Finished> mContinued;  ///< what it is finding, while it goes on in another movie
  std::optional<MovieWatch> mWatch;      ///< while there is a movie
  int mLooksToContinue = 0;
  bool mIsHoldingCamera = false;
  bool mIsCameraGone = false;
  bool mIsCutShort = false;      ///< the camera went before anybody asked for the end
  std::shared_ptr<void> mPause;  ///< of the source, from when the camera has gone until the movie is finished
};

std::shared_ptr<VeskRecordingSupervisor> VeskRecordingSupervisor::initWithEventHandler(EventHandler handler) {
  return SupervisorTesting::make(std::move(handler), {});
}

std::shared_ptr<VeskRecordingSupervisor> SupervisorTesting::make(VeskRecordingSupervisor::EventHandler handler,
                                                                 SupervisorEnvironment environment) {
  return std::shared_ptr<VeskRecordingSupervisor>(new VeskRecordingSupervisor(
      std::make_shared<VeskRecordingSupervisor::Core>(std::move(handler), std::move(environment))));
}

VeskRecordingSupervisor::VeskRecordingSupervisor(std::shared_ptr<Core> core) : mCore(std::move(core)) {}

VeskRecordingSupervisor::~VeskRecordingSupervisor() {
  mCore->abandon();
}

Error VeskRecordingSupervisor::checkFile(const std::string& file, bool replacesFile) {
  std::error_code ignored;
  if (fs::is_directory(file, ignored) || fs::path(file).filename().empty())
    return {Cause::kWrongUse, fmt::format("\"{}\" is a folder", file), "Name a file, for example lesson.mov.", file};
  if (!isMovieName(file))
    return {Cause::kWrongUse, fmt::format("\"{}\" would not be what its name says: movies are QuickTime files", file),
            fmt::format("Name it {}.", fs::path(file).replace_extension(".mov").string()), file};
  if (Error error = refusalIfRecorded(file, findLeftovers(file, LeftoverLock::kLook))) return error;
  if (!replacesFile && fs::exists(fs::symlink_status(file, ignored)))
    return {Cause::kFileExists, fmt::format("\"{}\" exists already", file), "Choose another name.", file};
  return {};
}

bool VeskRecordingSupervisor::start(RecordingSettings settings) {
  const auto core = mCore;
  return core->start(std::move(settings));
}

void VeskRecordingSupervisor::stop() {
  mCore->stop();
}

bool VeskRecordingSupervisor::isActive() const {
  return mCore->isActive();
}

FrameTiming VeskRecordingSupervisor::frameTiming() const {
  return mCore->frameTiming();
}

void VeskRecordingSupervisor::setFrameTiming(FrameTiming timing) {
  mCore->setFrameTiming(timing);
}

RecordingProgress VeskRecordingSupervisor::progress() const {
  return mCore->progress();
}

std::shared_ptr<VeskVideoDevice> VeskRecordingSupervisor::camera() const {
  return mCore->camera();
}

std::shared_ptr<VeskAudioDevice> VeskRecordingSupervisor::microphone() const {
  return mCore->microphone();
}

std::function<bool()> VeskRecordingSupervisor::writerBusy() const {
  return mCore->writerBusy();
}

}  // namespace vesk
