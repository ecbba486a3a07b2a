#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/movie_creator.h>
#include <vesk/status.h>

namespace vesk {

class VeskAudioDevice;
class VeskVideoDevice;

/// Writes what a camera and a microphone deliver into one movie at a time: opened for the devices'
/// formats, fed with their frames and packets, closed.
///
/// Threads: opening and closing from the host's threads, samples from any thread, also while it is
/// being closed: none waits for the close, and none reaches a movie's creator that is gone.
class VESK_EXPORT VeskRecorder : public std::enable_shared_from_this<VeskRecorder> {
 public:
  /// A recorder without path and streams, not recording.
  static std::shared_ptr<VeskRecorder> init();
  /// Closes first if it is recording.
  ~VeskRecorder();
  VeskRecorder(const VeskRecorder&) = delete;
  VeskRecorder& operator=(const VeskRecorder&) = delete;

  /// Opens a movie at `path` (UTF-8), where any earlier file is deleted, for the devices' present
  /// formats; the file is its owner's alone (0600). A microphone that is null or has no format is left
  /// out, and so is a null camera.
  /// @return 0 recording; 1 the movie's creator could not be made; 2 the camera has no format, or
  ///         neither camera nor microphone takes part; 8 the creator refused to open; 9 it is
  ///         recording already, which goes on undisturbed.
  int32_t openRecorderWithFilPath(const std::string& path, const std::shared_ptr<VeskVideoDevice>& videoDevice,
                                  const std::shared_ptr<VeskAudioDevice>& audioDevice);

  /// When the pictures of the next movie are shown, and whether its sound keeps step with them
  /// (VeskRecordSession::frameTiming): kSteady unless the host chooses otherwise.
  FrameTiming frameTiming() const;
  void setFrameTiming(FrameTiming timing);

  /// Adds one frame or packet, stamped in microseconds. H.264 may be rewritten in place.
  /// @return 0, also when not recording; else the creator's status, see AddSampleToMovie.
  int32_t addVideoSample(void* frame, uint32_t length, int64_t timestamp);
  int32_t addAudioSample(void* packet, uint32_t length, int64_t timestamp);

  /// The creator of the movie being written, for whoever hands it many samples; null when not recording. Once
  /// the movie is closed it takes no more, and after continueRecorder it hands them on to the next movie's.
  std::shared_ptr<VeskMovieCreator> movieCreator() const;

  /// Finishes the movie. Serves this thread's run loop for half a second first, so that frames on
  /// their way still get in; a close or open from inside that is refused with 0 and 9.
  /// @return the creator's status; 0 at once when not recording.
  int32_t closeRecorder();

  /// Whether movies are gone on from when the camera changes its parameter sets (SetContinues of the movie's
  /// creator): the one being written, and the next ones. False unless the host chooses otherwise.
  bool continues() const;
  void setContinues(bool continues);
  /// Goes on in another movie at `path`, as openRecorderWithFilPath makes it: the one being written ends, and
  /// everything from the change on goes into the new one. Does not serve the run loop.
  /// @param ended what became of the movie that ended, on success
  /// @return 0; 1 or 8 the new movie could not be opened, and the present one goes on; 10 no movie is being
  ///         written, or it is being closed
  int32_t continueRecorder(const std::string& path, RecordingStatistics& ended);

  /// Why the last open, continuation or close went wrong; none when it did not. A movie may be open, with status 0,
  /// of which nothing can be written: the error says so. From any thread.
  Error lastError() const;

  /// The path of the movie being written; none when not recording. From any thread.
  std::optional<std::string> fileURL() const;
  void setFileURL(std::optional<std::string> path);
  bool isRecording() const;

  // For the host; the recorder does not use or hold them.
  std::shared_ptr<VeskVideoDevice> videoStream() const;
  void setVideoStream(const std::shared_ptr<VeskVideoDevice>& device);
  std::shared_ptr<VeskAudioDevice> audioStream() const;
  void setAudioStream(const std::shared_ptr<VeskAudioDevice>& device);

  /// Of the movie being written, or of the last one, as it was closed.
  RecordingStatistics statistics() const;
  /// How full the queues to the writer are; empty when not recording.
  QueueLevels waiting() const;

 private:
  struct VESK_LOCAL State;

  VeskRecorder();

  const std::unique_ptr<State> mState;
};

}  // namespace vesk
