#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "apps/vesk/program.h"
#include "apps/vesk/recording_folder.h"
#include "devices/audio_device.h"
#include "devices/video_device.h"
#include "sessions/record_session.h"

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
  /// Ends it and puts the movie in its place; finish tells how that went.
  void stop();
  /// What was recorded, after stop. @throws Failure when the writer gave up, the movie could not be
  /// placed, or nothing came.
  RecordingStatistics finish();

  /// What to say when a microphone was to be heard and none of its sound is in the movie.
  std::optional<Failure> missingSound(const RecordingStatistics& statistics) const;

  /// Whether nothing had come when it was stopped.
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
  void checkStarted(int32_t status);
  void removeRefused() const;
  Failure writerFailure(const RecordingStatistics& statistics, const std::string& place) const;
  Failure notPlaced(const RecordingOutcome& outcome) const;

  const RecordingPlan mPlan;
  const RecordingFolder mFolder;
  const std::shared_ptr<VeskRecordSession> mSession;
};

/// `name`, or `name`-2, -3, … where a file of that name with `ending` is there already.
std::string freeName(const std::string& name, const std::string& ending);

/// "0:01:05" and "12.3 MB".
std::string humanTime(uint64_t microseconds);
std::string humanSize(uint64_t bytes);

}  // namespace vesk::program
