#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "capture/files/footage.h"

namespace vesk::capture {

/// A track that is being looked at for the first time.
struct Probe {
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  std::unique_ptr<TrackReader> reader;
  int64_t start = kNever;  ///< microseconds of the file's clock at which the track is first seen or heard
};

/// Finds out what a track is and whether it can be delivered as it stands; the reader is at the beginning again
/// afterwards. None with one line for a person in `error` when nothing in it can be delivered.
std::optional<VideoTrack> probeVideo(Probe& probe, std::string& error);
std::optional<SoundTrack> probeSound(Probe& probe, std::string& error);

}  // namespace vesk::capture
