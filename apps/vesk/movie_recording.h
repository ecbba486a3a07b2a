#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include <vesk/audio_device.h>
#include <vesk/record_session.h>
#include <vesk/video_device.h>
#include "apps/vesk/program.h"
#include "apps/vesk/recording_folder.h"
#include "apps/vesk/sound_watch.h"

namespace vesk::program {

/// What is recorded, and where to. Devices are open and their formats chosen.
struct RecordingPlan {
  std::shared_ptr<VeskVideoDevice> camera;
  std::shared_ptr<VeskAudioDevice> microphone;  ///< null: no sound
  CMVideoFormatDescriptionRef videoFormat;
  CMAudioFormatDescriptionRef soundFormat;
  std::string file;
  bool force = false;  ///< replace the file when it exists
};

/// One movie, from the first look at its place to its summary. It grows in a hidden folder beside
/// its place. Main thread only, but for isWriterBusy.
class MovieRecording {
 public:
  /// Refuses what would fail at the end, before anything is recorded; tells of leftovers of a crash.
  /// @throws Failure
  static void checkTarget(const std::string& file, bool force);

  /// Makes the folder. @throws Failure when the movie cannot grow there.
  explicit MovieRecording(RecordingPlan plan);

  /// @throws Failure when a device refuses or the movie cannot be begun; nothing is left then.
  void start();
  /// Listens to a microphone's sound beside the recording; null for a recording without sound.
  const std::shared_ptr<SoundWatch>& soundWatch() const { return mSoundWatch; }
  /// What to say of a microphone that has been quiet for long: once for each time that it is, and less and less
  /// often, since talks have pauses.
  std::optional<std::string> quietMicrophone();
  /// Ends it and puts the movie in its place; finish tells how that went.
  void stop();
  /// Whether the camera has changed its pictures on the way, so that they wait for another movie.
  bool isToContinue() const { return !mOutcome && mSession->statistics().videoForNext != 0; }
  /// Ends this movie there and goes on in one at `file`, without a gap between the two; finish tells how this
  /// one went. @throws Failure when the other cannot be begun: this one goes on without those pictures
  std::unique_ptr<MovieRecording> continueIn(const std::string& file);
  /// What was recorded, after stop. A movie that is empty or that its writer gave up before the first
  /// picture is removed. @throws Failure when the writer gave up, the movie could not be placed, or it is empty
  RecordingStatistics finish();
  /// Removes what was recorded, after stop.
  void remove() const;

  /// What to say when no picture is in the movie, or none of the sound of a microphone that was to be heard.
  std::optional<Failure> missingTrack(const RecordingStatistics& statistics) const;

  /// Whether nothing worth keeping had come when it was stopped: no picture, and less sound than microphones
  /// send while a camera is being started.
  bool isEmpty() const;

  RecordingStatistics statistics() const { return mSession->statistics(); }
  /// For asking on a capture thread.
  const std::shared_ptr<VeskRecordSession>& session() const { return mSession; }
  const RecordingPlan& plan() const { return mPlan; }

  /// "{"file", "duration", …}" of what finish answered.
  nlohmann::ordered_json document(const RecordingStatistics& statistics) const;
  /// The same as a line for a person.
  std::string summary(const RecordingStatistics& statistics) const;

 private:
  MovieRecording(RecordingPlan plan, const MovieRecording& before);
  void checkStarted(int32_t status);
  Failure nothingRecorded(const RecordingStatistics& statistics) const;
  Failure writerFailure(const RecordingStatistics& statistics, const std::string& place) const;
  Failure notPlaced(const RecordingOutcome& outcome) const;
  const RecordingOutcome& outcome() const { return *mOutcome; }

  const RecordingPlan mPlan;
  const RecordingFolder mFolder;
  const std::shared_ptr<VeskRecordSession> mSession;
  const std::shared_ptr<SoundWatch> mSoundWatch;
  std::optional<RecordingOutcome> mOutcome;  ///< after the end
  double mQuietLimit = 10;                   ///< seconds
  bool mIsQuietTold = false;
};

/// "[####      ]  -31 dB", "silence" at the end where there is none.
std::string levelBar(float level, int cells);
/// For how much longer there is room on the disk of a movie that has grown like this; none when that is unknown.
std::optional<std::string> timeLeftOnDisk(const std::string& file, const RecordingStatistics& statistics);

/// `name`, or `name`-2, -3, … where a file of that name with `ending` is there already, or is `taken`: a movie
/// that is still being recorded is not in its place yet.
std::string freeName(const std::string& name, const std::string& ending, const std::string& taken = "");

/// The name of the movie after those that began with `first`: NAME-2, or the next number that is free.
std::string nextName(const std::string& first, const std::string& taken = "");

/// "0:01:05" and "12.3 MB".
std::string humanTime(uint64_t microseconds);
std::string humanSize(uint64_t bytes);

}  // namespace vesk::program
