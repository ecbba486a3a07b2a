#include <vesk/movie_recovery.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/foundation/errors.h"
#include "platform/writing/atom_reader.h"
#include "platform/writing/movie_fragment.h"
#include "platform/writing/movie_header.h"
#include "platform/writing/movie_layout.h"
#include "platform/writing/movie_recovery_in.h"

namespace vesk {
namespace {

constexpr const char* kOnlyOurs = "Name a movie that this recorder has made.";
constexpr const char* kCopyIt = "The file was left as it was; copy it to another disk and try there.";

// What is read into memory whole is bounded; real ones take a few kB, a plain `moov` 2 MB an hour.
constexpr uint64_t kLargestFragmentHeader = uint64_t{16} << 20;
constexpr uint64_t kLargestMovieHeader = uint64_t{128} << 20;
constexpr size_t kMostTracks = 16;
constexpr uint64_t kHeadersOfTrack = 1024;  // generously
constexpr uint64_t kAlignment = 8;
constexpr uint64_t kLatestTime = uint64_t{1} << 56;  // track's scale
// What is torn of a recording that ended before its first sample was whole. In more there may be film.
constexpr uint64_t kMostBeforeFirstSample = uint64_t{4} << 20;

/// An atom at the top level of a file.
struct FileAtom {
  uint64_t offset = 0;
  uint64_t size = 0;  ///< as it says, header included
  uint64_t headerSize = 8;
  uint32_t type = 0;
  bool isWhole = false;  ///< its end lies in the file

  uint64_t end() const { return offset + size; }
  uint64_t body() const { return offset + headerSize; }
};

/// Walks an unfinished movie and finishes it. One use.
class MovieRecovery {
 public:
  explicit MovieRecovery(File& file) : mFile(file) {}

  RecoveryResult run() {
    const int64_t size = mFile.size();
    if (size < 0) return failure(static_cast<int>(-size));
    mFileSize = static_cast<uint64_t>(size);
    if (mFileSize == 0) return empty("is empty: the recording ended before its first picture");
    if (!beginsLikeOurs()) return judgeOtherFile();
    if (const auto plain = findPlainMovie()) return alreadyPlain(*plain);
    walk();
    if (mError != 0) return failure(mError);
    if (mFinished) return coverFinished();
    if (mIsTooLong) return nothing("is too long for a plain movie and stays as it is");
    if (mSamples == 0 && mFileSize > mTail + kMostBeforeFirstSample) return damaged();
    if (mSamples == 0) return empty("holds no picture and no sound yet");
    return finish();
  }

 private:
  struct Track {
    TrackDescription description;
    SampleIndex index;
  };

  std::vector<uint8_t> readBytes(uint64_t offset, uint64_t count) {
    if (offset > mFileSize || count > mFileSize - offset) return {};
    std::vector<uint8_t> bytes(count);
    size_t got = 0;
    const int error = mFile.readAll(bytes, offset, got);
    if (error != 0 && mError == 0) mError = error;
    if (error != 0 || got != count) return {};
    return bytes;
  }

  std::optional<FileAtom> atomAt(uint64_t offset) {
    if (offset > mFileSize || mFileSize - offset < 8) return std::nullopt;
    const auto header = readBytes(offset, std::min<uint64_t>(16, mFileSize - offset));
    ByteReader reader(header);
    const auto size = reader.u32();
    const auto type = reader.u32();
    if (!size || !type) return std::nullopt;
    FileAtom atom{.offset = offset, .size = *size, .type = *type};
    if (*size == 0) atom.size = mFileSize - offset;
    if (*size == 1) {
      const auto wide = reader.u64();
      if (!wide) return std::nullopt;
      atom.size = *wide;
      atom.headerSize = 16;
    }
    if (atom.size < atom.headerSize) return std::nullopt;
    atom.isWhole = atom.size <= mFileSize - offset;
    return atom;
  }

  std::optional<ParsedMovieHeader> movieHeaderIn(const FileAtom& atom) {
    if (!atom.isWhole || atom.size > kLargestMovieHeader) return std::nullopt;
    auto parsed = readMovieHeader(readBytes(atom.body(), atom.size - atom.headerSize));
    if (parsed && parsed->tracks.size() > kMostTracks) return std::nullopt;
    return parsed;
  }

