#include "sessions/recording_watches.h"

#include <algorithm>
#include <utility>

namespace vesk {
namespace {

/// Before that, the header and the first key frame count for too much.
constexpr uint64_t kShortestToJudge = 2'000'000;
/// A warning needs a rate that was seen for a while.
constexpr std::chrono::seconds kTimeToJudge{5};
constexpr double kFilling = 300;  // seconds
constexpr double kEnoughAgain = 600;
/// What the writer may have in hand, and what comes between two looks.
constexpr double kSecondsInHand = 3;
/// At the end a movie gets an index of all its samples.
constexpr double kIndexBytes = 256 << 10;
constexpr double kIndexBytesPerSample = 24;

}  // namespace

void StallWatch::restart(WatchClock::time_point now) {
  *this = {};
  mSince = now;
}

StallWatch::Change StallWatch::look(uint64_t count, WatchClock::time_point now) {
  if (count != mCount) {
    mCount = count;
    mSince = now;
    return std::exchange(mIsStalled, false) ? Change::kResumed : Change::kNone;
  }
  if (now - mSince < kLimit || mIsStalled) return Change::kNone;
  mIsStalled = true;
  return Change::kStalled;
}

std::optional<double> QuietWatch::look(double quiet) {
  if (quiet < mLimit) {
    if (mIsReported && quiet < 1) {
      mIsReported = false;
      mLimit *= 2;
    }
    return std::nullopt;
  }
  if (std::exchange(mIsReported, true)) return std::nullopt;
  return mLimit;
}

void DiskWatch::restart(WatchClock::time_point now) {
  *this = {};
  mStart = now;
}

DiskWatch::Verdict DiskWatch::look(uint64_t room, const RecordingStatistics& statistics, WatchClock::time_point now) {
  const Verdict verdict = judge(room, statistics, now);
  const bool wasFull = std::exchange(mWasFull, verdict == Verdict::kFull);
  return verdict == Verdict::kFull && !wasFull ? Verdict::kEnough : verdict;  // one odd answer ends no recording
}

DiskWatch::Verdict DiskWatch::judge(uint64_t room, const RecordingStatistics& statistics, WatchClock::time_point now) {
  const auto growth = static_cast<double>(statistics.bytes - std::min(statistics.bytes, mBytes));
  mBytes = statistics.bytes;
  const double samples = static_cast<double>(statistics.videoFrames) + static_cast<double>(statistics.audioPackets);
  if (statistics.isDiskShort) room = std::min(room, statistics.bytesReserved);  // a quota shows nowhere else
  const double free = static_cast<double>(room) - kIndexBytes - samples * kIndexBytesPerSample;
  if (statistics.duration < kShortestToJudge || statistics.bytes == 0) {
    mSecondsLeft.reset();
    return free <= 2 * growth ? Verdict::kFull : Verdict::kEnough;
  }
  const double rate = static_cast<double>(statistics.bytes) / (static_cast<double>(statistics.duration) / 1e6);
  mSecondsLeft = std::max(free, 0.0) / rate;
  if (free <= std::max(kSecondsInHand * rate, 2 * growth)) return Verdict::kFull;
  if (*mSecondsLeft > kEnoughAgain) mIsFilling = false;
  if (*mSecondsLeft > kFilling || now - mStart < kTimeToJudge) return Verdict::kEnough;
  return std::exchange(mIsFilling, true) ? Verdict::kEnough : Verdict::kFilling;
}

}  // namespace vesk
