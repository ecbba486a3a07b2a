#include <fmt/core.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/recording_folder.h"
#include "capture/capture_host.h"
#include "devices/device_manager.h"
#include "platform/foundation/file_manager.h"
#include "platform/media/four_char_code.h"
#include "sessions/record_session.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;
using capture::Transport;

constexpr std::chrono::milliseconds kTick{200};

std::string humanSize(uint64_t bytes) {
  if (bytes < 1000ULL * 1000) return fmt::format("{:.0f} kB", static_cast<double>(bytes) / 1e3);
  if (bytes < 1000ULL * 1000 * 1000) return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
  return fmt::format("{:.2f} GB", static_cast<double>(bytes) / 1e9);
}

std::string humanTime(uint64_t microseconds) {
  const uint64_t seconds = microseconds / 1'000'000;
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

/// What the writer's status codes mean to a person.
Failure writerFailure(const RecordingStatistics& statistics, const std::string& path) {
  switch (statistics.status) {
    case -199:
      return {kFailed, fmt::format("the disk of \"{}\" is full.", path), "Make room on it, or record to another disk."};
    case -198:
      return {kFailed,
              fmt::format("the movie's file in \"{}\" cannot be written any more.",
                          stringByDeletingLastPathComponent(path)),
              "See that the disk is attached and its folder still exists."};
    default:
      return {kFailed, fmt::format("writing \"{}\" failed.", path),
              "See that its disk works and is not write-protected."};
  }
}

/// One recording: sets it up, runs it to its end, and says what became of it.
class Recording {
 public:
  Recording(const GlobalOptions& global, const RecordOptions& options)
      : mGlobal(global), mOptions(options), mHost(global) {}

  ~Recording() {
    Transport::shared().setEndHandler({});
    Transport::shared().setBackpressure({});
  }

  int run() {
    checkTarget();
    chooseDevices();
    RecordingFolder folder(mOptions.file);
    setTemporaryDirectory(folder.path());
    start();
    mLoop.run();
    mIsStopping = true;
    mProgress.clear();
    mSession->stopSession();
    mCamera->closeDevice();  // no source thread calls back from here on
    return finish();
  }

 private:
  /// Refuses what would fail at the end before anything is recorded.
  void checkTarget() const {
    std::error_code ignored;
    const std::string& file = mOptions.file;
    if (fs::is_directory(file, ignored) || fs::path(file).filename().empty())
      throw Failure(kWrongUse, fmt::format("\"{}\" is a folder.", file), "Name a file, for example lesson.mov.");
    if (!mOptions.force && fs::symlink_status(file, ignored).type() != fs::file_type::not_found &&
        fs::exists(fs::symlink_status(file, ignored)))
      throw Failure(kFailed, fmt::format("\"{}\" exists already.", file),
                    "Choose another name, or replace it with --force.");
    for (const std::string& leftover : findLeftovers(file))
      fmt::print(stderr, "vesk: an earlier recording did not end properly; \"vesk recover {}\" finishes {}\n", file,
                 leftover);
  }

  void chooseDevices() {
    mCamera = chooseCamera(mOptions.camera);
    openDevice(*mCamera);
    mVideoFormat = chooseVideoFormat(*mCamera, mOptions.format);
    mCamera->setFormat(mVideoFormat);
    if (mOptions.noAudio) return;
    mMicrophone = mOptions.microphone.empty() ? defaultMicrophone() : chooseMicrophone(mOptions.microphone);
    if (!mMicrophone) return;
    openDevice(*mMicrophone);
    mSoundFormat = chooseSoundFormat(*mMicrophone, mOptions.sound);
    mMicrophone->setFormat(mSoundFormat);
  }

  void start() {
    Transport& transport = Transport::shared();
    transport.hold();  // camera and microphone begin at the same moment of their own time
    transport.setLimit(mOptions.duration);
    transport.setEndHandler([this] { mLoop.stop(); });
    mSession = VeskRecordSession::initWithVideoDevice(mCamera, mMicrophone, mOptions.file);
    if (mGlobal.pace == "fast") {
      transport.setBackpressure([session = std::weak_ptr(mSession)] {
        const auto held = session.lock();
        return held && held->isWriterBusy();
      });
    }
    checkStarted(mSession->startSession());
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) { deviceRemoved(std::move(info)); });
    mLoop.every(kTick, [this] { tick(); });
    if (!mGlobal.json && mProgress.isShown())
      fmt::print(stderr, "Recording {} {}x{}{}; Ctrl-C ends it.\n", fourCharString(mVideoFormat->mediaSubType()),
                 mVideoFormat->dimensions().width, mVideoFormat->dimensions().height,
                 mSoundFormat ? " with sound" : "");
    transport.release();
  }

  /// The session's status is that of the start made last; a camera that did not start shows only in
  /// its own state.
  void checkStarted(int32_t status) {
    const bool isSoundRefused = status != 0 && mCamera->isCapturing() && mMicrophone;
    if (status == 0 && mCamera->isCapturing()) return;
    const std::string name = isSoundRefused ? nameOf(*mMicrophone->deviceInfo()) : nameOf(*mCamera->deviceInfo());
    mSession->stopSession();
    removeRefused();
    if (status == 1 || status == 8)
      throw Failure(
          kFailed,
          fmt::format("a movie could not be begun in \"{}\".", stringByDeletingLastPathComponent(mOptions.file)),
          "Choose another place or another format.");
    throw Failure(kBusy, fmt::format("\"{}\" refused to start.", name),
                  isSoundRefused ? "Close other programs that use it, or record without sound with --no-audio."
                                 : "Close other programs that use it, or choose another format.");
  }

  /// A session whose microphone started has recorded a moment of sound alone: nobody asked for that.
  void removeRefused() const {
    const RecordingOutcome outcome = mSession->lastOutcome();
    if (outcome.finalPath.empty()) return;
    std::error_code ignored;
    fs::remove(outcome.temporaryPath.empty() ? outcome.finalPath : outcome.temporaryPath, ignored);
  }

  void deviceRemoved(std::shared_ptr<VeskDeviceInfo> info) {
    const bool isOurs = mCamera->deviceInfo()->isEqualToDevice(*info) ||
                        (mMicrophone && mMicrophone->deviceInfo()->isEqualToDevice(*info));
    if (!isOurs) return;
    mLoop.post([this, info] {
      mFailure.emplace(kFailed, fmt::format("\"{}\" was unplugged; the movie ends there.", nameOf(*info)),
                       "What was recorded is whole.");
    });
    mLoop.stop();
  }

  void tick() {
    if (mIsStopping) return;
    const RecordingStatistics statistics = mSession->statistics();
    const bool isLongEnough = mOptions.duration && static_cast<double>(statistics.duration) >= *mOptions.duration * 1e6;
    if (statistics.writerMissing || statistics.status != 0 || isLongEnough) {
      mLoop.stop();
      return;
    }
    std::string text = fmt::format("{}  {} pictures  {}", humanTime(statistics.duration), statistics.videoFrames,
                                   humanSize(statistics.bytes));
    const uint64_t dropped = statistics.videoDropped + statistics.audioDropped;
    if (dropped != 0) text += fmt::format("  {} DROPPED", dropped);
    mProgress.show(text);
  }

  int finish() {
    const RecordingOutcome outcome = mSession->lastOutcome();
    const RecordingStatistics& statistics = outcome.statistics;
    std::string place = outcome.temporaryPath;
    if (outcome.temporaryPath.empty()) {
      place = mOptions.file;
    } else if (mOptions.force && !outcome.temporaryPath.empty() &&
               std::rename(outcome.temporaryPath.c_str(), mOptions.file.c_str()) == 0) {
      place = mOptions.file;
    }
    const bool isPlaced = place == mOptions.file;
    if (statistics.writerMissing || statistics.status != 0) throw stoppedByWriter(statistics, place);
    if (!isPlaced) throw notPlaced(outcome);
    if (statistics.videoFrames + statistics.audioPackets == 0)
      throw Failure(kFailed, "nothing was recorded: no picture and no sound came.",
                    "See with \"vesk devices\" that the camera is still there.");
    tellResult(statistics);
    if (mFailure) throw *mFailure;
    return kDone;
  }

  Failure stoppedByWriter(const RecordingStatistics& statistics, const std::string& place) const {
    Failure failure = writerFailure(statistics, mOptions.file);
    std::error_code ignored;
    if (fs::exists(place, ignored)) failure.hint += fmt::format(" What was recorded until then is at \"{}\".", place);
    return failure;
  }

  Failure notPlaced(const RecordingOutcome& outcome) const {
    std::error_code ignored;
    if (!fs::exists(outcome.temporaryPath, ignored))
      return {kFailed, "nothing was recorded: no picture and no sound came.",
              "See with \"vesk devices\" that the camera is still there."};
    return {kFailed, fmt::format("the movie could not be placed at \"{}\": {}.", mOptions.file, outcome.moveError),
            fmt::format("It is whole, at \"{}\"; move it where you want it.", outcome.temporaryPath)};
  }

  void tellResult(const RecordingStatistics& statistics) const {
    std::error_code ignored;
    const uint64_t bytes = fs::file_size(mOptions.file, ignored);
    const auto size = mVideoFormat->dimensions();
    const std::string codec = fourCharString(mVideoFormat->mediaSubType());
    if (mGlobal.json) {
      nlohmann::ordered_json document = {{"file", mOptions.file},
                                         {"duration", static_cast<double>(statistics.duration) / 1e6},
                                         {"bytes", bytes},
                                         {"video",
                                          {{"codec", codec},
                                           {"width", size.width},
                                           {"height", size.height},
                                           {"frames", statistics.videoFrames},
                                           {"dropped", statistics.videoDropped}}},
                                         {"sound", nullptr}};
      if (mSoundFormat) {
        const auto& sound = mSoundFormat->streamBasicDescription();
        document["sound"] = {{"codec", soundCodecName(sound.mFormatID)},
                             {"sampleRate", static_cast<uint32_t>(sound.mSampleRate)},
                             {"channels", sound.mChannelsPerFrame},
                             {"packets", statistics.audioPackets},
                             {"silence", statistics.audioSilence}};
      }
      printJson(document);
      return;
    }
    fmt::print("{}: {:.2f} s, {}, {} {}x{}, {} pictures", mOptions.file, static_cast<double>(statistics.duration) / 1e6,
               humanSize(bytes), codec, size.width, size.height, statistics.videoFrames);
    if (statistics.videoDropped != 0) fmt::print(", {} DROPPED", statistics.videoDropped);
    if (mSoundFormat) {
      const auto& sound = mSoundFormat->streamBasicDescription();
      fmt::print(", sound {} {:.0f} Hz {} channel{}", soundCodecName(sound.mFormatID), sound.mSampleRate,
                 sound.mChannelsPerFrame, sound.mChannelsPerFrame == 1 ? "" : "s");
      if (statistics.audioSilence != 0) fmt::print(", {} packets of silence put into gaps", statistics.audioSilence);
      if (statistics.audioDropped != 0) fmt::print(", {} packets of sound DROPPED", statistics.audioDropped);
    } else {
      fmt::print(", no sound");
    }
    fmt::print("\n");
  }

  const GlobalOptions& mGlobal;
  const RecordOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  ProgressLine mProgress;
  std::shared_ptr<VeskVideoDevice> mCamera;
  std::shared_ptr<VeskAudioDevice> mMicrophone;
  CMVideoFormatDescriptionRef mVideoFormat;
  CMAudioFormatDescriptionRef mSoundFormat;
  std::shared_ptr<VeskRecordSession> mSession;
  std::optional<DeviceWatch> mRemoved;
  std::optional<Failure> mFailure;
  bool mIsStopping = false;
};

}  // namespace

int runRecord(const GlobalOptions& global, const RecordOptions& options) {
  return Recording(global, options).run();
}

}  // namespace vesk::program