  /// The file type is ours, as far as there is one.
  bool beginsLikeOurs() {
    const auto ours = makeMovieBeginning();
    const auto bytes = readBytes(0, std::min<uint64_t>(kReservedOffset, mFileSize));
    if (!std::equal(bytes.begin(), bytes.end(), ours.begin())) return false;
    if (mFileSize < kReservedOffset + 8) return true;
    const auto reserved = atomAt(kReservedOffset);
    if (!reserved) return mFileSize < kReservedOffset + kReservedSize;
    return (reserved->type == fourCharCode("free") && reserved->size == kReservedSize) ||
           (reserved->type == fourCharCode("mdat") && reserved->headerSize == kReservedSize);
  }

  RecoveryResult judgeOtherFile() {
    uint64_t offset = 0;
    bool hasFileType = false;
    for (int atoms = 0; atoms < 64; ++atoms) {
      const auto atom = atomAt(offset);
      if (!atom || !atom->isWhole) break;
      if (offset == 0) hasFileType = atom->type == fourCharCode("ftyp");
      if (atom->type == fourCharCode("moov")) {
        const auto parsed = movieHeaderIn(*atom);
        if (parsed && !parsed->isFragmented) return alreadyPlain(*parsed);
        return nothing("is a movie of another program and stays as it is");
      }
      offset = atom->end();
    }
    if (mError != 0) return failure(mError);
    if (hasFileType) return nothing("is a movie of another program and stays as it is");
    return {RecoveryOutcome::kNotAMovie, 0, 0, 0, 0, {Cause::kUnreadable, "is not a movie", kOnlyOurs}};
  }

  /// The `moov` behind the media data of a finished movie.
  std::optional<ParsedMovieHeader> findPlainMovie() {
    const auto data = atomAt(kReservedOffset);
    if (!data || data->type != fourCharCode("mdat") || !data->isWhole) return std::nullopt;
    const auto movie = atomAt(data->end());
    if (!movie || movie->type != fourCharCode("moov")) return std::nullopt;
    auto parsed = movieHeaderIn(*movie);
    if (!parsed || parsed->isFragmented) return std::nullopt;
    return parsed;
  }

  /// Goes through everything behind the reserved header. Where it ends, mTail begins.
  void walk() {
    mTail = kReservedOffset + kReservedSize;
    while (mTail < mFileSize && mError == 0) {
      const auto atom = atomAt(mTail);
      if (!atom || !atom->isWhole) return;
      switch (atom->type) {
        case fourCharCode("moov"):
          // Of a second one the disk may have a part only; the first then serves.
          if (!takeMovieHeader(*atom) && (!mHeader || mSequence != 0)) return;
          break;
        case fourCharCode("moof"):
          if (!takeFragment(*atom)) return;
          continue;
        case fourCharCode("free"):
          // A fragment that was not made valid yet, a header when the power went while another took its place, or
          // nothing.
          if (mHeader && beginsWith(*atom, FragmentHeaderAtom::kType)) {
            if (!takeFragment(*atom)) return;
            continue;
          }
          if (!mHeader && beginsWith(*atom, MovieHeaderAtom::kType)) takeMovieHeader(*atom);
          break;
        default:
          return;
      }
      mTail = atom->end();
    }
  }

  bool takeMovieHeader(const FileAtom& atom) {
    auto parsed = movieHeaderIn(atom);
    if (!parsed) return false;
    if (!parsed->isFragmented) {
      // The recording was being finished: nothing but the last step is missing.
      if (mSamples == 0 || atom.end() != mFileSize) return false;
      mFinished = atom;
      mFinishedMovie = std::move(*parsed);
      return true;
    }
    if (mSequence != 0) return false;
    // A second one has the tracks of the first and one that came late. What the first says is on the disk for certain.
    for (const Track& known : mTracks) {
      const auto same = std::find_if(parsed->tracks.begin(), parsed->tracks.end(),
                                     [&](const auto& track) { return track.track == known.description.track; });
      if (same == parsed->tracks.end()) return true;
      *same = known.description;
    }
    mTracks.clear();
    for (TrackDescription& track : parsed->tracks) mTracks.push_back({track, SampleIndex::forTrack(track)});
    if (!mHeader) mHeader = std::move(*parsed);
    return true;
  }

