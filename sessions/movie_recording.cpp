#include "sessions/movie_recording.h"

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include <vesk/asset_writer_adapter.h>
#include <vesk/movie_recovery.h>
#include <vesk/status.h>
#include "platform/foundation/errors.h"
#include "platform/foundation/file_manager.h"
#include "sessions/device_name.h"

namespace vesk {
namespace {

namespace fs = std::filesystem;

/// Sound without a frame is kept from this length on, in microseconds: somebody may have spoken. Less is what
/// microphones send while the camera is still being started.
constexpr uint64_t kShortestSound = 5'000'000;

Error notBegun(const std::string& file) {
  return {Cause::kFileError, fmt::format("a movie could not be begun at \"{}\"", file),
          "See that there is room for it, or choose another place or format.", file};
}

Error whyNotStarted(const VeskAVDevice& device, const char* otherwise) {
  return refusalOf(device, {Cause::kRefused, fmt::format("\"{}\" refused to start", displayName(*device.deviceInfo())),
                            fmt::format("Close other programs that use it, or {}.", otherwise)});
}

}  // namespace

bool holdsFilm(const std::string& movie) {
  std::error_code ignored;
  if (!fs::exists(movie, ignored) || fs::file_size(movie, ignored) == 0) return false;
  const RecoveryResult found = recoverMovie(movie);
  switch (found.outcome) {
    case RecoveryOutcome::kRecovered:
    case RecoveryOutcome::kAlreadyPlain:
      return found.frames != 0 || found.duration * 1e6 >= static_cast<double>(kShortestSound);
    case RecoveryOutcome::kEmpty:
      return false;
    case RecoveryOutcome::kNothingToRecover:
    case RecoveryOutcome::kLocked:
    case RecoveryOutcome::kNotAMovie:
    case RecoveryOutcome::kFailed:
      return true;  // nobody knows: it stays
  }
  return true;
}

std::shared_ptr<MovieRecording> MovieRecording::make(MoviePlan plan, FrameTiming timing, Error& error) {
  auto folder = RecordingFolder::make(plan.file, error);
  if (!folder) return nullptr;
  auto session = VeskRecordSession::initWithVideoDevice(plan.camera, plan.microphone, plan.file);
  session->setFrameTiming(timing);
  session->setContinues(true);
  session->setTemporaryFolder(folder->path());
  auto soundWatch = plan.soundFormat ? std::make_shared<SoundWatch>(*plan.soundFormat) : nullptr;
  return std::shared_ptr<MovieRecording>(
      new MovieRecording(std::move(plan), std::move(folder), std::move(session), std::move(soundWatch)));
}

MovieRecording::MovieRecording(MoviePlan plan, std::unique_ptr<RecordingFolder> folder,
                               std::shared_ptr<VeskRecordSession> session, std::shared_ptr<SoundWatch> soundWatch)
    : mPlan(std::move(plan)),
      mFolder(std::move(folder)),
      mSession(std::move(session)),
      mSoundWatch(std::move(soundWatch)) {}

/// The session's status is that of the start made last; a camera that did not start shows only in its own state.
DeviceError MovieRecording::start() {
  if (mSoundWatch) mPlan.microphone->addDelegate(mSoundWatch);
  const int32_t status = mSession->startSession();
  const bool isCameraOn = mPlan.camera->isCapturing();
  if (status == kVeskStatusSuccess && isCameraOn) return {};
  const bool isSoundRefused = status != kVeskStatusSuccess && isCameraOn && mPlan.microphone;
  Error refusal = isSoundRefused ? whyNotStarted(*mPlan.microphone, "record without sound")
                                 : whyNotStarted(*mPlan.camera, "choose another format");
  const Error own = mSession->lastError();
  mSession->stopSession();
  mOutcome = mSession->lastOutcome();
  if (mSoundWatch) mPlan.microphone->removeDelegate(mSoundWatch);
  remove();  // a microphone that started has recorded a moment of sound alone: nobody asked for that
  if (status == kVeskStatusNoMovieCreator || status == kVeskStatusMovieNotOpened)
    return {own ? own : notBegun(mPlan.file), nullptr};
  return {std::move(refusal), isSoundRefused ? mPlan.microphone->deviceInfo() : mPlan.camera->deviceInfo(), true};
}

std::string MovieRecording::growingMovie() const {
  return mFolder ? stringByAppendingPathComponent(mFolder->path(), lastPathComponent(mPlan.file)) : std::string();
}

std::shared_ptr<MovieRecording> MovieRecording::continueIn(const std::string& file, Error& error) {
  MoviePlan plan = mPlan;
  plan.file = file;
  plan.replacesFile = false;
  auto folder = RecordingFolder::make(file, error);
  if (folder) {
    mSession->setTemporaryFolder(folder->path());
    if (mSession->continueSession(file) == kVeskStatusSuccess) {
      mOutcome = mSession->lastOutcome();
      return std::shared_ptr<MovieRecording>(
          new MovieRecording(std::move(plan), std::move(folder), mSession, mSoundWatch));
    }
    mSession->setTemporaryFolder(mFolder->path());
    error = mSession->lastError();
    if (!error) error = notBegun(file);
  }
  mSession->setContinues(false);
  return nullptr;
}

void MovieRecording::stop() {
  mSession->stopSession();
  mOutcome = mSession->lastOutcome();
}

/// Whether nothing worth keeping had come when it was stopped: no frame, and less sound than microphones send while
/// a camera is being started.
bool MovieRecording::isEmpty() const {
  const RecordingStatistics& statistics = mOutcome.statistics;
  return statistics.videoFrames == 0 && (statistics.audioPackets == 0 || statistics.duration < kShortestSound);
}

void MovieRecording::remove() const {
  const std::string& place = mOutcome.isPlaced ? mOutcome.finalPath : mOutcome.temporaryPath;
  std::error_code ignored;
  if (!place.empty()) fs::remove(place, ignored);
}

RecordedMovie MovieRecording::conclude(bool mayBeEmpty) {
  RecordedMovie movie;
  movie.statistics = mOutcome.statistics;
  movie.videoFormat = mPlan.videoFormat;
  movie.soundFormat = mPlan.soundFormat;
  movie.isSilent = mSoundWatch && mSoundWatch->isMeasuring() && !mSoundWatch->wasHeard();
  movie.error = errorOf(mayBeEmpty, movie);
  if (!movie.error && !movie.file.empty()) movie.missing = missingTrack();
  mFolder.reset();
  return movie;
}

/// @param movie gets the place where it is then, empty when nothing was kept
Error MovieRecording::errorOf(bool mayBeEmpty, RecordedMovie& movie) {
  const RecordingStatistics& statistics = mOutcome.statistics;
  movie.file = mOutcome.isPlaced ? mPlan.file : mOutcome.temporaryPath;
  movie.isLeft = mOutcome.isLeft;
  if (statistics.writerMissing || statistics.status != 0) {
    if (!movie.file.empty() && !holdsFilm(movie.file)) discard(movie);
    return writerError();
  }
  if (isEmpty()) {
    discard(movie);
    return mayBeEmpty ? Error() : nothingRecorded();
  }
  if (mOutcome.isPlaced) return {};
  // Only now: an earlier movie is not given away for one that failed.
  if (mPlan.replacesFile && !movie.file.empty() && std::rename(movie.file.c_str(), mPlan.file.c_str()) == 0) {
    giveOrdinaryMode(mPlan.file);
    movie.file = mPlan.file;
    movie.isLeft = false;
    return {};
  }
  return notPlaced(movie);
}

void MovieRecording::discard(RecordedMovie& movie) const {
  remove();
  movie.file.clear();
  movie.isLeft = false;
}

Error MovieRecording::nothingRecorded() const {
  const std::string name = displayName(*mPlan.camera->deviceInfo());
  if (mOutcome.statistics.videoHeldBack != 0)
    return {Cause::kNoFormat,
            fmt::format("nothing was recorded: \"{}\" sent {} pictures, none of which a movie can begin with", name,
                        mOutcome.statistics.videoHeldBack),
            "Record for longer, or choose another format.", name};
  return {Cause::kStalled, fmt::format("nothing was recorded: no picture came from \"{}\"", name),
          "Record for longer; if that does not help, plug the camera in again or choose another.", name};
}

/// In words by the writer's status; the cause is the one that the writer met.
Error MovieRecording::writerError() const {
  const Cause met = mOutcome.statistics.error.cause;
  const auto error = [&](Cause usual, std::string what) -> Error {
    const Cause cause = met == Cause::kNone ? usual : met;
    return {cause, std::move(what), fileRemedy(cause), mPlan.file};
  };
  switch (mOutcome.statistics.status) {
    case kMovieDiskFull:
      return error(Cause::kDiskFull, fmt::format("the disk of \"{}\" is full", mPlan.file));
    case kMovieFileFailedToWrite:
      return error(Cause::kFolderGone, fmt::format("the movie's file in \"{}\" cannot be written any more",
                                                   stringByDeletingLastPathComponent(mPlan.file)));
    default: {
      // What the computer lacks has no cause of its own: the writer's words say it.
      const std::string why = met == Cause::kOther ? ": " + mOutcome.statistics.error.what : "";
      return error(Cause::kFileError, fmt::format("writing \"{}\" failed{}", mPlan.file, why));
    }
  }
}

Error MovieRecording::notPlaced(const RecordedMovie& movie) const {
  const auto remedy = [&]() -> std::string {
    if (!movie.file.empty()) return fmt::format("It is whole, at \"{}\"; move it where you want it.", movie.file);
    if (movie.isLeft) return "Attach that disk again, and have the recording finished there.";
    return "Its hidden folder must stay until the recording has ended.";
  };
  return {mOutcome.error.cause,
          fmt::format("the movie could not be placed at \"{}\": {}", mPlan.file, mOutcome.error.what), remedy(),
          mPlan.file};
}

Error MovieRecording::missingTrack() const {
  const RecordingStatistics& statistics = mOutcome.statistics;
  if (statistics.videoFrames == 0)
    return {
        Cause::kStalled,
        fmt::format("no picture came from \"{}\"; the movie has sound only", displayName(*mPlan.camera->deviceInfo())),
        "See what it sends, or choose another camera.", displayName(*mPlan.camera->deviceInfo())};
  if (!mPlan.microphone || statistics.audioPackets != 0) return {};
  return {Cause::kSilent,
          fmt::format("no sound came from \"{}\"; the movie has pictures only",
                      displayName(*mPlan.microphone->deviceInfo())),
          "See what it hears, or choose another microphone.", displayName(*mPlan.microphone->deviceInfo())};
}

}  // namespace vesk
