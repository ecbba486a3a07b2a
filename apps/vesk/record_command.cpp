#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/recording_supervisor.h>
#include <vesk/video_device.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "apps/vesk/recording_report.h"

namespace vesk::program {
namespace {

using capture::Transport;
using Clock = std::chrono::steady_clock;
using Kind = RecordingEventKind;

constexpr std::chrono::milliseconds kTick{200};
/// Of what the progress line shows.
constexpr std::chrono::seconds kRateInterval{1};
constexpr int kBarCells = 10;
/// What a microphone that is not there is heard at.
constexpr float kNoLevel = -1000;

/// One recording: hands what a person has typed to the supervisor, and prints what that reports.
class RecordCommand {
 public:
  RecordCommand(const GlobalOptions& global, const RecordOptions& options)
      : mGlobal(global), mOptions(options), mHost(global), mCameraName(options.camera) {}

  ~RecordCommand() {
    Transport::shared().setEndHandler({});
    Transport::shared().setBackpressure({});
  }

  int run() {
    checkMovieTarget(mOptions.file, mOptions.force);
    Transport& transport = Transport::shared();
    transport.setEndHandler([this] { mLoop.post([this] { mSupervisor->stop(); }); });
    transport.setLimit(mOptions.duration);
    if (mGlobal.pace == "fast") transport.setBackpressure(mSupervisor->writerBusy());
    if (mProgress.isShown()) mLoop.every(kTick, [this] { showProgress(); });
    mSupervisor->start(settings());
    mLoop.runUntil([this] { return mIsEnded; });
    mSupervisor->stop();
    mLoop.finish([this] { return mIsEnded; });
    return finish();
  }

 private:
  RecordingSettings settings() {
    RecordingSettings settings;
    settings.file = mOptions.file;
    settings.replacesFile = mOptions.force;
    settings.withSound = !mOptions.noAudio;
    settings.waitsForCamera = mOptions.wait;
    settings.duration = mOptions.duration;
    settings.findCamera = [this] { return chosen([this] { return findCamera(mOptions.camera); }); };
    if (!mOptions.microphone.empty())
      settings.findMicrophone = [this] { return chosen([this] { return findMicrophone(mOptions.microphone); }); };
    settings.setVideoFormat = [this](VeskVideoDevice& camera) {
      return errorOf([&] { setVideoFormat(camera, mOptions.format); });
    };
    settings.setSoundFormat = [this](VeskAudioDevice& microphone) {
      return errorOf([&] { setSoundFormat(microphone, mOptions.sound); });
    };
    return settings;
  }

  /// What was typed names a device, or does not: that is an error, unless it may still come.
  std::shared_ptr<VeskDeviceInfo> chosen(const std::function<std::shared_ptr<VeskDeviceInfo>()>& find) {
    try {
      return find();
    } catch (const DeviceMissing& missing) {
      if (!mOptions.wait) mChoiceFailure = missing;
    } catch (const Failure& failure) {
      mChoiceFailure = failure;
      mSupervisor->stop();
    }
    return nullptr;
  }

  Error errorOf(const std::function<void()>& choose) {
    try {
      choose();
      return {};
    } catch (const Failure& failure) {
      mChoiceFailure = failure;
      return {Cause::kNoFormat, failure.what(), failure.hint};
    }
  }

  void handle(const RecordingEvent& event) {
    switch (event.kind) {
      case Kind::kWaiting:
        return waiting();
      case Kind::kStarted:
        return started(event.file);
      case Kind::kContinued:
        if (mFailure) say(fmt::format("{} {}", mFailure->what(), mFailure->hint));
        say(fmt::format("The camera has changed its pictures; the recording goes on in \"{}\".", event.file));
        if (mOptions.wait) printEvent({{"event", "recording"}, {"file", event.file}});
        return;
      case Kind::kNotContinued:
        return say("The camera has changed its pictures, and the new ones are left out: " + lineOf(event.error));
      case Kind::kMovieFinished:
        return movieFinished(*event.movie);
      case Kind::kCameraRemoved:
        mIsCameraGone = true;
        mCameraName = event.device->path().value_or("");
        return printEvent(deviceEvent("removed", *event.device));
      case Kind::kMicrophoneRemoved:
        return printEvent(deviceEvent("removed", *event.device));
      case Kind::kMicrophoneReturned:
        printEvent(deviceEvent("added", *event.device));
        return say(event.error
                       ? lineOf(event.error) + " The movie goes on without sound."
                       : fmt::format("\"{}\" is back; the movie goes on with its sound.", nameOf(*event.device)));
      case Kind::kSoundMissing:
      case Kind::kSoundQuiet:
      case Kind::kDiskFilling:
        return say(lineOf(event.error));
      case Kind::kFramesStalled:
      case Kind::kFramesResumed:
      case Kind::kSoundStalled:
        return;  // the machine's own devices have a line in the log, with what is being done about it
      case Kind::kEnded:
        return ended(event);
    }
  }

  void waiting() {
    mHasWaited = true;
    printEvent({{"event", "waiting"}, {"kind", "camera"}, {"path", mCameraName}});
    say(mMovies == 0 ? "Waiting for the camera; Ctrl-C ends it."
                     : "Waiting for the camera to come back; Ctrl-C ends it.");
    if (mOptions.duration) Transport::shared().setLimit(*mOptions.duration - mRecorded);
  }

