#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <vesk/capture_host.h>
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// A device's stream of frames or packets in a source that keeps its own time. Times are microseconds
/// of the source, counted from its beginning. Called on the scheduler's thread only.
class PacedStream {
 public:
  virtual ~PacedStream() = default;
  /// Makes `time` the place from which the stream goes on; called before the first delivery.
  virtual void seek(int64_t time) = 0;
  /// When the next frame is due; none at the end.
  virtual std::optional<int64_t> nextTime() = 0;
  /// How much later than it is due a frame may be delivered in real time, microseconds, where it then comes along with
  /// one of another stream: the processor wakes once for both. Always the same, asked on any thread.
  virtual int64_t slack() const { return 0; }
  /// Delivers the frame that is due, stamped `timestamp` (microseconds of the process's monotonic clock).
  virtual void deliver(int64_t timestamp) = 0;
};

/// Plays the streams of one source on one thread, in the order of their times: by the clock or as
/// fast as the receivers take it, as the Transport says. A stream that joins late joins at the time
/// the others have reached. Time stamps are the source's time on top of the monotonic clock's value
/// at the first start (or at the release, when the transport was held), so they are never 0 and
/// never go back. When the last stream has left, time begins anew: the next start plays from 0, its
/// time stamps later than all before.
///
/// Threads: every operation from any thread. No lock is held while a stream is called.
class PacedScheduler {
 public:
  /// `transport` must outlive the scheduler.
  explicit PacedScheduler(Pace pace, Transport& transport = Transport::shared());
  /// Ends the thread; waits for it, unless the call comes from inside a delivery.
  ~PacedScheduler();
  PacedScheduler(const PacedScheduler&) = delete;
  PacedScheduler& operator=(const PacedScheduler&) = delete;

  void add(std::shared_ptr<PacedStream> stream);
  /// Takes a stream out. Once it has returned the stream is not called any more, unless it was
  /// called from inside a delivery.
  void remove(const std::shared_ptr<PacedStream>& stream);

 private:
  class Player;
  std::shared_ptr<Player> mPlayer;  // shared with its thread
};

/// The one stream that a device has on a scheduler.
///
/// Threads: every operation from any thread, begin one at a time.
class PacedCapture {
 public:
  explicit PacedCapture(PacedScheduler& scheduler) : mScheduler(scheduler) {}

  bool isRunning() const VESK_EXCLUDES(mMutex);
  void begin(std::shared_ptr<PacedStream> stream) VESK_EXCLUDES(mMutex);
  /// Takes the stream out, see PacedScheduler::remove. @return whether there was one
  bool end() VESK_EXCLUDES(mMutex);

 private:
  PacedScheduler& mScheduler;
  mutable Mutex mMutex;
  std::shared_ptr<PacedStream> mStream VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
