#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <vesk/device_info.h>
#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/format_description.h>
#include <vesk/frame_timing.h>
#include <vesk/recording_statistics.h>

namespace vesk {

class VeskAudioDevice;
class VeskVideoDevice;

/// What is to be recorded. All but the file may be left as it is.
///
/// The functions are called on the main thread, from start and again whenever a device is opened anew.
struct RecordingSettings {
  std::string file;           ///< the movie's final place, UTF-8: NAME.mov or NAME.qt
  bool replacesFile = false;  ///< a file that is there already goes, once the new movie is complete
  bool withSound = true;
  /// Waits for a camera that is not there, and for one that was unplugged: what it sends when it is back goes into
  /// another movie, NAME-2, NAME-3 and so on. Otherwise the recording ends with the camera.
  bool waitsForCamera = false;
  std::optional<double> duration;  ///< seconds of movie after which the recording ends, all movies together

  /// A camera and a microphone that the host uses already, for a preview for instance. They are joined, and left
  /// open; without a format they get one. What returns after it was unplugged is opened anew here: camera() and
  /// microphone() are the devices of the moment.
  std::shared_ptr<VeskVideoDevice> camera;
  std::shared_ptr<VeskAudioDevice> microphone;

  /// Otherwise the device to open, null while it is not there; by default defaultCamera and, where there is one,
  /// defaultMicrophone. After the first movie it is the same device again.
  std::function<std::shared_ptr<VeskDeviceInfo>()> findCamera;
  std::function<std::shared_ptr<VeskDeviceInfo>()> findMicrophone;
  /// Sets the format of a device that was opened here, and answers why none will do. By default
  /// chooseVideoFormat and chooseSoundFormat without a request.
  std::function<Error(VeskVideoDevice& camera)> setVideoFormat;
  std::function<Error(VeskAudioDevice& microphone)> setSoundFormat;
};

/// What became of one movie.
struct RecordedMovie {
  std::string file;  ///< where it is: at its place, or where it was left; empty when nothing was kept
  /// It is still in the hidden folder where it grew, at `file` or on a disk that has gone: recording_leftovers.h
  /// finds and finishes it there.
  bool isLeft = false;
  Error error;    ///< why it is not whole, or not at its place
  Error missing;  ///< what should be in it and is not: it has sound only, or frames only
  RecordingStatistics statistics;
  CMVideoFormatDescriptionRef videoFormat;
  CMAudioFormatDescriptionRef soundFormat;  ///< null when it was to have no sound
  bool isSilent = false;                    ///< its sound was measured, and never came above kQuietSoundLevel
};

/// Sound below this level, in decibels of full scale, is what a muted microphone or one that is turned down sends.
inline constexpr float kQuietSoundLevel = -60.0F;

/// What happens during a recording. More kinds may be added.
enum class RecordingEventKind : uint8_t {
  kWaiting,             ///< for the camera
  kStarted,             ///< a movie is being recorded: `file`
  kContinued,           ///< the camera has changed its parameter sets; the recording goes on in `file`
  kNotContinued,        ///< it has, and no other movie can be begun (`error`): the new frames are left out
  kMovieFinished,       ///< `movie` tells how it went
  kCameraRemoved,       ///< `device`
  kMicrophoneRemoved,   ///< `device`; a camera that it is built into may follow
  kSoundMissing,        ///< the movie goes on without sound (`error`) until its microphone is back
  kMicrophoneReturned,  ///< `device`; it is heard in the same movie again, unless there is an `error`
  kSoundQuiet,          ///< the microphone has sent silence for long (`error`)
  kSoundStalled,        ///< the microphone has stopped sending (`error`)
  kFramesStalled,       ///< the camera has stopped sending (`error`)
  kFramesResumed,       ///< and sends again
  kDiskFilling,         ///< there is room for some minutes only (`error`)
  kEnded,               ///< the recording is over; the `error` says why where nobody asked for it
};

struct RecordingEvent {
  RecordingEventKind kind = RecordingEventKind::kEnded;
  Error error;
  std::shared_ptr<VeskDeviceInfo> device;  ///< whom it is about; null when about no device
  std::string file;
  std::optional<RecordedMovie> movie;
};

/// How a recording is getting on.
struct RecordingProgress {
  std::string file;                         ///< the final place of the movie under way; empty between movies
  RecordingStatistics statistics;           ///< of that movie
  std::optional<float> level;               ///< decibels of the newest sound; none when unknown (AAC) or without
  bool isSoundMissing = false;              ///< the microphone is unplugged
  std::optional<double> secondsLeftOnDisk;  ///< none while that is not known yet
};

/// Records a camera with a microphone so that no film is lost, whatever happens on the way.
///
/// - A movie grows in a hidden folder beside its final place, on the same disk, and is placed by a rename. The
///   folder belongs to the one recording; what a crash leaves in it, recording_leftovers.h lists and finishes.
/// - A microphone that is unplugged and returns is heard in the same movie again; its absence is silence.
/// - A camera that is unplugged ends the movie, and begins another when it returns (waitsForCamera).
/// - A camera that changes its parameter sets, with its size for instance, goes on in another movie.
/// - A disk that fills is reported minutes before. Before it is full the recording ends with a whole movie.
/// - A camera that stops sending and a microphone that stays silent are reported.
///
/// Events come on the main thread, from the main queue (GLib's default main context): never inside a call of the
/// host's. The host may do anything in them, also start, stop and let everything go.
///
/// Threads: everything on the main thread, except what writerBusy answers. Movies are finished on a thread of
/// their own: no call here waits for a movie to be written, but the destructor's.
class VESK_EXPORT VeskRecordingSupervisor {
 public:
  using EventHandler = std::function<void(const RecordingEvent& event)>;

