#include "platform/writing/movie_file_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <tuple>
#include <utility>

#include <vesk/log.h>
#include "platform/foundation/errors.h"
#include "platform/writing/movie_layout.h"

namespace vesk {
namespace {

// With a quarter of a second in the queues before the writer, these keep the file within two
// seconds of the camera.
constexpr uint64_t kFragmentAtKeyPicture = 500'000;  // microseconds
constexpr uint64_t kLongestFragment = 1'000'000;
constexpr uint64_t kLargestFragment = uint64_t{16} << 20;
// A source that is faster than real time fills these in less time than that, and fewer fragments cost less.
constexpr uint64_t kLongestGathered = 10'000'000;
constexpr uint64_t kGatheredBytes = uint64_t{4} << 20;
constexpr uint64_t kLongestWaitForHeader = 500'000;

// Room kept for a track whose first sample has not come: its part of a `moov`, generously.
constexpr uint64_t kRoomForVideo = 2048 + 4096;
constexpr uint64_t kRoomForSound = 2048;

constexpr size_t kAtomHeader = 8;

int64_t errorCodeOf(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return AVErrorDiskFull;
    case ENOENT:
    case ENOTDIR:
    case ENODEV:
    case ENXIO:
    case ESTALE:
    case EIO:
      return AVErrorFileFailedToWrite;
    default:
      return AVErrorUnknown;
  }
}

std::string describe(int error) {
  switch (error) {
    case ENOENT:
      return "the file or its folder is gone";
    case EDQUOT:
      return "your disk quota is used up";
    case EFBIG:
      return "the file is as large as the system allows";
    case EEXIST:
      return "another program has made a file of that name";
    default:
      char text[128];
      return strerror_r(error, text, sizeof text);
  }
}

/// A file that goes while it is written has lost its folder or its disk.
Cause causeOf(int error) {
  const Cause cause = fileCause(error);
  return cause == Cause::kNoFile ? Cause::kFolderGone : cause;
}

}  // namespace

MovieFileWriter::MovieFileWriter(std::string path, FileSystem& fileSystem, FragmentWriter::Thread thread)
    : mPath(std::move(path)), mFileSystem(fileSystem), mThread(thread) {}

MovieFileWriter::~MovieFileWriter() {
  if (mFragments) {
    mFragments->stop();
    mFragments->makeValid();
  }
  close();
}

size_t MovieFileWriter::addTrack(TrackKind kind) {
  mTracks.emplace_back(kind, static_cast<uint32_t>(mTracks.size() + 1));
  return mTracks.size() - 1;
}

bool MovieFileWriter::start() {
  if (status() != AVAssetWriterStatus::Unknown) return false;
  int error = 0;
  mFile = mFileSystem.open(mPath, FileMode::kCreateNew, error);
  if (!mFile) return fail(error);
  mFile->lock();  // it is new; where there are no locks, it is recorded without
  mFragments = std::make_unique<FragmentWriter>(*mFile, mFileSystem, mPath);
  mFragments->start(mThread);
  mMovie = describeMovie(std::time(nullptr));
  mStatus.store(AVAssetWriterStatus::Writing, std::memory_order_release);
  return true;
}

void MovieFileWriter::setSessionStart(const CMTime& time) {
  const CMTime inMicroseconds = CMTimeConvertScale(time, 1'000'000);
  constexpr int64_t kFarthest = int64_t{1} << 61;
  if (!inMicroseconds.valid || inMicroseconds.value > kFarthest || inMicroseconds.value < -kFarthest) return;
  mSessionStart = inMicroseconds.value;
}

bool MovieFileWriter::append(size_t number, const CMSampleBufferRef& sample) {
  if (!isWriting() || !sample || number >= mTracks.size()) return false;
  if (const int error = mFragments->error()) return fail(error);
  MediaTrack& track = mTracks[number];
  const auto time = MediaTrack::timeOf(*sample);
  if (!time) return false;
  const int64_t zero = mSessionStart + mClock.skippedBefore(*time - mSessionStart);
  const bool isLong = track.waitingDuration() >= kFragmentAtKeyPicture;
  const bool gathers = isLong && mayGather(track);
  if (track.endsFragment(*sample, zero, gathers ? kLongestGathered : kFragmentAtKeyPicture) && !flush()) return false;
  const bool wasKnown = track.description().has_value();
  if (!track.accept(sample, zero)) return false;
  if (!mHasHeader) {
    if (shouldWriteHeader() && !writeHeader()) return false;
  } else if (!wasKnown && !writeSecondHeader(track)) {
    return false;
  }
  noteBytes();
  const uint64_t longest = gathers ? kLongestGathered : kLongestFragment;
  if (track.waitingDuration() < longest && track.waitingBytes() < kLargestFragment) return true;
  return flush();
}