  /// Whether its first atom is of `type`.
  bool beginsWith(const FileAtom& atom, uint32_t type) {
    const auto bytes = readBytes(atom.body(), std::min<uint64_t>(8, atom.size - atom.headerSize));
    return bytes.size() == 8 && readBigEndian32(bytes.data() + 4) == type;
  }

  /// Enters the samples of the fragment that begins with `atom`. False when it is the last that can
  /// be used: torn, or not one of ours.
  bool takeFragment(const FileAtom& atom) {
    if (!mHeader || atom.size > kLargestFragmentHeader) return false;
    const auto body = readBytes(atom.body(), atom.size - atom.headerSize);
    const auto parsed = readFragment(body);
    if (!parsed || parsed->sequence != mSequence + 1) return false;
    auto data = atomAt(atom.end());
    std::optional<FragmentSumsAtom> sums;
    if (data && data->type == FragmentSumsAtom::kType) {
      sums = sumsIn(*data);
      if (!sums) return false;
      data = atomAt(data->end());
    }
    if (!data || data->type != fourCharCode("mdat")) return false;
    const uint64_t inFile = data->isWhole ? data->end() : mFileSize;
    // What is `moof` was on the disk before it became that; what is `free` may have got there in part.
    const bool mustBeChecked = sums && atom.type == fourCharCode("free");
    if (mustBeChecked && checksum(body) != sums->header) return false;
    const uint64_t available = mustBeChecked ? checkedEnd(*parsed, *sums, atom.offset, data->body(), inFile) : inFile;
    const bool isWhole = data->isWhole && available == inFile;
    const uint64_t before = mSamples;
    enterSamples(*parsed, atom.offset, data->body(), available);
    if (tablesSize() > kLargestMovieHeader) {
      mIsTooLong = true;
      return false;
    }
    if (mSamples != before) ++mFragments;
    mSequence = parsed->sequence;
    mTail = isWhole ? data->end() : data->offset;
    mTornData = !isWhole;
    return isWhole;
  }

  std::optional<FragmentSumsAtom> sumsIn(const FileAtom& atom) {
    if (!atom.isWhole || atom.size > kLargestFragmentHeader) return std::nullopt;
    auto sums = readAtom<FragmentSumsAtom>(readBytes(atom.body(), atom.size - atom.headerSize));
    return sums && sums->mark == FragmentSumsAtom::kMark ? sums : std::nullopt;
  }

  /// How far the bytes of a fragment's samples, which lie from `begin` to `end`, are those that were written: `end`
  /// when all are.
  uint64_t checkedEnd(const ParsedFragment& fragment, const FragmentSumsAtom& sums, uint64_t offset, uint64_t begin,
                      uint64_t end) {
    struct Bytes {
      uint64_t offset;
      uint64_t size;
    };
    std::vector<Bytes> runs;
    for (const auto& track : fragment.tracks) {
      for (const TrackRunAtom& run : track.runs) {
        uint64_t size = 0;
        for (const auto& sample : run.samples) size += sample.size;
        runs.push_back({offset + static_cast<uint64_t>(std::max(run.dataOffset, 0)), size});
      }
    }
    std::sort(runs.begin(), runs.end(), [](const Bytes& a, const Bytes& b) { return a.offset < b.offset; });
    auto sum = sums.pieces.begin();
    uint64_t last = begin;
    for (const Bytes& run : runs) {
      if (run.offset < last) return last;
      last = run.offset + run.size;
      for (uint64_t at = 0; at < run.size; at += FragmentSumsAtom::kPiece) {
        const uint64_t size = std::min<uint64_t>(run.size - at, FragmentSumsAtom::kPiece);
        const uint64_t place = run.offset + at;
        if (sum == sums.pieces.end() || place > end || size > end - place) return std::min(place, end);
        const auto bytes = readBytes(place, size);
        if (bytes.empty() || checksum(bytes) != *sum++) return place;
      }
    }
    return end;
  }

  /// Of the plain movie's `moov`, at most.
  uint64_t tablesSize() const {
    uint64_t size = 0;
    for (const Track& track : mTracks)
      size += track.index.tablesSize() + track.description.sampleDescription.size() + kHeadersOfTrack;
    return size;
  }

