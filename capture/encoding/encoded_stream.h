#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/encoding/h264_encoder.h"
#include "capture/sources/stream_thread.h"
#include "platform/decompression/jpeg_frame_decoder.h"
#include "platform/foundation/mutex.h"
#include "platform/pixels/raw_picture.h"

namespace vesk::capture {

/// Puts Motion JPEG frames into planar 4:2:0 memory, their levels those of video (luma 16 to 235).
///
/// Threads: one at a time.
class JPEGToPlanes {
 public:
  /// For frames of this size only.
  JPEGToPlanes(int width, int height);

  /// @return false when the frame is damaged or of another size
  bool fill(const PlaneMemory& planes, std::span<const uint8_t> jpeg);

 private:
  const int mWidth;
  const int mHeight;
  JPEGFrameDecoder mDecoder;
  std::vector<DecodedPicture> mDecoded;
};

/// What became of the frames of a stream.
struct EncodingCounts {
  uint64_t delivered = 0;
  uint64_t late = 0;     ///< left out for newer ones, the encoder or the receiver being slow
  uint64_t damaged = 0;  ///< not whole, or not of the size that was asked for
  uint64_t failed = 0;   ///< refused by the encoder
};

/// A camera's frames on their way through the encoder to a receiver, on a thread of their own.
///
/// The camera's thread never waits: it leaves its frame in a slot, of which there are a few, and
/// where all are taken the oldest frame that waits gives way.
///
/// Threads: take from one thread at a time, the rest as StreamThread.
class EncodedStream : public StreamThread {
 public:
  /// @param camera its name, for the log
  /// @param input  what the frames come as: "2vuy" or "dmb1", and their size and interval
  /// @return null when the encoder or the thread cannot be had; the log says so
  static std::shared_ptr<EncodedStream> start(const std::string& camera, const VideoParameters& input, uint32_t bitRate,
                                              FrameCallback callback);
  /// Takes a frame of the camera's.
  void take(std::span<const uint8_t> bytes, int64_t timestamp) VESK_EXCLUDES(mMutex);

  EncodingCounts counts() const VESK_EXCLUDES(mMutex);
  /// The next frame to be encoded becomes a key frame. Any thread.
  void requestKeyFrame() { mIsKeyRequested.store(true, std::memory_order_relaxed); }

 private:
  /// A frame that waits: pixels for the encoder, or a JPEG frame.
  struct Slot {
    FrameHandle pixels;
    std::vector<uint8_t> jpeg;
    int64_t timestamp = 0;
  };

  EncodedStream(std::string camera, const VideoParameters& input, FrameCallback callback);

  bool prepare(uint32_t bitRate, Error& error);
  Slot* emptySlot() VESK_EXCLUDES(mMutex);
  bool fill(Slot& slot, std::span<const uint8_t> bytes) const;
  void recycle(Slot& slot, uint64_t EncodingCounts::*counter) VESK_EXCLUDES(mMutex);
  void logThatItIsSlow() const;

  void requestEnd() override VESK_EXCLUDES(mMutex);

  // On the thread.
  void run() override;
  Slot* nextSlot() VESK_EXCLUDES(mMutex);
  uint64_t EncodingCounts::*encode(Slot& slot);
  bool isKeyDue(int64_t timestamp) const;
  void report() const;

  const std::string mCamera;
  const VideoParameters mInput;
  const FrameCallback mCallback;
  std::unique_ptr<H264Encoder> mEncoder;
  std::atomic<bool> mIsKeyRequested{false};

  // The thread's own.
  std::optional<JPEGToPlanes> mJPEG;
  FrameHandle mDecoded;
  std::optional<int64_t> mKeyAt;
  int64_t mLastAt = 0;

  // One is being encoded, one filled; the rest wait.
  std::array<Slot, 4> mSlots;

  mutable Mutex mMutex;
  std::condition_variable_any mChanged;
  std::vector<Slot*> mEmpty VESK_GUARDED_BY(mMutex);
  std::deque<Slot*> mWaiting VESK_GUARDED_BY(mMutex);
  EncodingCounts mCounts VESK_GUARDED_BY(mMutex);
  bool mIsStopping VESK_GUARDED_BY(mMutex) = false;
};

}  // namespace vesk::capture