/// Whether a fragment may become longer than that of a live source, whose end is to be on the disk soon.
bool MovieFileWriter::mayGather(const MediaTrack& track) const {
  return mHasHeader && waitingBytes() < kGatheredBytes && mFragments->isAheadOfTime(track.end());
}

uint64_t MovieFileWriter::waitingBytes() const {
  uint64_t bytes = 0;
  for (const MediaTrack& track : mTracks) bytes += track.waitingBytes();
  return bytes;
}

void MovieFileWriter::finishTrack(size_t number) {
  if (number < mTracks.size()) mTracks[number].finish();
}

bool MovieFileWriter::finish() {
  if (status() != AVAssetWriterStatus::Writing && status() != AVAssetWriterStatus::Failed) return false;
  if (!mFile) return false;
  if (isWriting() && hasWaiting()) flush();
  stopFragments();
  if (!hasSamples()) {
    const bool isOurs = mFile->isAt(mPath);
    close();
    if (isOurs) mFileSystem.remove(mPath);
  } else {
    makePlain();
    if (isWriting() && !mFile->isLinked()) fail(ENOENT);  // gone since it was last looked for
    close();
  }
  if (isWriting()) mStatus.store(AVAssetWriterStatus::Completed, std::memory_order_release);
  return status() == AVAssetWriterStatus::Completed;
}

NSError MovieFileWriter::error() const {
  MutexLock lock(mErrorMutex);
  return mError;
}

size_t MovieFileWriter::indexMemory() const {
  size_t bytes = 0;
  for (const MediaTrack& track : mTracks) bytes += track.index().memory();
  return bytes;
}

std::vector<TrackContents> MovieFileWriter::knownTracks() {
  std::vector<TrackContents> known;
  for (MediaTrack& track : mTracks) {
    if (track.description()) known.push_back({&*track.description(), &track.index()});
  }
  return known;
}

bool MovieFileWriter::hasWaiting() const {
  return std::any_of(mTracks.begin(), mTracks.end(), [](const MediaTrack& track) { return !track.waiting().empty(); });
}

bool MovieFileWriter::hasSamples() const {
  return std::any_of(mTracks.begin(), mTracks.end(), [](const MediaTrack& track) { return track.index().count() > 0; });
}

bool MovieFileWriter::shouldWriteHeader() const {
  bool complete = true;
  for (const MediaTrack& track : mTracks) {
    if (track.waitingDuration() >= kLongestWaitForHeader) return true;
    if (!track.description() && !track.isFinished()) complete = false;
  }
  return complete;
}

/// Writes everything before the first fragment, which begins on a block.
bool MovieFileWriter::writeHeader() {
  const auto known = knownTracks();
  std::vector<uint8_t> bytes = makeMovieBeginning();
  const auto header = makeFragmentedMovieHeader(mMovie, known);
  mSlots[0] = {bytes.size(), header.size()};
  bytes.insert(bytes.end(), header.begin(), header.end());

  uint64_t room = 0;
  for (const MediaTrack& track : mTracks) {
    if (track.description() || track.isFinished()) continue;
    room += track.kind() == TrackKind::kVideo ? kRoomForVideo : kRoomForSound;
  }
  if (room > 0) mSlots[1].size = alignedUp(kAtomHeader + header.size() + room, kAtomHeader);
  AtomWriter writer(bytes);
  const uint64_t end = alignedUp(bytes.size() + kAtomHeader + mSlots[1].size);
  {
    const auto padding = writer.atom(fourCharCode("free"));
    writer.zeros(end - mSlots[1].size - bytes.size());
  }
  if (room > 0) {
    mSlots[1].offset = bytes.size();
    const auto spare = writer.atom(fourCharCode("free"));
    writer.zeros(end - bytes.size());
  }
  if (const int error = mFile->writeAll(bytes, mEnd)) {
    mFile->truncate(mEnd);
    return fail(error);
  }
  setEnd(bytes.size());
  mDoneEnd = mEnd;
  mHasHeader = true;
  return true;
}

