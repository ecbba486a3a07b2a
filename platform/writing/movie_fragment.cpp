#include "platform/writing/movie_fragment.h"

#include <xxhash.h>
#if defined(__x86_64__)
#include <xxh_x86dispatch.h>
#endif

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "platform/writing/atom_reader.h"
#include "platform/writing/file_system.h"

namespace vesk {
namespace {

constexpr uint64_t kRunMicroseconds = 500'000;
/// What is smaller is copied: a block of its own costs more.
constexpr uint64_t kSmallestStraight = 65536;
constexpr size_t kTypeOffset = 4;
/// In a `trun` atom, behind header, flags and count.
constexpr size_t kDataOffsetInRun = 16;

uint64_t wholeBlocks(uint64_t size) {
  return size / kDirectAlignment * kDirectAlignment;
}

/// How far behind the beginning of its block.
uint64_t placeInBlock(const uint8_t* bytes) {
  return reinterpret_cast<uintptr_t>(bytes) % kDirectAlignment;
}

TrackRunAtom makeRun(const MediaTrack& track, size_t first, size_t count) {
  const TrackDescription& description = *track.description();
  TrackRunAtom run;
  if (description.hasKeySamples) run.flags |= TrackRunAtom::kSampleFlags;
  run.samples.reserve(count);
  for (const auto& sample : std::span(track.waiting()).subspan(first, count)) {
    if (sample.duration != description.defaultDuration) run.flags |= TrackRunAtom::kDurations;
    run.samples.push_back(
        {sample.duration, sample.size, sample.isKey ? TrackRunAtom::kIsSync : TrackRunAtom::kIsNotSync});
  }
  return run;
}

uint64_t piecesIn(uint64_t bytes) {
  return (bytes + FragmentSumsAtom::kPiece - 1) / FragmentSumsAtom::kPiece;
}

}  // namespace

MovieFragment::MovieFragment(uint32_t sequence, std::span<MediaTrack> tracks, uint64_t offset) : mOffset(offset) {
  findRuns(tracks);
  writeHeader(sequence, tracks);
  layOut();
  gather(tracks);
  finishHeader();
}

void MovieFragment::findRuns(std::span<MediaTrack> tracks) {
  uint64_t begin = UINT64_MAX;
  for (const MediaTrack& track : tracks) {
    if (!track.waiting().empty()) begin = std::min(begin, track.movieTime(track.waiting().front().time));
  }
  for (size_t number = 0; number < tracks.size(); ++number) {
    const MediaTrack& track = tracks[number];
    if (track.waiting().empty()) continue;
    mBeginnings.push_back({number, track.waiting().front().time});
    const auto& last = track.waiting().back();
    mMediaEnd = std::max(mMediaEnd, track.movieTime(last.time + last.duration));
    Run run{};
    for (size_t i = 0; i < track.waiting().size(); ++i) {
      const auto& sample = track.waiting()[i];
      const uint64_t slot = (track.movieTime(sample.time) - begin) / kRunMicroseconds;
      if (run.count > 0 && (slot != run.slot || sample.bytes != run.begin + run.bytes)) {
        addRun(run);
        run.count = 0;
      }
      if (run.count == 0) run = {number, slot, sample.bytes, true, i, 0, 0, 0, {}};
      ++run.count;
      run.bytes += sample.size;
    }
    addRun(run);
  }
  std::stable_sort(mRuns.begin(), mRuns.end(), [](const Run& a, const Run& b) { return a.slot < b.slot; });
}

/// Adds what lies in one piece; together with what is before it, when both are copied.
void MovieFragment::addRun(const Run& run) {
  Run* const last = mRuns.empty() ? nullptr : &mRuns.back();
  const bool follows = last && last->track == run.track && last->slot == run.slot;
  if (!follows || run.isStraight() || last->isStraight()) return mRuns.push_back(run);
  last->isInOnePiece = false;
  last->count += run.count;
  last->bytes += run.bytes;
}

bool MovieFragment::Run::isStraight() const {
  return isInOnePiece && bytes >= kSmallestStraight;
}

uint64_t MovieFragment::Run::bytesBeforeBlocks() const {
  return (kDirectAlignment - placeInBlock(begin)) % kDirectAlignment;
}

uint64_t MovieFragment::Run::bytesInBlocks() const {
  return wholeBlocks(bytes - bytesBeforeBlocks());
}

/// All but what follows from where the samples lie, and the checksums.
void MovieFragment::writeHeader(uint32_t sequence, std::span<MediaTrack> tracks) {
  AtomWriter writer(mHeader);
  {
    const auto fragment = writer.atom(fourCharCode("free"));
    writeAtom(writer, FragmentHeaderAtom{sequence});
    for (const Beginning& beginning : mBeginnings) {
      const MediaTrack& track = tracks[beginning.track];
      const auto traf = writer.atom(fourCharCode("traf"));
      writeAtom(writer, TrackFragmentHeaderAtom{.track = track.description()->track});
      writeAtom(writer, TrackFragmentTimeAtom{beginning.time});
      for (Run& run : mRuns) {
        if (run.track != beginning.track) continue;
        run.atom = makeRun(track, run.first, run.count);
        run.offset = writer.position();  // of the atom, until it is laid out
        writeAtom(writer, run.atom);
      }
    }
  }
  mMoofSize = mHeader.size();
  uint64_t pieces = 0;
  for (const Run& run : mRuns) pieces += piecesIn(run.bytes);
  mSums.pieces.reserve(pieces);
  mSums.pieces.resize(pieces);
  writeAtom(writer, mSums);
  mSums.pieces.clear();
  writer.u32(0);
  writer.u32(fourCharCode("mdat"));
}

void MovieFragment::layOut() {
  uint64_t at = mHeader.size();
  for (Run& run : mRuns) {
    if (run.isStraight()) at += (placeInBlock(run.begin) - at) % kDirectAlignment;
    AtomWriter(mHeader).patch32(run.offset + kDataOffsetInRun, static_cast<uint32_t>(at));
    run.offset = at;
    at += run.bytes;
  }
  mSize = alignedUp(at);
}

void MovieFragment::gather(std::span<MediaTrack> tracks) {
  uint64_t straight = 0;
  for (const Run& run : mRuns) straight += run.isStraight() ? run.bytesInBlocks() : 0;
  static_assert(MemoryPool::kPageBytes % kDirectAlignment == 0);
  mBuffer = MemoryPool::shared().allocate(mSize - straight);
  if (!mBuffer) throw std::bad_alloc();
  uint8_t* to = mBuffer.get() + mHeader.size();
  uint8_t* begin = mBuffer.get();  // of what lies behind what is written straight
  uint64_t at = mHeader.size();    // in the fragment
  const auto padTo = [&](uint64_t offset) {
    std::memset(to, 0, offset - at);
    to += offset - at;
    at = offset;
  };
  const auto add = [&](const uint8_t* bytes, size_t size) {
    std::memcpy(to, bytes, size);
    to += size;
  };
  const auto endVector = [&] {
    if (to != begin) mVectors.push_back({begin, static_cast<size_t>(to - begin)});
    begin = to;
  };
  const auto sum = [&](std::span<const uint8_t> bytes) {
    for (; !bytes.empty(); bytes = bytes.subspan(std::min<size_t>(bytes.size(), FragmentSumsAtom::kPiece)))
      mSums.pieces.push_back(checksum(bytes.first(std::min<size_t>(bytes.size(), FragmentSumsAtom::kPiece))));
  };
  for (const Run& run : mRuns) {
    padTo(run.offset);
    if (run.isStraight()) {
      const uint64_t before = run.bytesBeforeBlocks();
      const uint64_t whole = run.bytesInBlocks();
      add(run.begin, before);
      endVector();
      mVectors.push_back({const_cast<uint8_t*>(run.begin) + before, whole});
      add(run.begin + before + whole, run.bytes - before - whole);
      sum({run.begin, run.bytes});
    } else {
      const uint8_t* const copied = to;
      const auto samples = std::span(tracks[run.track].waiting()).subspan(run.first, run.count);
      for (const auto& sample : samples) add(sample.bytes, sample.size);
      sum({copied, run.bytes});
    }
    at += run.bytes;
  }
  padTo(mSize);
  endVector();
  if (straight == 0) return;
  for (MediaTrack& track : tracks) {
    auto memory = track.takeMemory();
    mMemory.insert(mMemory.end(), std::make_move_iterator(memory.begin()), std::make_move_iterator(memory.end()));
  }
}

void MovieFragment::finishHeader() {
  constexpr size_t kAtomHeader = 8;
  mSums.header = checksum(std::span<const uint8_t>(mHeader).subspan(kAtomHeader, mMoofSize - kAtomHeader));
  const size_t data = mHeader.size() - kAtomHeader;
  std::vector<uint8_t> sums;
  AtomWriter writer(sums);
  writeAtom(writer, mSums);
  std::copy(sums.begin(), sums.end(), mHeader.begin() + static_cast<ptrdiff_t>(mMoofSize));
  AtomWriter(mHeader).patch32(data, static_cast<uint32_t>(mSize - data));
  std::copy(mHeader.begin(), mHeader.end(), mBuffer.get());
  mHeader = {};
}

std::span<const uint8_t> MovieFragment::validBeginning() {
  writeBigEndian32(mBuffer.get() + kTypeOffset, fourCharCode("moof"));
  return {mBuffer.get(), kDirectAlignment};
}

void MovieFragment::releaseMedia(bool keepsBeginning) {
  mMemory = {};
  mVectors = {};
  auto beginning = keepsBeginning ? MemoryPool::shared().allocate(kDirectAlignment) : nullptr;
  if (keepsBeginning && !beginning) return;
  if (keepsBeginning) std::memcpy(beginning.get(), mBuffer.get(), kDirectAlignment);
  mBuffer = std::move(beginning);
}

void MovieFragment::enterIndexes(std::span<MediaTrack> tracks) const {
  for (const Beginning& beginning : mBeginnings) tracks[beginning.track].index().moveEnd(beginning.time);
  for (const Run& run : mRuns) {
    MediaTrack& track = tracks[run.track];
    enterRun(track.index(), *track.description(), mOffset + run.offset, run.atom.samples);
  }
}

uint64_t checksum(std::span<const uint8_t> bytes) {
#if defined(__x86_64__)
  return XXH3_64bits_dispatch(bytes.data(), bytes.size());  // by what the processor can
#else
  return XXH3_64bits(bytes.data(), bytes.size());
#endif
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
