#include "capture/linux/sound/delivery.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include <vesk/log.h>
#include "capture/interface/monotonic_clock.h"

namespace vesk::capture {
namespace {

constexpr size_t kMostSeconds = 10;
constexpr size_t kUsualBlocks = 100;            // a second
constexpr int64_t kBetweenReports = 5'000'000;  // microseconds
constexpr int kLongPatience = 10;               // times the patience: between reports that no sound comes

std::string inSeconds(SoundDelivery::Clock::duration time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

}  // namespace

SoundDelivery::SoundDelivery(std::string name, const WaveFormat& format, FrameCallback callback,
                             std::chrono::milliseconds patience)
    : mName(std::move(name)),
      mPatience(patience),
      mFrameBytes(std::max<size_t>(size_t{format.channels} * 2, 1)),
      mMostBytes((mFrameBytes * format.samplesPerSecond + sizeof(SoundBlock) * kUsualBlocks) * kMostSeconds),
      mCallback(std::move(callback)),
      mPacketizer(format, [this](uint8_t* bytes, uint32_t length, int64_t timestamp) {
        mCallback(bytes, length, timestamp);
        return !mIsEnded;
      }) {}

void SoundDelivery::begin() {
  MutexLock lock(mMutex);
  mThread = std::thread([self = shared_from_this()] {
    pthread_setname_np(pthread_self(), "vesk-sound");
    self->run();
  });
}

void SoundDelivery::end() {
  std::thread thread;
  {
    MutexLock lock(mMutex);
    mIsEnded = true;
    thread.swap(mThread);
    mChanged.notify_all();
  }
  if (!thread.joinable()) return;
  // From inside a callback the thread ends by itself, once the callback has returned.
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

uint64_t SoundDelivery::overruns() const {
  MutexLock lock(mMutex);
  return mOverruns;
}

size_t SoundDelivery::waiting() const {
  MutexLock lock(mMutex);
  return mWaiting.size();
}

void SoundDelivery::sound(std::span<const uint8_t> bytes, int64_t time) {
  if (bytes.empty()) return;
  MutexLock lock(mMutex);
  if (mIsEnded) return;
  if (mWaitingBytes + bytes.size() + sizeof(SoundBlock) > mMostBytes) {
    // Whole blocks are dropped: the next time stamp tells how much is missing.
    if (!mIsDropping) loseLocked(0);
    mIsDropping = true;
    return;
  }
  mIsDropping = false;
  append({{bytes.begin(), bytes.end()}, time});
}

void SoundDelivery::lost(uint64_t frames) {
  MutexLock lock(mMutex);
  if (!mIsEnded) loseLocked(frames);
}

void SoundDelivery::loseLocked(uint64_t frames) {
  ++mOverruns;
  if (mWaiting.empty() || !mWaiting.back().bytes.empty()) append({});
  SoundBlock& loss = mWaiting.back();
  loss.lostFrames += frames;
  loss.isLossUnknown = loss.isLossUnknown || frames == 0;
}

/// Each block counts with its own size: a stream may hand over very small ones.
void SoundDelivery::append(SoundBlock block) {
  mWaitingBytes += block.bytes.size() + sizeof(SoundBlock);
  mWaiting.push_back(std::move(block));
  mChanged.notify_all();
}

void SoundDelivery::ended() {
  {
    MutexLock lock(mMutex);
    mHasStreamEnded = true;
  }
  NSLog(LogLevel::kWarning, mName + ": the microphone has gone or its sound server ended; no more sound comes from it");
}

void SoundDelivery::run() {
  mLastSoundAt = Clock::now();
  mDueAt = mLastSoundAt + mPatience;
  while (!mIsEnded) {
    const auto blocks = take();
    if (blocks.empty()) {
      reportSilence();
      continue;
    }
    noteSound();
    for (const SoundBlock& block : blocks) {
      if (mIsEnded) break;
      process(block);
    }
    reportOverruns(false);
  }
  reportOverruns(true);
}

/// Waits for what there is; none at the end, and when nothing comes in time.
std::deque<SoundDelivery::SoundBlock> SoundDelivery::take() {
  MutexLock lock(mMutex);
  while (mWaiting.empty() && !mIsEnded)
    if (mChanged.wait_until(mMutex, mDueAt) == std::cv_status::timeout) break;
  std::deque<SoundBlock> blocks;
  if (mIsEnded) return blocks;
  blocks.swap(mWaiting);
  mWaitingBytes = 0;
  return blocks;
}

/// Something has come.
void SoundDelivery::noteSound() {
  const auto now = Clock::now();
  if (mIsSilent)
    NSLog(LogLevel::kInfo,
          "The microphone \"" + mName + "\" sends sound again, after " + inSeconds(now - mLastSoundAt) + ".");
  mIsSilent = false;
  mLastSoundAt = now;
  mDueAt = now + mPatience;
}

void SoundDelivery::reportSilence() {
  {
    MutexLock lock(mMutex);
    if (mIsEnded) return;
    if (mHasStreamEnded) {
      mDueAt = Clock::time_point::max();
      return;
    }
  }
  const auto now = Clock::now();
  NSLog(LogLevel::kWarning, "The microphone \"" + mName + "\" has sent no sound for " + inSeconds(now - mLastSoundAt) +
                                ". See that it is switched on and that nothing has suspended it, or plug it in again.");
  mIsSilent = true;
  mDueAt = now + kLongPatience * mPatience;
}

void SoundDelivery::process(const SoundBlock& block) {
  if (block.bytes.empty()) {
    if (block.lostFrames > 0) mPacketizer.lose(block.lostFrames);
    if (block.isLossUnknown) mPacketizer.lose(0);
  } else {
    mPacketizer.add(block.bytes, block.time);
  }
}

void SoundDelivery::reportOverruns(bool isLast) {
  const int64_t now = monotonicMicroseconds();
  uint64_t fresh = 0;
  {
    MutexLock lock(mMutex);
    fresh = mOverruns - mReportedOverruns;
    if (fresh == 0 || (!isLast && mReportedAt != 0 && now - mReportedAt < kBetweenReports)) return;
    mReportedOverruns = mOverruns;
  }
  mReportedAt = now;
  NSLog(LogLevel::kWarning, mName + ": sound was lost " + std::to_string(fresh) + (fresh == 1 ? " time" : " times") +
                                "; silence will stand in for it");
}

}  // namespace vesk::capture