/// Puts a `moov` that has all tracks, `late` too, into the spare room and switches to it. The first lies in front
/// and stays in force until the second is complete; then the two change their types.
bool MovieFileWriter::writeSecondHeader(MediaTrack& late) {
  const auto header = makeFragmentedMovieHeader(mMovie, knownTracks());
  const Slot spare = mSlots[1];
  if (spare.size < header.size() + kAtomHeader) {
    late.refuse();
    NSLog(LogLevel::kWarning, "A track came too late for its movie and is left out: " + mPath);
    return false;
  }
  // What it leaves of the room is an atom inside of it: the room keeps its size, so that the fragments are found
  // behind it, however much of this is on the disk when the power goes.
  std::vector<uint8_t> bytes = header;
  AtomWriter writer(bytes);
  {
    const auto rest = writer.atom(fourCharCode("free"));
    writer.zeros(spare.size - header.size() - kAtomHeader);
  }
  // First everything behind the room's own header, which makes readers skip it; then its type; then the old one goes.
  const std::span<const uint8_t> all = bytes;
  if (const int error = mFile->writeAll(all.subspan(kAtomHeader), spare.offset + kAtomHeader)) return fail(error);
  for (const auto& [offset, before, type] :
       {std::tuple(spare.offset, fourCharCode("free"), fourCharCode("moov")),
        std::tuple(mSlots[0].offset, fourCharCode("moov"), fourCharCode("free"))}) {
    if (const int error = changeType(*mFile, offset, before, type)) return fail(error);
  }
  std::swap(mSlots[0], mSlots[1]);
  return true;
}

/// Sends all that waits to the disk as one fragment.
bool MovieFileWriter::flush() {
  if (!mHasHeader && !writeHeader()) return false;
  takeDone();
  const auto fragment = std::make_shared<MovieFragment>(mSequence + 1, mTracks, mEnd);
  mFragments->submit(fragment);
  ++mSequence;
  for (MediaTrack& track : mTracks) track.clearWaiting();
  setEnd(fragment->end());
  const int error = mFragments->error();
  return error == 0 || fail(error);
}

/// Enters the samples that have got to the disk.
void MovieFileWriter::takeDone() {
  for (const auto& fragment : mFragments->takeDone()) {
    fragment->enterIndexes(mTracks);
    mDoneEnd = fragment->end();
  }
}

/// Has everything written that can be. What cannot is lost, and the movie ends before it.
void MovieFileWriter::stopFragments() {
  mFragments->stop();
  takeDone();
  for (MediaTrack& track : mTracks) track.clearWaiting();
  setEnd(mDoneEnd);
  if (const int error = mFragments->error(); error != 0 && isWriting()) fail(error);
}

bool MovieFileWriter::makePlain() {
  const auto known = knownTracks();
  const bool fits =
      std::all_of(known.begin(), known.end(), [](const TrackContents& track) { return track.index->fitsTables(); });
  if (!fits) NSLog(LogLevel::kWarning, "The movie is too long for plain tables and stays in fragments: " + mPath);
  if (!fits) return staysInFragments(0);

  extendShortTracks(mMovie, known);
  PlainMovieEnd end;
  try {
    end = makePlainMovieEnd(mMovie, known, mEnd);
  } catch (const std::bad_alloc&) {
    NSLog(LogLevel::kWarning, "There is no memory for the movie's tables; it stays in fragments: " + mPath);
    return staysInFragments(0);
  }
  if (const int error = makeMoviePlain(*mFile, end, mEnd)) return staysInFragments(error);
  setEnd(mEnd + end.bytes.size());
  return true;
}

/// @param error why, if that is a failure
bool MovieFileWriter::staysInFragments(int error) {
  mFragments->makeValid();
  if (error == 0) error = mFragments->error();
  if (error == 0) error = mFile->truncate(mEnd);
  return error == 0 || fail(error);
}

/// The first failure is the one that is told. Always false.
bool MovieFileWriter::fail(int error) {
  MutexLock lock(mErrorMutex);
  if (!mError)
    mError = {errorCodeOf(error), "The movie " + mPath + " could not be written: " + describe(error), causeOf(error),
              mPath};
  mStatus.store(AVAssetWriterStatus::Failed, std::memory_order_release);
  return false;
}

void MovieFileWriter::setEnd(uint64_t end) {
  mEnd = end;
  noteBytes();
}

void MovieFileWriter::noteBytes() {
  mBytesWritten.store(mEnd + waitingBytes(), std::memory_order_relaxed);
}

void MovieFileWriter::close() {
  mLastWriting = writing();
  mLastWriting.reserved = 0;
  mFragments.reset();
  if (!mFile) return;
  const int error = mFile->close();
  mFile.reset();
  if (error != 0 && isWriting()) fail(error);
  for (MediaTrack& track : mTracks) track.clearWaiting();
}

}  // namespace vesk
