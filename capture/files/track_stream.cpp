#include "capture/files/track_stream.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include <vesk/log.h>

namespace vesk::capture {

TrackStream::TrackStream(std::unique_ptr<UnitReader> reader, FrameCallback callback, std::optional<Loop> loop,
                         std::string name, int64_t slack)
    : mReader(std::move(reader)),
      mCallback(std::move(callback)),
      mLoop(loop && loop->length() > 0 ? loop : std::nullopt),
      mName(std::move(name)),
      mSlack(slack) {}

void TrackStream::seek(int64_t time) {
  mNext.reset();
  mHasEnded = !begin(std::max<int64_t>(time, 0), false);
}

bool TrackStream::begin(int64_t time, bool again) {
  mHasBegun = true;
  mPassStart = mLoop && time >= mLoop->end ? (time - mLoop->begin) / mLoop->length() * mLoop->length() : 0;
  mPassDelivered = !again && time > 0;  // a pass joined midway may have nothing more to give
  return mReader->start(time - mPassStart, again);
}

std::optional<int64_t> TrackStream::nextTime() {
  if (!mHasBegun) seek(0);
  while (!mNext && !mHasEnded) {
    mNext = mReader->next();
    if (mNext) {
      mPassDelivered = true;
      mNext->time = mLastTime = std::max(mLastTime, mNext->time + mPassStart);
      break;
    }
    logDamage();
    // A pass without anything would be followed by another one like it, for ever.
    mHasEnded = !mLoop || !mPassDelivered || !begin(mPassStart + mLoop->end, true);
  }
  return mNext ? std::optional(mNext->time) : std::nullopt;
}

void TrackStream::deliver(int64_t timestamp) {
  if (!nextTime()) return;
  const auto bytes = mNext->bytes;
  mNext.reset();
  mCallback(bytes.data(), static_cast<uint32_t>(bytes.size()), timestamp);
}

void TrackStream::logDamage() {
  if (mHasLogged || mReader->damage().empty()) return;
  mHasLogged = true;
  NSLog(LogLevel::kWarning,
        fmt::format("{}: footage is damaged and was not delivered whole: {}", mName, mReader->damage()));
}

}  // namespace vesk::capture
