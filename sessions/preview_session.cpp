#include "sessions/preview_session.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "decoding/icm_decoder.h"
#include "devices/audio_device.h"
#include "devices/video_device.h"
#include "platform/foundation/atomic_file.h"
#include "platform/foundation/dispatch_queue.h"
#include "platform/foundation/error.h"
#include "platform/foundation/log.h"
#include "platform/graphics/bitmap_image_rep.h"
#include "platform/graphics/ci_image.h"
#include "render/preview_view.h"

namespace vesk {

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
  if (mIsRunning) closeSession();
  mDelegate = nullptr;
  setAudioDevice(nullptr);
}

int32_t VeskPreviewSession::openSession() {
  const auto device = mDevice.lock();
  if (!device) return kVeskStatusNoDevice;
  return device->isOpen() ? kVeskStatusSuccess : device->openDevice();
}

int32_t VeskPreviewSession::startSessionWithPreview(const std::shared_ptr<VeskPreviewView>& view) {
  if (!view) return kVeskStatusNoView;
  const auto device = mDevice.lock();
  if (!device) return kVeskStatusNoDevice;

  if (!hasDecoder()) makeDecoder(*device);
  mPreviewView = view;
  view->setDelegate(mDelegate);
  // It may be there already, after a refused start or a pause; it is never there twice.
  device->removeDelegate(shared_from_this());
  device->addDelegate(shared_from_this());
  mIsRunning = true;
  const int32_t status = device->startCapture();
  if (status != kVeskStatusSuccess) {
    mIsRunning = false;
    return status;
  }
  if (mAudioDevice) mAudioDevice->startVUMeter();
  return kVeskStatusSuccess;
}

int32_t VeskPreviewSession::pauseSession() {
  const auto device = mDevice.lock();
  const int32_t status = device ? stopCapture(*device) : kVeskStatusNoDevice;
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
  clearView();
  const auto device = mDevice.lock();
  const int32_t status = device ? stopCapture(*device) : kVeskStatusNoDevice;
  if (mAudioDevice) mAudioDevice->stopVUMeter();
  if (device) device->removeDelegate(self);
  setDecoder(nullptr);
  mIsRunning = false;
  clearView();
  return status;
}

void VeskPreviewSession::closeSession() {
  const auto device = mDevice.lock();
  if (mIsRunning) stopSession();
  if (device && !hasOtherReceivers(*device)) device->closeDevice();
}

int32_t VeskPreviewSession::capturePhotoFrameToPath(const std::string& path) {
  if (!mIsRunning) return kVeskStatusSuccess;
  mLastPhoto = {};
  mLastPhoto.path = path + ".jpeg";
  mLastPhoto.error = writePhoto(mLastPhoto.path);
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
  if (mAudioDevice) {
    if (mIsRunning) mAudioDevice->stopVUMeter();
    mAudioDevice->removeDelegate(mLevelRelay);
  }
  mAudioDevice = device;
  if (!mAudioDevice) return;
  mAudioDevice->addDelegate(mLevelRelay);
  if (mIsRunning) mAudioDevice->startVUMeter();
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
  if (!mIsRunning || !view) return;
  ++mShown;
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
}

void VeskPreviewSession::setDecoder(std::shared_ptr<ICMDecoder> decoder) {
  const MutexLock lock(mMutex);
  mDecoder.swap(decoder);
}

bool VeskPreviewSession::hasDecoder() const {
  const MutexLock lock(mMutex);
  return mDecoder != nullptr;
}

int32_t VeskPreviewSession::stopCapture(VeskVideoDevice& device) {
  return hasOtherReceivers(device) ? kVeskStatusSuccess : device.stopCapture();
}

bool VeskPreviewSession::hasOtherReceivers(const VeskVideoDevice& device) const {
  const auto& delegates = device.delegates();
  const std::lock_guard lock(delegates);
  return std::any_of(delegates.begin(), delegates.end(),
                     [this](const auto& delegate) { return delegate.get() != this; });
}

void VeskPreviewSession::clearView() const {
  if (const auto view = mPreviewView.lock()) view->setImage(nullptr);
}

}  // namespace vesk
