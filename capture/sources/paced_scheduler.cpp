#include "capture/sources/paced_scheduler.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <thread>
#include <utility>
#include <vector>

#include "capture/interface/monotonic_clock.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {
namespace {

constexpr std::chrono::milliseconds kBusyPoll(20);  // of hosts that do not say when they are ready

}  // namespace

/// The scheduler's state and the work of its thread.
///
/// The thread takes one step after the other: under the lock it waits for the next thing to do
/// and marks the stream it is about to call; the stream is called without the lock.
class PacedScheduler::Player : public std::enable_shared_from_this<Player> {
 public:
  Player(Pace pace, Transport& transport) : mPace(pace), mTransport(transport) {}

  void add(std::shared_ptr<PacedStream> stream) VESK_EXCLUDES(mMutex);
  void remove(const std::shared_ptr<PacedStream>& stream) VESK_EXCLUDES(mMutex);
  void quit() VESK_EXCLUDES(mMutex);
  void observeTransport();

 private:
  struct Entry {
    std::shared_ptr<PacedStream> stream;
    int64_t slack = 0;
    bool hasJoined = false;
    std::optional<int64_t> nextTime;
  };
  enum class Action { kQuit, kJoin, kDeliver, kEnd };
  struct Step {
    Action action;
    std::shared_ptr<PacedStream> stream;
    int64_t time = 0;       ///< of the source: where to join, or what to deliver
    int64_t timestamp = 0;  ///< of the clock
  };

  void run() VESK_EXCLUDES(mMutex);
  Step waitForStep() VESK_EXCLUDES(mMutex);
  void join(const Step& step) VESK_EXCLUDES(mMutex);
  void deliver(const Step& step) VESK_EXCLUDES(mMutex);
  bool isBusy() VESK_EXCLUDES(mMutex);

  bool onOwnThread() const VESK_REQUIRES(mMutex) { return std::this_thread::get_id() == mThreadId; }
  void startThread() VESK_REQUIRES(mMutex);
  Entry* find(const std::shared_ptr<PacedStream>& stream) VESK_REQUIRES(mMutex);
  Entry* newcomer() VESK_REQUIRES(mMutex);
  Entry* earliest() VESK_REQUIRES(mMutex);
  int64_t wakeTime(const Entry& first) VESK_REQUIRES(mMutex);
  int64_t position() const VESK_REQUIRES(mMutex);
  void beginTime() VESK_REQUIRES(mMutex);
  void endTime() VESK_REQUIRES(mMutex);
  int64_t pauses() const VESK_REQUIRES(mMutex);
  void called(const std::shared_ptr<PacedStream>& stream, std::optional<int64_t> nextTime) VESK_REQUIRES(mMutex);

  const Pace mPace;
  Transport& mTransport;

  Mutex mMutex;
  std::condition_variable_any mChanged;  // something that waitForStep or isBusy looks at
  uint64_t mTransportChanges VESK_GUARDED_BY(mMutex) = 0;
  std::condition_variable_any mReturned;  // a call of a stream has returned
  std::thread mThread VESK_GUARDED_BY(mMutex);
  std::thread::id mThreadId VESK_GUARDED_BY(mMutex);
  bool mQuits VESK_GUARDED_BY(mMutex) = false;
  std::vector<Entry> mEntries VESK_GUARDED_BY(mMutex);
  std::shared_ptr<PacedStream> mCalled VESK_GUARDED_BY(mMutex);  // the stream being called now
  bool mIsRunning VESK_GUARDED_BY(mMutex) = false;               // the transport counts us as started

  // Time. mBase is none until time runs; then it is the clock's value at the source's time 0.
  std::optional<int64_t> mBase VESK_GUARDED_BY(mMutex);
  bool mBeginsAtRelease VESK_GUARDED_BY(mMutex) = false;
  int64_t mHeldBefore VESK_GUARDED_BY(mMutex) = 0;  // the transport's held time at that moment
  int64_t mBusyTime VESK_GUARDED_BY(mMutex) = 0;    // that the host has been busy since
  std::optional<int64_t> mBusySince VESK_GUARDED_BY(mMutex);
  int64_t mReached VESK_GUARDED_BY(mMutex) = 0;  // time of the last delivery
  int64_t mLastTimestamp VESK_GUARDED_BY(mMutex) = 0;
};

void PacedScheduler::Player::observeTransport() {
  mTransport.addObserver(weak_from_this(), [this] {
    MutexLock lock(mMutex);
    ++mTransportChanges;
    mChanged.notify_all();
  });
}

