#pragma once

#include <memory>
#include <optional>
#include <string>

#include <vesk/capture_source.h>
#include "capture/files/unit_reader.h"
#include "capture/sources/paced_scheduler.h"

namespace vesk::capture {

/// Plays a track to the scheduler, once or in a loop.
class TrackStream : public PacedStream {
 public:
  /// Plays to the end, then what `loop` says again and again; none plays it once. `name` stands in the log;
  /// `slack` is that of a PacedStream.
  TrackStream(std::unique_ptr<UnitReader> reader, FrameCallback callback, std::optional<Loop> loop, std::string name,
              int64_t slack = 0);

  void seek(int64_t time) override;
  std::optional<int64_t> nextTime() override;
  int64_t slack() const override { return mSlack; }
  void deliver(int64_t timestamp) override;

 private:
  bool begin(int64_t time, bool again);
  void logDamage();

  const std::unique_ptr<UnitReader> mReader;
  const FrameCallback mCallback;
  const std::optional<Loop> mLoop;
  const std::string mName;
  const int64_t mSlack;

  bool mHasBegun = false;
  bool mHasEnded = false;
  bool mPassDelivered = false;
  bool mHasLogged = false;
  int64_t mPassStart = 0;  ///< where the footage's time 0 lies in this pass
  int64_t mLastTime = 0;
  std::optional<MediaUnit> mNext;  ///< its time already counted from the first beginning
};

}  // namespace vesk::capture
