#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <vesk/decoder_protocol.h>
#include <vesk/device_delegate.h>
#include <vesk/export.h>
#include <vesk/preview_session_delegate.h>
#include <vesk/status.h>
#include "platform/foundation/mutex.h"

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
  std::string error;  ///< why there is no file, one line for a person; else empty
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
/// outlive the session or be taken away. An attached microphone is held, and does not hold the
/// session.
///
/// Threads: host calls from the main thread, one at a time; frames from the camera's. The last reference
/// may go on any thread: view and microphone are then let go on the main thread, when that gets to it.
/// mMutex is held around each decoding and while the decoder is replaced; a device's delegate list is
/// locked before it, and nothing of the devices is called under it.
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
  int32_t startSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view) VESK_EXCLUDES(mMutex);
  /// Stops the camera; the view keeps its last picture, the level goes on.
  /// @return the camera's stopCapture's; 0 when a recording keeps it on
  int32_t pauseSession() VESK_EXCLUDES(mMutex);
  /// Makes ready for pictures again, in the device's current format. It does not start the camera:
  /// the device's startCapture or startSessionWithPreview does. @return 0
  int32_t resumeSession() VESK_EXCLUDES(mMutex);
  /// Stops the camera and clears the view. @return as pauseSession
  int32_t stopSession() VESK_EXCLUDES(mMutex);
  /// Stops if running, and closes the device.
  void closeSession() VESK_EXCLUDES(mMutex);

  /// Writes the picture on show as a JPEG file at `path` with ".jpeg" appended, upright and at its
  /// full size; replaces what is there, whole or not at all. Nothing is written while the session is
  /// not running. lastPhoto tells how it went. @return 0
  int32_t capturePhotoFrameToPath(const std::string& path);
  const PhotoOutcome& lastPhoto() const { return mLastPhoto; }

  /// The microphone whose level is passed on; null for none. Metered while the session runs.
  void setAudioDevice(const std::shared_ptr<VeskAudioDevice>& device);
  const std::shared_ptr<VeskAudioDevice>& audioDevice() const { return mAudioDevice; }

  // Called by the devices and the decoder.
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override VESK_EXCLUDES(mMutex);
  void displayData(CVImageBufferRef image) override VESK_EXCLUDES(mImageMutex);
  void didMicLevelEventOccured(float level) override;

  VeskPreviewSessionDelegate* delegate() const { return mDelegate; }
  void setDelegate(VeskPreviewSessionDelegate* delegate) { mDelegate = delegate; }
  std::shared_ptr<VeskVideoDevice> device() const { return mDevice.lock(); }
  void setDevice(const std::shared_ptr<VeskVideoDevice>& device) { mDevice = device; }
  std::shared_ptr<VeskPreviewView> previewView() const { return mPreviewView.lock(); }
  void setPreviewView(const std::shared_ptr<VeskPreviewView>& view) { mPreviewView = view; }
  bool isRunning() const { return mIsRunning; }
  /// From any thread.
  PreviewStatistics statistics() const;

 private:
  class LevelRelay;

  VeskPreviewSession(const std::shared_ptr<VeskVideoDevice>& device, VeskPreviewSessionDelegate* delegate);

  void makeDecoder(const VeskVideoDevice& device) VESK_EXCLUDES(mMutex, mImageMutex);
  void setDecoder(std::shared_ptr<ICMDecoder> decoder) VESK_EXCLUDES(mMutex);
  bool hasDecoder() const VESK_EXCLUDES(mMutex);
  void stopMeter();
  void clearView() const;
  void showNewest() VESK_EXCLUDES(mImageMutex);
  std::string writePhoto(const std::string& path);

  std::weak_ptr<VeskVideoDevice> mDevice;
  std::shared_ptr<VeskAudioDevice> mAudioDevice;
  std::shared_ptr<LevelRelay> mLevelRelay;  ///< among the microphone's delegates in the session's place
  std::weak_ptr<VeskPreviewView> mPreviewView;
  VeskPreviewSessionDelegate* mDelegate;
  std::atomic<bool> mIsRunning{false};
  uint32_t mStarts = 0;  ///< so far, refused ones too
  PhotoOutcome mLastPhoto;

  mutable Mutex mMutex;
  std::shared_ptr<ICMDecoder> mDecoder VESK_GUARDED_BY(mMutex);

  Mutex mImageMutex;                                                    ///< innermost
  std::shared_ptr<const CIImage> mNewest VESK_GUARDED_BY(mImageMutex);  ///< waits for the main thread

  std::atomic<uint64_t> mFrames{0};
  std::atomic<uint64_t> mShown{0};
  std::atomic<uint64_t> mReplaced{0};
};

}  // namespace vesk
