#include "platform/writing/fragment_writer.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include <vesk/log.h>
#include "platform/writing/file_system.h"
#include "platform/writing/movie_layout.h"

namespace vesk {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// How far the disk may fall behind before the page cache has to help.
constexpr uint64_t kMostWaiting = uint64_t{64} << 20;
constexpr seconds kLongestWaiting{8};
/// A source that is further ahead of the clock than the queues and their stamps can make it is no live one. It waits
/// for the disk while this much waits: what stays in the processor's caches costs less.
constexpr milliseconds kAhead{250};
constexpr uint64_t kMostAhead = uint64_t{8} << 20;

/// A recording faster than real time would else sync a thousand times a second of it.
constexpr milliseconds kLeastBetweenSyncs{250};

// Space is set aside for the next half minute, twice that at a time: long recordings stay in few pieces, and that
// the disk will be full is known before it is.
constexpr uint64_t kSecondsAside = 30;
constexpr uint64_t kLeastAside = uint64_t{64} << 20;
constexpr uint64_t kMostAside = uint64_t{4} << 30;
constexpr uint64_t kSmallestAside = uint64_t{1} << 20;
constexpr seconds kBetweenTries{2};

}  // namespace

FragmentWriter::FragmentWriter(File& file, FileSystem& fileSystem, std::string path)
    : mFile(file), mFileSystem(fileSystem), mPath(std::move(path)) {}

void FragmentWriter::start(Thread thread) {
  if (thread == Thread::kNone) return;
  try {
    mThread = std::thread([this] {
      try {
        run();
      } catch (const std::exception& exception) {  // no memory: what is written stays, and the movie ends here
        NSLog(LogLevel::kError, exception.what());
        setError(ENOMEM);
      }
    });
  } catch (const std::system_error&) {
    NSLog(LogLevel::kWarning, "No thread for writing: the recording waits for the disk");
  }
}

void FragmentWriter::submit(std::shared_ptr<MovieFragment> fragment) {
  {
    const MutexLock lock(mMutex);
    if (mHasFailed) return;
    mEntries.push_back({fragment, State::kQueued, false, Clock::now()});
    mEnd = fragment->end();
    mMediaEnd = std::max(mMediaEnd, fragment->mediaEnd());
    mWaitingBytes += fragment->size();
    if (mThread.joinable()) {
      if (mCanDirect && !mIsBehind) waitForTheDisk();
      if (!mCanDirect || mIsBehind) writeQueued(false);
    } else {
      writeQueued(true);
    }
  }
  mWake.notify_one();
  if (!mThread.joinable()) sync();
}

/// Lets a source that is faster than real time wait until there is room; for a live one the page cache helps.
void FragmentWriter::waitForTheDisk() {
  for (;;) {
    const auto now = Clock::now();
    const bool isAhead = isAheadOfTime(mMediaEnd);
    if (error() != 0 || !isFarBehind(now, isAhead ? kMostAhead : kMostWaiting)) return;
    if (!isAhead || now - mEntries.front().queued > kLongestWaiting) break;
    mWake.notify_one();
    mRoom.wait_until(mMutex, mEntries.front().queued + kLongestWaiting);
  }
  mIsBehind = true;
  ++mStatistics.fellBehind;
}

bool FragmentWriter::isFarBehind(Clock::time_point now, uint64_t most) const {
  if (mEntries.size() < 2) return false;
  return mWaitingBytes > most || now - mEntries.front().queued > kLongestWaiting;
}

bool FragmentWriter::isAheadOfTime(uint64_t mediaEnd) const {
  return mThread.joinable() && std::chrono::microseconds(mediaEnd) > Clock::now() - mStart + kAhead;
}

FragmentWriter::Entry* FragmentWriter::nextQueued() {
  if (mHasFailed) return nullptr;
  const auto queued =
      std::find_if(mEntries.begin(), mEntries.end(), [](const Entry& entry) { return entry.state == State::kQueued; });
  return queued == mEntries.end() ? nullptr : &*queued;
}

/// Writes what is queued. The thread and who submits may do so at once, each its own fragments.
void FragmentWriter::writeQueued(bool tryDirect) {
  while (Entry* const entry = nextQueued()) write(*entry, tryDirect);
}

