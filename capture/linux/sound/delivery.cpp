#include "capture/linux/sound/delivery.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

#include <vesk/log.h>
#include "capture/interface/monotonic_clock.h"

namespace vesk::capture {
namespace {

constexpr size_t kMostSeconds = 10;
constexpr size_t kUsualPortions = 100;          // a second
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
      mMostBytes((mFrameBytes * format.samplesPerSecond + sizeof(Portion) * kUsualPortions) * kMostSeconds),
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
  if (mWaitingBytes + bytes.size() + sizeof(Portion) > mMostBytes) {
    // Whole portions are dropped: the next time stamp tells how much is missing.
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
  Portion& loss = mWaiting.back();
  loss.lostFrames += frames;
  loss.isLossUnknown = loss.isLossUnknown || frames == 0;
}

/// Each portion counts with its own size: a stream may hand over very small ones.
void SoundDelivery::append(Portion portion) {
  mWaitingBytes += portion.bytes.size() + sizeof(Portion);
  mWaiting.push_back(std::move(portion));
  mChanged.notify_all();
}

void SoundDelivery::ended() {
  {
    MutexLock lock(mMutex);
    mHasStreamEnded = true;
  }
  NSLog("[WARNING]: " + mName + ": the microphone has gone or its sound server ended; no more sound comes from it");
}

void SoundDelivery::run() {
  mHeardAt = Clock::now();
  mDueAt = mHeardAt + mPatience;
  while (!mIsEnded) {
    const auto portions = take();
    if (portions.empty()) {
      tellOfSilence();
      continue;
    }
    hear();
    for (const Portion& portion : portions) {
      if (mIsEnded) break;
      process(portion);
    }
    tellOfOverruns(false);
  }
  tellOfOverruns(true);
}

/// Waits for what there is; none at the end, and when nothing comes in time.
std::deque<SoundDelivery::Portion> SoundDelivery::take() {
  MutexLock lock(mMutex);
  while (mWaiting.empty() && !mIsEnded)
    if (mChanged.wait_until(mMutex, mDueAt) == std::cv_status::timeout) break;
  std::deque<Portion> portions;
  if (mIsEnded) return portions;
  portions.swap(mWaiting);
  mWaitingBytes = 0;
  return portions;
}

/// Something has come.
void SoundDelivery::hear() {
  const auto now = Clock::now();
  if (mIsSilent) NSLog("The microphone \"" + mName + "\" sends sound again, after " + inSeconds(now - mHeardAt) + ".");
  mIsSilent = false;
  mHeardAt = now;
  mDueAt = now + mPatience;
}

void SoundDelivery::tellOfSilence() {
  {
    MutexLock lock(mMutex);
    if (mIsEnded) return;
    if (mHasStreamEnded) {
      mDueAt = Clock::time_point::max();
      return;
    }
  }
  const auto now = Clock::now();
  NSLog("The microphone \"" + mName + "\" has sent no sound for " + inSeconds(now - mHeardAt) +
        ". See that it is switched on and that nothing has suspended it, or plug it in again.");
  mIsSilent = true;
  mDueAt = now + kLongPatience * mPatience;
}

void SoundDelivery::process(const Portion& portion) {
  if (portion.bytes.empty()) {
    if (portion.lostFrames > 0) mPacketizer.lose(portion.lostFrames);
    if (portion.isLossUnknown) mPacketizer.lose(0);
  } else {
    mPacketizer.add(portion.bytes, portion.time);
  }
}

void SoundDelivery::tellOfOverruns(bool isLast) {
  const int64_t now = monotonicMicroseconds();
  uint64_t fresh = 0;
  {
    MutexLock lock(mMutex);
    fresh = mOverruns - mToldOverruns;
    if (fresh == 0 || (!isLast && mToldAt != 0 && now - mToldAt < kBetweenReports)) return;
    mToldOverruns = mOverruns;
  }
  mToldAt = now;
  NSLog("[WARNING]: " + mName + ": sound was lost " + std::to_string(fresh) + (fresh == 1 ? " time" : " times") +
        "; silence will stand in for it");
}

}  // namespace vesk::capture
