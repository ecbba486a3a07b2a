#include <glib.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vesk/audio_device.h>
#include <vesk/device_manager.h>
#include <vesk/dispatch_queue.h>
#include <vesk/log.h>
#include <vesk/movie_recovery.h>
#include <vesk/notification_center.h>
#include <vesk/preview_session.h>
#include <vesk/preview_view.h>
#include <vesk/record_session.h>
#include <vesk/video_device.h>
#include "platform/foundation/file_manager.h"
#include "platform/foundation/run_loop_limit.h"
#include "tests/support/fake_capture_source.h"

// Hosts that do anything at any moment. The input is a script: each byte is an operation of a host or an event of the
// world, with its arguments behind it. What the library calls in the host (a frame, a level, a notification, a timer,
// work of the served run loop) goes on with the same script, so that sessions and devices are opened, stopped and let
// go inside every callback. Beside it, where the first byte says so, another thread delivers frames and holds and lets
// go of the same objects. When the script ends and all is let go, nothing may be left: no open or capturing device, no
// object, and no movie that is not whole.

namespace vesk::fuzz {
namespace {

namespace fs = std::filesystem;
using test::FakeCaptureSource;
using test::FakeDevice;

constexpr size_t kEach = 2;             ///< objects of each kind
constexpr size_t kOthers = 1;           ///< the camera and the microphone that deliver on the other thread
constexpr int kDeepest = 4;             ///< callbacks inside one another
constexpr size_t kMostOperations = 96;  ///< of one script: each may start a writer's threads
constexpr std::chrono::seconds kMostWaiting{20};

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stdout, "host_behaviour: %s\n", what);
  std::fflush(stdout);
  std::abort();
}