/// Writes one fragment, without the lock.
void FragmentWriter::write(Entry& entry, bool tryDirect) {
  entry.state = State::kBeingWritten;
  mMutex.unlock();
  int error = ENOMEM;
  try {
    error = writeBytes(entry, tryDirect);
  } catch (const std::exception& exception) {
    NSLog(LogLevel::kError, exception.what());
  }
  if (error == 0) entry.fragment->releaseMedia(entry.isDirect);
  if (error != 0) setError(error);
  mMutex.lock();
  if (error != 0) {
    mHasFailed = true;
  } else {
    entry.state = State::kWritten;
    mIsUnsynced = true;
    (entry.isDirect ? mStatistics.direct : mStatistics.buffered) += entry.fragment->size();
    mWaitingBytes -= entry.fragment->size();
  }
  mRoom.notify_all();
}

int FragmentWriter::writeBytes(Entry& entry, bool tryDirect) {
  const MovieFragment& fragment = *entry.fragment;
  if (tryDirect && mCanDirect) {
    auto vectors = fragment.vectors();
    entry.isDirect = mFile.writeAllDirect(vectors, fragment.offset()) == 0;
    if (entry.isDirect) return 0;
    mCanDirect = false;  // when it is the disk that failed, that shows at once
  }
  auto vectors = fragment.vectors();
  return mFile.writeAll(vectors, fragment.offset());
}

void FragmentWriter::run() {
  pthread_setname_np(pthread_self(), "Vesk Movie Disk");
  for (;;) {
    setSpaceAside();
    {
      const MutexLock lock(mMutex);
      if (Entry* const entry = nextQueued()) write(*entry, true);
      while (!isSyncDue()) {
        if (nextQueued()) break;
        if (mIsStopping) return;
        if (mIsUnsynced && error() == 0)
          mWake.wait_until(mMutex, mNextSync);
        else
          mWake.wait(mMutex);
      }
      if (!isSyncDue()) continue;
    }
    sync();
    mNextSync = Clock::now() + kLeastBetweenSyncs;
  }
}

/// Also while a source that never waits keeps the queue full. The end is for others to sync.
bool FragmentWriter::isSyncDue() const {
  return mIsUnsynced && !mIsStopping && error() == 0 && Clock::now() >= mNextSync;
}

/// How many are written without one before them that is not.
size_t FragmentWriter::countWritten() const {
  const auto end =
      std::find_if(mEntries.begin(), mEntries.end(), [](const Entry& entry) { return entry.state != State::kWritten; });
  return static_cast<size_t>(end - mEntries.begin());
}

/// Makes what is written durable, and then valid.
void FragmentWriter::sync() {
  std::vector<Entry*> entries;  // they stay where they are: only this takes them away
  {
    const MutexLock lock(mMutex);
    if (error() != 0 || !mIsUnsynced) return;
    mIsUnsynced = false;
    const size_t count = countWritten();
    entries.reserve(count);
    mDone.reserve(mDone.size() + count);
    for (size_t i = 0; i < count; ++i) entries.push_back(&mEntries[i]);
  }
  if (const int error = bringToDisk()) {
    setError(error);
    const MutexLock lock(mMutex);
    mIsUnsynced = true;  // makeValid tries once more
    return mRoom.notify_all();
  }
  for (Entry* const entry : entries) makeValid(*entry);
  if (!entries.empty()) {
    const uint64_t begin = entries.front()->fragment->offset();
    mFile.dropCached(mDropFrom, entries.back()->fragment->end() - mDropFrom);
    mDropFrom = begin;  // these have a type each that is not on the disk yet
  }
  const MutexLock lock(mMutex);
  for (size_t i = 0; i < entries.size(); ++i) {
    Entry& entry = mEntries.front();
    entry.fragment->releaseMedia(false);
    mDone.push_back(std::move(entry.fragment));
    mEntries.pop_front();
  }
  uint64_t left = 0;
  for (const Entry& entry : mEntries) left += entry.fragment->size();
  if (left <= kMostWaiting / 4) mIsBehind = false;
  mRoom.notify_all();
}

