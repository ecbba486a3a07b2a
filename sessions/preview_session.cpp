#include <vesk/preview_session.h>

#include <atomic>
#include <limits>
#include <new>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include <vesk/atomic_file.h>
#include <vesk/audio_device.h>
#include <vesk/bitmap_image_rep.h>
#include <vesk/ci_image.h>
#include <vesk/dispatch_queue.h>
#include <vesk/four_char_code.h>
#include <vesk/icm_decoder.h>
#include <vesk/log.h>
#include <vesk/ns_error.h>
#include <vesk/preview_view.h>
#include <vesk/video_device.h>
#include "platform/foundation/errors.h"
#include "platform/foundation/mutex.h"
#include "platform/h264/nal_unit.h"
#include "platform/h264/parameter_sets.h"
#include "platform/h264/stream_conversion.h"

namespace vesk {
namespace {

/// Does what belongs on the main thread there: at once, or later when this is another thread.
template <class Work>
void onMainThread(const Work& work) {
  const auto mainQueue = DispatchQueue::mainQueue();
  if (mainQueue->isCurrent())
    work();
  else
    mainQueue->async(work);
}

Error noCamera() {
  return {Cause::kNoDevice, "the preview has no camera", ""};
}

/// @return why it was not written; none when it was.
Error writeImage(const CIImageRef& image, PhotoOutcome& photo) {
  const auto bitmap = NSBitmapImageRep::initWithCIImage(image);
  if (!bitmap) return {Cause::kStalled, "there is no photo: no picture has come from the camera yet", "Wait for one."};
  const auto bytes = bitmap->representationUsingType(NSJPEGFileType);
  if (bytes.empty())
    return {Cause::kOther, "there is no photo: the picture could not be encoded", "Close other programs."};
  NSError error;
  if (!writeToFileAtomically(photo.path, bytes, &error)) return errorOf(error);
  photo.width = bitmap->pixelsWide();
  photo.height = bitmap->pixelsHigh();
  photo.bytes = bytes.size();
  return {};
}

PhotoOutcome writePhoto(const CIImageRef& image, bool isRunning, const std::string& path) {
  PhotoOutcome photo;
  photo.path = path;
  photo.error = isRunning ? writeImage(image, photo)
                          : Error{Cause::kWrongUse, "there is no photo: the preview is not running", ""};
  logError(photo.error);
  return photo;
}

}  // namespace

/// Stands among a microphone's delegates for the session, which it does not hold: the session holds
/// the microphone, and the microphone its delegates.
class VeskPreviewSession::LevelRelay : public VeskAVDeviceDelegate, public VeskMicLevelDelegate {
 public:
  explicit LevelRelay(std::weak_ptr<VeskPreviewSession> session) : mSession(std::move(session)) {}

  /// Packets of sound are of no use here.
  void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<VeskDeviceInfo>&) override {}
  void didMicLevelEventOccured(float level) override {
    if (const auto session = mSession.lock()) session->didMicLevelEventOccured(level);
  }

 private:
  const std::weak_ptr<VeskPreviewSession> mSession;
};

/// mMutex is held around each decoding and while the decoder is replaced; a device's delegate list is locked before
/// it, and nothing of the devices is called under it.
struct VeskPreviewSession::State {
  void setDecoder(std::shared_ptr<ICMDecoder> decoder, bool isH264 = false) VESK_EXCLUDES(mMutex);
  bool hasDecoder() const VESK_EXCLUDES(mMutex);
  CIImageRef imageOnShow() const;
  std::vector<uint8_t> firstPicture(std::span<const uint8_t> frame) VESK_REQUIRES(mMutex);

  // Main thread only, but for the atomic ones.
  int32_t failed(int32_t status, Error why) {
    mLastError.set(std::move(why));
    return status;
  }
  LastError mLastError;

  std::weak_ptr<VeskVideoDevice> mDevice;
  std::shared_ptr<VeskAudioDevice> mAudioDevice;
  std::shared_ptr<LevelRelay> mLevelRelay;  ///< among the microphone's delegates in the session's place
  std::weak_ptr<VeskPreviewView> mPreviewView;
  VeskPreviewSessionDelegate* mDelegate = nullptr;
  std::atomic<bool> mIsRunning{false};
  uint32_t mStarts = 0;  ///< so far, refused ones too
  PhotoOutcome mLastPhoto;

  mutable Mutex mMutex;
  std::shared_ptr<ICMDecoder> mDecoder VESK_GUARDED_BY(mMutex);
  /// Of H.264, until the decoder has begun.
  std::optional<h264::ParameterSets> mFirstSets VESK_GUARDED_BY(mMutex);

  Mutex mImageMutex;                                                    ///< innermost
  std::shared_ptr<const CIImage> mNewest VESK_GUARDED_BY(mImageMutex);  ///< waits for the main thread

  std::atomic<uint64_t> mFrames{0};
  std::atomic<uint64_t> mShown{0};
  std::atomic<uint64_t> mReplaced{0};
};

VeskPreviewSession::VeskPreviewSession(const std::shared_ptr<VeskVideoDevice>& device,
                                       VeskPreviewSessionDelegate* delegate)
    : mState(std::make_unique<State>()) {
  mState->mDevice = device;
  mState->mDelegate = delegate;
}

std::shared_ptr<VeskPreviewSession> VeskPreviewSession::initWithDevice(const std::shared_ptr<VeskVideoDevice>& device,
                                                                       VeskPreviewSessionDelegate* delegate) {
  if (!device) return nullptr;
  std::shared_ptr<VeskPreviewSession> session(new VeskPreviewSession(device, delegate));
  session->mState->mLevelRelay = std::make_shared<LevelRelay>(session);
  return session;
}

VeskPreviewSession::~VeskPreviewSession() {
  // The microphone is metered on the main thread, and a session may go on any.
  onMainThread([microphone = std::exchange(mState->mAudioDevice, nullptr), relay = mState->mLevelRelay,
                wasRunning = isRunning()] {
    if (!microphone) return;
    if (wasRunning) microphone->stopVUMeter();
    microphone->removeDelegate(relay);
  });
  if (mState->mIsRunning) closeSession();
}

int32_t VeskPreviewSession::openSession() {
  const auto device = mState->mDevice.lock();
  if (!device) return mState->failed(kVeskStatusNoDevice, noCamera());
  const int32_t status = device->openDevice();
  return mState->failed(status, status == kVeskStatusSuccess ? Error() : device->lastError());
}

Error VeskPreviewSession::lastError() const {
  return mState->mLastError.get();
}

int32_t VeskPreviewSession::prepareSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view) {
  const auto self = shared_from_this();
  if (!view) return mState->failed(kVeskStatusNoView, {Cause::kWrongUse, "there is no view to show the camera in", ""});
  const auto device = mState->mDevice.lock();
  if (!device) return mState->failed(kVeskStatusNoDevice, noCamera());

  // It may be there already, after a refused start or a pause; it is never there twice. From here on no
  // frame is on its way to the session.
  device->removeDelegate(self);
  const bool isNew = !mState->mIsRunning || !mState->hasDecoder() || !device->isCapturing();
  if (isNew) makeDecoder(*device);
  mState->mPreviewView = view;
  view->setDelegate(mState->mDelegate);
  device->addDelegate(self);
  if (isNew) device->requestKeyFrame();  // of a camera that is running already
  mState->mIsRunning = true;
  ++mState->mStarts;
  return mState->failed(kVeskStatusSuccess, {});
}

int32_t VeskPreviewSession::startSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view) {
  const auto self = shared_from_this();
  const bool wasRunning = mState->mIsRunning;
  if (const int32_t status = prepareSessionWithPreview(view); status != kVeskStatusSuccess) return status;
  const auto device = mState->mDevice.lock();
  if (!device) return mState->failed(kVeskStatusNoDevice, noCamera());
  const int32_t status = device->startCapture();
  mState->failed(status, status == kVeskStatusSuccess ? Error() : device->lastError());
  if (status != kVeskStatusSuccess) {
    mState->mIsRunning = false;
    if (wasRunning) stopMeter();
    return status;
  }
  if (const auto microphone = mState->mAudioDevice) microphone->startVUMeter();
  return kVeskStatusSuccess;
}

int32_t VeskPreviewSession::pauseSession() {
  const auto self = shared_from_this();
  const auto device = mState->mDevice.lock();
  const int32_t status = device ? device->stopUnlessRecorded() : kVeskStatusNoDevice;
  mState->setDecoder(nullptr);
  return status;
}

int32_t VeskPreviewSession::resumeSession() {
  const auto device = mState->mDevice.lock();
  if (!device || mState->hasDecoder()) return kVeskStatusSuccess;
  makeDecoder(*device);
  device->requestKeyFrame();  // of a camera that a recording has kept on
  return kVeskStatusSuccess;
}