  void started(const std::string& file) {
    mIsCameraGone = false;
    mRateSince = Clock::now();
    mRateFrom = 0;
    mRate = 0;
    if (mOptions.wait) printEvent({{"event", "recording"}, {"file", file}});
    const auto camera = mSupervisor->camera();
    if (!camera || mGlobal.json || (!mProgress.isShown() && !mHasWaited)) return;
    const auto format = camera->getFormat();
    const auto interval = camera->captureInterval();
    reportLine("Recording {} {}x{}{}{}; Ctrl-C ends it.", codecName(format->mediaSubType()), format->dimensions().width,
               format->dimensions().height, interval ? fmt::format(" at {:.4g}/s", 1e7 / *interval) : "",
               mSupervisor->microphone() ? " with sound" : "");
  }

  void movieFinished(const RecordedMovie& movie) {
    mProgress.clear();
    mRateFrom = 0;
    if (movie.error) {
      if (!mFailure) mFailure = failureOf(movie, mOptions.file);
      return;
    }
    ++mMovies;
    mRecorded += static_cast<double>(movie.statistics.duration) / 1e6;
    mLastMovie = movie.file;
    if (mGlobal.json)
      printJson(documentOf(movie));
    else
      printLine("{}", summaryOf(movie));
    if (movie.missing) {
      const Failure failure = failureOf(movie.missing);
      if (!mIsCameraGone && !mOptions.wait && !mFailure)
        mFailure = failure;
      else
        say(fmt::format("{} {}", failure.what(), failure.hint));
    }
    if (mIsCameraGone && mOptions.wait)
      say(fmt::format("The camera was unplugged; what was recorded is whole, at \"{}\".", movie.file));
  }

  void ended(const RecordingEvent& event) {
    mIsEnded = true;
    mLoop.stop();
    if (!event.error || mFailure) return;
    if (mChoiceFailure)
      mFailure = mChoiceFailure;
    else if (event.error.cause == Cause::kDiskFull && mMovies > 0)
      mFailure = Failure(kFailed, event.error.what + ".",
                         fmt::format("{} What was recorded until then is at \"{}\".", event.error.remedy, mLastMovie));
    else
      mFailure = failureOf(event.error, event.device.get());
  }

  int finish() const {
    if (mFailure) throw Failure(*mFailure);
    if (mMovies > 0) return kDone;
    if (mChoiceFailure) throw Failure(*mChoiceFailure);
    if (mHasWaited)
      throw Failure(kNoSuchDevice, "nothing was recorded: the camera did not come.", "Plug it in, and start anew.");
    throw Failure(kFailed, "nothing was recorded: it was ended before it began.", "Start anew.");
  }

  void showProgress() {
    const RecordingProgress progress = mSupervisor->progress();
    if (mIsEnded || progress.file.empty()) return;
    const RecordingStatistics& statistics = progress.statistics;
    const auto now = Clock::now();
    const std::chrono::duration<double> elapsed = now - mRateSince;
    if (elapsed >= kRateInterval) {
      mRate =
          static_cast<double>(statistics.videoFrames - std::min(statistics.videoFrames, mRateFrom)) / elapsed.count();
      mRateFrom = statistics.videoFrames;
      mRateSince = now;
    }
    std::string text = fmt::format("{}  {} pictures  {}  {:.1f}/s", humanTime(statistics.duration),
                                   statistics.videoFrames, humanSize(statistics.bytes), mRate);
    if (progress.secondsLeftOnDisk) text += "  " + timeLeftOnDisk(*progress.secondsLeftOnDisk);
    const auto microphone = mSupervisor->microphone();
    if (progress.level)
      text += "  " + levelBar(progress.isSoundMissing ? kNoLevel : *progress.level, kBarCells);
    else if (microphone && microphone->getFormat())
      text += fmt::format("  level unknown ({})",
                          soundCodecName(microphone->getFormat()->streamBasicDescription().mFormatID));
    const uint64_t dropped = statistics.videoDropped + statistics.audioDropped;
    if (dropped != 0) text += fmt::format("  {} DROPPED", dropped);
    mProgress.show(text);
  }

  void printEvent(const nlohmann::ordered_json& event) const {
    if (mGlobal.json) printJson(event);
  }

  /// A line for a person that is no failure.
  void say(const std::string& line) {
    mProgress.clear();
    reportLine("vesk: {}", line);
  }

  const GlobalOptions& mGlobal;
  const RecordOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  ProgressLine mProgress;
  const std::shared_ptr<VeskRecordingSupervisor> mSupervisor =
      VeskRecordingSupervisor::initWithEventHandler([this](const RecordingEvent& event) { handle(event); });
  std::string mCameraName;                ///< as it was typed, or the path of the one that went
  std::optional<Failure> mChoiceFailure;  ///< what was typed fits nothing
  std::optional<Failure> mFailure;        ///< with which the command ends
  std::string mLastMovie;
  double mRecorded = 0;  ///< seconds, in all movies
  int mMovies = 0;
  Clock::time_point mRateSince;
  uint64_t mRateFrom = 0;  ///< pictures
  double mRate = 0;        ///< pictures a second
  bool mHasWaited = false;
  bool mIsCameraGone = false;
  bool mIsEnded = false;
};

}  // namespace

int runRecord(const GlobalOptions& global, const RecordOptions& options) {
  return RecordCommand(global, options).run();
}

}  // namespace vesk::program
