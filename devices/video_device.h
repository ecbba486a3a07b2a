#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/av_device.h"
#include "platform/foundation/export.h"
#include "platform/media/format_description.h"

namespace vesk {

/// Names under which a host may keep a video format of its own; the devices do not use them.
inline constexpr std::string_view KVXVideoWidth = "kKVXVideoWidth";
inline constexpr std::string_view KVXVideoHeight = "kKVXVideoHeight";
inline constexpr std::string_view KVXVideoCodec = "kKVXVideoCodec";

using CMVideoFormatList = std::vector<CMVideoFormatDescriptionRef>;

/// A camera: lists what it can deliver, captures, and hands every frame to its delegates. A format
/// is chosen with setFormat before capture starts. Letting the camera go stops and closes it.
///
/// Threads: open, close, format and start/stop calls come from the host's thread, one at a time.
/// Frames are delivered on the capture library's thread while the delegate list is locked. Do not
/// hold a lock that a delegate takes while stopping, closing or letting go: they wait for the frame
/// in progress.
class VESK_EXPORT VeskVideoDevice : public VeskAVDevice {
 public:
  /// The cameras attached now, from the device manager.
  static std::shared_ptr<const VeskDeviceList> getVideoDeviceList();
  /// Whether one of them is part of the machine (vendor 0x05AC).
  static bool hasBuiltInCamera();

  /// The camera of the record, closed and idle; null for no record.
  static std::shared_ptr<VeskVideoDevice> initWithDeviceInfo(std::shared_ptr<VeskDeviceInfo> info);
  ~VeskVideoDevice() override;

  /// @return 0 open, also when it was open already; 7 the library could not open the camera, or the
  ///         record's path is missing or longer than 1023 UTF-16 units.
  int32_t openDevice();
  /// Stops capture and closes the camera, also when the stop fails.
  void closeDevice();

  /// The pixel formats as four-character texts in the library's order; none when the camera is not open.
  std::optional<std::vector<std::string>> getMediaFormats() const;
  /// The frame sizes of one pixel format.
  CMVideoFormatList getResolutionsForCodec(uint32_t codec) const;
  /// All formats in all sizes: never null. Asked for once and kept, even when there are none: a
  /// camera that was closed at the first request has an empty list for good.
  std::shared_ptr<const CMVideoFormatList> getSupportedFormats();
  /// Those of `formats` that are of `codec`, in their order; none when `formats` is empty.
  static std::optional<CMVideoFormatList> copyFormatsForCodec(uint32_t codec, const CMVideoFormatList& formats);
  /// The intervals from picture to picture that the camera offers for a format, in ten-millionths
  /// of a second.
  std::vector<uint32_t> getSupportedFrameIntervals(const CMVideoFormatDescriptionRef& format) const;
  /// Always none: intervals are asked for format by format, above.
  std::optional<std::vector<uint32_t>> getSupportedFrameIntervals() const { return mSupportedFrameIntervals; }

  /// The chosen format; null when there is none.
  CMVideoFormatDescriptionRef getFormat() const { return mFormat; }
  /// Chooses the format of the next start; null takes the choice back.
  void setFormat(CMVideoFormatDescriptionRef format) { mFormat = std::move(format); }
  /// Asks the camera for a format at 30 pictures a second.
  /// @return 0 accepted; 2 refused, or no format given; 3 not open.
  int32_t setCaptureFormat(const CMVideoFormatDescriptionRef& format);

  /// Starts capture in the chosen format; a camera that refuses the format captures with what it has.
  /// @return 0 started or already capturing; 2 no format chosen; 3 not open; 6 in use elsewhere; 7
  ///         anything else.
  int32_t startCapture();
  /// @return 0 stopped or not capturing; 3 not open; 7 the library could not stop it: it is still
  ///         capturing and may be stopped again.
  int32_t stopCapture();

  /// Kept for the host. Capture does not heed it. From any thread.
  std::optional<uint32_t> frameInterval() const { return mFrameinterval; }
  void setFrameInterval(std::optional<uint32_t> interval) { mFrameinterval = interval; }

 private:
  using VeskAVDevice::VeskAVDevice;

  std::atomic<std::optional<uint32_t>> mFrameinterval{std::nullopt};
  std::optional<std::vector<uint32_t>> mSupportedFrameIntervals;
  std::shared_ptr<const CMVideoFormatList> mSupportedFormats;
  uint32_t mSubstream = 0;  ///< of the capture under way: 1 for H.264
  CMVideoFormatDescriptionRef mFormat;
};

}  // namespace vesk
