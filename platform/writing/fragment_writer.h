#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/mutex.h"
#include "platform/writing/movie_fragment.h"
#include "platform/writing/writing_statistics.h"

namespace vesk {

class File;
class FileSystem;

/// Brings the fragments of a growing movie to the disk, from a thread of its own, so that who records never waits
/// for the disk.
///
/// The order, for each fragment: it is written with `free` for its type; then the file is synced; then its first
/// block is written once more, with `moof`. So whatever is a `moof` is on the disk, for readers and after a power
/// cut alike, and what is still `free` is judged by its checksums. While one sync runs further fragments gather
/// before the next.
///
/// Fragments are written past the page cache, which leaves the machine's memory to others and costs a tenth. Where
/// the file system cannot do that, and while the disk is more than 64 MiB or 8 s behind, who submits them writes
/// them into the page cache instead, whence the syncs bring them to the disk and drop them. What is written faster
/// than it plays is no live recording: it waits for the disk.
///
/// Locks: mMutex is innermost. States of a fragment: queued, being written, written; it leaves when it is valid.
class FragmentWriter {
 public:
  enum class Thread { kOwn, kNone };

  /// `file` and `fileSystem` outlive the writer.
  FragmentWriter(File& file, FileSystem& fileSystem, std::string path);
  ~FragmentWriter() { stop(); }

  /// With Thread::kNone everything is done in submit.
  void start(Thread thread) VESK_EXCLUDES(mMutex);
  /// Hands the next fragment on, which begins where the one before it ends. After a failure it is dropped.
  void submit(std::shared_ptr<MovieFragment> fragment) VESK_EXCLUDES(mMutex);
  /// The fragments that have become valid since this was last asked, in their order. After stop: those that are
  /// written.
  std::vector<std::shared_ptr<MovieFragment>> takeDone() VESK_EXCLUDES(mMutex);
  /// Whether a source that has sent media up to `mediaEnd` is faster than real time, and so no live one.
  bool isAheadOfTime(uint64_t mediaEnd) const;
  /// The first failure, as an errno value, or 0. ENOENT: the file has no name any more.
  int error() const { return mError.load(std::memory_order_acquire); }
  /// Writes what is queued, ends the thread and cuts off what could not be written whole. What was written last is
  /// not synced, and still `free`.
  void stop() VESK_EXCLUDES(mMutex);
  /// Makes durable and then valid what stop has left, for a movie that stays in fragments.
  void makeValid() VESK_EXCLUDES(mMutex);
  WritingStatistics statistics() const VESK_EXCLUDES(mMutex);

 private:
  using Clock = std::chrono::steady_clock;
  enum class State { kQueued, kBeingWritten, kWritten };
  struct Entry {
    std::shared_ptr<MovieFragment> fragment;
    State state = State::kQueued;
    bool isDirect = false;
    Clock::time_point queued;
  };

  void run() VESK_EXCLUDES(mMutex);
  void waitForTheDisk() VESK_REQUIRES(mMutex);
  bool isFarBehind(Clock::time_point now, uint64_t most) const VESK_REQUIRES(mMutex);
  void writeQueued(bool tryDirect) VESK_REQUIRES(mMutex);
  void write(Entry& entry, bool tryDirect) VESK_REQUIRES(mMutex);
  bool isSyncDue() const VESK_REQUIRES(mMutex);
  Entry* nextQueued() VESK_REQUIRES(mMutex);
  int writeBytes(Entry& entry, bool tryDirect);
  size_t countWritten() const VESK_REQUIRES(mMutex);
  void sync() VESK_EXCLUDES(mMutex);
  int bringToDisk();
  void makeValid(Entry& entry);
  void setSpaceAside() VESK_EXCLUDES(mMutex);
  void noteSpaceAside(uint64_t end) VESK_EXCLUDES(mMutex);
  void setError(int error);

  File& mFile;
  FileSystem& mFileSystem;
  const std::string mPath;
  const Clock::time_point mStart = Clock::now();
  std::atomic<int> mError{0};
  std::atomic<bool> mCanDirect{true};
  std::thread mThread;

  // Of the thread alone; without one, of who submits.
  uint64_t mReserved = 0;  ///< the end of what is set aside
  bool mCanReserve = true;
  Clock::time_point mNextReserve;
  Clock::time_point mNextSync;
  bool mHasSynced = false;
  uint64_t mDropFrom = 0;  ///< from here on the page cache may hold what is on the disk

  mutable Mutex mMutex;
  std::condition_variable_any mWake;                   ///< of the thread
  std::condition_variable_any mRoom;                   ///< of who submits faster than the disk takes
  std::deque<Entry> mEntries VESK_GUARDED_BY(mMutex);  ///< neither valid nor lost; their places stay while they do
  std::vector<std::shared_ptr<MovieFragment>> mDone VESK_GUARDED_BY(mMutex);
  size_t mTaken VESK_GUARDED_BY(mMutex) = 0;           ///< of mEntries, behind stop
  uint64_t mWaitingBytes VESK_GUARDED_BY(mMutex) = 0;  ///< of mEntries that are not written
  bool mIsUnsynced VESK_GUARDED_BY(mMutex) = false;
  bool mHasFailed VESK_GUARDED_BY(mMutex) = false;  ///< a fragment could not be written: none after it is
  bool mIsBehind VESK_GUARDED_BY(mMutex) = false;
  uint64_t mEnd VESK_GUARDED_BY(mMutex) = 0;  ///< of what is written or to be written
  uint64_t mMediaEnd VESK_GUARDED_BY(mMutex) = 0;
  bool mIsStopping VESK_GUARDED_BY(mMutex) = false;
  WritingStatistics mStatistics VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk
