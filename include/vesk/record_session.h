#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <vesk/device_delegate.h>
#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/frame_timing.h>
#include <vesk/queue_levels.h>
#include <vesk/recording_statistics.h>
#include <vesk/status.h>

namespace vesk {

class VeskAudioDevice;
class VeskVideoDevice;

/// What became of a recording.
struct RecordingOutcome {
  std::string finalPath;           ///< where the movie was to go; empty before the first stop
  std::string temporaryPath;       ///< where the movie was left; empty when it is at finalPath or nowhere
  bool isPlaced = false;           ///< whether the movie is at finalPath
  bool isLeft = false;             ///< it is where it was written: at temporaryPath, or on a disk that has gone
  Error error;                     ///< why it is not, or why it ends before the recording did
  RecordingStatistics statistics;  ///< as the movie was closed
};

/// Records a camera and a microphone into a movie: written in the temporary folder, moved to its
/// final path when the session stops.
///
/// A device that captures already, for a preview, is joined and not started. Stopping stops the
/// microphone and leaves the camera running, unless a preview has asked for its stop or close meanwhile:
/// the recording keeps the camera on, and carries that out when it ends. A microphone without a chosen
/// format is opened, and takes no part.
///
/// While a recording runs, its devices hold the session: letting it go does not end the recording,
/// stopSession does. Do not stop a session from inside one of its devices' frames.
///
/// Threads: every operation from any thread.
class VESK_EXPORT VeskRecordSession : public VeskAVDeviceDelegate,
                                      public std::enable_shared_from_this<VeskRecordSession> {
 public:
  /// A session that is not running. Either device may be null; not both when it is started.
  /// @param fileURL the final path, UTF-8, at which nothing may be when the session stops
  static std::shared_ptr<VeskRecordSession> initWithVideoDevice(std::shared_ptr<VeskVideoDevice> videoDevice,
                                                                std::shared_ptr<VeskAudioDevice> audioDevice,
                                                                std::string fileURL);
  /// Clears up after a refused start, as stopSession does.
  ~VeskRecordSession() override;

  /// Opens what is closed, opens the movie, and starts what is not capturing.
  ///
  /// After a refused start of a device the session stays among the devices' delegates with an open
  /// movie, until it is stopped, started again or let go: each of these deletes that movie first.
  /// @return 0 running; 1, 2 or 8 the movie could not be opened (VeskRecorder; 8 also for a final
  ///         path that names no file, and where memory runs out); 9 it is running already, or being
  ///         started or stopped; else the status of the capture start that was made last, the
  ///         microphone's after the camera's: a camera's refusal alone does not stop a recording of sound.
  int32_t startSession();

  /// Ends the recording and moves the movie to its final path; lastOutcome tells how that went.
  /// Serves this thread's run loop for half a second meanwhile. @return 0
  int32_t stopSession();

  /// Whether the host goes on, with continueSession, when the camera changes its parameter sets on the way,
  /// which no movie can hold together: with its size for instance. False unless it chooses otherwise: such
  /// pictures are then left out (statistics: formatChanged, videoUnfit).
  bool continues() const;
  void setContinues(bool continues);
  /// Goes on in another movie, which ends up at `fileURL`. The recording so far goes to its own place, and
  /// lastOutcome tells how that went. For a host that sees pictures wait (statistics: videoForNext): they,
  /// and the sound from then on, are what the other movie begins with. Nothing is stopped meanwhile.
  /// @return 0; 1 or 8 the other movie could not be opened, and the recording goes on as it was; 10 it is not
  ///         running
  int32_t continueSession(const std::string& fileURL);

  /// Hands a buffer to the recording, if there is one: video for device type 0, else sound. The
  /// devices' buffers come by a way of their own.
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override;

  /// The devices of the next start.
  std::shared_ptr<VeskVideoDevice> videoDevice() const;
  void setVideoDevice(std::shared_ptr<VeskVideoDevice> device);
  std::shared_ptr<VeskAudioDevice> audioDevice() const;
  void setAudioDevice(std::shared_ptr<VeskAudioDevice> device);
  /// When the pictures of the next recording are shown: kSteady unless the host chooses otherwise. kCapture
  /// keeps the camera's own times, at any rate, and with them those of 16-bit PCM: sound of a microphone whose
  /// crystal runs fast or slow is resampled, so that it stays within 20 ms of its capture time, and sound that
  /// is in time is left as it is. AAC cannot be resampled: its packets follow one another, so that four hours
  /// of a microphone 200 ppm fast end 2.9 s late, and a slow one's gaps get silence; ask for PCM where
  /// recordings are long. Without a camera there is nothing to keep step with, and nothing is corrected.
  FrameTiming frameTiming() const;
  void setFrameTiming(FrameTiming timing);
  /// The folder in which the next movie is written before it is placed; empty, as at first, for the process's
  /// temporary folder. A host that gives each session one of its own beside the final path has movies placed by a
  /// rename, and finds what a crash left of each.
  std::string temporaryFolder() const;
  void setTemporaryFolder(std::string folder);
  /// Where the movie goes that is being written, or the next one.
  std::string fileURL() const;
  bool isRunning() const;

  /// Of the recording under way, else of the last one that was stopped.
  RecordingStatistics statistics() const;
  /// Why the last start, stop or continuation went wrong; none when it did not. A start may answer 0 and have an
  /// error, when nothing can be written at the final path, or the camera alone has refused.
  Error lastError() const;
  /// What became of the last recording that was stopped.
  RecordingOutcome lastOutcome() const;
  /// How full the queues to the movie's writer are. Never waits: for asking on a capture thread.
  QueueLevels waiting() const;
  /// Whether more than half of a writer queue is waiting: time to hold back a source that can wait.
  bool isWriterBusy() const;

 private:
  struct VESK_LOCAL State;

  VeskRecordSession(std::shared_ptr<VeskVideoDevice> videoDevice, std::shared_ptr<VeskAudioDevice> audioDevice,
                    std::string fileURL);

  const std::unique_ptr<State> mState;
};

}  // namespace vesk
