#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capture/linux/sound/packetizer.h"
#include "capture/linux/sound/sound_system.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// Takes a stream's sound off its thread, which must not wait, and hands it on as packets on a
/// thread of its own. Keeps up to ten seconds; what the receiver is too slow for is counted as lost,
/// and losses in a row are one, so that what waits is bounded whatever the stream does.
/// Losses are logged, at most every five seconds. So is a microphone that sends nothing for longer than the
/// patience, again every ten times as long, and that its sound is back.
///
/// Threads: every operation from any thread. Made by begin, and ended before it is let go.
class SoundDelivery : public SoundSink, public std::enable_shared_from_this<SoundDelivery> {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kPatience{3000};

  /// `name` is the microphone's, for the log; `patience` how long it may send no sound before that is logged.
  SoundDelivery(std::string name, const WaveFormat& format, FrameCallback callback,
                std::chrono::milliseconds patience = kPatience);

  /// Starts the thread.
  void begin();
  /// Ends the thread, and waits for it unless called from inside a callback, which then is the last. The
  /// stream must have been destroyed before.
  void end() VESK_EXCLUDES(mMutex);
  /// How much was lost until now, how often.
  uint64_t overruns() const VESK_EXCLUDES(mMutex);
  /// How many blocks and losses wait for the receiver.
  size_t waiting() const VESK_EXCLUDES(mMutex);

  void sound(std::span<const uint8_t> bytes, int64_t time) override VESK_EXCLUDES(mMutex);
  void lost(uint64_t frames) override VESK_EXCLUDES(mMutex);
  void ended() override VESK_EXCLUDES(mMutex);

 private:
  struct SoundBlock {
    std::vector<uint8_t> bytes;  ///< none: frames were lost
    int64_t time = 0;
    uint64_t lostFrames = 0;
    bool isLossUnknown = false;  ///< of more frames than these, nobody knows how many
  };

  void run() VESK_EXCLUDES(mMutex);
  std::deque<SoundBlock> take() VESK_EXCLUDES(mMutex);
  void process(const SoundBlock& block);
  void noteSound();
  void reportSilence() VESK_EXCLUDES(mMutex);
  void append(SoundBlock block) VESK_REQUIRES(mMutex);
  void loseLocked(uint64_t frames) VESK_REQUIRES(mMutex);
  void reportOverruns(bool isLast) VESK_EXCLUDES(mMutex);

  const std::string mName;
  const std::chrono::milliseconds mPatience;
  const size_t mFrameBytes;
  const size_t mMostBytes;
  const FrameCallback mCallback;
  SoundPacketizer mPacketizer;     // of the thread
  int64_t mReportedAt = 0;         // of the thread
  Clock::time_point mLastSoundAt;  // of the thread: when sound came last
  Clock::time_point mDueAt;        // of the thread: when that is logged if none comes
  bool mIsSilent = false;          // of the thread: it has been logged

  std::atomic<bool> mIsEnded = false;  // set under mMutex, for those who wait

  mutable Mutex mMutex;
  std::condition_variable_any mChanged;
  std::deque<SoundBlock> mWaiting VESK_GUARDED_BY(mMutex);
  size_t mWaitingBytes VESK_GUARDED_BY(mMutex) = 0;
  uint64_t mOverruns VESK_GUARDED_BY(mMutex) = 0;
  uint64_t mReportedOverruns VESK_GUARDED_BY(mMutex) = 0;
  bool mIsDropping VESK_GUARDED_BY(mMutex) = false;
  bool mHasStreamEnded VESK_GUARDED_BY(mMutex) = false;  // reported by the stream: nothing will come
  std::thread mThread VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
