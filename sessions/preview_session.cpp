#include <vesk/preview_session.h>

#include <limits>
#include <utility>

#include <vesk/audio_device.h>
#include <vesk/bitmap_image_rep.h>
#include <vesk/ci_image.h>
#include <vesk/dispatch_queue.h>
#include <vesk/icm_decoder.h>
#include <vesk/log.h>
#include <vesk/ns_error.h>
#include <vesk/preview_view.h>
#include <vesk/video_device.h>
#include "platform/foundation/atomic_file.h"

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

VeskPreviewSession::VeskPreviewSession(const std::shared_ptr<VeskVideoDevice>& device,
                                       VeskPreviewSessionDelegate* delegate)
    : mDevice(device), mDelegate(delegate) {}

std::shared_ptr<VeskPreviewSession> VeskPreviewSession::initWithDevice(const std::shared_ptr<VeskVideoDevice>& device,
                                                                       VeskPreviewSessionDelegate* delegate) {
  if (!device) return nullptr;
  std::shared_ptr<VeskPreviewSession> session(new VeskPreviewSession(device, delegate));
  session->mLevelRelay = std::make_shared<LevelRelay>(session);
  return session;
}

VeskPreviewSession::~VeskPreviewSession() {
  // The microphone is metered on the main thread, and a session may go on any.
  onMainThread([microphone = std::exchange(mAudioDevice, nullptr), relay = mLevelRelay, wasRunning = isRunning()] {
    if (!microphone) return;
    if (wasRunning) microphone->stopVUMeter();
    microphone->removeDelegate(relay);
  });
  if (mIsRunning) closeSession();
}

int32_t VeskPreviewSession::openSession() {
  const auto device = mDevice.lock();
  return device ? device->openDevice() : kVeskStatusNoDevice;
}

int32_t VeskPreviewSession::startSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view) {
  const auto self = shared_from_this();
  if (!view) return kVeskStatusNoView;
  const auto device = mDevice.lock();
  if (!device) return kVeskStatusNoDevice;

  // It may be there already, after a refused start or a pause; it is never there twice. From here on no
  // frame is on its way to the session.
  device->removeDelegate(self);
  if (!mIsRunning || !hasDecoder() || !device->isCapturing()) makeDecoder(*device);
  mPreviewView = view;
  view->setDelegate(mDelegate);
  device->addDelegate(self);
  const bool wasRunning = mIsRunning.exchange(true);
  ++mStarts;
  const int32_t status = device->startCapture();
  if (status != kVeskStatusSuccess) {
    mIsRunning = false;
    if (wasRunning) stopMeter();
    return status;
  }
  if (const auto microphone = mAudioDevice) microphone->startVUMeter();
  return kVeskStatusSuccess;
}

int32_t VeskPreviewSession::pauseSession() {
  const auto self = shared_from_this();
  const auto device = mDevice.lock();
  const int32_t status = device ? device->stopUnlessRecorded() : kVeskStatusNoDevice;
  setDecoder(nullptr);
  return status;
}

int32_t VeskPreviewSession::resumeSession() {
  const auto device = mDevice.lock();
  if (device && !hasDecoder()) makeDecoder(*device);
  return kVeskStatusSuccess;
}

int32_t VeskPreviewSession::stopSession() {
  const auto self = weak_from_this().lock();  // the device's may be the last reference; null while going
  const uint32_t starts = mStarts;
  clearView();
  const auto device = mDevice.lock();
  const int32_t status = device ? device->stopUnlessRecorded() : kVeskStatusNoDevice;
  stopMeter();
  if (mStarts != starts) return status;  // the host has started it anew when it got the final level
  if (device) device->removeDelegate(self);
  setDecoder(nullptr);
  mIsRunning = false;
  clearView();
  stopMeter();  // of a microphone that was attached then
  return status;
}

void VeskPreviewSession::closeSession() {
  const auto self = weak_from_this().lock();
  const auto device = mDevice.lock();
  if (mIsRunning) stopSession();
  if (device && !mIsRunning) device->closeUnlessRecorded();
}

int32_t VeskPreviewSession::capturePhotoFrameToPath(const std::string& path) {
  mLastPhoto = {};
  mLastPhoto.path = path + ".jpeg";
  mLastPhoto.error = mIsRunning ? writePhoto(mLastPhoto.path) : "the preview is not running";
  if (!mLastPhoto.error.empty())
    NSLog("[WARNING]: the photo \"" + mLastPhoto.path + "\" was not written: " + mLastPhoto.error);
  return kVeskStatusSuccess;
}