/// Waits for what other threads of the library are about to do, serving the main queue.
void await(const std::function<bool()>& isDone, const char* what) {
  const auto end = std::chrono::steady_clock::now() + kMostWaiting;
  while (!isDone()) {
    require(std::chrono::steady_clock::now() < end, what);
    if (!g_main_context_iteration(nullptr, FALSE)) std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

/// Two access units of 32 x 32 pixels: parameter sets with a key picture, and a picture after it.
constexpr std::array<uint8_t, 95> kKeyPicture{
    0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0xc0, 0x0a, 0xda, 0x25, 0xb0, 0x11, 0x00, 0x00, 0x03, 0x00, 0x01, 0x00, 0x00,
    0x03, 0x00, 0x3c, 0x0f, 0x12, 0x26, 0xa0, 0x00, 0x00, 0x00, 0x01, 0x68, 0xce, 0x01, 0x64, 0xb2, 0x00, 0x00, 0x00,
    0x01, 0x65, 0x88, 0x84, 0x37, 0x0c, 0x60, 0x1d, 0x7c, 0xd2, 0xff, 0x7b, 0xfc, 0x34, 0x33, 0x43, 0x31, 0xbf, 0xd5,
    0x78, 0x7a, 0x7c, 0xf8, 0xea, 0xd7, 0x5f, 0xb8, 0x61, 0x28, 0x05, 0x85, 0xc7, 0xff, 0x55, 0x15, 0x96, 0x22, 0x00,
    0x4e, 0x84, 0x00, 0x4c, 0x3e, 0xab, 0x8a, 0xc4, 0x5e, 0x12, 0x1b, 0xd0, 0xd7, 0x71, 0x6e, 0xab, 0x4e, 0x00, 0x00};
constexpr std::array<uint8_t, 11> kNextPicture{0x00, 0x00, 0x00, 0x01, 0x41, 0x9a, 0x20, 0xdc, 0x95, 0xc0, 0x80};

constexpr uint32_t kAvc1 = 0x61766331;
constexpr uint32_t kDmb1 = 0x646D6231;
constexpr uint32_t k2vuy = 0x32767579;

/// The input, byte by byte; zeros behind its end.
class Script {
 public:
  Script(const uint8_t* data, size_t size) : mBytes(data, size) {}
  bool isOver() const { return mAt >= mBytes.size() || mOperations >= kMostOperations; }
  uint8_t next() { return mAt < mBytes.size() ? mBytes[mAt++] : 0; }
  size_t pick(size_t count) { return next() % count; }
  bool flag() { return (next() & 1) != 0; }
  void countOperation() { ++mOperations; }
  void end() { mAt = mBytes.size(); }

 private:
  const std::span<const uint8_t> mBytes;
  size_t mAt = 0;
  size_t mOperations = 0;
};

/// Remembers what was made, to see at the end that it has gone, or to end what runs without its host.
template <class Object>
class Made {
 public:
  std::shared_ptr<Object> add(std::shared_ptr<Object> object) {
    if (object) mAll.push_back(object);
    return object;
  }
  std::vector<std::shared_ptr<Object>> living() const {
    std::vector<std::shared_ptr<Object>> found;
    for (const auto& one : mAll)
      if (auto object = one.lock()) found.push_back(std::move(object));
    return found;
  }
  bool isGone() const {
    return std::all_of(mAll.begin(), mAll.end(), [](const auto& one) { return one.expired(); });
  }

 private:
  std::vector<std::weak_ptr<Object>> mAll;
};

template <class Object>
using Slots = std::array<std::shared_ptr<Object>, kEach>;

/// A host, and the world around it.
class Host {
 public:
  Host(Script& script, std::string folder) : mScript(script), mFolder(std::move(folder)) {
    for (size_t i = 0; i < kEach; ++i) {
      attachCamera(i);
      attachMicrophone(i);
    }
    mManager = VeskDeviceManager::getSharedInstance();
    for (const char* const name : {KVXDeviceAdded, KVXDeviceRemoved})
      mObservers.push_back(
          NSNotificationCenter::defaultCenter().addObserver(name, [this](const auto&) { insideCallback(); }));
    for (size_t i = 0; i < kEach; ++i) {
      makeCamera(i);
      makeMicrophone(i);
    }
  }

  void play(bool hasOtherThread) {
    if (hasOtherThread) mOther = std::thread([this] { runOther(); });
    while (!mScript.isOver()) perform();
    end();
  }

  /// Lets everything go, and looks whether it has gone.
  void end() {
    mScript.end();
    mIsEnding = true;
    if (mOther.joinable()) mOther.join();
    for (const auto& session : mRecords.living()) session->stopSession();
    for (const auto& session : mPreviews.living()) session->closeSession();
    for (const auto& microphone : mMicrophones.living()) {
      microphone->stopVUMeter();
      microphone->closeDevice();
    }
    letAllGo();
    mKeptMicrophones.clear();
    mObservers.clear();
    await([this] { return mQueued == 0; }, "the main queue does not end");
    mManager.reset();
    VeskDeviceManager::destroy();
    await([this] { return mRecords.isGone() && mPreviews.isGone(); }, "a session is left");
    await([this] { return mCameras.isGone() && mMicrophones.isGone(); }, "a device is left");
    await([this] { return std::all_of(mAttached.begin(), mAttached.end(), isOff); }, "a device is left on");
    capture::setSource(nullptr);
    for (const auto& entry : fs::directory_iterator(mFolder + "/movies")) requireWhole(entry.path());
    for (const auto& entry : fs::directory_iterator(mFolder + "/temporary")) requireWhole(entry.path());
  }

 private:
  using Operation = void (Host::*)();

  /// Hears of frames, levels and the end of metering, and goes on with the script.
  struct Listener : VeskAVDeviceDelegate, VeskMicLevelDelegate, VeskPreviewSessionDelegate, VeskPreviewPointerDelegate {
    explicit Listener(Host& owner) : host(owner) {}
    void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<VeskDeviceInfo>&) override {
      host.insideFrame();
    }
    void didMicLevelEventOccured(float) override { host.insideCallback(); }
    void audioGainChanged(float) override { host.insideCallback(); }
    void mouseDidEnterView() override { host.insideCallback(); }
    void mouseDidLeaveView() override { host.insideCallback(); }
    Host& host;
  };

  static bool isOff(const std::shared_ptr<FakeDevice>& device) {
    return !device->isCapturing() && device->opened == device->closed;
  }

  static void requireWhole(const fs::path& path) {
    const RecoveryResult result = recoverMovie(path.string());
    if (result.outcome != RecoveryOutcome::kAlreadyPlain)
      std::fprintf(stdout, "%s: %s\n", path.c_str(), result.error.what.c_str());
    require(result.outcome == RecoveryOutcome::kAlreadyPlain, "a movie is not whole");
    fs::remove(path);
  }

  // The world.

  void attachCamera(size_t i) {
    auto camera = mSource->attachCamera("camera" + std::to_string(i));
    camera->videoFormats = {
        {kAvc1, {{32, 32, {333333}}}}, {k2vuy, {{16, 16, {333333}}}}, {kDmb1, {{16, 16, {333333}}}}};
    camera->answerProperty = [](const test::PropertyCall& call, std::span<uint8_t> value) {
      if (!call.isWrite && !value.empty()) value[0] = 1;
      return 0;
    };
    mAttached.push_back(camera);
    const std::lock_guard lock(mSlotsMutex);
    mCameraDevices[i] = std::move(camera);
  }
  void attachMicrophone(size_t i) {
    auto microphone = mSource->attachMicrophone("microphone" + std::to_string(i));
    mAttached.push_back(microphone);
    const std::lock_guard lock(mSlotsMutex);
    mMicrophoneDevices[i] = std::move(microphone);
  }

  void deliverPicture() {
    const auto device = mCameraDevices[pickDelivering()];
    switch (mScript.pick(4)) {
      case 0:
        return deliver(*device, {kKeyPicture.begin(), kKeyPicture.end()});
      case 1:
        return deliver(*device, {kNextPicture.begin(), kNextPicture.end()});
      case 2:
        return deliver(*device, std::vector<uint8_t>(size_t{16} * 16 * 2, mScript.next()));
      default:
        return deliver(*device, junk());
    }
  }
  void deliverSound() {
    const auto device = mMicrophoneDevices[pickDelivering()];
    deliver(*device, mScript.flag() ? junk() : std::vector<uint8_t>(1920, mScript.next()));
  }
  /// A source delivers a device's frames on one thread: where another thread delivers, this one leaves its devices
  /// alone.
  size_t pickDelivering() {
    const size_t i = mScript.pick(kEach);
    return mOther.joinable() ? kEach - 1 - kOthers : i;
  }
  std::vector<uint8_t> junk() {
    std::vector<uint8_t> bytes(mScript.pick(24));
    for (uint8_t& byte : bytes) byte = mScript.next();
    return bytes;
  }
  void deliver(FakeDevice& device, std::vector<uint8_t> bytes) {
    if (mDepth > 0) return;  // a source does not deliver inside its own callback
    mTime += 1000 * (1 + mScript.next());
    device.deliver(bytes, mTime);
  }

  void unplug() {
    const size_t i = mScript.pick(kEach);
    const bool isCamera = mScript.flag();
    mSource->detach((isCamera ? mCameraDevices : mMicrophoneDevices)[i]->description.path);
    announce(isCamera, false);
  }
  void plugIn() {
    const size_t i = mScript.pick(kEach);
    const bool isCamera = mScript.flag();
    mSource->detach((isCamera ? mCameraDevices : mMicrophoneDevices)[i]->description.path);
    isCamera ? attachCamera(i) : attachMicrophone(i);
    announce(isCamera, true);
  }
  void announce(bool isCamera, bool hasCome) {
    if (mDepth > 0) return;
    mSource->announce(isCamera ? capture::DeviceKind::kVideo : capture::DeviceKind::kAudio, hasCome);
  }
  void changeAnswers() {
    FakeDevice& device = *(mScript.flag() ? mCameraDevices : mMicrophoneDevices)[mScript.pick(kEach)];
    constexpr std::array<int32_t, 4> kStatus{0, 0, 19, 5};
    if (mOther.joinable()) return;  // scripts are set before a device is used elsewhere
    device.startStatus = kStatus.at(mScript.pick(4));
    device.parametersStatus = kStatus.at(mScript.pick(4));
    device.refusesToOpen = mScript.pick(4) == 3;
  }

  void serveLoop() {
    for (int i = 0; i < 64 && g_main_context_iteration(nullptr, FALSE); ++i) {
    }
  }
  void queueWork() {
    ++mQueued;
    DispatchQueue::mainQueue()->async([this] {
      --mQueued;
      insideCallback();
    });
  }

  // The host's callbacks.

  void insideCallback() {
    if (std::this_thread::get_id() != mMainThread) return insideOther();
    if (mDepth >= kDeepest) return;
    ++mDepth;
    for (size_t count = mScript.pick(3); count > 0 && !mScript.isOver(); --count) perform();
    --mDepth;
  }
  /// Delegates of a device do not change inside its frames, and its sessions do not stop there.
  void insideFrame() {
    if (std::this_thread::get_id() != mMainThread) return insideOther();
    if (mDepth >= kDeepest || mScript.isOver()) return;
    ++mDepth;
    switch (mScript.pick(5)) {
      case 0:
        letOneGo();
        break;
      case 1:
        askAround();
        break;
      case 2:
        letAllGo();
        break;
      case 3:
        queueWork();
        break;
      default:
        break;
    }
    --mDepth;
  }
  /// On another thread: holds and lets go, which may be for the last time.
  void insideOther() {
    const auto held = copyOfOne();
    askAround();
  }

  // The other thread: a source's, and one that looks at everything.

  void runOther() {
    std::vector<uint8_t> key(kKeyPicture.begin(), kKeyPicture.end());
    std::vector<uint8_t> sound(1920, 7);
    for (int round = 0; round < 40 && !mIsEnding; ++round) {
      std::shared_ptr<FakeDevice> camera;
      std::shared_ptr<FakeDevice> microphone;
      {
        const std::lock_guard lock(mSlotsMutex);
        camera = mCameraDevices[kOthers];
        microphone = mMicrophoneDevices[kOthers];
      }
      const int64_t time = 1'000'000 + round * 33'333;
      auto frame = key;
      camera->deliver(frame, time);
      microphone->deliver(sound, time);
      const auto object = copyOfOne();
      askAround();
    }
  }
  std::shared_ptr<void> copyOfOne() {
    const std::lock_guard lock(mSlotsMutex);
    const size_t turn = mTurn++;
    const size_t i = turn / 4 % kEach;
    switch (turn % 4) {
      case 0:
        return mCameraSlots[i];
      case 1:
        return mMicrophoneSlots[i];
      case 2:
        return mPreviewSlots[i];
      default:
        return mRecordSlots[i];
    }
  }
  /// What may be asked from any thread, at any time.
  void askAround() {
    const auto manager = VeskDeviceManager::getSharedInstance();
    const auto cameras = manager->getVideoDeviceList();
    const auto microphones = manager->getAudioDeviceList();
    std::shared_ptr<VeskRecordSession> record;
    std::shared_ptr<VeskPreviewSession> preview;
    {
      const std::lock_guard lock(mSlotsMutex);
      record = mRecordSlots[0];
      preview = mPreviewSlots[0];
    }
    if (record) {
      record->statistics();
      record->waiting();
      record->lastOutcome();
    }
    if (preview) preview->statistics();
  }

  // The host's operations.

  template <class Object>
  std::shared_ptr<Object> held(const Slots<Object>& slots) {
    const size_t i = mScript.pick(kEach);
    const std::lock_guard lock(mSlotsMutex);
    return slots[i];
  }
  template <auto kSlots, auto kOperation>
  void call() {
    if (const auto object = held(this->*kSlots)) ((*object).*kOperation)();
  }
  /// Puts an object into its place; what was there goes outside the lock, as it may be for the last time.
  template <class Object>
  void put(Slots<Object>& slots, size_t i, std::shared_ptr<Object> object) {
    const std::lock_guard lock(mSlotsMutex);
    slots[i].swap(object);
    mGoing.push_back(std::move(object));
  }
  void dropGoing() {
    std::vector<std::shared_ptr<void>> going;
    {
      const std::lock_guard lock(mSlotsMutex);
      going.swap(mGoing);
    }
  }

  void makeCamera(size_t i) {
    auto info = std::make_shared<VeskDeviceInfo>();
    info->setName("Camera");
    info->setPath("camera" + std::to_string(i));
    put(mCameraSlots, i, mCameras.add(VeskVideoDevice::initWithDeviceInfo(std::move(info))));
  }
  void makeMicrophone(size_t i) {
    auto info = std::make_shared<VeskDeviceInfo>();
    info->setName("Microphone");
    info->setPath("microphone" + std::to_string(i));
    info->setDeviceType(1);
    auto microphone = mMicrophones.add(VeskAudioDevice::initWithDeviceInfo(std::move(info)));
    mKeptMicrophones.push_back(microphone);  // a microphone is closed before it is let go
    put(mMicrophoneSlots, i, std::move(microphone));
  }
  void newCamera() { makeCamera(mScript.pick(kEach)); }
  void newMicrophone() { makeMicrophone(mScript.pick(kEach)); }
  void newPreview() {
    const auto camera = held(mCameraSlots);
    auto session = VeskPreviewSession::initWithDevice(camera, mScript.flag() ? mListener.get() : nullptr);
    put(mPreviewSlots, mScript.pick(kEach), mPreviews.add(std::move(session)));
  }
  void newRecord() {
    const std::string file = mFolder + "/movies/film" + std::to_string(mScript.pick(3)) + ".mov";
    const auto camera = mScript.pick(8) == 7 ? nullptr : held(mCameraSlots);
    const auto microphone = mScript.flag() ? held(mMicrophoneSlots) : nullptr;
    auto session = VeskRecordSession::initWithVideoDevice(camera, microphone, file);
    if (mScript.flag()) session->setFrameTiming(FrameTiming::kCapture);
    put(mRecordSlots, mScript.pick(kEach), mRecords.add(std::move(session)));
  }
  void newView() { mView = mScript.pick(4) == 3 ? nullptr : VeskPreviewView::initWithFrame({0, 0, 32, 32}); }

  void chooseVideoFormat() {
    const auto camera = held(mCameraSlots);
    if (!camera) return;
    const auto formats = camera->getSupportedFormats();
    const size_t choice = mScript.pick(4);
    if (mScript.flag()) camera->setCaptureFormat(camera->getFormat());
    camera->setFormat(formats && choice < formats->size() ? (*formats)[choice] : nullptr);
  }
  void chooseSoundFormat() {
    const auto microphone = held(mMicrophoneSlots);
    if (!microphone) return;
    const auto formats = microphone->getSupportedFormats();
    const size_t choice = mScript.pick(3);
    microphone->setFormat(formats && choice < formats->size() ? (*formats)[choice] : nullptr);
  }
  void moveHead() {
    const auto camera = held(mCameraSlots);
    if (!camera) return;
    switch (mScript.pick(16)) {
      case 0:
        return camera->panRelativeLeft();
      case 1:
        camera->resetPanTiltRel();
        return;
      case 2:
        camera->relativePanTiltStop(0);
        return;
      default:
        camera->setBrightnessCur(mScript.next());
        camera->getBrightnessCur();
    }
  }
  void addListener() {
    if (const auto device = oneDevice()) device->addDelegate(mListener);
  }
  void removeListener() {
    if (const auto device = oneDevice()) device->removeDelegate(mListener);
  }
  std::shared_ptr<VeskAVDevice> oneDevice() {
    if (mScript.flag()) return held(mCameraSlots);
    return held(mMicrophoneSlots);
  }

  void startPreview() {
    if (const auto preview = held(mPreviewSlots)) preview->startSessionWithPreview(mView);
  }
  void attachToPreview() {
    const auto preview = held(mPreviewSlots);
    if (preview) preview->setAudioDevice(mScript.flag() ? held(mMicrophoneSlots) : nullptr);
  }
  void setPreviewDelegate() {
    const auto preview = held(mPreviewSlots);
    if (preview) preview->setDelegate(mScript.flag() ? mListener.get() : nullptr);
  }
  void takePhoto() {
    if (const auto preview = held(mPreviewSlots)) preview->capturePhotoFrameToPath(mFolder + "/photo");
  }
  void changeRecordDevices() {
    const auto record = held(mRecordSlots);
    if (!record) return;
    record->setVideoDevice(held(mCameraSlots));
    record->setAudioDevice(mScript.flag() ? held(mMicrophoneSlots) : nullptr);
  }
  void startWhole() {
    const size_t i = mScript.pick(kEach);
    std::shared_ptr<VeskVideoDevice> camera;
    std::shared_ptr<VeskAudioDevice> microphone;
    {
      const std::lock_guard lock(mSlotsMutex);
      camera = mCameraSlots[i];
      microphone = mMicrophoneSlots[i];
    }
    if (camera) {
      camera->openDevice();
      const auto formats = camera->getSupportedFormats();
      if (!camera->getFormat() && formats && !formats->empty()) camera->setFormat(formats->front());
    }
    if (microphone) {
      microphone->openDevice();
      const auto formats = microphone->getSupportedFormats();
      if (!microphone->getFormat() && formats && !formats->empty()) microphone->setFormat(formats->front());
    }
  }
  void restartManager() {
    mManager.reset();
    VeskDeviceManager::destroy();
    mManager = VeskDeviceManager::getSharedInstance();
  }
  void movePointer() {
    if (!mView) return;
    mScript.flag() ? mView->pointerMovedTo({4, 4}) : mView->pointerLeft();
  }

  void letOneGo() {
    const size_t i = mScript.pick(kEach);
    switch (mScript.pick(4)) {
      case 0:
        put(mCameraSlots, i, std::shared_ptr<VeskVideoDevice>());
        break;
      case 1:
        put(mMicrophoneSlots, i, std::shared_ptr<VeskAudioDevice>());
        break;
      case 2:
        put(mPreviewSlots, i, std::shared_ptr<VeskPreviewSession>());
        break;
      default:
        put(mRecordSlots, i, std::shared_ptr<VeskRecordSession>());
        break;
    }
    dropGoing();
  }
  void letAllGo() {
    for (size_t i = 0; i < kEach; ++i) {
      put(mPreviewSlots, i, std::shared_ptr<VeskPreviewSession>());
      put(mRecordSlots, i, std::shared_ptr<VeskRecordSession>());
      put(mCameraSlots, i, std::shared_ptr<VeskVideoDevice>());
      put(mMicrophoneSlots, i, std::shared_ptr<VeskAudioDevice>());
    }
    mView.reset();
    dropGoing();
  }

  void perform() {
    static constexpr Operation kOperations[] = {
        &Host::deliverPicture,
        &Host::deliverSound,
        &Host::unplug,
        &Host::plugIn,
        &Host::changeAnswers,
        &Host::serveLoop,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::micLevelTimerFired>,
        &Host::queueWork,
        &Host::newCamera,
        &Host::newMicrophone,
        &Host::newPreview,
        &Host::newRecord,
        &Host::newView,
        &Host::call<&Host::mCameraSlots, &VeskVideoDevice::openDevice>,
        &Host::call<&Host::mCameraSlots, &VeskVideoDevice::closeDevice>,
        &Host::call<&Host::mCameraSlots, &VeskVideoDevice::startCapture>,
        &Host::call<&Host::mCameraSlots, &VeskVideoDevice::stopCapture>,
        &Host::chooseVideoFormat,
        &Host::chooseSoundFormat,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::openDevice>,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::closeDevice>,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::startCapture>,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::stopCapture>,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::startVUMeter>,
        &Host::call<&Host::mMicrophoneSlots, &VeskAudioDevice::stopVUMeter>,
        &Host::moveHead,
        &Host::addListener,
        &Host::removeListener,
        &Host::call<&Host::mPreviewSlots, &VeskPreviewSession::openSession>,
        &Host::startPreview,
        &Host::call<&Host::mPreviewSlots, &VeskPreviewSession::pauseSession>,
        &Host::call<&Host::mPreviewSlots, &VeskPreviewSession::resumeSession>,
        &Host::call<&Host::mPreviewSlots, &VeskPreviewSession::stopSession>,
        &Host::call<&Host::mPreviewSlots, &VeskPreviewSession::closeSession>,
        &Host::attachToPreview,
        &Host::setPreviewDelegate,
        &Host::takePhoto,
        &Host::call<&Host::mRecordSlots, &VeskRecordSession::startSession>,
        &Host::call<&Host::mRecordSlots, &VeskRecordSession::stopSession>,
        &Host::changeRecordDevices,
        &Host::startWhole,
        &Host::restartManager,
        &Host::movePointer,
        &Host::letOneGo,
        &Host::letAllGo};
    mScript.countOperation();
    (this->*kOperations[mScript.pick(std::size(kOperations))])();
    dropGoing();
  }

  Script& mScript;
  const std::string mFolder;
  const std::thread::id mMainThread = std::this_thread::get_id();
  int mDepth = 0;
  int64_t mTime = 1'000'000;
  int mQueued = 0;  ///< work of the host that waits on the main queue

  const std::shared_ptr<FakeCaptureSource> mSource = FakeCaptureSource::install();
  std::vector<std::shared_ptr<FakeDevice>> mAttached;  ///< all that were ever attached
  const std::shared_ptr<Listener> mListener = std::make_shared<Listener>(*this);
  std::shared_ptr<VeskDeviceManager> mManager;
  std::vector<NSNotificationObserver> mObservers;
  std::shared_ptr<VeskPreviewView> mView;
  std::vector<std::shared_ptr<VeskAudioDevice>> mKeptMicrophones;

  Made<VeskVideoDevice> mCameras;
  Made<VeskAudioDevice> mMicrophones;
  Made<VeskPreviewSession> mPreviews;
  Made<VeskRecordSession> mRecords;

  std::mutex mSlotsMutex;  ///< the slots and the scripted devices; nothing of the library is called under it
  std::array<std::shared_ptr<FakeDevice>, kEach> mCameraDevices;
  std::array<std::shared_ptr<FakeDevice>, kEach> mMicrophoneDevices;
  Slots<VeskVideoDevice> mCameraSlots;
  Slots<VeskAudioDevice> mMicrophoneSlots;
  Slots<VeskPreviewSession> mPreviewSlots;
  Slots<VeskRecordSession> mRecordSlots;
  std::vector<std::shared_ptr<void>> mGoing;
  std::atomic<size_t> mTurn = 0;

  std::atomic<bool> mIsEnding = false;
  std::thread mOther;
};

/// The folder of this process, and a library that keeps quiet and does not wait for its run loops.
const std::string& preparedFolder() {
  static std::string path;
  if (path.empty()) {
    path = (fs::temp_directory_path() / "vesk-host.XXXXXX").string();
    require(mkdtemp(path.data()) != nullptr, "no folder for movies");
    fs::create_directory(path + "/movies");
    fs::create_directory(path + "/temporary");
    setTemporaryDirectory(path + "/temporary");
    FILE* const nowhere = std::fopen("/dev/null", "w");
    setStandardOutput(nowhere);
    setStandardError(nowhere);
    setLogSink([](LogLevel, std::string_view) {});
    setLongestRunUntilDate(std::chrono::microseconds(500));
    std::atexit([] { fs::remove_all(preparedFolder()); });
  }
  return path;
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vesk::fuzz;
  const std::string& folder = preparedFolder();
  Script script(data, size);
  Host host(script, folder);
  host.play(script.flag());
  return 0;
}