int32_t VeskPreviewSession::stopSession() {
  const auto self = weak_from_this().lock();  // the device's may be the last reference; null while going
  const uint32_t starts = mState->mStarts;
  clearView();
  const auto device = mState->mDevice.lock();
  const int32_t status = device ? device->stopUnlessRecorded() : kVeskStatusNoDevice;
  stopMeter();
  if (mState->mStarts != starts) return status;  // the host has started it anew when it got the final level
  if (device) device->removeDelegate(self);
  mState->setDecoder(nullptr);
  mState->mIsRunning = false;
  clearView();
  stopMeter();  // of a microphone that was attached then
  return status;
}

void VeskPreviewSession::closeSession() {
  const auto self = weak_from_this().lock();
  const auto device = mState->mDevice.lock();
  if (mState->mIsRunning) stopSession();
  if (device && !mState->mIsRunning) device->closeUnlessRecorded();
}

int32_t VeskPreviewSession::capturePhotoFrameToPath(const std::string& path) {
  mState->mLastPhoto = writePhoto(mState->imageOnShow(), mState->mIsRunning, path + ".jpeg");
  return mState->failed(kVeskStatusSuccess, mState->mLastPhoto.error);
}

void VeskPreviewSession::capturePhoto(const std::string& path, std::function<void(const PhotoOutcome& photo)> handler) {
  DispatchQueue::globalQueue()->async([image = mState->imageOnShow(), isRunning = mState->mIsRunning.load(), path,
                                       handler = std::move(handler)]() mutable {
    const PhotoOutcome photo = writePhoto(image, isRunning, path);
    // Handed on whole: what the host has bound to it goes on the main thread too.
    if (handler) DispatchQueue::mainQueue()->async([photo, handler = std::move(handler)] { handler(photo); });
  });
}

CIImageRef VeskPreviewSession::State::imageOnShow() const {
  const auto view = mPreviewView.lock();
  return view ? view->image() : nullptr;
}

void VeskPreviewSession::setAudioDevice(const std::shared_ptr<VeskAudioDevice>& device) {
  if (device == mState->mAudioDevice) return;
  // The host may do anything when it gets the final level, also attach or detach again.
  const auto self = shared_from_this();
  const auto next = device;  // NOLINT(performance-unnecessary-copy-initialization): the caller's may go meanwhile
  const auto previous = std::exchange(mState->mAudioDevice, next);
  if (previous) {
    if (mState->mIsRunning) previous->stopVUMeter();
    if (mState->mAudioDevice != previous) previous->removeDelegate(mState->mLevelRelay);
  }
  if (!next || mState->mAudioDevice != next) return;
  next->removeDelegate(mState->mLevelRelay);  // it may be there already, from inside the final level
  next->addDelegate(mState->mLevelRelay);
  if (mState->mIsRunning) next->startVUMeter();
}

/// Works on a reference of its own: the host may detach the microphone when it gets the final level.
void VeskPreviewSession::stopMeter() {
  if (const auto microphone = mState->mAudioDevice) microphone->stopVUMeter();
}

void VeskPreviewSession::didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                                         const std::shared_ptr<VeskDeviceInfo>& device) {
  if (!mState->mIsRunning || !device || device->deviceType() != kVeskDeviceTypeVideo) return;
  if (length > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) return;
  const MutexLock lock(mState->mMutex);
  if (!mState->mIsRunning || !mState->mDecoder) return;
  std::span<const uint8_t> bytes(static_cast<const uint8_t*>(frame), frame ? length : 0);
  try {
    std::vector<uint8_t> first;
    if (mState->mFirstSets) {
      first = mState->firstPicture(bytes);
      if (first.empty()) return;
      bytes = first;
    }
    // A frame that cannot be decoded shows no picture; the next one may.
    mState->mDecoder->decompressData(bytes.data(), static_cast<int32_t>(bytes.size()),
                                     static_cast<int32_t>(static_cast<uint32_t>(timestamp)));
    if (mState->mDecoder->frameCount() > 0) mState->mFirstSets.reset();
  } catch (const std::bad_alloc&) {
    NSLog(LogLevel::kWarning, "a frame was not shown: there is no memory for it");
  }
}

/// A decoder keeps the first parameter sets that it is given, and nothing of the frames before it has both. So it
/// begins with a picture behind the sets that this one uses, which the camera may have sent before, by themselves, or
/// changed since. @return nothing while there is no such picture
std::vector<uint8_t> VeskPreviewSession::State::firstPicture(std::span<const uint8_t> frame) {
  std::vector<uint8_t> accessUnit(frame.begin(), frame.end());
  h264::ensureLengths(accessUnit);
  h264::NALUnitWalk walk(accessUnit);
  while (const auto unit = walk.next()) mFirstSets->learn(*unit);
  const auto inUse = mFirstSets->usedIn(accessUnit);
  return inUse ? mFirstSets->prependedTo(accessUnit, *inUse) : std::vector<uint8_t>();
}

void VeskPreviewSession::displayData(CVImageBufferRef image) {
  auto wrapped = CIImage::imageWithCVImageBuffer(std::move(image));
  if (!wrapped) return;
  ++mState->mFrames;
  {
    const MutexLock lock(mState->mImageMutex);
    mState->mNewest.swap(wrapped);
  }
  if (wrapped) {  // the main thread is on its way for the one before and takes this one instead
    ++mState->mReplaced;
    return;
  }
  DispatchQueue::mainQueue()->async([self = shared_from_this()] { self->showNewest(); });
}

void VeskPreviewSession::showNewest() {
  std::shared_ptr<const CIImage> image;
  {
    const MutexLock lock(mState->mImageMutex);
    image.swap(mState->mNewest);
  }
  const auto view = mState->mPreviewView.lock();
  if (!image || !mState->mIsRunning || !view) return;
  if (!view->cannotDraw()) ++mState->mShown;
  view->refresh(image);
}

void VeskPreviewSession::didMicLevelEventOccured(float level) {
  if (mState->mDelegate) mState->mDelegate->audioGainChanged(level);
}

const PhotoOutcome& VeskPreviewSession::lastPhoto() const {
  return mState->mLastPhoto;
}

const std::shared_ptr<VeskAudioDevice>& VeskPreviewSession::audioDevice() const {
  return mState->mAudioDevice;
}

VeskPreviewSessionDelegate* VeskPreviewSession::delegate() const {
  return mState->mDelegate;
}

void VeskPreviewSession::setDelegate(VeskPreviewSessionDelegate* delegate) {
  // The view has it from here, and would go on telling one that is taken away and gone.
  const auto view = mState->mPreviewView.lock();
  if (view && view->delegate() == mState->mDelegate) view->setDelegate(delegate);
  mState->mDelegate = delegate;
}

std::shared_ptr<VeskVideoDevice> VeskPreviewSession::device() const {
  return mState->mDevice.lock();
}

void VeskPreviewSession::setDevice(const std::shared_ptr<VeskVideoDevice>& device) {
  mState->mDevice = device;
}

std::shared_ptr<VeskPreviewView> VeskPreviewSession::previewView() const {
  return mState->mPreviewView.lock();
}

void VeskPreviewSession::setPreviewView(const std::shared_ptr<VeskPreviewView>& view) {
  mState->mPreviewView = view;
}

bool VeskPreviewSession::isRunning() const {
  return mState->mIsRunning;
}

PreviewStatistics VeskPreviewSession::statistics() const {
  return {mState->mFrames, mState->mShown, mState->mReplaced};
}

void VeskPreviewSession::makeDecoder(const VeskVideoDevice& device) {
  const auto format = device.getFormat();
  if (!format) return;  // the start that follows is refused for it
  const auto size = format->dimensions();
  auto decoder = ICMDecoder::initWithWidth(static_cast<uint32_t>(size.width), static_cast<uint32_t>(size.height),
                                           format->mediaSubType());
  if (decoder) decoder->setDelegate(this);
  mState->setDecoder(std::move(decoder), format->mediaSubType() == kCMVideoCodecType_H264);
  // A picture of the run before is not for this one.
  std::shared_ptr<const CIImage> dropped;
  const MutexLock lock(mState->mImageMutex);
  dropped.swap(mState->mNewest);
}

void VeskPreviewSession::State::setDecoder(std::shared_ptr<ICMDecoder> decoder, bool isH264) {
  const MutexLock lock(mMutex);
  mDecoder.swap(decoder);
  mFirstSets.reset();
  if (isH264) mFirstSets.emplace();
}

bool VeskPreviewSession::State::hasDecoder() const {
  const MutexLock lock(mMutex);
  return mDecoder != nullptr;
}

/// Without a view's reference off the main thread: it might be the last one.
void VeskPreviewSession::clearView() const {
  onMainThread([view = mState->mPreviewView] {
    if (const auto held = view.lock()) held->setImage(nullptr);
  });
}

}  // namespace vesk
