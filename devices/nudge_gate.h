#pragma once

#include <condition_variable>

#include <vesk/export.h>
#include "platform/foundation/mutex.h"

namespace vesk {

/// What nudges of a motorised head pass on their way: counts those that have been asked for, and keeps
/// them out while the camera is being closed. A head whose stop is lost turns on to its end, so whoever
/// closes waits for the turn under way, but not for the nudges behind it.
///
/// Threads: every operation from any thread. A turn is the innermost: nothing is waited for inside it but
/// the camera.
class VESK_LOCAL NudgeGate {
 public:
  /// The gate that the nudges of all cameras pass beside their camera's own.
  static NudgeGate& ofAllCameras();

  /// A nudge that waits or runs, from the request to its end.
  void add() VESK_EXCLUDES(mMutex);
  void remove() VESK_EXCLUDES(mMutex);
  void waitUntilNone() VESK_EXCLUDES(mMutex);

  /// A head that turns, from before the move until after its stop; false while the gate is closed, and
  /// then the head must not be moved.
  class Turn {
   public:
    explicit Turn(NudgeGate& gate);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return mIsAllowed; }

   private:
    NudgeGate& mGate;
    const bool mIsAllowed;
  };

  /// Keeps the gate closed; begins by waiting for the turn under way.
  class Closing {
   public:
    explicit Closing(NudgeGate& gate);
    ~Closing();
    Closing(const Closing&) = delete;
    Closing& operator=(const Closing&) = delete;

   private:
    NudgeGate& mGate;
  };

 private:
  bool beginTurn() VESK_EXCLUDES(mMutex);

  Mutex mMutex;
  std::condition_variable_any mChanged;
  int mNudges VESK_GUARDED_BY(mMutex) = 0;
  int mTurns VESK_GUARDED_BY(mMutex) = 0;
  int mClosings VESK_GUARDED_BY(mMutex) = 0;
};

}  // namespace vesk
