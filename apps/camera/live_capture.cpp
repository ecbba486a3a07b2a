#include "apps/camera/live_capture.h"

#include <glibmm/main.h>

#include <algorithm>
#include <utility>

#include <vesk/device_manager.h>
#include <vesk/recording_supervisor.h>

namespace vesk::camera {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kFrozenAfter{3};
constexpr seconds kSilentAfter{15};
/// A camera that another program uses is asked for again so often.
constexpr seconds kBetweenTries{3};
constexpr unsigned kWatchInterval = 500;  ///< ms

std::shared_ptr<VeskDeviceInfo> deviceAt(const VeskDeviceList& list, const std::string& path) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const auto& info) { return info->path() == path; });
  return found == list.end() ? nullptr : *found;
}

template <class Device>
bool isOf(const std::shared_ptr<Device>& device, const std::shared_ptr<VeskDeviceInfo>& info) {
  return device && info && device->deviceInfo()->isEqualToDevice(*info);
}

}  // namespace

LiveCapture::LiveCapture(std::shared_ptr<VeskPreviewView> view)
    : mView(std::move(view)), mDevices(DispatchQueue::createSerial("Vesk Devices")) {}

std::shared_ptr<LiveCapture> LiveCapture::create(std::shared_ptr<VeskPreviewView> view) {
  return std::shared_ptr<LiveCapture>(new LiveCapture(std::move(view)));
}

LiveCapture::~LiveCapture() {
  close();
}

/// Does it later on the main thread, if the capture is still there then. Only that thread ever holds it.
template <class Work>
void LiveCapture::onMainThread(std::weak_ptr<LiveCapture> capture, Work work) {
  DispatchQueue::mainQueue()->async([capture = std::move(capture), work = std::move(work)] {
    if (const auto held = capture.lock()) work(*held);
  });
}

void LiveCapture::start() {
  const auto follow = [this](const char* name, bool isThere) {
    return NSNotificationCenter::defaultCenter().addObserver(name, [weak = weak_from_this(), name,
                                                                    isThere](const NSNotification& notification) {
      const auto* const device = notification.value<std::shared_ptr<VeskDeviceInfo>>(name);
      if (!device) return;
      onMainThread(weak, [device = *device, isThere](LiveCapture& capture) { capture.deviceChanged(device, isThere); });
    });
  };
  mAdded = follow(KVXDeviceAdded, true);
  mGone = follow(KVXDeviceRemoved, false);
  mWatch = Glib::signal_timeout().connect([this] { return watch(); }, kWatchInterval);
  mDevices->async([weak = weak_from_this()] {
    VeskVideoDevice::getVideoDeviceList();
    VeskAudioDevice::getAudioDeviceList();
    onMainThread(weak, [](LiveCapture& capture) { capture.readLists(); });
  });
}

void LiveCapture::close() {
  mAdded = {};
  mGone = {};
  mWatch.disconnect();
  if (!mDevices) return;
  mDevices->sync([] {});  // one thread at a time for a device
  takeFromView();
  if (mCamera) mCamera->closeUnlessRecorded();
  mCamera.reset();
  letMicrophoneGo();
  mDevices.reset();  // waits for the microphone
}

void LiveCapture::deviceChanged(const std::shared_ptr<VeskDeviceInfo>& device, bool isThere) {
  if (!isThere) {
    if (isOf(mCamera, device)) {
      mMustReopen = true;  // at the end of a recording: the camera may be back by then, and is another
      if (!mIsRecording) closeCamera();
    }
    if (isOf(mMicrophone, device)) mIsMicrophoneGone = true;
    mRemoved.emit(device);
  }
  mError = {};
  readLists();
}

void LiveCapture::readLists() {
  mCameras = *VeskVideoDevice::getVideoDeviceList();
  mMicrophones = *VeskAudioDevice::getAudioDeviceList();
  mHasLooked = true;
  update();
  mChanged.emit();
}

void LiveCapture::chooseCamera(const std::string& path) {
  mCameraPath = path;
  mError = {};
  update();
}

void LiveCapture::chooseMicrophone(const std::string& path) {
  mMicrophonePath = path;
  update();
}

void LiveCapture::setWithSound(bool withSound) {
  mIsWithSound = withSound;
  update();
}

void LiveCapture::setWanted(bool isWanted) {
  if (mIsWanted == isWanted) return;
  mIsWanted = isWanted;
  update();
}

void LiveCapture::restart() {
  mError = {};
  mMustReopen = mCamera != nullptr;
  update();
}

std::shared_ptr<VeskDeviceInfo> LiveCapture::wantedCamera() const {
  if (!mIsWanted || !mHasLooked || mCameras.empty()) return nullptr;
  const auto chosen = deviceAt(mCameras, mCameraPath);
  return chosen ? chosen : mCameras.front();
}

std::shared_ptr<VeskDeviceInfo> LiveCapture::wantedMicrophone() const {
  if (!mIsWithSound || !mCamera) return nullptr;
  const auto chosen = deviceAt(mMicrophones, mMicrophonePath);
  return chosen ? chosen : defaultMicrophone(mCamera->deviceInfo()->path().value_or(""));
}

/// One step towards what is wanted; each ends by calling this again.
void LiveCapture::update() {
  if (!mDevices || mIsRecording || mIsBusy) return;
  if (mIsMicrophoneGone) letMicrophoneGo();
  const auto wanted = wantedCamera();
  if (mCamera && (mMustReopen || !isOf(mCamera, wanted))) return closeCamera();
  mMustReopen = false;
  if (!mCamera && wanted && !mError) return openCamera(wanted);
  if (!wanted) mError = {};
  updateMicrophone();
}

void LiveCapture::openCamera(const std::shared_ptr<VeskDeviceInfo>& info) {
  mIsBusy = true;
  mDevices->async([weak = weak_from_this(), info, requestOf = mRequestOf] {
    const auto camera = VeskVideoDevice::initWithDeviceInfo(info);
    Error error;
    if (camera->openDevice() != 0) {
      error = camera->lastError();
    } else {
      const VideoFormatRequest request = requestOf ? requestOf(*info) : VideoFormatRequest();
      error = chooseVideoFormat(*camera, request).error;
      if (error && (request.codec || request.size || request.rate)) error = chooseVideoFormat(*camera).error;
    }
    if (error) camera->closeDevice();
    onMainThread(weak, [camera, error](LiveCapture& capture) {
      error ? capture.started(camera, error) : capture.startCamera(camera);
    });
  });
}

/// The session is there before the first picture, which alone can be decoded for as long as two seconds.
void LiveCapture::startCamera(const std::shared_ptr<VeskVideoDevice>& camera) {
  makeSession(camera);
  mSession->prepareSessionWithPreview(mView);
  mDevices->async([weak = weak_from_this(), camera] {
    Error error;
    if (camera->startCapture() != 0) {
      error = camera->lastError();
      camera->closeDevice();
    }
    onMainThread(weak, [camera, error](LiveCapture& capture) { capture.started(camera, error); });
  });
}

void LiveCapture::started(const std::shared_ptr<VeskVideoDevice>& camera, Error error) {
  mIsBusy = false;
  mError = std::move(error);
  if (mError) {
    mRetry = Clock::now() + kBetweenTries;
    takeFromView();
  } else {
    show(camera);
  }
  update();
  mChanged.emit();
}

void LiveCapture::makeSession(const std::shared_ptr<VeskVideoDevice>& camera) {
  mSession = VeskPreviewSession::initWithDevice(camera, this);
  if (mMicrophone) mSession->setAudioDevice(mMicrophone);
}

void LiveCapture::show(const std::shared_ptr<VeskVideoDevice>& camera) {
  mCamera = camera;
  mFrames = 0;
  mLastFrame = mLastSound = Clock::now();
  mIsFrozen = mIsSilent = false;
}

/// Stops the camera and closes it on the queue, and takes it from the view in between.
void LiveCapture::closeCamera() {
  mIsBusy = true;
  mMustReopen = mIsFrozen = mIsSilent = false;
  mClosing = std::exchange(mSession, nullptr);
  mDevices->async([weak = weak_from_this(), camera = std::exchange(mCamera, nullptr)] {
    camera->stopUnlessRecorded();
    onMainThread(weak, [camera](LiveCapture& capture) {
      capture.takeFromView();
      capture.mDevices->async([weak = capture.weak_from_this(), camera] {
        camera->closeUnlessRecorded();
        onMainThread(weak, [](LiveCapture& closed) {
          closed.mIsBusy = false;
          closed.update();
          closed.mChanged.emit();
        });
      });
    });
  });
  mChanged.emit();
}

void LiveCapture::takeFromView() {
  for (const auto& session : {std::exchange(mClosing, nullptr), std::exchange(mSession, nullptr)}) {
    if (!session) continue;
    session->setDelegate(nullptr);
    session->setAudioDevice(nullptr);
    session->stopSession();
  }
}

