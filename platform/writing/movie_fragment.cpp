#include "platform/writing/movie_fragment.h"

#include <algorithm>

#include "platform/writing/atom_reader.h"

namespace vesk {
namespace {

constexpr uint64_t kRunMicroseconds = 500'000;
constexpr size_t kDataHeader = 8;
/// Fragments begin at multiples of this, so that a type field never lies across two pages of memory
/// and changes in one go.
constexpr uint64_t kAlignment = 8;
const uint8_t kPadding[kAlignment] = {};

TrackRunAtom makeRun(const MediaTrack& track, size_t first, size_t count, int32_t dataOffset) {
  const TrackDescription& description = *track.description();
  TrackRunAtom run;
  run.dataOffset = dataOffset;
  if (description.hasKeySamples) run.flags |= TrackRunAtom::kSampleFlags;
  run.samples.reserve(count);
  for (const auto& sample : std::span(track.waiting()).subspan(first, count)) {
    if (sample.duration != description.defaultDuration) run.flags |= TrackRunAtom::kDurations;
    run.samples.push_back(
        {sample.duration, sample.size, sample.isKey ? TrackRunAtom::kIsSync : TrackRunAtom::kIsNotSync});
  }
  return run;
}

}  // namespace

void MovieFragment::build(uint32_t sequence, std::span<MediaTrack> tracks) {
  findRuns(tracks);
  writeHeader(sequence, tracks);
  // Offsets count from the fragment's start, and its size is known only now; it stays the same.
  uint64_t offset = mHeader.size();
  for (Run& run : mRuns) {
    run.offset = offset;
    offset += run.bytes;
  }
  writeHeader(sequence, tracks);
  gather(tracks);
}

void MovieFragment::findRuns(std::span<MediaTrack> tracks) {
  mRuns.clear();
  mMediaBytes = 0;
  uint64_t begin = UINT64_MAX;
  for (const MediaTrack& track : tracks) {
    if (!track.waiting().empty()) begin = std::min(begin, track.movieTime(track.waiting().front().time));
  }
  for (size_t number = 0; number < tracks.size(); ++number) {
    const MediaTrack& track = tracks[number];
    for (size_t i = 0; i < track.waiting().size(); ++i) {
      const auto& sample = track.waiting()[i];
      const uint64_t slot = (track.movieTime(sample.time) - begin) / kRunMicroseconds;
      if (i == 0 || slot != mRuns.back().slot) mRuns.push_back({number, slot, i, 0, 0, 0});
      ++mRuns.back().count;
      mRuns.back().bytes += sample.size;
      mMediaBytes += sample.size;
    }
  }
  std::stable_sort(mRuns.begin(), mRuns.end(), [](const Run& a, const Run& b) { return a.slot < b.slot; });
}

void MovieFragment::writeHeader(uint32_t sequence, std::span<MediaTrack> tracks) {
  mHeader.clear();
  AtomWriter writer(mHeader);
  {
    const auto fragment = writer.atom(fourCharCode("free"));
    writeAtom(writer, FragmentHeaderAtom{sequence});
    for (size_t number = 0; number < tracks.size(); ++number) {
      const MediaTrack& track = tracks[number];
      if (track.waiting().empty()) continue;
      const auto traf = writer.atom(fourCharCode("traf"));
      writeAtom(writer, TrackFragmentHeaderAtom{.track = track.description()->track});
      writeAtom(writer, TrackFragmentTimeAtom{track.waiting().front().time});
      for (const Run& run : mRuns) {
        if (run.track != number) continue;
        writeAtom(writer, makeRun(track, run.first, run.count, static_cast<int32_t>(run.offset)));
      }
    }
  }
  const uint64_t unpadded = mHeader.size() + kDataHeader + mMediaBytes;
  mSize = (unpadded + kAlignment - 1) / kAlignment * kAlignment;
  writer.u32(static_cast<uint32_t>(mSize - mHeader.size()));
  writer.u32(fourCharCode("mdat"));
}

void MovieFragment::gather(std::span<MediaTrack> tracks) {
  mVectors.clear();
  const auto add = [&](const uint8_t* bytes, size_t size) {
    if (size == 0) return;
    if (!mVectors.empty()) {
      iovec& last = mVectors.back();
      if (static_cast<uint8_t*>(last.iov_base) + last.iov_len == bytes) {
        last.iov_len += size;
        return;
      }
    }
    mVectors.push_back({const_cast<uint8_t*>(bytes), size});
  };
  add(mHeader.data(), mHeader.size());
  for (const Run& run : mRuns) {
    for (const auto& sample : std::span(tracks[run.track].waiting()).subspan(run.first, run.count)) {
      add(sample.bytes, sample.size);
    }
  }
  add(kPadding, mSize - mHeader.size() - mMediaBytes);
}

void MovieFragment::enterIndexes(uint64_t offset, std::span<MediaTrack> tracks) const {
  for (MediaTrack& track : tracks) {
    if (!track.waiting().empty()) track.index().moveEnd(track.waiting().front().time);
  }
  for (const Run& run : mRuns) {
    MediaTrack& track = tracks[run.track];
    const TrackRunAtom atom = makeRun(track, run.first, run.count, 0);
    enterRun(track.index(), *track.description(), offset + run.offset, atom.samples);
  }
}

void enterRun(SampleIndex& index, const TrackDescription& track, uint64_t offset,
              std::span<const TrackRunAtom::Sample> samples) {
  index.beginChunk(offset);
  if (track.frameSize != 0) {
    uint64_t bytes = 0;
    for (const auto& sample : samples) bytes += sample.size;
    index.addFrames(bytes / track.frameSize * track.frameSize);
    return;
  }
  for (const auto& sample : samples) {
    index.addSample(sample.size, sample.duration, sample.flags == TrackRunAtom::kIsSync);
  }
}

std::optional<ParsedFragment> readFragment(std::span<const uint8_t> body) {
  ParsedFragment fragment;
  const auto first = nextAtom(body);
  if (!first || first->type != FragmentHeaderAtom::kType) return std::nullopt;
  const auto header = readAtom<FragmentHeaderAtom>(first->body);
  if (!header) return std::nullopt;
  fragment.sequence = header->sequence;
  while (!body.empty()) {
    const auto atom = nextAtom(body);
    if (!atom || atom->type != fourCharCode("traf")) return std::nullopt;
    ParsedFragment::Track track;
    bool hasHeader = false;
    bool hasTime = false;
    for (auto inside = atom->body; !inside.empty();) {
      const auto part = nextAtom(inside);
      if (!part) return std::nullopt;
      if (part->type == TrackFragmentHeaderAtom::kType) {
        const auto fields = readAtom<TrackFragmentHeaderAtom>(part->body);
        if (!fields || fields->flags != TrackFragmentHeaderAtom::kDefaultBaseIsFragment) return std::nullopt;
        track.track = fields->track;
        hasHeader = true;
      } else if (part->type == TrackFragmentTimeAtom::kType) {
        const auto fields = readAtom<TrackFragmentTimeAtom>(part->body);
        if (!fields) return std::nullopt;
        track.time = fields->time;
        hasTime = true;
      } else if (part->type == TrackRunAtom::kType) {
        auto run = readAtom<TrackRunAtom>(part->body);
        if (!run) return std::nullopt;
        // Each of our samples has bytes. Without, a file of nothing would be worth millions of them.
        for (const TrackRunAtom::Sample& sample : run->samples) {
          if (sample.size == 0) return std::nullopt;
        }
        track.runs.push_back(std::move(*run));
      }
    }
    if (!hasHeader || !hasTime) return std::nullopt;
    fragment.tracks.push_back(std::move(track));
  }
  return fragment;
}

}  // namespace vesk