int FragmentWriter::bringToDisk() {
  if (const int error = mFile.makeDurable()) return error;
  if (!std::exchange(mHasSynced, true)) mFileSystem.syncFolderOf(mPath);  // best effort: not all file systems can
  return mFile.isLinked() ? 0 : ENOENT;
}

/// The data is on the disk, so that a failure here costs nothing but the reading while the movie grows.
void FragmentWriter::makeValid(Entry& entry) {
  MovieFragment& fragment = *entry.fragment;
  if (entry.isDirect) {
    const std::span<const uint8_t> beginning = fragment.validBeginning();
    iovec vector{const_cast<uint8_t*>(beginning.data()), beginning.size()};
    if (mFile.writeAllDirect(std::span(&vector, 1), fragment.offset()) == 0) return;
  }
  setError(changeType(mFile, fragment.offset(), fourCharCode("free"), fourCharCode("moof")));
}

void FragmentWriter::stop() {
  {
    const MutexLock lock(mMutex);
    mIsStopping = true;
  }
  mWake.notify_one();
  if (mThread.joinable()) mThread.join();
  const MutexLock lock(mMutex);
  const size_t count = countWritten();
  if (count == mEntries.size()) return;
  mFile.truncate(mEntries[count].fragment->offset());
  mEntries.erase(mEntries.begin() + static_cast<ptrdiff_t>(count), mEntries.end());
}

void FragmentWriter::makeValid() {
  mError = 0;  // what stands is to be saved, whatever has failed
  sync();
}

std::vector<std::shared_ptr<MovieFragment>> FragmentWriter::takeDone() {
  const MutexLock lock(mMutex);
  auto done = std::exchange(mDone, {});
  if (!mIsStopping) return done;
  for (; mTaken < mEntries.size(); ++mTaken) done.push_back(mEntries[mTaken].fragment);
  return done;
}

WritingStatistics FragmentWriter::statistics() const {
  const MutexLock lock(mMutex);
  return mStatistics;
}

/// Sets space aside without changing the size of the file, once it has been written past the page cache: a file
/// system in memory, or one over such a one, would give minutes of memory. A full disk is left for the writing to find.
void FragmentWriter::setSpaceAside() {
  uint64_t begin;  // of what is not written yet: it needs its room before what follows it
  uint64_t end;
  uint64_t rate;  // bytes a second
  bool isOnADisk;
  {
    const MutexLock lock(mMutex);
    const size_t written = countWritten();
    begin = written < mEntries.size() ? mEntries[written].fragment->offset() : mEnd;
    end = mEnd;
    isOnADisk = mStatistics.direct > 0;
    constexpr uint64_t kSecond = 1'000'000;
    rate = mEnd * 10 / std::max<uint64_t>(mMediaEnd * 10 / kSecond, 10);
  }
  const auto now = Clock::now();
  const uint64_t aside = std::clamp(rate * kSecondsAside, kLeastAside, kMostAside);
  if (isOnADisk && mCanReserve && end + aside > mReserved && now >= mNextReserve) {
    const uint64_t held = mReserved - std::min(mReserved, end);
    mReserved = std::max(mReserved, begin);
    // Others keep as much room as is set aside here.
    const uint64_t left = mFile.freeSpace();
    const uint64_t most = left > held ? (left - held) / 2 : 0;
    if (most < kSmallestAside) return noteSpaceAside(end);
    int error = ENOSPC;
    for (uint64_t size = std::min(aside * 2, most); error == ENOSPC && size >= kSmallestAside; size /= 2) {
      error = mFile.preallocate(mReserved, size);
      if (error == 0) mReserved += size;
    }
    if (error != 0) mNextReserve = now + kBetweenTries;
    mCanReserve = error == 0 || error == ENOSPC || error == EDQUOT || error == EFBIG || error == EINTR;
    const MutexLock lock(mMutex);
    mStatistics.isSpaceShort = mCanReserve && error != 0 && mReserved < end + aside;
  }
  noteSpaceAside(end);
}

void FragmentWriter::noteSpaceAside(uint64_t end) {
  const MutexLock lock(mMutex);
  mStatistics.reserved = mReserved > end ? mReserved - end : 0;
}

void FragmentWriter::setError(int error) {
  int none = 0;
  mError.compare_exchange_strong(none, error, std::memory_order_release);
}

}  // namespace vesk
