#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/writing/sample_index.h"
#include "platform/writing/track_description.h"

namespace vesk {

/// Units a second of edits and of the movie: 11 µs fine, and 13 hours fit into 32 bits.
constexpr uint32_t kMovieTimescale = 90'000;

/// What a movie says of itself besides its tracks.
struct MovieDescription {
  uint64_t creationTime = 0;      ///< seconds since 1904-01-01 UTC
  std::vector<uint8_t> userData;  ///< the body of `udta`
  uint32_t timescale = kMovieTimescale;
};

/// The description of a movie made at `unixTime`: the date with its distance from UTC and the name
/// of this program. Nothing that tells a person.
MovieDescription describeMovie(int64_t unixTime);

/// A track and its samples so far.
struct TrackContents {
  const TrackDescription* description = nullptr;
  SampleIndex* index = nullptr;
  uint64_t silenceOffset = 0;  ///< where the silence of its gaps lies in the file
};

/// A `moov` whose samples are all in fragments that follow.
std::vector<uint8_t> makeFragmentedMovieHeader(const MovieDescription& movie, std::span<const TrackContents> tracks);

/// Lets the last picture, or silence, of a track that ends long before the others last until they do. A track
/// that is shorter than a fifth of its movie is taken for a preview by some readers (GStreamer), and not played.
void extendShortTracks(const MovieDescription& movie, std::span<const TrackContents> tracks);

/// What follows the last fragment of a movie that is finished: the silence that its gaps share, if it has
/// any, and a plain `moov` with the tables of all samples, both in `free` atoms. Tracks without samples are
/// left out.
struct PlainMovieEnd {
  std::vector<uint8_t> bytes;
  size_t header = 0;  ///< where in them the `moov` begins

  uint64_t headerSize() const { return bytes.size() - header; }
};
/// @param offset where in the file it will lie.
PlainMovieEnd makePlainMovieEnd(const MovieDescription& movie, std::span<const TrackContents> tracks, uint64_t offset);

/// Of the track that ends last, movie's scale.
uint64_t movieDuration(const MovieDescription& movie, std::span<const TrackContents> tracks);

/// What a `moov` body says. Any bytes may be given.
struct ParsedMovieHeader {
  MovieDescription movie;
  std::vector<TrackDescription> tracks;
  bool isFragmented = false;  ///< samples are in fragments (there is an `mvex`)
  uint64_t duration = 0;      ///< movie's scale
  uint64_t pictures = 0;      ///< in the tables of all tracks of pictures
};
std::optional<ParsedMovieHeader> readMovieHeader(std::span<const uint8_t> body);

}  // namespace vesk
