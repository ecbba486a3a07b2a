#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <vesk/ns_error.h>
#include <vesk/sample_buffer.h>
#include "platform/foundation/mutex.h"
#include "platform/writing/asset_writer.h"
#include "platform/writing/file_system.h"
#include "platform/writing/fragment_writer.h"
#include "platform/writing/media_track.h"
#include "platform/writing/movie_clock.h"
#include "platform/writing/movie_header.h"

namespace vesk {

/// Writes the file of a movie. While it grows it is
///
///   ftyp | free (16 bytes) | moov (no samples) | free | [free: room for a second moov] | fragments
///
/// and the end makes it
///
///   ftyp | mdat (64-bit size, over everything up to here) | moov (all samples)
///
/// (with silence that the gaps of the sound share at the end of its `mdat`)
/// in steps each of which leaves a movie that can be read: what is new is written as `free`, which
/// readers skip, and then its type is changed, in one block of the disk and one page of memory. So it
/// is for a fragment, for a second moov when a track's first sample comes late, and for the plain
/// moov at the end. Fragments begin on blocks and are written by another thread: see FragmentWriter for
/// the order of writes, syncs and changes.
///
/// Invariants: everything before the last fragment on the disk is whole atoms; nothing behind it counts;
/// an index holds the samples of fragments that are written.
///
/// Threads: status, error and bytesWritten from any thread; everything else from one at a time.
class MovieFileWriter {
 public:
  /// With Thread::kNone everything is on the disk when append answers; recordings have a thread for that.
  MovieFileWriter(std::string path, FileSystem& fileSystem,
                  FragmentWriter::Thread thread = FragmentWriter::Thread::kOwn);
  /// Leaves an unfinished movie as it is: readable up to its last fragment.
  ~MovieFileWriter();
  MovieFileWriter(const MovieFileWriter&) = delete;
  MovieFileWriter& operator=(const MovieFileWriter&) = delete;

  /// Adds a track before the start. @return its place, for append and finishTrack.
  size_t addTrack(TrackKind kind);
  /// Makes the file, which nobody else can read, and claims it. False, and Failed, when it cannot be
  /// made or something is at its path.
  bool start();
  void setSessionStart(const CMTime& time);
  /// Takes a sample in; a fragment goes to the disk when enough waits. Waits for the disk only where the source
  /// is faster than real time, or the system has no memory left to hold back what is written. False when the
  /// sample does not fit its track or the writer has failed.
  bool append(size_t track, const CMSampleBufferRef& sample);
  /// No more samples come for this track; the others no longer wait for its first.
  void finishTrack(size_t track);
  /// Makes the movie plain and closes the file. A movie without any sample is removed: there is
  /// nothing to play. After a failure what can be saved is. @return whether the status is Completed.
  bool finish();

  AVAssetWriterStatus status() const { return mStatus.load(std::memory_order_acquire); }
  NSError error() const VESK_EXCLUDES(mErrorMutex);
  /// Bytes in the file, or on their way there.
  uint64_t bytesWritten() const { return mBytesWritten.load(std::memory_order_relaxed); }
  WritingStatistics writing() const { return mFragments ? mFragments->statistics() : mLastWriting; }
  /// Bytes that the index of all samples takes in memory.
  size_t indexMemory() const;

 private:
  /// Room for a `moov` near the file's beginning.
  struct Slot {
    uint64_t offset = 0;
    uint64_t size = 0;
  };

  bool isWriting() const { return status() == AVAssetWriterStatus::Writing; }
  std::vector<TrackContents> knownTracks();
  bool hasWaiting() const;
  bool hasSamples() const;
  bool shouldWriteHeader() const;
  bool writeHeader();
  bool writeSecondHeader(MediaTrack& late);
  bool mayGather(const MediaTrack& track) const;
  bool flush();
  void takeDone();
  void stopFragments();
  bool makePlain();
  bool staysInFragments(int error);
  bool fail(int error);
  uint64_t waitingBytes() const;
  void setEnd(uint64_t end);
  void noteBytes();
  void close();

  const std::string mPath;
  FileSystem& mFileSystem;
  const FragmentWriter::Thread mThread;
  std::unique_ptr<File> mFile;
  std::unique_ptr<FragmentWriter> mFragments;
  WritingStatistics mLastWriting;
  MovieDescription mMovie;
  std::vector<MediaTrack> mTracks;
  int64_t mSessionStart = 0;
  MovieClock mClock;

  bool mHasHeader = false;
  Slot mSlots[2];  ///< the `moov` in force, and the spare one
  uint32_t mSequence = 0;
  uint64_t mEnd = 0;      ///< of all fragments
  uint64_t mDoneEnd = 0;  ///< of those that are written

  std::atomic<AVAssetWriterStatus> mStatus{AVAssetWriterStatus::Unknown};
  std::atomic<uint64_t> mBytesWritten{0};
  mutable Mutex mErrorMutex;
  NSError mError VESK_GUARDED_BY(mErrorMutex);
};

}  // namespace vesk
