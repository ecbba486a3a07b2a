#include "platform/writing/durability_thread.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include <vesk/log.h>
#include "platform/writing/file_system.h"

namespace vesk {
namespace {

/// Long recordings stay in one piece on the disk, and little is lost when a program dies.
constexpr uint64_t kAllocationStep = uint64_t{64} << 20;

/// A recording faster than real time would else sync a thousand times a second of it.
constexpr std::chrono::milliseconds kLeastBetweenSyncs{250};

}  // namespace

DurabilityThread::DurabilityThread(File& file, FileSystem& fileSystem, std::string path)
    : mFile(file), mFileSystem(fileSystem), mPath(std::move(path)) {}

void DurabilityThread::start() {
  try {
    mThread = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    NSLog(LogLevel::kWarning, "No thread for syncing: the movie is on the disk only when the system writes it there");
  }
}

void DurabilityThread::wrote(uint64_t end) {
  {
    MutexLock lock(mMutex);
    mWritten = end;
  }
  mWake.notify_one();
}

void DurabilityThread::stop() {
  {
    MutexLock lock(mMutex);
    mStopping = true;
  }
  mWake.notify_one();
  if (mThread.joinable()) mThread.join();
}

void DurabilityThread::run() {
  pthread_setname_np(pthread_self(), "Vesk Movie Sync");
  uint64_t synced = 0;
  auto next = std::chrono::steady_clock::now();
  for (;;) {
    uint64_t written;
    {
      MutexLock lock(mMutex);
      while (mWritten == synced && !mStopping) mWake.wait(mMutex);
      while (std::chrono::steady_clock::now() < next && !mStopping) mWake.wait_until(mMutex, next);
      if (mStopping) return;
      written = mWritten;
    }
    next = std::chrono::steady_clock::now() + kLeastBetweenSyncs;
    setSpaceAside(written);
    int error = mFile.makeDurable();
    if (error == 0 && !mFile.isLinked()) error = ENOENT;
    if (synced == 0) mFileSystem.syncFolderOf(mPath);  // best effort: not all file systems can
    synced = written;
    int none = 0;
    if (error != 0) mError.compare_exchange_strong(none, error);
  }
}

/// Stays half a step ahead. A full disk is left for the writing to find.
void DurabilityThread::setSpaceAside(uint64_t end) {
  if (!mCanAllocate || end + kAllocationStep / 2 <= mAllocated) return;
  if (mAllocated < end) mAllocated = end;
  if (mFile.preallocate(mAllocated, kAllocationStep) == 0) {
    mAllocated += kAllocationStep;
  } else {
    mCanAllocate = false;
  }
}

}  // namespace vesk
