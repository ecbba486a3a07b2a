#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <thread>

#include "platform/foundation/mutex.h"

namespace vesk {

class File;
class FileSystem;

/// Brings a growing file to the disk from a thread of its own, so that who writes never waits for
/// the disk: sets space aside ahead of the writing, and syncs what is written. While one sync runs
/// further ones gather into the next, so it lags by what is written during one sync.
class DurabilityThread {
 public:
  /// `file` and `fileSystem` outlive the thread.
  DurabilityThread(File& file, FileSystem& fileSystem, std::string path);
  ~DurabilityThread() { stop(); }

  void start();
  /// Everything before `end` is written.
  void wrote(uint64_t end) VESK_EXCLUDES(mMutex);
  /// The first failure, as an errno value, or 0. ENOENT: the file has no name any more.
  int error() const { return mError.load(std::memory_order_relaxed); }
  /// Waits for a sync under way; what is not synced by then stays so.
  void stop() VESK_EXCLUDES(mMutex);

 private:
  void run() VESK_EXCLUDES(mMutex);
  void setSpaceAside(uint64_t end);

  File& mFile;
  FileSystem& mFileSystem;
  const std::string mPath;
  std::atomic<int> mError{0};
  std::thread mThread;

  // Of the thread alone.
  uint64_t mAllocated = 0;
  bool mCanAllocate = true;

  Mutex mMutex;
  std::condition_variable_any mWake;
  uint64_t mWritten VESK_GUARDED_BY(mMutex) = 0;
  bool mStopping VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk
