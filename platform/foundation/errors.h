#pragma once

#include <exception>
#include <string>

#include <vesk/error.h>
#include <vesk/ns_error.h>
#include "platform/foundation/mutex.h"

namespace vesk {

/// What an errno value of a file or folder means.
Cause fileCause(int error);

/// What a person can do about a file of that cause; empty where nothing is known.
std::string fileRemedy(Cause cause);
/// The same as an operation of the library's own answers it; no error for none.
Error errorOf(const NSError& error);
/// What failed because the computer had no memory, thread or open file left for it, which is why something is thrown.
Error errorOf(const std::string& what, const std::exception& reason, std::string subject = "");

/// The error as sentences, for the log: "The camera "X" could not be opened: no permission. Log in again."
std::string sentences(const Error& error);
/// Logs an error that a call answers too.
void logError(const Error& error);

/// Why an object's last operation failed, for every thread.
class LastError {
 public:
  Error get() const VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return mError;
  }
  void set(Error error) VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    std::swap(mError, error);
  }
  void clear() VESK_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    if (mError) mError = {};
  }

 private:
  mutable Mutex mMutex;
  Error mError VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk
