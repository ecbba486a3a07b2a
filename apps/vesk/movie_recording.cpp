#include "apps/vesk/movie_recording.h"

#include <fmt/core.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>
#include <vector>

#include "apps/vesk/choices.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "platform/foundation/file_manager.h"
#include "platform/media/four_char_code.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

Failure nothingRecorded() {
  return {kFailed, "nothing was recorded: no picture and no sound came.",
          "See with \"vesk devices\" that the camera is still there."};
}

}  // namespace

std::string freeName(const std::string& name, const std::string& ending) {
  std::error_code ignored;
  std::string free = name;
  for (int number = 2; fs::exists(fs::symlink_status(free + ending, ignored)); ++number)
    free = fmt::format("{}-{}", name, number);
  return free;
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

void MovieRecording::checkTarget(const std::string& file, bool force) {
  std::error_code ignored;
  if (fs::is_directory(file, ignored) || fs::path(file).filename().empty())
    throw Failure(kWrongUse, fmt::format("\"{}\" is a folder.", file), "Name a file, for example lesson.mov.");
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
      mSession(VeskRecordSession::initWithVideoDevice(mPlan.camera, mPlan.microphone, mPlan.file)) {
  mSession->setFrameTiming(FrameTiming::kCapture);
}

void MovieRecording::start() {
  setTemporaryDirectory(mFolder.path());
  std::vector<std::string> names{nameOf(*mPlan.camera->deviceInfo())};
  if (mPlan.microphone) names.push_back(nameOf(*mPlan.microphone->deviceInfo()));
  explained(names, [this] { checkStarted(mSession->startSession()); });
}

/// The session's status is that of the start made last; a camera that did not start shows only in
/// its own state.
void MovieRecording::checkStarted(int32_t status) {
  if (status == 0 && mPlan.camera->isCapturing()) return;
  const bool isSoundRefused = status != 0 && mPlan.camera->isCapturing() && mPlan.microphone;
  const std::string name =
      isSoundRefused ? nameOf(*mPlan.microphone->deviceInfo()) : nameOf(*mPlan.camera->deviceInfo());
  mSession->stopSession();
  removeRefused();
  if (status == 1 || status == 8)
    throw Failure(kFailed,
                  fmt::format("a movie could not be begun in \"{}\".", stringByDeletingLastPathComponent(mPlan.file)),
                  "Choose another place or another format.");
  throw Failure(kBusy, fmt::format("\"{}\" refused to start.", name),
                isSoundRefused ? "Close other programs that use it, or record without sound with --no-audio."
                               : "Close other programs that use it, or choose another format.");
}

/// A session whose microphone started has recorded a moment of sound alone: nobody asked for that.
void MovieRecording::removeRefused() const {
  const RecordingOutcome outcome = mSession->lastOutcome();
  const std::string& place = outcome.moveError.empty() ? outcome.finalPath : outcome.temporaryPath;
  std::error_code ignored;
  if (!place.empty()) fs::remove(place, ignored);
}

void MovieRecording::stop() {
  mSession->stopSession();
}

bool MovieRecording::isEmpty() const {
  const RecordingStatistics statistics = mSession->lastOutcome().statistics;
  return statistics.videoFrames + statistics.audioPackets == 0;
}

RecordingStatistics MovieRecording::finish() {
  const RecordingOutcome outcome = mSession->lastOutcome();
  const RecordingStatistics& statistics = outcome.statistics;
  const bool isReplaced = mPlan.force && !outcome.temporaryPath.empty() &&
                          std::rename(outcome.temporaryPath.c_str(), mPlan.file.c_str()) == 0;
  if (isReplaced) giveOrdinaryMode(mPlan.file);
  const bool isPlaced = outcome.moveError.empty() || isReplaced;
  if (statistics.writerMissing || statistics.status != 0)
    throw writerFailure(statistics, isPlaced ? mPlan.file : outcome.temporaryPath);
  if (!isPlaced) throw notPlaced(outcome);
  if (statistics.videoFrames + statistics.audioPackets == 0) throw nothingRecorded();
  return statistics;
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
  if (fs::exists(place, ignored)) told.hint += fmt::format(" What was recorded until then is at \"{}\".", place);
  return told;
}

Failure MovieRecording::notPlaced(const RecordingOutcome& outcome) const {
  if (outcome.temporaryPath.empty() && isEmpty()) return nothingRecorded();
  return {kFailed, fmt::format("the movie could not be placed at \"{}\": {}.", mPlan.file, outcome.moveError),
          outcome.temporaryPath.empty()
              ? fmt::format("Attach that disk again and run \"vesk recover {}\".", mPlan.file)
              : fmt::format("It is whole, at \"{}\"; move it where you want it.", outcome.temporaryPath)};
}

std::optional<Failure> MovieRecording::missingSound(const RecordingStatistics& statistics) const {
  if (!mPlan.microphone || statistics.audioPackets != 0) return std::nullopt;
  return Failure(
      kFailed,
      fmt::format("no sound came from \"{}\"; the movie has pictures only.", nameOf(*mPlan.microphone->deviceInfo())),
      "See with \"vesk meter\" what it hears, or choose another with --mic.");
}

nlohmann::ordered_json MovieRecording::document(const RecordingStatistics& statistics) const {
  std::error_code ignored;
  const auto size = mPlan.videoFormat->dimensions();
  nlohmann::ordered_json document = {{"file", mPlan.file},
                                     {"duration", static_cast<double>(statistics.duration) / 1e6},
                                     {"bytes", fs::file_size(mPlan.file, ignored)},
                                     {"video",
                                      {{"codec", fourCharString(mPlan.videoFormat->mediaSubType())},
                                       {"width", size.width},
                                       {"height", size.height},
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
  const auto size = mPlan.videoFormat->dimensions();
  std::string text =
      fmt::format("{}: {:.2f} s, {}, {} {}x{}, {} pictures", mPlan.file, static_cast<double>(statistics.duration) / 1e6,
                  humanSize(fs::file_size(mPlan.file, ignored)), fourCharString(mPlan.videoFormat->mediaSubType()),
                  size.width, size.height, statistics.videoFrames);
  if (statistics.videoDropped != 0) text += fmt::format(", {} DROPPED", statistics.videoDropped);
  if (!mPlan.soundFormat || statistics.audioPackets == 0) return text + ", no sound";
  const auto& sound = mPlan.soundFormat->streamBasicDescription();
  text += fmt::format(", sound {} {:.0f} Hz {} channel{}", soundCodecName(sound.mFormatID), sound.mSampleRate,
                      sound.mChannelsPerFrame, sound.mChannelsPerFrame == 1 ? "" : "s");
  if (statistics.audioSilence != 0)
    text += fmt::format(", {} packets of silence put into gaps", statistics.audioSilence);
  if (statistics.audioDropped != 0) text += fmt::format(", {} packets of sound DROPPED", statistics.audioDropped);
  return text;
}

}  // namespace vesk::program