/// @return why it was not written; empty when it was.
std::string VeskPreviewSession::writePhoto(const std::string& path) {
  const auto view = mPreviewView.lock();
  const auto bitmap = NSBitmapImageRep::initWithCIImage(view ? view->image() : nullptr);
  if (!bitmap) return "no picture is on show yet";
  const auto bytes = bitmap->representationUsingType(NSJPEGFileType);
  if (bytes.empty()) return "the picture could not be encoded";
  NSError error;
  if (!writeToFileAtomically(path, bytes, &error)) return error.description;
  mLastPhoto.width = bitmap->pixelsWide();
  mLastPhoto.height = bitmap->pixelsHigh();
  mLastPhoto.bytes = bytes.size();
  return {};
}

void VeskPreviewSession::setAudioDevice(const std::shared_ptr<VeskAudioDevice>& device) {
  if (device == mAudioDevice) return;
  // The host may do anything when it gets the final level, also attach or detach again.
  const auto self = shared_from_this();
  const auto next = device;  // NOLINT(performance-unnecessary-copy-initialization): the caller's may go meanwhile
  const auto previous = std::exchange(mAudioDevice, next);
  if (previous) {
    if (mIsRunning) previous->stopVUMeter();
    if (mAudioDevice != previous) previous->removeDelegate(mLevelRelay);
  }
  if (!next || mAudioDevice != next) return;
  next->removeDelegate(mLevelRelay);  // it may be there already, from inside the final level
  next->addDelegate(mLevelRelay);
  if (mIsRunning) next->startVUMeter();
}

/// Works on a reference of its own: the host may detach the microphone when it gets the final level.
void VeskPreviewSession::stopMeter() {
  if (const auto microphone = mAudioDevice) microphone->stopVUMeter();
}

void VeskPreviewSession::didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                                         const std::shared_ptr<VeskDeviceInfo>& device) {
  if (!mIsRunning || !device || device->deviceType() != kVeskDeviceTypeVideo) return;
  if (length > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) return;
  const MutexLock lock(mMutex);
  if (!mIsRunning || !mDecoder) return;
  // A frame that cannot be decoded shows no picture; the next one may.
  mDecoder->decompressData(static_cast<const uint8_t*>(frame), static_cast<int32_t>(length),
                           static_cast<int32_t>(static_cast<uint32_t>(timestamp)));
}

void VeskPreviewSession::displayData(CVImageBufferRef image) {
  auto wrapped = CIImage::imageWithCVImageBuffer(std::move(image));
  if (!wrapped) return;
  ++mFrames;
  {
    const MutexLock lock(mImageMutex);
    mNewest.swap(wrapped);
  }
  if (wrapped) {  // the main thread is on its way for the one before and takes this one instead
    ++mReplaced;
    return;
  }
  DispatchQueue::mainQueue()->async([self = shared_from_this()] { self->showNewest(); });
}

void VeskPreviewSession::showNewest() {
  std::shared_ptr<const CIImage> image;
  {
    const MutexLock lock(mImageMutex);
    image.swap(mNewest);
  }
  const auto view = mPreviewView.lock();
  if (!image || !mIsRunning || !view) return;
  if (!view->cannotDraw()) ++mShown;
  view->refresh(image);
}

void VeskPreviewSession::didMicLevelEventOccured(float level) {
  if (mDelegate) mDelegate->audioGainChanged(level);
}

PreviewStatistics VeskPreviewSession::statistics() const {
  return {mFrames, mShown, mReplaced};
}

void VeskPreviewSession::makeDecoder(const VeskVideoDevice& device) {
  const auto format = device.getFormat();
  if (!format) return;  // the start that follows is refused for it
  const auto size = format->dimensions();
  auto decoder = ICMDecoder::initWithWidth(static_cast<uint32_t>(size.width), static_cast<uint32_t>(size.height),
                                           format->mediaSubType());
  if (decoder) decoder->setDelegate(this);
  setDecoder(std::move(decoder));
  // A picture of the run before is not for this one.
  std::shared_ptr<const CIImage> dropped;
  const MutexLock lock(mImageMutex);
  dropped.swap(mNewest);
}

void VeskPreviewSession::setDecoder(std::shared_ptr<ICMDecoder> decoder) {
  const MutexLock lock(mMutex);
  mDecoder.swap(decoder);
}

bool VeskPreviewSession::hasDecoder() const {
  const MutexLock lock(mMutex);
  return mDecoder != nullptr;
}

/// Without a view's reference off the main thread: it might be the last one.
void VeskPreviewSession::clearView() const {
  onMainThread([view = mPreviewView] {
    if (const auto held = view.lock()) held->setImage(nullptr);
  });
}

}  // namespace vesk
