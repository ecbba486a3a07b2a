#include <fmt/core.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include <vesk/audio_format.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/host.h"
#include "apps/vesk/movie_recording.h"
#include "apps/vesk/output.h"
#include "apps/vesk/recording_devices.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;
using capture::Transport;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{200};
constexpr int kTicksToChange = 2;
/// A camera's own microphone arrives and goes within this time of the camera.
constexpr std::chrono::milliseconds kArrival{2000};
constexpr std::chrono::milliseconds kDeparture{600};
/// A camera that is back may refuse for a moment, as long as the system prepares it.
constexpr std::chrono::milliseconds kRetry{1000};
constexpr int kMostRetries = 5;
/// Of what the progress line shows.
constexpr std::chrono::seconds kRoomInterval{3};
constexpr std::chrono::seconds kRateInterval{1};
constexpr int kBarCells = 10;
/// Not worth a movie, in seconds.
constexpr double kShortest = 0.1;

/// One recording: sets it up, runs it to its end, and says what became of it. With --wait it is one
/// movie for each time that the camera is there.
class RecordCommand {
 public:
  RecordCommand(const GlobalOptions& global, const RecordOptions& options)
      : mGlobal(global),
        mOptions(options),
        mHost(global),
        mWish{options.camera, options.microphone, options.format, options.sound, options.noAudio, Purpose::kRecord} {}

  ~RecordCommand() {
    Transport::shared().setEndHandler({});
    Transport::shared().setBackpressure({});
  }

  int run() {
    MovieRecording::checkTarget(mOptions.file, mOptions.force);
    watchDevices();
    Transport::shared().setEndHandler([this] { mLoop.post([this] { end(); }); });
    mLoop.every(kTick, [this] { tick(); });
    while (!isOver() && awaitCamera()) tryToRecord();
    return finish();
  }

 private:
  // Devices that come and go are told on the source's thread, and heeded on the main thread.
  void watchDevices() {
    mAdded.emplace(KVXDeviceAdded, [this](auto info) { mLoop.post([this, info] { deviceAdded(*info); }); });
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) { mLoop.post([this, info] { deviceRemoved(*info); }); });
  }

  void deviceAdded(const VeskDeviceInfo& info) {
    mLoop.stop();  // whoever waits looks for itself
    if (mIsRecording && mMicrophoneLost && mPlan.microphone->deviceInfo()->isEqualToDevice(info)) resumeSound(info);
  }

  void deviceRemoved(const VeskDeviceInfo& info) {
    if (!mIsRecording) return;
    if (mPlan.camera->deviceInfo()->isEqualToDevice(info)) {
      tellEvent("removed", info);
      mIsCameraGone = true;
      mLoop.stop();
    } else if (mPlan.microphone && mPlan.microphone->deviceInfo()->isEqualToDevice(info)) {
      tellEvent("removed", info);
      mReturned.reset();
      mMicrophoneLost = Clock::now();
    }
  }

  void resumeSound(const VeskDeviceInfo& info) {
    mMicrophoneLost.reset();
    mIsLossTold = false;
    tellEvent("added", info);
    try {
      mReturned = std::make_unique<ReturnedMicrophone>(*mMovie);
      say(fmt::format("\"{}\" is back; the movie goes on with its sound.", nameOf(info)));
    } catch (const Failure& failure) {
      say(fmt::format("{} {} The movie goes on without sound.", failure.what(), failure.hint));
    }
  }

  bool isOver() const { return mIsOver || mLoop.wasInterrupted(); }

  void end() {
    mIsOver = true;
    mLoop.stop();
  }

  /// With --wait until the camera is there. @return false when a person ended the waiting
  bool awaitCamera() {
    if (!mOptions.wait || isWishThere()) return true;
    mHasWaited = true;
    tellWaiting();
    return mLoop.runUntil([this] { return isOver() || isWishThere(); }) && !isOver();
  }

  bool isWishThere() const {
    try {
      return chooseCamera(mWish.camera) != nullptr;
    } catch (const DeviceMissing&) {
      return false;
    }
  }

  void tellWaiting() {
    if (mGlobal.json) printJson({{"event", "waiting"}, {"kind", "camera"}, {"path", mWish.camera}});
    say(mMovies == 0 ? "Waiting for the camera; Ctrl-C ends it."
                     : "Waiting for the camera to come back; Ctrl-C ends it.");
  }

  /// One movie. A camera that has just come may refuse a few times.
  void tryToRecord() {
    try {
      openCamera(mPlan, mWish);
      awaitMicrophone();
      record();
      mRetries = 0;
    } catch (const DeviceMissing&) {
      if (!mHasWaited) throw;  // else it has gone again
    } catch (const Failure& failure) {
      if (!mHasWaited || failure.status != kBusy || ++mRetries > kMostRetries) throw;
      mLoop.runUntil([this] { return isOver(); }, kRetry);
    }
  }

  /// The microphone of the earlier movie, or the camera's own, may come a little after the camera.
  void awaitMicrophone() {
    const auto isThere = [this] {
      if (isOver()) return true;
      if (!mWish.microphone.empty()) return isMicrophoneThere(mWish.microphone);
      return !capture::microphoneOf(mPlan.camera->deviceInfo()->path().value_or("")).empty();
    };
    if (mHasWaited && !mWish.noAudio) mLoop.runUntil(isThere, kArrival);
    try {
      openMicrophone(mPlan, mWish);
    } catch (const DeviceMissing&) {
      if (!mHasWaited) throw;
      say("The microphone is not there; the movie has no sound.");
    }
  }

  void record() {
    mPlan.file = mMovies == 0 ? mOptions.file : nextName(mOptions.file);
    mPlan.force = mMovies == 0 && mOptions.force;
    mMovie = std::make_unique<MovieRecording>(mPlan);
    start();
    do {
      mLoop.runUntil([this] { return isOver() || mIsCameraGone || mMovie->isToContinue(); });
      if (mMovie->isToContinue()) continueMovie();
    } while (!isOver() && !mIsCameraGone);
    mIsRecording = false;
    mProgress.clear();
    mReturned.reset();
    mMovie->stop();
    closeDevices(mPlan);
    finishMovie(*mMovie);
    if (mFailure) throw *mFailure;
    mWish.camera = mPlan.camera->deviceInfo()->path().value_or("");
    if (mPlan.microphone) mWish.microphone = mPlan.microphone->deviceInfo()->path().value_or("");
    if (!mOptions.wait || remaining().value_or(kShortest) < kShortest) mIsOver = true;
  }

  /// The camera has changed its pictures: what came since goes into the next movie.
  /// Where that cannot be begun, the movie goes on without it.
  void continueMovie() {
    mProgress.clear();
    std::unique_ptr<MovieRecording> ended;
    const std::string file = nextName(mOptions.file, mPlan.file);
    try {
      ended = std::exchange(mMovie, mMovie->continueIn(file));
    } catch (const Failure& failure) {
      say(fmt::format("The camera has changed its pictures, and the new ones are left out: {} {}", failure.what(),
                      failure.hint));
      return;
    }
    mPlan.file = file;
    mPlan.force = false;
    mRateFrom = 0;
    mRoom.reset();
    try {
      finishMovie(*ended);
    } catch (const Failure& failure) {
      say(fmt::format("{} {}", failure.what(), failure.hint));
      if (!mFailure) mFailure = failure;
    }
    say(fmt::format("The camera has changed its pictures; the recording goes on in \"{}\".", file));
    if (mGlobal.json && mOptions.wait) printJson({{"event", "recording"}, {"file", file}});
  }

  void start() {
    Transport& transport = Transport::shared();
    transport.hold();  // camera and microphone begin at the same moment of their own time
    transport.setLimit(remaining());
    if (mGlobal.pace == "fast") {
      transport.setBackpressure([session = std::weak_ptr(mMovie->session())] {
        const auto held = session.lock();
        return held && held->isWriterBusy();
      });
    }
    try {
      mMovie->start();
    } catch (const Failure&) {
      transport.release();
      throw;
    }
    mIsRecording = true;
    mIsCameraGone = false;
    mRoom.reset();
    mRoomAsked = mRateSince = Clock::now();
    mRateFrom = 0;
    mRate = 0;
    mMicrophoneLost.reset();
    mIsLossTold = false;
    tellStart();
    transport.release();
  }

  void tellStart() {
    if (mGlobal.json && mOptions.wait) printJson({{"event", "recording"}, {"file", mPlan.file}});
    const auto& format = *mPlan.videoFormat;
    const auto interval = mPlan.camera->captureInterval();
    if (!mGlobal.json && (mProgress.isShown() || mHasWaited))
      sayLine("Recording {} {}x{}{}{}; Ctrl-C ends it.", codecName(format.mediaSubType()), format.dimensions().width,
              format.dimensions().height, interval ? fmt::format(" at {:.4g}/s", 1e7 / *interval) : "",
              mPlan.soundFormat ? " with sound" : "");
  }

  /// Seconds that are still to be recorded; none without --duration.
  std::optional<double> remaining() const {
    return mOptions.duration ? std::optional(*mOptions.duration - mRecorded) : std::nullopt;
  }

  void tick() {
    if (!mIsRecording) return;
    const RecordingStatistics statistics = mMovie->statistics();
    const auto left = remaining();
    const bool isLongEnough = left && static_cast<double>(statistics.duration) >= *left * 1e6;
    if (statistics.writerMissing || statistics.status != 0 || isLongEnough) return end();
    // Not at once: sound that was heard before the change, and belongs into this movie, may still be on its way.
    mChangeTicks = mMovie->isToContinue() ? mChangeTicks + 1 : 0;
    if (mChangeTicks > kTicksToChange) return mLoop.stop();
    tellLoss();
    if (const auto quiet = mMicrophoneLost ? std::nullopt : mMovie->quietMicrophone()) say(*quiet);
    if (mProgress.isShown()) mProgress.show(progress(statistics));
  }

  std::string progress(const RecordingStatistics& statistics) {
    const auto now = Clock::now();
    if (now - mRoomAsked >= kRoomInterval) {
      mRoomAsked = now;
      mRoom = timeLeftOnDisk(mPlan.file, statistics);
    }
    const std::chrono::duration<double> elapsed = now - mRateSince;
    if (elapsed >= kRateInterval) {
      mRate = static_cast<double>(statistics.videoFrames - mRateFrom) / elapsed.count();
      mRateFrom = statistics.videoFrames;
      mRateSince = now;
    }
    std::string text = fmt::format("{}  {} pictures  {}  {:.1f}/s", humanTime(statistics.duration),
                                   statistics.videoFrames, humanSize(statistics.bytes), mRate);
    if (mRoom) text += "  " + *mRoom;
    if (const auto& watch = mMovie->soundWatch(); watch && watch->isMeasuring())
      text += "  " + levelBar(mMicrophoneLost ? kSilenceLevel : watch->level(), kBarCells);
    else if (watch)
      text += "  level unknown (" + soundCodecName(mPlan.soundFormat->streamBasicDescription().mFormatID) + ")";
    const uint64_t dropped = statistics.videoDropped + statistics.audioDropped;
    if (dropped != 0) text += fmt::format("  {} DROPPED", dropped);
    return text;
  }

  /// Not at once: where the camera is going too, that is what is to be said.
  void tellLoss() {
    if (!mMicrophoneLost || mIsLossTold || Clock::now() - *mMicrophoneLost < kDeparture) return;
    mIsLossTold = true;
    say(fmt::format("\"{}\" was unplugged; the movie goes on without sound until it is back.",
                    nameOf(*mPlan.microphone->deviceInfo())));
  }

  void finishMovie(MovieRecording& movie) {
    // A camera that came for less than a picture leaves no movie behind, which is no failure here.
    if (mOptions.wait && mIsCameraGone && movie.isEmpty()) return movie.remove();
    const RecordingStatistics statistics = movie.finish();
    ++mMovies;
    mRecorded += static_cast<double>(statistics.duration) / 1e6;
    if (mGlobal.json) {
      printJson(movie.document(statistics));
    } else {
      printLine("{}", movie.summary(statistics));
    }
    if (const auto failure = movie.missingTrack(statistics)) {
      if (!mIsCameraGone && !mOptions.wait) throw *failure;
      say(fmt::format("{} {}", failure->what(), failure->hint));
    }
    if (!mIsCameraGone) return;
    const std::string name = nameOf(*mPlan.camera->deviceInfo());
    if (!mOptions.wait)
      throw Failure(kFailed, fmt::format("\"{}\" was unplugged; the movie ends there.", name),
                    fmt::format("What was recorded is whole, at \"{}\".", mPlan.file));
    say(fmt::format("\"{}\" was unplugged; what was recorded is whole, at \"{}\".", name, mPlan.file));
  }

  int finish() const {
    if (mMovies > 0) return kDone;
    if (mHasWaited)
      throw Failure(kNoSuchDevice, "nothing was recorded: the camera did not come.", "Plug it in, and start anew.");
    throw Failure(kFailed, "nothing was recorded: it was ended before it began.", "Start anew.");
  }

  void tellEvent(const char* event, const VeskDeviceInfo& info) const {
    if (mGlobal.json) printJson(deviceEvent(event, info));
  }

  /// A line for a person that is no failure.
  void say(const std::string& line) {
    mProgress.clear();
    sayLine("vesk: {}", line);
  }

  const GlobalOptions& mGlobal;
  const RecordOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  ProgressLine mProgress;
  CaptureWish mWish;  ///< after the first movie, its devices by their paths
  RecordingPlan mPlan;
  std::unique_ptr<MovieRecording> mMovie;
  std::optional<Failure> mFailure;  ///< of a movie that was gone on from
  std::unique_ptr<ReturnedMicrophone> mReturned;
  std::optional<DeviceWatch> mAdded;
  std::optional<DeviceWatch> mRemoved;
  std::optional<Clock::time_point> mMicrophoneLost;
  double mRecorded = 0;  ///< seconds, in all movies
  int mMovies = 0;
  int mRetries = 0;
  std::optional<std::string> mRoom;  ///< on the disk
  Clock::time_point mRoomAsked;
  Clock::time_point mRateSince;
  uint64_t mRateFrom = 0;  ///< pictures
  double mRate = 0;        ///< pictures a second
  int mChangeTicks = 0;    ///< since the camera has changed its pictures
  bool mHasWaited = false;
  bool mIsRecording = false;
  bool mIsCameraGone = false;
  bool mIsLossTold = false;
  bool mIsOver = false;
};

}  // namespace

int runRecord(const GlobalOptions& global, const RecordOptions& options) {
  return RecordCommand(global, options).run();
}

}  // namespace vesk::program
