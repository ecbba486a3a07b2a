#pragma once

#include <memory>

#include "capture/capture_source.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// What stands behind the C interface: the source in use.
class Library {
 public:
  static Library& shared();

  void setSource(std::shared_ptr<CaptureSource> source) VESK_EXCLUDES(mMutex);
  std::shared_ptr<CaptureSource> source() VESK_EXCLUDES(mMutex);

 private:
  Mutex mMutex;
  std::shared_ptr<CaptureSource> mSource VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
