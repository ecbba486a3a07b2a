#include "sessions/movie_watch.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <string>
#include <utility>

#include <vesk/capture_host.h>
#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include "platform/foundation/file_manager.h"
#include "sessions/device_name.h"

namespace vesk {
namespace {

using Kind = RecordingEventKind;

/// Whether what comes is held up on our side, so that its absence says nothing of the devices.
bool isHeldUp(const MovieRecording& movie) {
  return capture::Transport::shared().isHeld() || movie.session()->isWriterBusy();
}

std::string inWords(double seconds) {
  return seconds < 90 ? fmt::format("{:.0f} seconds", seconds) : fmt::format("{:.0f} minutes", seconds / 60);
}

}  // namespace

std::optional<uint64_t> roomForMovie(const std::string& movie) {
  constexpr int64_t kBlock = 512;
  struct statvfs disk = {};
  if (statvfs(stringByDeletingLastPathComponent(movie).c_str(), &disk) != 0) return std::nullopt;
  if (disk.f_blocks == 0) return std::nullopt;  // a file system that does not report it
  const uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
  struct stat status = {};
  if (lstat(movie.c_str(), &status) != 0) return free;
  const int64_t setAside = status.st_blocks * kBlock - status.st_size;
  return free + (setAside > 0 ? static_cast<uint64_t>(setAside) : 0);
}

MovieWatch::MovieWatch(const SupervisorEnvironment& environment)
    : mEnvironment(environment), mNow(environment.now()), mRoomAsked(mNow - environment.roomInterval) {
  mFrames.restart(mNow);
  mPackets.restart(mNow);
  mDisk.restart(mNow);
}

void MovieWatch::microphoneRemoved() {
  mMicrophoneLost = mEnvironment.now();
  mIsLossReported = false;
}

void MovieWatch::microphoneReturned() {
  mMicrophoneLost.reset();
  mPackets.restart(mEnvironment.now());
}

std::vector<RecordingEvent> MovieWatch::look(const MovieRecording& movie, const VeskAudioDevice* microphone,
                                             const RecordingStatistics& statistics) {
  mNow = mEnvironment.now();
  watchFrames(movie, statistics);
  watchSound(movie, microphone);
  watchDisk(movie, statistics);
  return std::exchange(mEvents, {});
}

void MovieWatch::report(Kind kind, std::shared_ptr<VeskDeviceInfo> device, Error error) {
  RecordingEvent event;
  event.kind = kind;
  event.device = std::move(device);
  event.error = std::move(error);
  mEvents.push_back(std::move(event));
}

void MovieWatch::watchFrames(const MovieRecording& movie, const RecordingStatistics& statistics) {
  if (isHeldUp(movie)) return mFrames.restart(mNow);
  const uint64_t came =
      statistics.videoFrames + statistics.videoDropped + statistics.videoHeldBack + statistics.videoUnfit;
  const auto& info = movie.plan().camera->deviceInfo();
  switch (mFrames.look(came, mNow)) {
    case StallWatch::Change::kStalled:
      return report(Kind::kFramesStalled, info,
                    {Cause::kStalled,
                     fmt::format("\"{}\" has sent no picture for {} s", displayName(*info), StallWatch::kLimit.count()),
                     "If it does not go on by itself, plug it in again.", displayName(*info)});
    case StallWatch::Change::kResumed:
      return report(Kind::kFramesResumed, info);
    case StallWatch::Change::kNone:
      return;
  }
}

void MovieWatch::watchSound(const MovieRecording& movie, const VeskAudioDevice* microphone) {
  const auto& watch = movie.soundWatch();
  if (!watch || !microphone) return;
  const auto& info = microphone->deviceInfo();
  const std::string name = displayName(*info);
  if (mMicrophoneLost) {
    // Not at once: where the camera is going too, that is what is to be said.
    if (mIsLossReported || mNow - *mMicrophoneLost < mEnvironment.departure) return;
    mIsLossReported = true;
    return report(
        Kind::kSoundMissing, info,
        {Cause::kUnplugged, fmt::format("\"{}\" was unplugged; the movie goes on without sound until it is back", name),
         "", name});
  }
  if (isHeldUp(movie)) {
    mPackets.restart(mNow);
  } else if (mPackets.look(watch->packets(), mNow) == StallWatch::Change::kStalled) {
    return report(Kind::kSoundStalled, info,
                  {Cause::kSilent, fmt::format("\"{}\" has sent no sound for {} s", name, StallWatch::kLimit.count()),
                   "Plug it in again, or choose another microphone.", name});
  }
  const auto quiet = mQuiet.look(watch->quietFor());
  if (!quiet) return;
  report(
      Kind::kSoundQuiet, info,
      {Cause::kSilent, fmt::format("no sound above {:.0f} dB for {:.0f} s from \"{}\"", kQuietSoundLevel, *quiet, name),
       microphone->isMuteOn() ? "It is muted." : "See that it is not muted or turned down.", name});
}

void MovieWatch::askForRoom(const MovieRecording& movie) {
  if (mRoom->isAsking || mNow - mRoomAsked < mEnvironment.roomInterval) return;
  mRoomAsked = mNow;
  mRoom->isAsking = true;
  DispatchQueue::globalQueue()->async([gauge = mRoom, path = movie.growingMovie(), room = mEnvironment.room] {
    try {
      if (const auto bytes = room(path))
        gauge->bytes = static_cast<int64_t>(std::min<uint64_t>(*bytes, std::numeric_limits<int64_t>::max()));
    } catch (const std::exception& exception) {
      NSLog(exception.what());
    }
    gauge->isAsking = false;
  });
}

void MovieWatch::watchDisk(const MovieRecording& movie, const RecordingStatistics& statistics) {
  askForRoom(movie);
  const int64_t room = mRoom->bytes.exchange(-1);
  if (room < 0) return;
  const std::string& file = movie.plan().file;
  switch (mDisk.look(static_cast<uint64_t>(room), statistics, mNow)) {
    case DiskWatch::Verdict::kEnough:
      return;
    case DiskWatch::Verdict::kFilling:
      return report(
          Kind::kDiskFilling, nullptr,
          {Cause::kDiskFull,
           fmt::format("the disk of \"{}\" has room for {} more", file, inWords(mDisk.secondsLeft().value_or(0))),
           "Make room on it; otherwise the recording ends before it is full.", file});
    case DiskWatch::Verdict::kFull:
      mMustEnd = {Cause::kDiskFull, fmt::format("the disk of \"{}\" is full", file),
                  "Make room on it, or record to another disk.", file};
      return;
  }
}

}  // namespace vesk