  /// A supervisor that is not recording. `handler` may be empty.
  static std::shared_ptr<VeskRecordingSupervisor> initWithEventHandler(EventHandler handler);
  /// Ends a recording that is under way, and waits until its movie is in its place. No event comes any more.
  ~VeskRecordingSupervisor();
  VeskRecordingSupervisor(const VeskRecordingSupervisor&) = delete;
  VeskRecordingSupervisor& operator=(const VeskRecordingSupervisor&) = delete;

  /// Why a movie cannot be recorded to `file`, as far as that shows before: kWrongUse, kBusy (a recording of any
  /// program goes there), kFileExists, kFolderGone, kNoPermission. start looks for itself.
  static Error checkFile(const std::string& file, bool replacesFile = false);

  /// Starts a recording, or to wait for its camera. How that went, and all that follows, comes in events; the last
  /// one is kEnded. @return false, and nothing happens, while a recording is under way
  bool start(RecordingSettings settings);
  /// Ends the recording, or the waiting. Returns at once: kMovieFinished and kEnded follow.
  void stop();
  /// From start until the recording is over; kEnded is delivered a moment later.
  bool isActive() const;

  /// When the frames of the next movie are shown: kCapture, at their capture times, unless the host chooses
  /// otherwise.
  FrameTiming frameTiming() const;
  void setFrameTiming(FrameTiming timing);

  RecordingProgress progress() const;
  /// The camera and the microphone of the movie under way: to show the camera that has returned, for instance.
  /// Null between movies. They close with the movie unless the host has given them.
  std::shared_ptr<VeskVideoDevice> camera() const;
  std::shared_ptr<VeskAudioDevice> microphone() const;

  /// A function that answers whether the writer has more to do than it should: for sources that can wait
  /// (capture::Transport::setBackpressure). Called from any thread, also after the supervisor has gone.
  std::function<bool()> writerBusy() const;

 private:
  friend struct SupervisorTesting;
  class VESK_LOCAL Core;
  explicit VeskRecordingSupervisor(std::shared_ptr<Core> core);

  std::shared_ptr<Core> mCore;
};

}  // namespace vesk
