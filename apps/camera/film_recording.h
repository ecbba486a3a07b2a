#pragma once

#include <sigc++/sigc++.h>

#include <memory>
#include <optional>
#include <string>

#include <vesk/recording_supervisor.h>
#include "apps/camera/live_capture.h"
#include "apps/camera/message_list.h"

namespace vesk::camera {

/// Records what a LiveCapture shows, and hears, into films of a folder. On the main thread.
class FilmRecording {
 public:
  explicit FilmRecording(LiveCapture& capture);

  /// Starts a film in `folder`, which is made when it is not there. @return why not
  Error start(const std::string& folder);
  void stop() { mSupervisor->stop(); }
  /// From start until the last film is in its place.
  bool isActive() const { return mIsActive; }
  bool isWaiting() const { return mIsWaiting; }
  RecordingProgress progress() const { return mSupervisor->progress(); }

  /// It has begun, waits for its camera, goes on, or has ended.
  sigc::signal<void()>& signal_changed() { return mChanged; }
  sigc::signal<void(const Message&)>& signal_message() { return mMessage; }
  /// What was said under that name is no longer so.
  sigc::signal<void(const std::string&)>& signal_messageGone() { return mMessageGone; }
  /// A film has begun, the first or another.
  sigc::signal<void()>& signal_started() { return mStarted; }
  /// A film is in its place.
  sigc::signal<void(const RecordedMovie&)>& signal_finished() { return mFinished; }

 private:
  void onEvent(const RecordingEvent& event);
  void say(const RecordingEvent& event);

  LiveCapture& mCapture;
  bool mIsActive = false;
  bool mIsWaiting = false;
  sigc::signal<void()> mChanged;
  sigc::signal<void(const Message&)> mMessage;
  sigc::signal<void(const std::string&)> mMessageGone;
  sigc::signal<void()> mStarted;
  sigc::signal<void(const RecordedMovie&)> mFinished;
  std::shared_ptr<VeskRecordingSupervisor> mSupervisor;  ///< goes first, and waits until a film is in its place
};

}  // namespace vesk::camera
