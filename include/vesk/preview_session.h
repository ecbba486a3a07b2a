#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <vesk/decoder_protocol.h>
#include <vesk/device_delegate.h>
#include <vesk/error.h>
#include <vesk/export.h>
#include <vesk/preview_session_delegate.h>
#include <vesk/status.h>

namespace vesk {

class CIImage;
class ICMDecoder;
class VeskAudioDevice;
class VeskPreviewView;
class VeskVideoDevice;

/// How a preview has gone since the session was made.
struct PreviewStatistics {
  uint64_t frames = 0;    ///< pictures decoded
  uint64_t shown = 0;     ///< pictures handed to a view that can draw
  uint64_t replaced = 0;  ///< pictures that a newer one replaced before the main thread got to them
};

/// What became of the last photo that was asked for.
struct PhotoOutcome {
  std::string path;  ///< the file that was to be written; empty before the first photo
  int32_t width = 0;
  int32_t height = 0;
  uint64_t bytes = 0;
  Error error;  ///< why there is no file; else none
};

/// Shows a camera live in a view, takes photos of what is on show, and passes on the level of a
/// microphone.
///
/// Pictures are decoded on the camera's thread and shown on the main thread, in order. Only the
/// newest waits: while the main thread is busy, newer pictures take the place of the one that waits,
/// so a stalled host costs one picture of memory and is shown the present when it goes on.
///
/// Only a running recording of the same camera keeps it on: what the preview asks for meanwhile
/// (pausing, stopping, closing) is carried out when the recording ends, unless somebody has started the
/// camera anew by then. Other receivers, a second preview among them, see it stop.
///
/// While it runs, the camera holds the session; stopSession ends that. Device, view and host delegate
/// are not held: a device or a view that goes ends what the session does with it, the delegate must
/// outlive the session and its view, or be taken away. An attached microphone is held, and does not hold
/// the session.
///
/// Threads: host calls from the main thread, one at a time; frames from the camera's. The last reference
/// may go on any thread: view and microphone are then let go on the main thread, when that gets to it.
///
/// The host may do anything when it gets a level, also stop, start, attach and let everything go.
class VESK_EXPORT VeskPreviewSession : public VeskAVDeviceDelegate,
                                       public VeskMicLevelDelegate,
                                       public DecoderProtocol,
                                       public std::enable_shared_from_this<VeskPreviewSession> {
 public:
  /// A session that is not running; null without a device. `delegate` may be null.
  static std::shared_ptr<VeskPreviewSession> initWithDevice(const std::shared_ptr<VeskVideoDevice>& device,
                                                            VeskPreviewSessionDelegate* delegate);
  ~VeskPreviewSession() override;

  /// Opens the device; a close that waits for a recording to end is taken back.
  /// @return 0 open, also when it was; 3 no device; else openDevice's.
  int32_t openSession();
  /// Shows the camera in `view`, in the device's current format, and meters an attached microphone.
  /// May be called again at any time, for example to start the camera after resumeSession: the
  /// session never receives a frame twice.
  /// @return 0 running; 2 no view; 3 no device; else startCapture's: the session then is not running
  ///         but remains among the device's delegates, until it is started again or stopped. A
  ///         microphone that was metered is let go.
  int32_t startSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view);
  /// Stops the camera; the view keeps its last picture, the level goes on.
  /// @return the camera's stopCapture's; 0 when a recording keeps it on
  int32_t pauseSession();
  /// Makes ready to show the camera in `view`, in the device's current format, and leaves starting it to the device's
  /// startCapture, which may be called on another thread: it is shown from its first picture on. (To a session that
  /// comes to a running camera, the next H.264 picture that can be decoded may be seconds away.) The session runs from
  /// here on, also when the camera cannot be started, until it is stopped. @return 0; 2 no view; 3 no device
  int32_t prepareSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view);
  /// Makes ready for pictures again, in the device's current format. It does not start the camera:
  /// the device's startCapture or startSessionWithPreview does. @return 0
  int32_t resumeSession();
  /// Stops the camera and clears the view. @return as pauseSession
  int32_t stopSession();
  /// Stops if running, and closes the device.
  void closeSession();

  /// Why the last open, start or photo failed; none after one that did not. From any thread.
  Error lastError() const;

  /// Writes the picture on show as a JPEG file at `path` with ".jpeg" appended, upright and at its
  /// full size; replaces what is there, whole or not at all. Nothing is written while the session is
  /// not running. lastPhoto tells how it went. @return 0
  int32_t capturePhotoFrameToPath(const std::string& path);
  const PhotoOutcome& lastPhoto() const;
  /// Writes the picture on show at `path`, as above but named as it stands, on another thread: this neither encodes
  /// nor waits for the disk. `handler` is told how it went, on the main queue, also when the session has gone
  /// meanwhile; lastPhoto and lastError stay as they are.
  void capturePhoto(const std::string& path, std::function<void(const PhotoOutcome& photo)> handler);

  /// The microphone whose level is passed on; null for none. Metered while the session runs.
  void setAudioDevice(const std::shared_ptr<VeskAudioDevice>& device);
  const std::shared_ptr<VeskAudioDevice>& audioDevice() const;

  // Called by the devices and the decoder.
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override;
  void displayData(CVImageBufferRef image) override;
  void didMicLevelEventOccured(float level) override;

  VeskPreviewSessionDelegate* delegate() const;
  /// Also that of the view which has this one's, to tell it of the pointer.
  void setDelegate(VeskPreviewSessionDelegate* delegate);
  std::shared_ptr<VeskVideoDevice> device() const;
  void setDevice(const std::shared_ptr<VeskVideoDevice>& device);
  std::shared_ptr<VeskPreviewView> previewView() const;
  void setPreviewView(const std::shared_ptr<VeskPreviewView>& view);
  bool isRunning() const;
  /// From any thread.
  PreviewStatistics statistics() const;

 private:
  struct VESK_LOCAL State;
  class VESK_LOCAL LevelRelay;

  VeskPreviewSession(const std::shared_ptr<VeskVideoDevice>& device, VeskPreviewSessionDelegate* delegate);

  void makeDecoder(const VeskVideoDevice& device);
  void stopMeter();
  void clearView() const;
  void showNewest();

  const std::unique_ptr<State> mState;
};

}  // namespace vesk
