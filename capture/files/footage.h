#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vesk/error.h>
#include "capture/files/track_reader.h"
#include "capture/files/unit_reader.h"

namespace vesk::capture {

/// How a video track stands in its file.
enum class VideoCoding {
  kH264,        ///< without reordering: delivered as it stands
  kMotionJPEG,  ///< delivered as it stands
  kPacked422,   ///< delivered as it stands
  kOther,       ///< can only be delivered decoded
};

enum class SoundCoding {
  kPCM,    ///< 16 bits, little-endian: delivered as it stands
  kAAC,    ///< AAC-LC, 1024 frames a packet: delivered as it stands
  kOther,  ///< can only be delivered decoded
};

struct VideoTrack {
  TrackChoice choice;
  VideoCoding coding = VideoCoding::kOther;
  int width = 0;  ///< cropped
  int height = 0;
  bool canBeDecoded = false;
  uint32_t interval = 0;  ///< average, ten-millionths of a second
  int64_t begin = 0;      ///< microseconds of the footage at which the first frame is shown
  int64_t end = 0;        ///< microseconds of the footage; 0 unless asked for
  /// The codecs that the track is offered in, the native one first.
  std::vector<uint32_t> codecs() const;
  int decodedWidth() const { return width & ~1; }  ///< packed pixels come in pairs
};

struct SoundTrack {
  TrackChoice choice;
  SoundCoding coding = SoundCoding::kOther;
  uint32_t samplesPerSecond = 0;
  uint16_t channels = 0;
  bool isBareStream = false;  ///< ADTS without a container
  int64_t end = 0;
};

/// What a file holds, found out once.
struct Footage {
  std::string path;
  std::optional<VideoTrack> video;
  std::optional<SoundTrack> sound;
  /// Readers left over from the looking, at the beginning of their tracks: the first to play takes them.
  std::unique_ptr<TrackReader> videoReader;
  std::unique_ptr<TrackReader> soundReader;

  /// Looks into the file at `path`. `wantsLength` has the ends of the tracks found out, for which
  /// files without an index are read once. @return none with the reason in `error`.
  static std::unique_ptr<Footage> open(const std::string& path, bool wantsLength, Error& error);
};

/// Readers of units for the tracks; `reader` stands at the track's beginning. Null with one line in
/// `error` when the footage cannot be decoded as asked.
std::unique_ptr<UnitReader> videoFrames(const VideoTrack& track, uint32_t codec, std::unique_ptr<TrackReader> reader,
                                        std::string& error);
/// Sound that is to be played in a `loop` is cut where that ends, or goes on in silence up to there.
std::unique_ptr<UnitReader> soundPackets(const SoundTrack& track, uint16_t formatCode,
                                         std::unique_ptr<TrackReader> reader, std::string& error,
                                         const std::optional<Loop>& loop = std::nullopt);

}  // namespace vesk::capture
