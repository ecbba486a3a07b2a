#include "capture/library.h"

#include <utility>

namespace vesk::capture {

Library& Library::shared() {
  static Library* const library = new Library;  // outlives every thread that may call in
  return *library;
}

void Library::setSource(std::shared_ptr<CaptureSource> source) {
  MutexLock lock(mMutex);
  mSource.swap(source);
}

std::shared_ptr<CaptureSource> Library::source() {
  MutexLock lock(mMutex);
  return mSource;
}

}  // namespace vesk::capture
