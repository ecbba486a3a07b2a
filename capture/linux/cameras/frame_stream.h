#pragma once

#include <linux/videodev2.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/linux/cameras/camera_modes.h"
#include "capture/linux/cameras/frame_clock.h"
#include "capture/linux/cameras/pixel_formats.h"
#include "capture/linux/nodes/open_node.h"
#include "capture/sources/stream_thread.h"
#include "platform/foundation/mutex.h"
#include "platform/h264/access_unit_writer.h"

namespace vesk::capture {

/// What became of the frames of a stream.
struct StreamCounts {
  uint64_t delivered = 0;
  uint64_t damaged = 0;  ///< marked so by the driver, or not whole
  uint64_t empty = 0;
  uint64_t late = 0;  ///< dropped for newer ones: the receiver was slow
  uint64_t lost = 0;  ///< by the driver, as its numbers show
};

/// A camera's frames on their way from the driver to a receiver, on a thread of their own. The
/// receiver is given the driver's own buffer where that holds what it asked for.
///
/// A receiver that is slow does not hold up the driver for longer than its call: of the frames that
/// wait meanwhile, the oldest are dropped, except for H.264, where each needs the one before it.
///
/// A camera that sends nothing whole for three seconds, or fails, is started anew once at once. When that
/// does not help, the log says so, and again every half minute with a further try, until frames come
/// again or the camera is taken away: a recording goes on with what there is.
///
/// Threads: as StreamThread. Once stop has returned the node may be started anew.
class FrameStream : public StreamThread {
 public:
  /// Sets the node to `mode` and starts.
  /// @param name of the camera, for the log
  /// @return null with the status in `status`, and the reason given to `failed`: 19 when the camera is in use
  ///         elsewhere
  static std::shared_ptr<FrameStream> start(std::shared_ptr<OpenNode> node, const CameraMode& mode,
                                            const VideoParameters& parameters, const std::string& name,
                                            FrameCallback callback, int32_t& status);
  ~FrameStream() override;

  StreamCounts counts() const;

 private:
  struct Buffer {
    uint8_t* memory = nullptr;
    size_t length = 0;
  };

  FrameStream(std::shared_ptr<OpenNode> node, const PixelFormat& format, std::string name, FrameCallback callback);

  // Setting up: 0 or a negated errno value.
  int setFormat(const CameraMode& mode);
  int setInterval(const CameraMode& mode, const VideoParameters& parameters);
  int makeBuffers();
  int streamOn();
  void release() VESK_EXCLUDES(mMutex);

  void requestEnd() override;
  void leave() override { release(); }

  // On the thread.
  void run() override;
  void waitForFrame();
  bool dequeueWaiting();
  void deliverWaiting();
  void deliver(const v4l2_buffer& buffer);
  std::span<uint8_t> prepare(std::span<uint8_t> payload);
  bool queueBuffer(uint32_t index);
  bool isAttached() const;
  bool recover();
  bool restart();
  void frameCame();
  using Count = std::atomic<uint64_t>;
  struct Counts {
    Count delivered{0}, damaged{0}, empty{0}, late{0}, lost{0};
  };
  void count(Count Counts::*which, uint64_t by = 1) { (mCounts.*which).fetch_add(by, std::memory_order_relaxed); }
  void countGap(uint32_t sequence);
  void report();

  const std::shared_ptr<OpenNode> mNode;
  const PixelFormat& mFormat;
  const std::string mName;
  const FrameCallback mCallback;
  const int mWake;
  FrameFormat mFrameFormat;
  std::vector<Buffer> mBuffers;
  std::optional<FrameClock> mClock;
  std::optional<PixelConverter> mConverter;
  std::optional<h264::AccessUnitWriter> mUnits;
  std::atomic<bool> mIsStopping = false;
  Counts mCounts;

  // The thread's own.
  std::vector<v4l2_buffer> mWaiting;
  int64_t mEmptyAt = 0;
  std::optional<uint32_t> mSequence;
  bool mIsBroken = false;    // reported by the last poll
  bool mIsDown = false;      // cannot be waited for until it has been started anew
  bool mIsOverdue = false;   // the time to wait for a frame is over
  int64_t mPatience = 0;     // microseconds without a whole frame before something is done
  int64_t mDueAt = 0;        // when something must be done if no whole frame has come
  int64_t mLastFrameAt = 0;  // or the start
  int64_t mNextReportAt = 0;
  int mFailures = 0;  // since the last whole frame

  Mutex mMutex;
  bool mIsReleased VESK_GUARDED_BY(mMutex) = true;
};

}  // namespace vesk::capture
