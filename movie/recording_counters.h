#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#include <vesk/queue_levels.h>
#include <vesk/recording_statistics.h>
#include "platform/foundation/mutex.h"
#include "platform/writing/writing_statistics.h"

namespace vesk {

/// Counts what a recording does, where it is done, for anyone to read at any time.
///
/// Threads: everything from any thread, without a lock but for the error, which comes once. The numbers of one
/// snapshot may lie a few samples apart.
class RecordingCounters {
 public:
  using Count = std::atomic<uint64_t>;

  /// One track. Samples go queued → taken from the queue → in the file, or refused there.
  struct Track {
    Count queued{0};
    Count taken{0};
    Count refused{0};   ///< taken, but the writer did not want them
    Count dropped{0};   ///< never queued: the queue was full, or they came out of order
    Count heldBack{0};  ///< nothing to record in them, or not yet
    Count bytesQueued{0};
    Count bytesTaken{0};

    /// Bytes that were queued and not yet taken.
    uint64_t bytesWaiting() const;
  };

  static void add(Count& count, uint64_t more = 1) { count.fetch_add(more, std::memory_order_relaxed); }

  /// A sample that ends at `end` microseconds was queued.
  void noteEnd(uint64_t end);
  /// A frame captured at `captured` is shown at `shown`, in microseconds. @return how late that is
  uint64_t noteFrame(uint64_t captured, uint64_t shown);
  /// The writer has failed with a status, or could not be made; the first failure stays.
  void noteFailure(int32_t status, const Error& error) VESK_EXCLUDES(mErrorMutex);

  /// The writer has taken `written` bytes, which get to the disk as `writing` says.
  void noteWriting(uint64_t written, const WritingStatistics& writing);

  RecordingStatistics statistics() const;
  QueueLevels levels() const;
  /// The same for who may wait: when they are busy, the room handler will be called.
  QueueLevels levelsForSource() const;
  /// Before the first sample.
  void setRoomHandler(std::function<void()> haveRoom) { mHaveRoom = std::move(haveRoom); }
  /// Samples were taken from a queue: calls the room handler if somebody waits and there is room.
  void noteRoom();

  Track video;
  Track audio;
  Count silence{0};  ///< packets put in to fill gaps
  Count bytes{0};
  Count unfit{0};  ///< pictures that the movie cannot hold
  std::atomic<uint32_t> width{0};
  std::atomic<uint32_t> height{0};
  Count forNext{0};  ///< pictures that wait for the next movie
  std::atomic<bool> formatChanged{false};
  std::atomic<bool> writerMissing{false};

 private:
  std::function<void()> mHaveRoom;
  mutable std::atomic<bool> mIsRoomAwaited{false};
  Count mDuration{0};
  Count mVideoLate{0};
  Count mDirect{0};
  Count mBuffered{0};
  Count mFellBehind{0};
  Count mReserved{0};
  std::atomic<bool> mIsDiskShort{false};
  std::atomic<int32_t> mStatus{0};
  std::atomic<bool> mHasError{false};
  mutable Mutex mErrorMutex;
  Error mError VESK_GUARDED_BY(mErrorMutex);
};

}  // namespace vesk
