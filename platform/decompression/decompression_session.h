#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "platform/decompression/decompression_session_options.h"
#include "platform/decompression/decompression_tracking.h"
#include "platform/decompression/frame_decoder.h"
#include "platform/decompression/frame_time_record.h"
#include "platform/decompression/image_description.h"
#include "platform/decompression/pixel_buffer_attributes.h"
#include "platform/decompression/status.h"

namespace vesk {

/// Decodes the frames of one stream and hands each picture to a tracking callback.
///
/// Pictures have the size that the stream gives them, within the bounds of picture_limits.h, and the
/// pixel format that their decoder produces. Damage costs the pictures that it touches and no more:
/// the stream is whole again from its next key frame on.
///
/// Threads: one at a time. The callback is called on the caller's thread, from inside decodeFrame,
/// setNonScheduledDisplayTime or the destructor; it must not release the session.
class ICMDecompressionSession {
 public:
  /// Makes a session for frames that `description` describes. `options` may be null.
  /// @return paramErr when the description has no possible size, or the attributes ask for another
  ///         one (nothing is scaled here); noCodecErr when nothing decodes its codec; memFullErr.
  static OSStatus create(const ImageDescription& description, const ICMDecompressionSessionOptions* options,
                         const PixelBufferAttributes& attributes,
                         const ICMDecompressionTrackingCallbackRecord& trackingCallback,
                         std::unique_ptr<ICMDecompressionSession>* session);

  /// Reports the pictures that were not called for as dropped.
  ~ICMDecompressionSession();
  ICMDecompressionSession(const ICMDecompressionSession&) = delete;
  ICMDecompressionSession& operator=(const ICMDecompressionSession&) = delete;

  /// Decodes a frame; `data` is not needed afterwards. With a non-scheduled display time its picture
  /// waits for setNonScheduledDisplayTime; without, it is emitted at once. `sourceFrameRefCon` comes
  /// back with it.
  /// @return what FrameDecoder::decode does, after the callback has heard of it; paramErr for an
  ///         empty frame or a record of another size.
  OSStatus decodeFrame(std::span<const uint8_t> data, const ICMFrameTimeRecord& frameTime, void* sourceFrameRefCon);

  /// Emits what has been decoded, oldest first. There is no clock to wait for, and times may wrap, so
  /// `displayTime`, in units of 1/timeScale seconds, holds nothing back. `flags` is 0.
  /// @return paramErr for a time scale that is not positive or other flags.
  OSStatus setNonScheduledDisplayTime(int64_t displayTime, int32_t timeScale, uint32_t flags);

 private:
  /// A frame whose picture has not come out yet.
  struct Frame {
    int64_t number = 0;  ///< counts the frames of this session
    int64_t displayTime = 0;
    int32_t duration = 0;
    void* refCon = nullptr;
  };
  struct Waiting {
    CVImageBufferRef image;
    Frame frame;
  };

  ICMDecompressionSession(std::unique_ptr<FrameDecoder> decoder,
                          const ICMDecompressionTrackingCallbackRecord& trackingCallback);
  Frame takeFrame(int64_t number);
  void forgetOldFrames();
  void track(OSStatus result, ICMDecompressionTrackingFlags flags, const CVImageBufferRef& image,
             const Frame& frame) const;
  void emitAll();

  std::unique_ptr<FrameDecoder> mDecoder;
  ICMDecompressionTrackingCallbackRecord mCallback;
  std::deque<Frame> mDecoding;            ///< in the decoder, by number
  std::vector<DecodedPicture> mPictures;  ///< what one call brought; kept for its memory
  std::deque<Waiting> mWaiting;           ///< decoded, not yet emitted
  int64_t mLastNumber = 0;
};

using ICMDecompressionSessionRef = std::unique_ptr<ICMDecompressionSession>;

}  // namespace vesk
