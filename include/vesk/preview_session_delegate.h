#pragma once

#include <vesk/export.h>

namespace vesk {

/// What a preview tells its host.
class VESK_EXPORT VeskPreviewSessionDelegate {
 public:
  virtual ~VeskPreviewSessionDelegate() = default;

  /// The level of the attached microphone in decibels: 0 at full scale, negative below, negative
  /// infinity when metering ends. On the main thread, but for that last one, which comes on the
  /// thread that ends metering.
  virtual void audioGainChanged(float level) = 0;
};

/// Implemented by a preview delegate that wants to know of the pointer as well. On the main thread.
class VESK_EXPORT VeskPreviewPointerDelegate {
 public:
  virtual ~VeskPreviewPointerDelegate() = default;

  virtual void mouseDidEnterView() = 0;
  virtual void mouseDidLeaveView() = 0;
};

}  // namespace vesk