void PacedScheduler::Player::add(std::shared_ptr<PacedStream> stream) {
  if (!stream) return;
  const int64_t slack = stream->slack();
  MutexLock lock(mMutex);
  if (find(stream)) return;
  mEntries.push_back({std::move(stream), slack, false, std::nullopt});
  if (!mIsRunning) {
    mIsRunning = true;
    mTransport.sourceStarted();
  }
  if (!mBase && mTransport.isHeld()) mBeginsAtRelease = true;
  startThread();
  mChanged.notify_all();
}

void PacedScheduler::Player::startThread() {
  if (mThread.joinable() || mQuits) return;
  mThread = std::thread([self = shared_from_this()] { self->run(); });
  mThreadId = mThread.get_id();
}

void PacedScheduler::Player::remove(const std::shared_ptr<PacedStream>& stream) {
  MutexLock lock(mMutex);
  const size_t removed = std::erase_if(mEntries, [&](const Entry& entry) { return entry.stream == stream; });
  if (removed && mEntries.empty()) endTime();
  if (removed) mChanged.notify_all();
  if (onOwnThread()) return;
  while (mCalled == stream && stream) mReturned.wait(mMutex);
}

void PacedScheduler::Player::quit() {
  std::thread thread;
  {
    MutexLock lock(mMutex);
    mQuits = true;
    mEntries.clear();
    endTime();
    mChanged.notify_all();
    if (onOwnThread()) {
      mThread.detach();  // it shares this object, and goes when the delivery returns
      return;
    }
    thread = std::move(mThread);
  }
  if (thread.joinable()) thread.join();
}

void PacedScheduler::Player::run() {
  pthread_setname_np(pthread_self(), "vesk paced");
  for (;;) {
    const Step step = waitForStep();
    switch (step.action) {
      case Action::kQuit:
        return;
      case Action::kJoin:
        join(step);
        break;
      case Action::kDeliver:
        deliver(step);
        break;
      case Action::kEnd:
        mTransport.sourceEnded();
        break;
    }
  }
}

PacedScheduler::Player::Step PacedScheduler::Player::waitForStep() {
  MutexLock lock(mMutex);
  for (;;) {
    if (mQuits) return {Action::kQuit, nullptr};
    if (const Entry* entry = newcomer()) {
      mCalled = entry->stream;
      return {Action::kJoin, entry->stream, position()};
    }
    const Entry* entry = earliest();
    if (!entry) {
      if (mIsRunning && !mEntries.empty()) {
        mIsRunning = false;
        return {Action::kEnd, nullptr};
      }
      mChanged.wait(mMutex);
      continue;
    }
    if (mTransport.isHeld()) {
      mChanged.wait(mMutex);
      continue;
    }
    if (!mBase) beginTime();
    const int64_t time = *entry->nextTime;
    if (mPace == Pace::kRealTime) {
      const int64_t due = *mBase + pauses() + wakeTime(*entry);
      if (monotonicMicroseconds() < due) {
        mChanged.wait_until(mMutex, monotonicMoment(due));
        continue;
      }
    }
    return {Action::kDeliver, entry->stream, time, std::max<int64_t>(1, *mBase + time)};
  }
}

void PacedScheduler::Player::join(const Step& step) {
  step.stream->seek(step.time);
  const auto next = step.stream->nextTime();
  MutexLock lock(mMutex);
  if (Entry* entry = find(step.stream)) entry->hasJoined = true;
  called(step.stream, next);
}

void PacedScheduler::Player::deliver(const Step& step) {
  if (isBusy()) return;
  {
    MutexLock lock(mMutex);
    if (!find(step.stream) || mQuits) return;  // it left meanwhile
    mCalled = step.stream;
  }
  step.stream->deliver(step.timestamp);
  const auto next = step.stream->nextTime();
  MutexLock lock(mMutex);
  mLastTimestamp = std::max(mLastTimestamp, step.timestamp);
  if (const Entry* entry = find(step.stream); entry && entry->hasJoined) mReached = std::max(mReached, step.time);
  called(step.stream, next);
}

/// Whether the host is busy; then its call, another event or a moment has been waited for.
bool PacedScheduler::Player::isBusy() {
  uint64_t changesBefore = 0;
  {
    MutexLock lock(mMutex);
    changesBefore = mTransportChanges;
  }
  const bool isBusyNow = mTransport.isBusy();
  MutexLock lock(mMutex);
  if (isBusyNow) {
    if (!mBusySince) mBusySince = monotonicMicroseconds();
    if (!mQuits && mTransportChanges == changesBefore) mChanged.wait_for(mMutex, kBusyPoll);
    return true;
  }
  if (mBusySince) mBusyTime += monotonicMicroseconds() - *mBusySince;
  mBusySince.reset();
  return false;
}

PacedScheduler::Player::Entry* PacedScheduler::Player::find(const std::shared_ptr<PacedStream>& stream) {
  const auto found =
      std::find_if(mEntries.begin(), mEntries.end(), [&](const Entry& entry) { return entry.stream == stream; });
  return found == mEntries.end() ? nullptr : &*found;
}

PacedScheduler::Player::Entry* PacedScheduler::Player::newcomer() {
  const auto found =
      std::find_if(mEntries.begin(), mEntries.end(), [](const Entry& entry) { return !entry.hasJoined; });
  return found == mEntries.end() ? nullptr : &*found;
}

/// The stream whose frame is due first; none when all have come to their end or to the limit.
PacedScheduler::Player::Entry* PacedScheduler::Player::earliest() {
  const auto limit = mTransport.limit();
  Entry* first = nullptr;
  for (Entry& entry : mEntries) {
    if (!entry.nextTime || (limit && static_cast<double>(*entry.nextTime) >= *limit * 1e6)) continue;
    if (!first || *entry.nextTime < *first->nextTime) first = &entry;
  }
  return first;
}

/// When the stream whose frame is due first is delivered: at that moment, or together with the next frame that cannot
/// wait.
int64_t PacedScheduler::Player::wakeTime(const Entry& first) {
  std::optional<int64_t> wake;
  for (const Entry& entry : mEntries) {
    if (first.slack == 0 || entry.slack != 0 || !entry.nextTime) continue;
    if (*entry.nextTime <= *first.nextTime + first.slack) wake = std::min(wake.value_or(INT64_MAX), *entry.nextTime);
  }
  return wake.value_or(*first.nextTime);
}

/// The source's time now.
int64_t PacedScheduler::Player::position() const {
  if (!mBase) return 0;
  if (mPace == Pace::kFast) return mReached;
  const int64_t now = mBusySince ? *mBusySince : monotonicMicroseconds();
  return std::max(mReached, now - *mBase - pauses());
}

// Sources released together begin at the same moment of the clock, whichever thread wakes first.
void PacedScheduler::Player::beginTime() {
  const int64_t now = mBeginsAtRelease ? mTransport.releasedAt() : monotonicMicroseconds();
  mBeginsAtRelease = false;
  mBase = std::max(now, mLastTimestamp + 1);
  mHeldBefore = mTransport.heldTime();
  mBusyTime = 0;
  mBusySince.reset();
}

void PacedScheduler::Player::endTime() {
  mBase.reset();
  mBeginsAtRelease = false;
  mBusySince.reset();
  mReached = 0;
  if (mIsRunning) mTransport.sourceStopped();
  mIsRunning = false;
}

/// How long time has stood still since it began.
int64_t PacedScheduler::Player::pauses() const {
  return mTransport.heldTime() - mHeldBefore + mBusyTime;
}

/// Ends a call of a stream, which may have left during it, and even have come back anew.
void PacedScheduler::Player::called(const std::shared_ptr<PacedStream>& stream, std::optional<int64_t> nextTime) {
  if (Entry* entry = find(stream); entry && entry->hasJoined) entry->nextTime = nextTime;
  mCalled.reset();
  mReturned.notify_all();
}

PacedScheduler::PacedScheduler(Pace pace, Transport& transport) : mPlayer(std::make_shared<Player>(pace, transport)) {
  mPlayer->observeTransport();
}

PacedScheduler::~PacedScheduler() {
  mPlayer->quit();
}

void PacedScheduler::add(std::shared_ptr<PacedStream> stream) {
  mPlayer->add(std::move(stream));
}

void PacedScheduler::remove(const std::shared_ptr<PacedStream>& stream) {
  mPlayer->remove(stream);
}

bool PacedCapture::isRunning() const {
  MutexLock lock(mMutex);
  return mStream != nullptr;
}

void PacedCapture::begin(std::shared_ptr<PacedStream> stream) {
  {
    MutexLock lock(mMutex);
    mStream = stream;
  }
  mScheduler.add(std::move(stream));
}

// Without the lock, which a callback may want that calls back into the device.
bool PacedCapture::end() {
  std::shared_ptr<PacedStream> stream;
  {
    MutexLock lock(mMutex);
    stream.swap(mStream);
  }
  if (stream) mScheduler.remove(stream);
  return stream != nullptr;
}

}  // namespace vesk::capture
