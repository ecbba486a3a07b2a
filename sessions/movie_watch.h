#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <vesk/recording_supervisor.h>
#include "sessions/movie_recording.h"
#include "sessions/recording_watches.h"
#include "sessions/supervisor_environment.h"

namespace vesk {

/// Watches one movie while it is recorded: frames that stall, a microphone that is silent or unplugged, the disk.
///
/// Threads: the main thread. The disk, which may take its time to answer, is asked on another.
class MovieWatch {
 public:
  explicit MovieWatch(const SupervisorEnvironment& environment);

  /// What is to be reported now. `microphone` is the one that is heard: after its return it is another device than
  /// the plan's. Null without sound.
  std::vector<RecordingEvent> look(const MovieRecording& movie, const VeskAudioDevice* microphone,
                                   const RecordingStatistics& statistics);
  /// Why the movie must end, while there is just enough room to finish it; no error while there is more.
  const Error& mustEnd() const { return mMustEnd; }

  void microphoneRemoved();
  void microphoneReturned();
  bool isMicrophoneLost() const { return mMicrophoneLost.has_value(); }
  std::optional<double> secondsLeftOnDisk() const { return mDisk.secondsLeft(); }

 private:
  /// The room on the disk, as of the last time that it was asked for.
  struct RoomGauge {
    std::atomic<bool> isAsking{false};
    std::atomic<int64_t> bytes{-1};  ///< negative: not known
  };

  void watchFrames(const MovieRecording& movie, const RecordingStatistics& statistics);
  void watchSound(const MovieRecording& movie, const VeskAudioDevice* microphone);
  void watchDisk(const MovieRecording& movie, const RecordingStatistics& statistics);
  void askForRoom(const MovieRecording& movie);
  void report(RecordingEventKind kind, std::shared_ptr<VeskDeviceInfo> device, Error error = {});

  const SupervisorEnvironment& mEnvironment;
  const std::shared_ptr<RoomGauge> mRoom = std::make_shared<RoomGauge>();
  WatchClock::time_point mNow;
  WatchClock::time_point mRoomAsked;
  std::optional<WatchClock::time_point> mMicrophoneLost;
  bool mIsLossReported = false;
  StallWatch mFrames;
  StallWatch mPackets;
  QuietWatch mQuiet;
  DiskWatch mDisk;
  Error mMustEnd;
  std::vector<RecordingEvent> mEvents;  ///< of the look under way
};

}  // namespace vesk