  void enterSamples(const ParsedFragment& fragment, uint64_t offset, uint64_t begin, uint64_t end) {
    for (const auto& part : fragment.tracks) {
      const auto track = std::find_if(mTracks.begin(), mTracks.end(),
                                      [&](const Track& one) { return one.description.track == part.track; });
      if (track == mTracks.end()) continue;  // came late, and its header got lost
      if (part.time > kLatestTime) return;
      std::optional<uint64_t> time = part.time;  // of the first run
      for (const TrackRunAtom& run : part.runs) {
        const uint64_t at = offset + static_cast<uint64_t>(std::max(run.dataOffset, 0));
        if (at < begin || at > end || at < track->index.end()) break;
        if (!enterRunUpTo(*track, run, std::exchange(time, std::nullopt), at, end)) break;
      }
    }
  }

  /// Enters the samples that lie before `end`. False when some do not.
  /// @param time of the first sample; none when it follows on.
  bool enterRunUpTo(Track& track, const TrackRunAtom& run, std::optional<uint64_t> time, uint64_t at, uint64_t end) {
    const TrackDescription& description = track.description;
    std::vector<TrackRunAtom::Sample> samples;
    samples.reserve(run.samples.size());
    uint64_t left = end - at;
    bool complete = true;
    for (TrackRunAtom::Sample sample : run.samples) {
      if (!run.has(TrackRunAtom::kDurations)) sample.duration = description.defaultDuration;
      if (!run.has(TrackRunAtom::kSampleFlags)) sample.flags = TrackRunAtom::kIsSync;
      if (sample.size > left) {
        complete = false;
        if (description.frameSize == 0) break;
        sample.size = static_cast<uint32_t>(left);
      }
      left -= sample.size;
      samples.push_back(sample);
      if (!complete) break;
    }
    if (samples.empty()) return complete;
    if (time) track.index.moveEnd(*time);
    const uint64_t before = track.index.count();
    enterRun(track.index, description, at, samples);
    mSamples += track.index.count() - before;
    mUsed = std::max(mUsed, track.index.end());
    return complete;
  }

  RecoveryResult finish() {
    std::vector<TrackContents> tracks;
    uint64_t pictures = 0;
    for (Track& track : mTracks) {
      tracks.push_back({&track.description, &track.index});
      if (track.description.kind == TrackKind::kVideo) pictures += track.index.count();
      if (!track.index.fitsTables()) return nothing("is too long for a plain movie and stays as it is");
    }
    const uint64_t dropped = mFileSize - std::min(mFileSize, mTornData ? mUsed : mTail);
    // Nothing is changed before the whole end is made and there is room for it.
    extendShortTracks(mHeader->movie, tracks);
    const uint64_t size = sizeWithTailClosed();
    const PlainMovieEnd end = makePlainMovieEnd(mHeader->movie, tracks, size);
    if (const int error = findRoom(size - mFileSize + end.bytes.size())) return failure(error);
    if (const int error = closeTail(size)) return failure(error);
    if (const int error = makeMoviePlain(mFile, end, size)) return failure(error);
    const double duration =
        static_cast<double>(movieDuration(mHeader->movie, tracks)) / static_cast<double>(mHeader->movie.timescale);
    return recovered(duration, pictures, dropped);
  }

  int findRoom(uint64_t size) {
    const int error = mFile.preallocate(mFileSize, size);
    if (error != ENOSPC && error != EDQUOT && error != EFBIG) return 0;  // there is, or it cannot be told
    mFile.truncate(mFileSize);
    return error;
  }

  /// Of the file when the torn bytes at its end are one whole atom.
  uint64_t sizeWithTailClosed() const {
    if (mTail == mFileSize) return mFileSize;
    constexpr uint64_t kSmallest = 16;
    return (std::max(mFileSize, mTail + kSmallest) + kAlignment - 1) / kAlignment * kAlignment;
  }

