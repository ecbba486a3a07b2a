#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <vesk/capture_host.h>
#include <vesk/capture_source.h>

namespace vesk::test {

/// A property call as it reached a device.
struct PropertyCall {
  bool isWrite = false;
  uint32_t request = 0;  ///< of a reading call
  capture::PropertySetIdentifier set{};
  uint32_t number = 0;
  std::vector<uint8_t> value;  ///< what was written; of a reading call, what the buffer held
  std::chrono::steady_clock::time_point time;
};

/// One attached device of a FakeCaptureSource: a test scripts its answers, delivers through it, and
/// looks at what was asked of it. Scripts are set before the device is used; counters are read when
/// nothing is under way.
class FakeDevice {
 public:
  capture::DeviceDescription description;
  std::vector<capture::VideoFormat> videoFormats;
  std::vector<capture::WaveFormat> waveFormats;

  bool refusesToOpen = false;
  int32_t parametersStatus = 0;
  int32_t startStatus = 0;
  int32_t stopStatus = 0;
  int32_t volumeStatus = 0;
  uint32_t volume = 0;
  bool mute = false;

  std::vector<capture::VideoParameters> videoParameters;
  std::vector<capture::WaveFormat> waveParameters;
  std::vector<uint32_t> substreams;  ///< of every start, whatever it answered
  std::atomic<int> opened = 0;
  std::atomic<int> closed = 0;
  std::atomic<int> started = 0;
  std::atomic<int> stopped = 0;
  std::atomic<int> formatsAsked = 0;
  std::atomic<int> keyFramesAsked = 0;

  /// Answers property calls, with the library's status; a reading call fills `value`. Without it the
  /// device has no properties. Called on the thread that asks.
  std::function<int32_t(const PropertyCall& call, std::span<uint8_t> value)> answerProperty;
  std::map<capture::PropertySetIdentifier, std::vector<uint32_t>> propertyItems;  ///< by set
  std::function<void()> whileStarting;                                            ///< called inside each start
  /// The property calls so far. From any thread.
  std::vector<PropertyCall> propertyCalls() const {
    const std::lock_guard lock(mMutex);
    return mPropertyCalls;
  }

  /// Hands bytes to whoever captures; nothing while nobody does. From any thread.
  void deliver(std::span<uint8_t> bytes, int64_t timestamp) {
    std::map<const void*, capture::FrameCallback> callbacks;
    {
      const std::lock_guard lock(mMutex);
      callbacks = mCallbacks;
    }
    for (const auto& [handle, callback] : callbacks)
      callback(bytes.data(), static_cast<uint32_t>(bytes.size()), timestamp);
  }

  bool isCapturing() const {
    const std::lock_guard lock(mMutex);
    return !mCallbacks.empty();
  }

 private:
  friend class FakeCaptureSource;

  int32_t answer(PropertyCall call, std::span<uint8_t> value) {
    call.time = std::chrono::steady_clock::now();
    {
      const std::lock_guard lock(mMutex);
      mPropertyCalls.push_back(call);
    }
    constexpr int32_t kNotSupported = 14;
    return answerProperty ? answerProperty(call, value) : kNotSupported;
  }

  // A handle's capture is its own: a meter's may end while another goes on.
  void begin(const void* handle, capture::FrameCallback callback) {
    const std::lock_guard lock(mMutex);
    mCallbacks[handle] = std::move(callback);
  }

  /// Waits for no delivery, and lets one come late: that nobody gets it is not a source's work.
  void end(const void* handle) {
    const std::lock_guard lock(mMutex);
    mCallbacks.erase(handle);
  }

  mutable std::mutex mMutex;
  std::map<const void*, capture::FrameCallback> mCallbacks;  // by handle
  std::vector<PropertyCall> mPropertyCalls;
};

/// A capture source whose devices do what a test tells them.
class FakeCaptureSource : public capture::CaptureSource {
 public:
  /// A new source, already below the capture interface.
  static std::shared_ptr<FakeCaptureSource> install() {
    auto source = std::make_shared<FakeCaptureSource>();
    capture::setSource(source);
    return source;
  }

  /// Attaches a device without telling anybody.
  std::shared_ptr<FakeDevice> attach(capture::DeviceDescription description) {
    auto device = std::make_shared<FakeDevice>();
    device->description = std::move(description);
    const std::lock_guard lock(mMutex);
    mDevices.push_back(device);
    return device;
  }
  std::shared_ptr<FakeDevice> attachCamera(std::string path, uint16_t productID = 0x1001) {
    auto camera = attach({.kind = capture::DeviceKind::kVideo,
                          .path = path,
                          .name = "Camera " + path,
                          .vendorID = 0x1234,
                          .productID = productID,
                          .revisionID = 0x0102});
    constexpr uint32_t kAvc1 = 0x61766331;
    constexpr uint32_t k2vuy = 0x32767579;
    camera->videoFormats = {{kAvc1, {{640, 480, {333333, 666666}}, {1280, 720, {333333}}}},
                            {k2vuy, {{320, 240, {333333}}}}};
    return camera;
  }
  std::shared_ptr<FakeDevice> attachMicrophone(std::string path, uint16_t productID = 0x2001) {
    auto microphone = attach({.kind = capture::DeviceKind::kAudio,
                              .path = path,
                              .name = "Microphone " + path,
                              .vendorID = 0x1234,
                              .productID = productID,
                              .revisionID = 0x0102});
    microphone->waveFormats = {{0x636D, 2, 48000, 16}, {0x6320, 1, 44100, 0}};
    return microphone;
  }

