#pragma once

#include <memory>
#include <string>

#include <vesk/audio_device.h>
#include <vesk/error.h>
#include <vesk/record_session.h>
#include <vesk/recording_supervisor.h>
#include <vesk/video_device.h>
#include "sessions/recording_folder.h"
#include "sessions/sound_watch.h"

namespace vesk {

/// What one movie is made of. Devices are open and their formats chosen.
struct MoviePlan {
  std::shared_ptr<VeskVideoDevice> camera;
  std::shared_ptr<VeskAudioDevice> microphone;  ///< null: no sound
  CMVideoFormatDescriptionRef videoFormat;
  CMAudioFormatDescriptionRef soundFormat;
  std::string file;
  bool replacesFile = false;
};

/// An error, and the device that it is about, if any.
struct DeviceError {
  Error error;
  std::shared_ptr<VeskDeviceInfo> device;
  bool isRefusal = false;  ///< the device did not open or start; a moment later it may
};

/// One movie, from the folder in which it grows to what became of it.
///
/// Threads: made and started on the main thread; continued, ended and judged on whichever thread is not that one's
/// at the moment: one call at a time. Statistics from any thread.
class MovieRecording {
 public:
  /// Makes the folder. @return null, and why, when the movie cannot grow there
  static std::shared_ptr<MovieRecording> make(MoviePlan plan, FrameTiming timing, Error& error);

  /// Nothing is left of it when a device refuses or the movie cannot be begun.
  DeviceError start();
  /// Whether the camera has changed its parameter sets on the way, so that frames wait for another movie.
  bool isToContinue() const { return mSession->statistics().videoForNext != 0; }
  /// Ends this movie there and goes on in another, without a gap between the two. @return null, and why, when that
  /// cannot be begun: this one goes on without those frames
  std::shared_ptr<MovieRecording> continueIn(const std::string& file, Error& error);
  /// Ends it and puts the movie in its place.
  void stop();
  /// What became of it, after continueIn or stop, with its folder gone unless the movie is still in it. A movie that
  /// is empty, or whose writer gave up before the first frame, is removed; that one is empty is an error unless
  /// `mayBeEmpty`.
  RecordedMovie conclude(bool mayBeEmpty);

  RecordingStatistics statistics() const { return mSession->statistics(); }
  const std::shared_ptr<VeskRecordSession>& session() const { return mSession; }
  /// Listens to the microphone beside the recording; null for a recording without sound.
  const std::shared_ptr<SoundWatch>& soundWatch() const { return mSoundWatch; }
  const MoviePlan& plan() const { return mPlan; }
  /// Where the movie grows.
  std::string growingMovie() const;

 private:
  MovieRecording(MoviePlan plan, std::unique_ptr<RecordingFolder> folder, std::shared_ptr<VeskRecordSession> session,
                 std::shared_ptr<SoundWatch> soundWatch);

  bool isEmpty() const;
  void remove() const;
  void discard(RecordedMovie& movie) const;
  Error errorOf(bool mayBeEmpty, RecordedMovie& movie);
  Error nothingRecorded() const;
  Error writerError() const;
  Error notPlaced(const RecordedMovie& movie) const;
  Error missingTrack() const;

  const MoviePlan mPlan;
  std::unique_ptr<RecordingFolder> mFolder;
  const std::shared_ptr<VeskRecordSession> mSession;
  const std::shared_ptr<SoundWatch> mSoundWatch;
  RecordingOutcome mOutcome;  ///< after the end
};

/// Whether the movie of a failed writer holds anything worth keeping, or nobody knows. What the statistics count may
/// have been lost on the way to the disk. Finishes the movie when it can.
bool holdsFilm(const std::string& movie);

}  // namespace vesk
