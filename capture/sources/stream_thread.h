#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "platform/foundation/mutex.h"

namespace vesk::capture {

/// A stream of a device's, which calls its receiver on a thread of its own and may be stopped from inside
/// such a call.
///
/// Threads: every operation from any thread.
class StreamThread : public std::enable_shared_from_this<StreamThread> {
 public:
  virtual ~StreamThread();
  StreamThread(const StreamThread&) = delete;
  StreamThread& operator=(const StreamThread&) = delete;

  /// Ends the thread and waits for it. From inside the receiver's call it waits for nothing, and that call is
  /// the last.
  void stop();
  /// Waits for a thread that was asked to end, unless it is the caller's own.
  void wait() VESK_EXCLUDES(mJoinMutex);
  /// Whether the thread has come to its end, or never began.
  bool isFinished() const { return mIsFinished; }
  bool isInside() const { return tCurrent == this; }

 protected:
  StreamThread() = default;

  /// Starts the thread, which holds the stream. Throws std::system_error.
  void begin(const char* name);
  virtual void run() = 0;
  /// Makes run return soon. From any thread.
  virtual void requestEnd() = 0;
  /// What a stop from inside the receiver's call must not leave to the end of the thread.
  virtual void leave() {}

 private:
  static thread_local const StreamThread* tCurrent;

  std::atomic<bool> mIsFinished{true};
  Mutex mJoinMutex;  // two may wait at once
  std::thread mThread;
};

}  // namespace vesk::capture
