#include "movie/recording_counters.h"

namespace vesk {
namespace {

/// `more` less `less`. The two are counted on different threads, so `less` may be ahead for a moment.
uint64_t difference(const RecordingCounters::Count& more, const RecordingCounters::Count& less) {
  const uint64_t taken = less.load(std::memory_order_acquire);
  const uint64_t all = more.load(std::memory_order_relaxed);
  return all > taken ? all - taken : 0;
}

uint64_t value(const RecordingCounters::Count& count) {
  return count.load(std::memory_order_relaxed);
}

}  // namespace

uint64_t RecordingCounters::Track::bytesWaiting() const {
  return difference(bytesQueued, bytesTaken);
}

void RecordingCounters::noteEnd(uint64_t end) {
  uint64_t furthest = value(mDuration);
  while (end > furthest && !mDuration.compare_exchange_weak(furthest, end, std::memory_order_relaxed)) {
  }
}

uint64_t RecordingCounters::noteFrame(uint64_t captured, uint64_t shown) {
  const uint64_t late = shown > captured ? shown - captured : 0;
  mVideoLate.store(late, std::memory_order_relaxed);
  return late;
}

void RecordingCounters::noteFailure(int32_t status, const Error& error) {
  const MutexLock lock(mErrorMutex);
  if (mError) return;
  mError = error;
  mStatus.store(status, std::memory_order_relaxed);
  mHasError.store(true, std::memory_order_release);
}

void RecordingCounters::noteWriting(uint64_t written, const WritingStatistics& writing) {
  bytes.store(written, std::memory_order_relaxed);
  mDirect.store(writing.direct, std::memory_order_relaxed);
  mBuffered.store(writing.buffered, std::memory_order_relaxed);
  mFellBehind.store(writing.fellBehind, std::memory_order_relaxed);
  mReserved.store(writing.reserved, std::memory_order_relaxed);
  mIsDiskShort.store(writing.isSpaceShort, std::memory_order_relaxed);
}

RecordingStatistics RecordingCounters::statistics() const {
  const QueueLevels queues = levels();
  RecordingStatistics result;
  result.videoFrames = difference(video.queued, video.refused);
  result.videoDropped = value(video.dropped) + value(video.refused);
  result.videoHeldBack = value(video.heldBack);
  result.videoWidth = width.load(std::memory_order_relaxed);
  result.videoHeight = height.load(std::memory_order_relaxed);
  result.videoUnfit = value(unfit);
  result.videoForNext = static_cast<uint32_t>(value(forNext));
  result.audioPackets = difference(audio.queued, audio.refused);
  result.audioDropped = value(audio.dropped) + value(audio.refused);
  result.audioHeldBack = value(audio.heldBack);
  result.audioSilence = value(silence);
  result.duration = value(mDuration);
  result.videoLate = value(mVideoLate);
  result.bytes = value(bytes);
  result.bytesDirect = value(mDirect);
  result.bytesBuffered = value(mBuffered);
  result.diskFellBehind = static_cast<uint32_t>(value(mFellBehind));
  result.bytesReserved = value(mReserved);
  result.isDiskShort = mIsDiskShort.load(std::memory_order_relaxed);
  result.videoWaiting = queues.videoWaiting;
  result.audioWaiting = queues.audioWaiting;
  result.videoCapacity = queues.videoCapacity;
  result.audioCapacity = queues.audioCapacity;
  result.status = mStatus.load(std::memory_order_relaxed);
  if (mHasError.load(std::memory_order_acquire)) {
    const MutexLock lock(mErrorMutex);
    result.error = mError;
  }
  result.formatChanged = formatChanged.load(std::memory_order_relaxed);
  result.writerMissing = writerMissing.load(std::memory_order_relaxed);
  return result;
}

QueueLevels RecordingCounters::levelsForSource() const {
  const QueueLevels before = levels();
  if (!before.isBusy() || !mHaveRoom) return before;
  // In this order, so that samples taken meanwhile are seen here, or this by who took them.
  mIsRoomAwaited = true;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return levels();
}

void RecordingCounters::noteRoom() {
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!mIsRoomAwaited || !levels().haveRoom() || !mIsRoomAwaited.exchange(false)) return;
  mHaveRoom();
}

QueueLevels RecordingCounters::levels() const {
  QueueLevels result;
  result.videoWaiting = static_cast<uint32_t>(difference(video.queued, video.taken));
  result.audioWaiting = static_cast<uint32_t>(difference(audio.queued, audio.taken));
  result.bytesWaiting = video.bytesWaiting() + audio.bytesWaiting();
  result.isForNext = value(forNext) != 0;
  return result;
}

}  // namespace vesk
