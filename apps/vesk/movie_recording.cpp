#include "apps/vesk/movie_recording.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>
#include <vector>

#include <vesk/audio_format.h>
#include <vesk/four_char_code.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/host.h"
#include "apps/vesk/movie_contents.h"
#include "apps/vesk/output.h"
#include "platform/foundation/file_manager.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

constexpr float kBarFloor = -60.0F;

}  // namespace

std::string freeName(const std::string& name, const std::string& ending, const std::string& taken) {
  const auto isThere = [&](const std::string& file) {
    std::error_code ignored;
    return file == taken || fs::exists(fs::symlink_status(file, ignored));
  };
  std::string free = name;
  for (int number = 2; isThere(free + ending); ++number) free = fmt::format("{}-{}", name, number);
  return free;
}

std::string nextName(const std::string& first, const std::string& taken) {
  const fs::path path(first);
  const std::string ending = path.extension().string();
  return freeName((path.parent_path() / path.stem()).string(), ending, taken) + ending;
}

std::string humanSize(uint64_t bytes) {
  if (bytes < 1000ULL * 1000) return fmt::format("{:.0f} kB", static_cast<double>(bytes) / 1e3);
  if (bytes < 1000ULL * 1000 * 1000) return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
  return fmt::format("{:.2f} GB", static_cast<double>(bytes) / 1e9);
}

