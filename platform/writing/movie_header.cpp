#include "platform/writing/movie_header.h"

#include <algorithm>
#include <ctime>
#include <string>
#include <string_view>

#include <vesk/version.h>

#include "platform/writing/atom_reader.h"
#include "platform/writing/atom_writer.h"
#include "platform/writing/movie_atoms.h"

namespace vesk {
namespace {

constexpr uint64_t kSecondsFrom1904To1970 = 2'082'844'800;
constexpr size_t kAlignment = 8;  // of the atoms whose types are changed
constexpr std::string_view kSoftware = "Vesk " VESK_VERSION_STRING;

/// The ends of a track's edits, movie's scale.
struct TrackTimes {
  uint64_t start = 0;      ///< length of the empty edit
  uint64_t presented = 0;  ///< length of the media that is shown
};

/// Floor of value × to ÷ from, to the nearest unit; both scales fit 32 bits.
uint64_t rescale(uint64_t value, uint32_t from, uint32_t to) {
  const auto product = static_cast<unsigned __int128>(value) * to + from / 2;
  const auto result = product / from;
  return result > INT64_MAX ? INT64_MAX : static_cast<uint64_t>(result);
}

TrackTimes timesOf(const MovieDescription& movie, const TrackContents& track) {
  const TrackDescription& description = *track.description;
  const uint64_t media = track.index->duration();
  const uint64_t presented = media > description.trim ? media - description.trim : 0;
  return {description.start, rescale(presented, description.timescale, movie.timescale)};
}

void writeEdits(AtomWriter& writer, const TrackDescription& track, uint64_t presented, uint32_t divisor) {
  if (track.start == 0 && track.trim == 0) return;
  const auto edits = writer.atom(fourCharCode("edts"));
  EditListAtom list;
  if (track.start > 0) list.edits.push_back({track.start, -1});
  list.edits.push_back({presented, static_cast<int64_t>(track.trim / divisor)});
  writeAtom(writer, list);
}

/// QuickTime wants to know what reads the data; the data is in the file itself.
void writeDataInformation(AtomWriter& writer) {
  writeAtom(writer, HandlerAtom{fourCharCode("dhlr"), fourCharCode("alis")});
  const auto information = writer.atom(fourCharCode("dinf"));
  const auto references = writer.atom(fourCharCode("dref"));
  writer.u32(0);
  writer.u32(1);
  const auto reference = writer.atom(fourCharCode("alis"));
  writer.u32(1);  // in this file
}

void writeMediaInformation(AtomWriter& writer, const TrackContents& track) {
  const auto information = writer.atom(fourCharCode("minf"));
  if (track.description->kind == TrackKind::kVideo) {
    const auto header = writer.atom(fourCharCode("vmhd"));
    writer.u32(1);
    writer.zeros(8);  // copy; no colour
  } else {
    const auto header = writer.atom(fourCharCode("smhd"));
    writer.zeros(8);  // centre
  }
  writeDataInformation(writer);
  track.index->writeTables(writer, *track.description, track.silenceOffset);
}

void writeTrack(AtomWriter& writer, const MovieDescription& movie, const TrackContents& track) {
  const TrackDescription& description = *track.description;
  const bool isSound = description.kind == TrackKind::kSound;
  const TrackTimes times = timesOf(movie, track);
  const uint32_t divisor = track.index->timeDivisor(description.timescale);
  const auto atom = writer.atom(fourCharCode("trak"));
  writeAtom(writer, TrackHeaderAtom{.creationTime = movie.creationTime,
                                    .track = description.track,
                                    .duration = track.index->count() > 0 ? times.start + times.presented : 0,
                                    .volume = static_cast<uint16_t>(isSound ? 0x0100 : 0),
                                    .width = description.width,
                                    .height = description.height});
  writeEdits(writer, description, times.presented, divisor);
  const auto media = writer.atom(fourCharCode("mdia"));
  writeAtom(writer, MediaHeaderAtom{movie.creationTime, description.timescale / divisor,
                                    (track.index->duration() + divisor / 2) / divisor});
  writeAtom(writer, HandlerAtom{fourCharCode("mhlr"), isSound ? fourCharCode("soun") : fourCharCode("vide")});
  writeMediaInformation(writer, track);
}

/// As many samples of silence as the track's gaps refer to.
void writeSilence(AtomWriter& writer, const TrackContents& track) {
  const uint64_t samples = track.index->silentStretch();
  const TrackDescription& description = *track.description;
  if (description.frameSize != 0) return writer.zeros(samples * description.frameSize);
  for (uint64_t i = 0; i < samples; ++i) writer.bytes(description.silentPacket);
}

void writeMovieHeaderAtom(AtomWriter& writer, const MovieDescription& movie, std::span<const TrackContents> tracks) {
  uint32_t nextTrack = 1;
  for (const TrackContents& track : tracks) nextTrack = std::max(nextTrack, track.description->track + 1);
  writeAtom(writer, MovieHeaderAtom{.creationTime = movie.creationTime,
                                    .timescale = movie.timescale,
                                    .duration = movieDuration(movie, tracks),
                                    .nextTrack = nextTrack});
}

void writeUserData(AtomWriter& writer, const MovieDescription& movie) {
  if (movie.userData.empty()) return;
  const auto atom = writer.atom(fourCharCode("udta"));
  writer.bytes(movie.userData);
}

/// An international text item; its language code says UTF-8.
void writeText(AtomWriter& writer, uint32_t type, std::string_view text) {
  const auto atom = writer.atom(type);
  writer.u16(static_cast<uint16_t>(text.size()));
  writer.u16(0x55C4);
  writer.bytes(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

std::optional<TrackDescription> readTrack(std::span<const uint8_t> body) {
  TrackDescription track;
  const auto header = findAtom(body, TrackHeaderAtom::kType);
  const auto media = findAtom(body, fourCharCode("mdia"));
  if (!header || !media) return std::nullopt;
  const auto headerAtom = readAtom<TrackHeaderAtom>(*header);
  const auto mediaHeader = findAtom(*media, MediaHeaderAtom::kType);
  const auto handler = findAtom(*media, HandlerAtom::kType);
  const auto information = findAtom(*media, fourCharCode("minf"));
  if (!headerAtom || !mediaHeader || !handler || !information) return std::nullopt;
  const auto mediaAtom = readAtom<MediaHeaderAtom>(*mediaHeader);
  const auto handlerAtom = readAtom<HandlerAtom>(*handler);
  if (!mediaAtom || !handlerAtom || headerAtom->track == 0 || mediaAtom->timescale == 0) return std::nullopt;
  track.track = headerAtom->track;
  track.width = headerAtom->width;
  track.height = headerAtom->height;
  track.timescale = mediaAtom->timescale;
  if (handlerAtom->subtype == fourCharCode("vide")) {
    track.kind = TrackKind::kVideo;
  } else if (handlerAtom->subtype == fourCharCode("soun")) {
    track.kind = TrackKind::kSound;
  } else {
    return std::nullopt;
  }

  const auto table = findAtom(*information, fourCharCode("stbl"));
  if (!table) return std::nullopt;
  auto descriptions = findAtom(*table, fourCharCode("stsd"));
  constexpr size_t kBeforeEntries = 8;
  if (!descriptions || descriptions->size() < kBeforeEntries) return std::nullopt;
  auto entries = descriptions->subspan(kBeforeEntries);
  const auto whole = entries;
  const auto entry = nextAtom(entries);
  if (!entry || !entries.empty()) return std::nullopt;
  track.sampleDescription.assign(whole.begin(), whole.end());
  track.hasKeySamples = entry->type == kCMVideoCodecType_H264;
  if (track.kind == TrackKind::kSound) {
    track.frameSize = pcmFrameSize(track.sampleDescription);
    track.silentPacket = silentPacketFor(track.sampleDescription);
  }
  if (track.frameSize > kWidestFrame) return std::nullopt;

  if (const auto edits = findAtom(body, fourCharCode("edts"))) {
    const auto list = findAtom(*edits, EditListAtom::kType);
    const auto atom = list ? readAtom<EditListAtom>(*list) : std::nullopt;
    if (!atom || atom->edits.size() > 2) return std::nullopt;
    for (const auto& edit : atom->edits) {
      constexpr uint64_t kLongest = uint64_t{1} << 48;
      if (edit.mediaTime < 0 && edit.duration < kLongest) track.start = edit.duration;
      if (edit.mediaTime >= 0) track.trim = static_cast<uint64_t>(edit.mediaTime);
    }
  }
  return track;
}

/// The samples in a track's tables; 0 when it has none.
uint32_t countSamples(std::span<const uint8_t> track) {
  std::optional<std::span<const uint8_t>> inside = track;
  for (const uint32_t type : {fourCharCode("mdia"), fourCharCode("minf"), fourCharCode("stbl"), fourCharCode("stsz")}) {
    inside = findAtom(*inside, type);
    if (!inside) return 0;
  }
  ByteReader reader(*inside);
  return reader.skip(8) ? reader.u32().value_or(0) : 0;
}

}  // namespace

MovieDescription describeMovie(int64_t unixTime) {
  MovieDescription movie;
  movie.creationTime = static_cast<uint64_t>(unixTime) + kSecondsFrom1904To1970;
  const auto time = static_cast<time_t>(unixTime);
  tm local{};
  char date[40] = "";
  if (localtime_r(&time, &local)) strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S%z", &local);
  AtomWriter writer(movie.userData);
  writeText(writer, 0xA9000000 | (fourCharCode("\0day") & 0xFFFFFF), date);
  writeText(writer, 0xA9000000 | (fourCharCode("\0swr") & 0xFFFFFF), kSoftware);
  return movie;
}

uint64_t movieDuration(const MovieDescription& movie, std::span<const TrackContents> tracks) {
  uint64_t longest = 0;
  for (const TrackContents& track : tracks) {
    if (track.index->count() == 0) continue;
    const TrackTimes times = timesOf(movie, track);
    longest = std::max(longest, times.start + times.presented);
  }
  return longest;
}

std::vector<uint8_t> makeFragmentedMovieHeader(const MovieDescription& movie, std::span<const TrackContents> tracks) {
  // The tables stay empty: what is in fragments is not in them.
  SampleIndex empty(0);
  std::vector<TrackContents> emptyTracks;
  for (const TrackContents& track : tracks) emptyTracks.push_back({track.description, &empty});

  std::vector<uint8_t> bytes;
  AtomWriter writer(bytes);
  {
    const auto atom = writer.atom(fourCharCode("moov"));
    writeMovieHeaderAtom(writer, movie, emptyTracks);
    for (const TrackContents& track : emptyTracks) writeTrack(writer, movie, track);
    {
      const auto extends = writer.atom(fourCharCode("mvex"));
      for (const TrackContents& track : tracks) {
        const TrackDescription& description = *track.description;
        writeAtom(writer, TrackExtendsAtom{.track = description.track,
                                           .duration = description.defaultDuration,
                                           .size = 0,
                                           .sampleFlags = TrackRunAtom::kIsSync});
      }
    }
    writeUserData(writer, movie);
  }
  return bytes;
}

void extendShortTracks(const MovieDescription& movie, std::span<const TrackContents> tracks) {
  constexpr uint64_t kLong = 4;            // a quarter of the movie
  constexpr uint64_t kShortestMovie = 10;  // seconds; in a shorter one it may be what a crash left
  const uint64_t longest = movieDuration(movie, tracks);
  if (longest < kShortestMovie * movie.timescale) return;
  for (const TrackContents& track : tracks) {
    const TrackTimes times = timesOf(movie, track);
    if (track.index->count() == 0 || times.presented >= longest / kLong || times.start >= longest) continue;
    const TrackDescription& description = *track.description;
    const uint64_t end = rescale(longest - times.start, movie.timescale, description.timescale) + description.trim;
    if (track.index->canReach(end)) track.index->moveEnd(end);
  }
}

PlainMovieEnd makePlainMovieEnd(const MovieDescription& movie, std::span<const TrackContents> tracks, uint64_t offset) {
  std::vector<TrackContents> present;
  size_t samples = 0;
  for (const TrackContents& track : tracks) {
    if (track.index->count() == 0) continue;
    present.push_back(track);
    samples += track.description->frameSize == 0 ? track.index->count() : 0;
  }
  PlainMovieEnd end;
  end.bytes.reserve(samples * 5 + 65536);
  AtomWriter writer(end.bytes);
  if (std::any_of(present.begin(), present.end(), [](const auto& track) { return track.index->silentStretch() > 0; })) {
    const auto atom = writer.atom(fourCharCode("free"));
    for (TrackContents& track : present) {
      track.silenceOffset = offset + writer.position();
      writeSilence(writer, track);
    }
    writer.zeros((kAlignment - writer.position() % kAlignment) % kAlignment);
  }
  end.header = end.bytes.size();
  {
    const auto atom = writer.atom(fourCharCode("free"));
    writeMovieHeaderAtom(writer, movie, present);
    for (const TrackContents& track : present) writeTrack(writer, movie, track);
    writeUserData(writer, movie);
  }
  return end;
}

std::optional<ParsedMovieHeader> readMovieHeader(std::span<const uint8_t> body) {
  ParsedMovieHeader parsed;
  bool hasHeader = false;
  std::span<const uint8_t> extends;
  while (!body.empty()) {
    const auto atom = nextAtom(body);
    if (!atom) return std::nullopt;
    switch (atom->type) {
      case MovieHeaderAtom::kType: {
        const auto header = readAtom<MovieHeaderAtom>(atom->body);
        if (!header || header->timescale == 0) return std::nullopt;
        parsed.movie.creationTime = header->creationTime;
        parsed.movie.timescale = header->timescale;
        parsed.duration = header->duration;
        hasHeader = true;
        break;
      }
      case fourCharCode("trak"): {
        auto track = readTrack(atom->body);
        if (!track) return std::nullopt;
        parsed.pictures += track->kind == TrackKind::kVideo ? countSamples(atom->body) : 0;
        parsed.tracks.push_back(std::move(*track));
        break;
      }
      case fourCharCode("mvex"):
        parsed.isFragmented = true;
        extends = atom->body;
        break;
      case fourCharCode("udta"):
        parsed.movie.userData.assign(atom->body.begin(), atom->body.end());
        break;
      default:
        break;
    }
  }
  if (!hasHeader) return std::nullopt;
  while (const auto atom = nextAtom(extends)) {
    const auto defaults = atom->type == TrackExtendsAtom::kType ? readAtom<TrackExtendsAtom>(atom->body) : std::nullopt;
    if (!defaults) continue;
    for (TrackDescription& track : parsed.tracks) {
      if (track.track == defaults->track) track.defaultDuration = defaults->duration;
    }
  }
  return parsed;
}

}  // namespace vesk
