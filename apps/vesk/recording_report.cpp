#include "apps/vesk/recording_report.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include <vesk/audio_format.h>
#include <vesk/four_char_code.h>
#include <vesk/recording_leftovers.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;

constexpr float kBarFloor = -60.0F;

ExitStatus statusOf(const Error& error, const VeskDeviceInfo* device) {
  switch (error.cause) {
    case Cause::kNoDevice:
      return kNoSuchDevice;
    case Cause::kWrongUse:
      return kWrongUse;
    case Cause::kBusy:
      return kBusy;
    case Cause::kNoFormat:
    case Cause::kUnplugged:
    case Cause::kStalled:
    case Cause::kSilent:
    case Cause::kDiskFull:
    case Cause::kFolderGone:
    case Cause::kFileExists:
    case Cause::kUnreadable:
    case Cause::kFileError:
    case Cause::kNone:
      return kFailed;
    default:
      return device ? kBusy : kFailed;  // a device that refuses, of whatever reason
  }
}

/// With `more`, and without what helps with failures of that cause in general.
Failure failureWith(const Error& error, const std::string& more) {
  Failure failure(statusOf(error, nullptr), error.what + ".", error.remedy);
  failure.cause = error.cause;
  if (!more.empty()) failure.hint += (failure.hint.empty() ? "" : " ") + more;
  return failure;
}

}  // namespace

std::string freeName(const std::string& name, const std::string& ending) {
  const auto isThere = [&](const std::string& file) {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(file, ignored));
  };
  std::string free = name;
  for (int number = 2; isThere(free + ending); ++number) free = fmt::format("{}-{}", name, number);
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

std::string levelBar(float level, int cells) {
  const float part = std::clamp((level - kBarFloor) / -kBarFloor, 0.0F, 1.0F);
  const int filled = static_cast<int>(std::lround(part * static_cast<float>(cells)));
  std::string text = "[";
  for (int cell = 0; cell < cells; ++cell) text += cell < filled ? '#' : ' ';
  return text + (level > kSilenceLevel ? fmt::format("] {:5.1f} dB", level) : "] silence");
}

std::string timeLeftOnDisk(double seconds) {
  constexpr double kMost = 1000 * 3600.0;
  if (seconds >= kMost) return "weeks left on disk";
  return fmt::format("{} left on disk", humanTime(static_cast<uint64_t>(seconds * 1e6)));
}

void checkMovieTarget(const std::string& file, bool force) {
  if (const Error error = VeskRecordingSupervisor::checkFile(file, force)) throw failureOf(error);
  for (const RecordingLeftover& leftover : leftoversOf(file)) {
    if (leftover.movie.empty()) continue;
    reportLine("vesk: an earlier recording did not end properly; \"vesk recover {}\" finishes {}", file,
               leftover.movie);
  }
}

Failure failureOf(const Error& error, const VeskDeviceInfo* device) {
  if (error.cause == Cause::kUnplugged) return failureWith(error, "");
  Failure failure(statusOf(error, device), error);
  if (failure.status == kBusy && device && device->deviceType() != kVeskDeviceTypeVideo)
    failure.hint += " --no-audio records the picture alone.";
  return failure;
}

Failure failureOf(const RecordedMovie& movie, const std::string& wanted) {
  const Error& error = movie.error;
  const bool isCutShort = movie.statistics.status != 0 || movie.statistics.writerMissing;
  if (movie.isLeft && movie.file.empty())  // on a disk that has gone
    return failureWith(error, fmt::format("\"vesk recover {}\" finishes it.", wanted));
  if (!isCutShort) return movie.isLeft ? failureWith(error, "") : failureOf(error);
  if (!movie.file.empty())
    return failureWith(error, fmt::format("What was recorded until then is at \"{}\".", movie.file));
  // What went with its folder, nobody knows.
  return failureWith(error, error.cause == Cause::kFolderGone ? "" : "Nothing was recorded before that.");
}

std::string lineOf(const Error& error) {
  return fmt::format("{}.{}{}", error.what, error.remedy.empty() ? "" : " ", error.remedy);
}

nlohmann::ordered_json documentOf(const RecordedMovie& movie) {
  const RecordingStatistics& statistics = movie.statistics;
  std::error_code ignored;
  nlohmann::ordered_json document = {{"file", movie.file},
                                     {"duration", static_cast<double>(statistics.duration) / 1e6},
                                     {"bytes", fs::file_size(movie.file, ignored)},
                                     {"video",
                                      {{"codec", fourCharString(movie.videoFormat->mediaSubType())},
                                       {"width", statistics.videoWidth},
                                       {"height", statistics.videoHeight},
                                       {"frames", statistics.videoFrames},
                                       {"dropped", statistics.videoDropped}}},
                                     {"disk",
                                      {{"direct", statistics.bytesDirect},
                                       {"buffered", statistics.bytesBuffered},
                                       {"fellBehind", statistics.diskFellBehind}}},
                                     {"sound", nullptr}};
  if (movie.soundFormat) {
    const auto& sound = movie.soundFormat->streamBasicDescription();
    document["sound"] = {{"codec", soundCodecName(sound.mFormatID)},
                         {"sampleRate", static_cast<uint32_t>(sound.mSampleRate)},
                         {"channels", sound.mChannelsPerFrame},
                         {"packets", statistics.audioPackets},
                         {"silence", statistics.audioSilence}};
  }
  return document;
}

std::string summaryOf(const RecordedMovie& movie) {
  const RecordingStatistics& statistics = movie.statistics;
  std::error_code ignored;
  std::string text =
      fmt::format("{}: {:.2f} s, {}, {} {}x{}, {} pictures", movie.file, static_cast<double>(statistics.duration) / 1e6,
                  humanSize(fs::file_size(movie.file, ignored)), codecName(movie.videoFormat->mediaSubType()),
                  statistics.videoWidth, statistics.videoHeight, statistics.videoFrames);
  if (statistics.videoDropped != 0) text += fmt::format(", {} DROPPED", statistics.videoDropped);
  if (!movie.soundFormat || statistics.audioPackets == 0) return text + ", no sound";
  const auto& sound = movie.soundFormat->streamBasicDescription();
  text += fmt::format(", sound {} {:.0f} Hz {} channel{}", soundCodecName(sound.mFormatID), sound.mSampleRate,
                      sound.mChannelsPerFrame, sound.mChannelsPerFrame == 1 ? "" : "s");
  if (movie.isSilent) text += fmt::format(", NOTHING ABOVE {:.0f} dB", kQuietSoundLevel);
  if (statistics.audioSilence != 0)
    text += fmt::format(", {} packets of silence put into gaps", statistics.audioSilence);
  if (statistics.audioDropped != 0) text += fmt::format(", {} packets of sound DROPPED", statistics.audioDropped);
  return text;
}

}  // namespace vesk::program