void LiveCapture::updateMicrophone() {
  if (mIsSoundBusy) return;
  const auto wanted = wantedMicrophone();
  if (mMicrophone ? isOf(mMicrophone, wanted) : !wanted) return;
  letMicrophoneGo();
  if (!wanted) return mChanged.emit();
  mIsSoundBusy = true;
  mDevices->async([weak = weak_from_this(), wanted] {
    const auto microphone = VeskAudioDevice::initWithDeviceInfo(wanted);
    const bool isOpen = microphone->openDevice() == 0;
    const bool isMuted = isOpen && microphone->isMuteOn();
    onMainThread(weak, [microphone, isMuted](LiveCapture& capture) { capture.openedMicrophone(microphone, isMuted); });
  });
}

/// One that cannot be opened is shown nevertheless: it may be metered, and a recording says what is wrong.
void LiveCapture::openedMicrophone(const std::shared_ptr<VeskAudioDevice>& microphone, bool isMuted) {
  mIsSoundBusy = false;
  mIsMuted = isMuted;
  mMicrophone = microphone;
  mLastSound = Clock::now();
  if (mSession) mSession->setAudioDevice(microphone);
  update();
  mChanged.emit();
}

void LiveCapture::letMicrophoneGo() {
  mIsSilent = mIsMicrophoneGone = false;
  if (mSession) mSession->setAudioDevice(nullptr);
  if (const auto microphone = std::exchange(mMicrophone, nullptr))
    if (mDevices) mDevices->async([microphone] { microphone->closeDevice(); });
}

void LiveCapture::setMuted(bool isMuted) {
  if (!mMicrophone) return;
  mIsMuted = isMuted;
  mDevices->async([microphone = mMicrophone, isMuted] { microphone->setMute(isMuted); });
  mChanged.emit();
}

void LiveCapture::setRecording(bool isRecording) {
  mIsRecording = isRecording;
  if (isRecording) return;
  if (std::exchange(mIsAdopted, false)) mMustReopen = true;
  readLists();
}

void LiveCapture::adopt(const std::shared_ptr<VeskVideoDevice>& camera) {
  if (!camera || camera == mCamera) return;
  takeFromView();
  mIsAdopted = true;
  show(camera);
  makeSession(camera);
  if (mSession->startSessionWithPreview(mView) != 0) mError = mSession->lastError();
  mChanged.emit();
}

void LiveCapture::takePhoto(const std::string& path, std::function<void(const PhotoOutcome& photo)> handler) {
  if (mSession) return mSession->capturePhoto(path, std::move(handler));
  PhotoOutcome photo;
  photo.path = path;
  photo.error = mError ? mError : Error{Cause::kNoDevice, "there is no camera to take a photo with", "Plug one in."};
  handler(photo);
}

PreviewStatistics LiveCapture::statistics() const {
  return mSession ? mSession->statistics() : PreviewStatistics();
}

void LiveCapture::audioGainChanged(float level) {
  const bool wasSilent = mIsSilent;
  const auto now = Clock::now();
  if (level > kQuietSoundLevel) mLastSound = now;
  mIsSilent = now - mLastSound > kSilentAfter;
  mLevel.emit(level);
  if (mIsSilent != wasSilent) mChanged.emit();
}

/// Sees what nobody tells: frames that stop, a mute that another program has set, a camera that is free again.
bool LiveCapture::watch() {
  const auto now = Clock::now();
  const uint64_t frames = statistics().frames;
  if (std::exchange(mFrames, frames) != frames) mLastFrame = now;
  const bool isFrozen = mCamera && mSession && now - mLastFrame > kFrozenAfter;
  if (std::exchange(mIsFrozen, isFrozen) != isFrozen) mChanged.emit();
  if (mError && now > mRetry) {
    mRetry = Clock::time_point::max();
    mError = {};
    update();
  }
  if (mMicrophone && !mIsSoundBusy) {
    mDevices->async([weak = weak_from_this(), microphone = mMicrophone] {
      const bool isMuted = microphone->isMuteOn();
      onMainThread(weak, [microphone, isMuted](LiveCapture& capture) {
        if (capture.mMicrophone != microphone || capture.mIsMuted == isMuted) return;
        capture.mIsMuted = isMuted;
        capture.mChanged.emit();
      });
    });
  }
  return true;
}

}  // namespace vesk::camera