std::string humanTime(uint64_t microseconds) {
  const uint64_t seconds = microseconds / 1'000'000;
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string levelBar(float level, int cells) {
  const float part = std::clamp((level - kBarFloor) / -kBarFloor, 0.0F, 1.0F);
  const int filled = static_cast<int>(std::lround(part * static_cast<float>(cells)));
  std::string text = "[";
  for (int cell = 0; cell < cells; ++cell) text += cell < filled ? '#' : ' ';
  return text + (level > kSilenceLevel ? fmt::format("] {:5.1f} dB", level) : "] silence");
}

std::optional<std::string> timeLeftOnDisk(const std::string& file, const RecordingStatistics& statistics) {
  constexpr double kShortest = 2e6;  // before that, the header and the first key picture count for too much
  constexpr double kMost = 1000 * 3600.0;
  const auto recorded = static_cast<double>(statistics.duration);
  if (recorded < kShortest || statistics.bytes == 0) return std::nullopt;
  std::error_code error;
  const auto room = fs::space(stringByDeletingLastPathComponent(file), error);
  if (error) return std::nullopt;
  const double seconds = static_cast<double>(room.available) / (static_cast<double>(statistics.bytes) / recorded * 1e6);
  if (seconds >= kMost) return "weeks left on disk";
  return fmt::format("{} left on disk", humanTime(static_cast<uint64_t>(seconds * 1e6)));
}

void MovieRecording::checkTarget(const std::string& file, bool force) {
  std::error_code ignored;
  if (fs::is_directory(file, ignored) || fs::path(file).filename().empty())
    throw Failure(kWrongUse, fmt::format("\"{}\" is a folder.", file), "Name a file, for example lesson.mov.");
  if (!hasEnding(file, {".mov", ".qt"}))
    throw Failure(kWrongUse, fmt::format("\"{}\" would not be what its name says: movies are QuickTime files.", file),
                  fmt::format("Name it {}.", fs::path(file).replace_extension(".mov").string()));
  const std::vector<Leftover> leftovers = findLeftovers(file, LeftoverLock::kLook);
  refuseIfRecorded(file, leftovers);
  if (!force && fs::exists(fs::symlink_status(file, ignored)))
    throw Failure(kFailed, fmt::format("\"{}\" exists already.", file),
                  "Choose another name, or replace it with --force.");
  for (const Leftover& leftover : leftovers) {
    if (leftover.movie.empty()) continue;
    sayLine("vesk: an earlier recording did not end properly; \"vesk recover {}\" finishes {}", file, leftover.movie);
  }
}

MovieRecording::MovieRecording(RecordingPlan plan)
    : mPlan(std::move(plan)),
      mFolder(mPlan.file),
      mSession(VeskRecordSession::initWithVideoDevice(mPlan.camera, mPlan.microphone, mPlan.file)),
      mSoundWatch(mPlan.soundFormat ? std::make_shared<SoundWatch>(*mPlan.soundFormat) : nullptr) {
  mSession->setFrameTiming(FrameTiming::kCapture);
  mSession->setContinues(true);
}

MovieRecording::MovieRecording(RecordingPlan plan, const MovieRecording& before)
    : mPlan(std::move(plan)), mFolder(mPlan.file), mSession(before.mSession), mSoundWatch(before.mSoundWatch) {}

void MovieRecording::start() {
  setTemporaryDirectory(mFolder.path());
  std::vector<std::string> names{nameOf(*mPlan.camera->deviceInfo())};
  if (mPlan.microphone) names.push_back(nameOf(*mPlan.microphone->deviceInfo()));
  if (mPlan.microphone) mPlan.microphone->addDelegate(mSoundWatch);
  explained(names, [this] { checkStarted(mSession->startSession()); });
}

std::optional<std::string> MovieRecording::quietMicrophone() {
  const double quiet = mSoundWatch ? mSoundWatch->quietFor() : 0;
  if (quiet < mQuietLimit) {
    if (mIsQuietTold && quiet < 1) {
      mIsQuietTold = false;
      mQuietLimit *= 2;
    }
    return std::nullopt;
  }
  if (std::exchange(mIsQuietTold, true)) return std::nullopt;
  return fmt::format("no sound above {:.0f} dB for {:.0f} s from \"{}\": {}.", kQuietLevel, mQuietLimit,
                     nameOf(*mPlan.microphone->deviceInfo()),
                     mPlan.microphone->isMuteOn() ? "it is muted" : "see that it is not muted or turned down");
}

/// The session's status is that of the start made last; a camera that did not start shows only in
/// its own state.
void MovieRecording::checkStarted(int32_t status) {
  if (status == 0 && mPlan.camera->isCapturing()) return;
  const bool isSoundRefused = status != 0 && mPlan.camera->isCapturing() && mPlan.microphone;
  const std::string name =
      isSoundRefused ? nameOf(*mPlan.microphone->deviceInfo()) : nameOf(*mPlan.camera->deviceInfo());
  mSession->stopSession();
  if (mSoundWatch) mPlan.microphone->removeDelegate(mSoundWatch);
  remove();
  if (status == 1 || status == 8)
    throw Failure(kFailed,
                  fmt::format("a movie could not be begun in \"{}\".", stringByDeletingLastPathComponent(mPlan.file)),
                  "Choose another place or another format.");
  throw Failure(kBusy, fmt::format("\"{}\" refused to start.", name),
                isSoundRefused ? "Close other programs that use it, or record without sound with --no-audio."
                               : "Close other programs that use it, or choose another format.");
}

/// A session whose microphone started has recorded a moment of sound alone: nobody asked for that.
void MovieRecording::remove() const {
  const RecordingOutcome outcome = mOutcome ? *mOutcome : mSession->lastOutcome();
  const std::string& place = outcome.moveError.empty() ? outcome.finalPath : outcome.temporaryPath;
  std::error_code ignored;
  if (!place.empty()) fs::remove(place, ignored);
}

std::unique_ptr<MovieRecording> MovieRecording::continueIn(const std::string& file) {
  RecordingPlan plan = mPlan;
  plan.file = file;
  plan.force = false;
  std::unique_ptr<MovieRecording> next;
  try {
    next.reset(new MovieRecording(std::move(plan), *this));
    setTemporaryDirectory(next->mFolder.path());
    if (mSession->continueSession(file) != 0)
      throw Failure(kFailed, fmt::format("a movie could not be begun at \"{}\".", file),
                    "See that there is room for it.");
  } catch (const Failure&) {
    setTemporaryDirectory(mFolder.path());
    mSession->setContinues(false);
    throw;
  }
  mOutcome = mSession->lastOutcome();
  return next;
}

void MovieRecording::stop() {
  mSession->stopSession();
  mOutcome = mSession->lastOutcome();
  if (mSoundWatch) mPlan.microphone->removeDelegate(mSoundWatch);
}

bool MovieRecording::isEmpty() const {
  const RecordingStatistics& statistics = outcome().statistics;
  return statistics.videoFrames == 0 && (statistics.audioPackets == 0 || statistics.duration < kShortestSound);
}

RecordingStatistics MovieRecording::finish() {
  const RecordingOutcome& outcome = this->outcome();
  const RecordingStatistics& statistics = outcome.statistics;
  if (statistics.writerMissing || statistics.status != 0)
    throw writerFailure(statistics, outcome.moveError.empty() ? mPlan.file : outcome.temporaryPath);
  if (isEmpty()) {
    remove();
    throw nothingRecorded(statistics);
  }
  // Only now: an earlier movie is not given away for one that failed.
  const bool isReplaced = mPlan.force && !outcome.temporaryPath.empty() &&
                          std::rename(outcome.temporaryPath.c_str(), mPlan.file.c_str()) == 0;
  if (isReplaced) giveOrdinaryMode(mPlan.file);
  if (!outcome.moveError.empty() && !isReplaced) throw notPlaced(outcome);
  return statistics;
}

Failure MovieRecording::nothingRecorded(const RecordingStatistics& statistics) const {
  if (statistics.videoHeldBack != 0)
    return {kFailed,
            fmt::format("nothing was recorded: \"{}\" sent {} pictures, none of which a movie can begin with.",
                        nameOf(*mPlan.camera->deviceInfo()), statistics.videoHeldBack),
            "Record for longer, or choose another format with --format."};
  return {kFailed,
          fmt::format("nothing was recorded: no picture came from \"{}\".", nameOf(*mPlan.camera->deviceInfo())),
          "Record for longer; if that does not help, plug the camera in again or choose another with --camera."};
}

/// What the writer's status codes mean to a person.
Failure MovieRecording::writerFailure(const RecordingStatistics& statistics, const std::string& place) const {
  const auto failure = [&]() -> Failure {
    switch (statistics.status) {
      case -199:
        return {kFailed, fmt::format("the disk of \"{}\" is full.", mPlan.file),
                "Make room on it, or record to another disk."};
      case -198:
        return {kFailed,
                fmt::format("the movie's file in \"{}\" cannot be written any more.",
                            stringByDeletingLastPathComponent(mPlan.file)),
                "See that the disk is attached and its folder still exists."};
      default:
        return {kFailed, fmt::format("writing \"{}\" failed.", mPlan.file),
                "See that its disk works and is not write-protected."};
    }
  };
  Failure told = failure();
  std::error_code ignored;
  if (place.empty() && !fs::exists(mFolder.path(), ignored)) return told;  // it went with its disk
  if (holdsPictures(place)) {
    told.hint += fmt::format(" What was recorded until then is at \"{}\".", place);
  } else {
    remove();
    told.hint += " Nothing was recorded before that.";
  }
  return told;
}

Failure MovieRecording::notPlaced(const RecordingOutcome& outcome) const {
  if (outcome.temporaryPath.empty() && isEmpty()) return nothingRecorded(outcome.statistics);
  return {kFailed, fmt::format("the movie could not be placed at \"{}\": {}.", mPlan.file, outcome.moveError),
          outcome.temporaryPath.empty()
              ? fmt::format("Attach that disk again and run \"vesk recover {}\".", mPlan.file)
              : fmt::format("It is whole, at \"{}\"; move it where you want it.", outcome.temporaryPath)};
}

std::optional<Failure> MovieRecording::missingTrack(const RecordingStatistics& statistics) const {
  if (statistics.videoFrames == 0)
    return Failure(
        kFailed,
        fmt::format("no picture came from \"{}\"; the movie has sound only.", nameOf(*mPlan.camera->deviceInfo())),
        "See with \"vesk preview\" what it sends, or choose another with --camera.");
  if (!mPlan.microphone || statistics.audioPackets != 0) return std::nullopt;
  return Failure(
      kFailed,
      fmt::format("no sound came from \"{}\"; the movie has pictures only.", nameOf(*mPlan.microphone->deviceInfo())),
      "See with \"vesk meter\" what it hears, or choose another with --mic.");
}

nlohmann::ordered_json MovieRecording::document(const RecordingStatistics& statistics) const {
  std::error_code ignored;
  nlohmann::ordered_json document = {{"file", mPlan.file},
                                     {"duration", static_cast<double>(statistics.duration) / 1e6},
                                     {"bytes", fs::file_size(mPlan.file, ignored)},
                                     {"video",
                                      {{"codec", fourCharString(mPlan.videoFormat->mediaSubType())},
                                       {"width", statistics.videoWidth},
                                       {"height", statistics.videoHeight},
                                       {"frames", statistics.videoFrames},
                                       {"dropped", statistics.videoDropped}}},
                                     {"sound", nullptr}};
  if (mPlan.soundFormat) {
    const auto& sound = mPlan.soundFormat->streamBasicDescription();
    document["sound"] = {{"codec", soundCodecName(sound.mFormatID)},
                         {"sampleRate", static_cast<uint32_t>(sound.mSampleRate)},
                         {"channels", sound.mChannelsPerFrame},
                         {"packets", statistics.audioPackets},
                         {"silence", statistics.audioSilence}};
  }
  return document;
}

std::string MovieRecording::summary(const RecordingStatistics& statistics) const {
  std::error_code ignored;
  std::string text =
      fmt::format("{}: {:.2f} s, {}, {} {}x{}, {} pictures", mPlan.file, static_cast<double>(statistics.duration) / 1e6,
                  humanSize(fs::file_size(mPlan.file, ignored)), codecName(mPlan.videoFormat->mediaSubType()),
                  statistics.videoWidth, statistics.videoHeight, statistics.videoFrames);
  if (statistics.videoDropped != 0) text += fmt::format(", {} DROPPED", statistics.videoDropped);
  if (!mPlan.soundFormat || statistics.audioPackets == 0) return text + ", no sound";
  const auto& sound = mPlan.soundFormat->streamBasicDescription();
  text += fmt::format(", sound {} {:.0f} Hz {} channel{}", soundCodecName(sound.mFormatID), sound.mSampleRate,
                      sound.mChannelsPerFrame, sound.mChannelsPerFrame == 1 ? "" : "s");
  if (mSoundWatch->isMeasuring() && !mSoundWatch->wasHeard())
    text += fmt::format(", NOTHING ABOVE {:.0f} dB", kQuietLevel);
  if (statistics.audioSilence != 0)
    text += fmt::format(", {} packets of silence put into gaps", statistics.audioSilence);
  if (statistics.audioDropped != 0) text += fmt::format(", {} packets of sound DROPPED", statistics.audioDropped);
  return text;
}

}  // namespace vesk::program