  /// Detaches the devices at `path` without telling anybody.
  void detach(const std::string& path) {
    const std::lock_guard lock(mMutex);
    std::erase_if(mDevices, [&](const auto& device) { return device->description.path == path; });
  }
  /// Tells that devices of the kind came or went.
  void announce(capture::DeviceKind kind, bool arrived) {
    const std::lock_guard lock(mHandlerMutex);
    if (mHandler) mHandler(kind, arrived);
  }
  bool isWatched() {
    const std::lock_guard lock(mHandlerMutex);
    return mHandler != nullptr;
  }
  int enumerations() const {
    const std::lock_guard lock(mMutex);
    return mEnumerations;
  }

  /// Called before a handler is set, and inside each enumeration. Set them before the source is used.
  std::function<void()> whenWatched;
  std::function<void()> whileEnumerating;

  void setHotplugHandler(HotplugHandler handler) override {
    if (handler && whenWatched) whenWatched();
    const std::lock_guard lock(mHandlerMutex);
    mHandler = std::move(handler);
  }
  std::vector<capture::DeviceDescription> devices(capture::DeviceKind kind) override {
    if (whileEnumerating) whileEnumerating();
    const std::lock_guard lock(mMutex);
    ++mEnumerations;
    std::vector<capture::DeviceDescription> found;
    for (const auto& device : mDevices)
      if (device->description.kind == kind) found.push_back(device->description);
    return found;
  }
  std::unique_ptr<capture::CaptureDevice> open(capture::DeviceKind kind, const std::string& path) override {
    const std::lock_guard lock(mMutex);
    for (const auto& device : mDevices)
      if (device->description.kind == kind && device->description.path == path && !device->refusesToOpen)
        return std::make_unique<Opened>(device);
    return nullptr;
  }

 private:
  class Opened : public capture::CaptureDevice {
   public:
    explicit Opened(std::shared_ptr<FakeDevice> device) : mDevice(std::move(device)) { ++mDevice->opened; }
    ~Opened() override {
      mDevice->end(this);
      ++mDevice->closed;
    }

    int32_t start(uint32_t substream, capture::FrameCallback callback) override {
      ++mDevice->started;
      mDevice->substreams.push_back(substream);
      if (mDevice->whileStarting) mDevice->whileStarting();
      if (mDevice->startStatus == 0) mDevice->begin(this, std::move(callback));
      return mDevice->startStatus;
    }
    int32_t stop(uint32_t) override {
      ++mDevice->stopped;
      if (mDevice->stopStatus == 0) mDevice->end(this);
      return mDevice->stopStatus;
    }
    std::vector<capture::VideoFormat> videoFormats() override {
      ++mDevice->formatsAsked;
      return mDevice->videoFormats;
    }
    int32_t setVideoParameters(const capture::VideoParameters& parameters) override {
      mDevice->videoParameters.push_back(parameters);
      return mDevice->parametersStatus;
    }
    int32_t getProperty(uint32_t request, const capture::PropertySetIdentifier& set, uint32_t number,
                        std::span<uint8_t> value, uint32_t&) override {
      return mDevice->answer({false, request, set, number, {value.begin(), value.end()}, {}}, value);
    }
    int32_t setProperty(const capture::PropertySetIdentifier& set, uint32_t number,
                        std::span<const uint8_t> value) override {
      return mDevice->answer({true, 0, set, number, {value.begin(), value.end()}, {}}, {});
    }
    std::vector<capture::PropertySetIdentifier> propertySets() override {
      std::vector<capture::PropertySetIdentifier> sets;
      for (const auto& [set, items] : mDevice->propertyItems) sets.push_back(set);
      return sets;
    }
    std::vector<uint32_t> propertyItems(const capture::PropertySetIdentifier& set) override {
      const auto found = mDevice->propertyItems.find(set);
      return found == mDevice->propertyItems.end() ? std::vector<uint32_t>() : found->second;
    }
    void requestKeyFrame() override { ++mDevice->keyFramesAsked; }
    std::vector<capture::WaveFormat> waveFormats() override {
      ++mDevice->formatsAsked;
      return mDevice->waveFormats;
    }
    int32_t setWaveFormat(const capture::WaveFormat& format) override {
      mDevice->waveParameters.push_back(format);
      return mDevice->parametersStatus;
    }
    int32_t getMute(bool& mute) override {
      mute = mDevice->mute;
      return 0;
    }
    int32_t setMute(bool mute) override {
      mDevice->mute = mute;
      return 0;
    }
    int32_t getVolume(uint32_t& volume) override {
      volume = mDevice->volume;
      return mDevice->volumeStatus;
    }
    int32_t setVolume(uint8_t volume) override {
      mDevice->volume = volume;
      return 0;
    }

   private:
    const std::shared_ptr<FakeDevice> mDevice;
  };

  mutable std::mutex mMutex;
  std::vector<std::shared_ptr<FakeDevice>> mDevices;
  int mEnumerations = 0;
  std::recursive_mutex mHandlerMutex;  // a handler may end the watch from inside
  HotplugHandler mHandler;
};

}  // namespace vesk::test