  /// Makes one whole atom of the torn bytes, which ends at `end`, so that readers find what comes behind it.
  int closeTail(uint64_t end) {
    if (mTail == mFileSize) return 0;
    const uint64_t size = end - mTail;
    // What is left of a fragment's samples stays in force for readers.
    const bool keepsData = mTornData && size <= 0xFFFFFFFF;
    std::vector<uint8_t> bytes;
    AtomWriter writer(bytes);
    if (size <= 0xFFFFFFFF) {
      writer.u32(static_cast<uint32_t>(size));
      writer.u32(keepsData ? fourCharCode("mdat") : fourCharCode("free"));
    } else {
      writer.u32(1);
      writer.u32(fourCharCode("free"));
      writer.u64(size);
    }
    if (end > mFileSize) {
      // First the end, so that the header never promises more than there is.
      const std::vector<uint8_t> padding(end - mFileSize);
      if (const int error = mFile.writeAll(padding, mFileSize)) return error;
    }
    return mFile.writeAll(bytes, mTail);
  }

  RecoveryResult coverFinished() {
    if (const int error = coverMediaData(mFile, mFinished->offset, mFinished->size)) return failure(error);
    return recovered(secondsOf(mFinishedMovie), mFinishedMovie.pictures, 0);
  }

  static double secondsOf(const ParsedMovieHeader& movie) {
    return static_cast<double>(movie.duration) / static_cast<double>(movie.movie.timescale);
  }

  RecoveryResult recovered(double duration, uint64_t pictures, uint64_t dropped) const {
    return {RecoveryOutcome::kRecovered, duration, pictures, mFragments, dropped, {}};
  }

  static RecoveryResult alreadyPlain(const ParsedMovieHeader& movie) {
    return {RecoveryOutcome::kAlreadyPlain, secondsOf(movie), movie.pictures, 0, 0, {}};
  }

  // Errors speak of the file, whose path comes in front.

  static RecoveryResult empty(std::string what) {
    return {RecoveryOutcome::kEmpty, 0, 0, 0, 0, {Cause::kUnreadable, std::move(what), ""}};
  }

  static RecoveryResult nothing(std::string what) {
    return {RecoveryOutcome::kNothingToRecover, 0, 0, 0, 0, {Cause::kUnreadable, std::move(what), kOnlyOurs}};
  }

  RecoveryResult damaged() const {
    return {RecoveryOutcome::kFailed,
            0,
            0,
            0,
            0,
            {Cause::kUnreadable,
             "is damaged at byte " + std::to_string(mTail) + ", before all of its pictures and its sound",
             "The file was left as it was."}};
  }

  static RecoveryResult failure(int error) {
    return {RecoveryOutcome::kFailed,
            0,
            0,
            0,
            0,
            {fileCause(error), "could not be recovered: " + std::generic_category().message(error), kCopyIt}};
  }

  File& mFile;
  uint64_t mFileSize = 0;
  int mError = 0;

  std::optional<ParsedMovieHeader> mHeader;
  std::deque<Track> mTracks;
  uint32_t mSequence = 0;  ///< of the last fragment
  uint64_t mFragments = 0;
  uint64_t mSamples = 0;
  uint64_t mUsed = 0;  ///< where the last sample ends
  uint64_t mTail = 0;  ///< from here on the file is not understood
  bool mIsTooLong = false;
  bool mTornData = false;  ///< the tail is what there is of the last fragment's samples
  std::optional<FileAtom> mFinished;
  ParsedMovieHeader mFinishedMovie;
};

}  // namespace

RecoveryResult recoverMovie(const std::string& path) {
  return recoverMovieIn(FileSystem::posix(), path);
}

namespace {

RecoveryResult recover(FileSystem& fileSystem, const std::string& path) {
  int error = 0;
  const auto file = fileSystem.open(path, FileMode::kReadWrite, error);
  if (file) error = file->lock();
  if (error == EWOULDBLOCK)
    return {RecoveryOutcome::kLocked,
            0,
            0,
            0,
            0,
            {Cause::kBusy, "is being recorded at this moment and stays as it is", "End that recording first."}};
  if (!file || error != 0)
    return {RecoveryOutcome::kFailed,
            0,
            0,
            0,
            0,
            {fileCause(error), "could not be opened: " + std::generic_category().message(error),
             fileRemedy(fileCause(error))}};
  return MovieRecovery(*file).run();
}

}  // namespace

RecoveryResult recoverMovieIn(FileSystem& fileSystem, const std::string& path) {
  RecoveryResult result = recover(fileSystem, path);
  if (result.error) {
    result.error.what = "\"" + path + "\" " + result.error.what;
    result.error.subject = path;
  }
  return result;
}

}  // namespace vesk
