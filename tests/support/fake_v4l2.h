#pragma once

#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capture/interface/monotonic_clock.h"
#include "capture/linux/cameras/camera_finder.h"
#include "capture/linux/nodes/v4l2_calls.h"
#include "platform/foundation/mutex.h"
#include "tests/support/fake_controls.h"

namespace vesk::test {

/// A kernel with video nodes that behave as its drivers do: one streams at a time, changing the form
/// needs all buffers given back, pictures that find no buffer are lost but numbered. Errors come on
/// command. Descriptors are those of event counters, so that waiting is the system's own.
class FakeV4L2 : public capture::V4L2Calls {
 public:
  struct Size {
    uint32_t width;
    uint32_t height;
    std::vector<v4l2_fract> intervals = {{1, 30}, {1, 15}};
  };
  struct Format {
    uint32_t fourcc;
    std::vector<Size> sizes;
    std::optional<v4l2_frmsize_stepwise> range = {};
    std::optional<v4l2_frmival_stepwise> intervalRange = {};
    uint32_t padding = 0;  ///< bytes after each row
  };
  struct Node {
    std::string card = "Test Camera";
    std::string bus = "usb-0000:00:14.0-3";
    uint32_t deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    bool hasInputs = true;  ///< drivers of processors have no such call
    std::vector<Format> formats = {};
    uint32_t stampFlags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    int openError = 0;
    FakeControls controls = {};
    std::optional<v4l2_fract> onlyInterval = {};  ///< what it makes of every other
  };
  struct Picture {
    std::vector<uint8_t> bytes;
    uint32_t flags = 0;
    std::optional<uint32_t> bytesUsed = {};  ///< said instead of the truth
    std::optional<int64_t> stamp = {};       ///< microseconds, instead of now
  };

  static constexpr uint32_t kBufferBytes = 64 << 10;

  ~FakeV4L2() override { ::close(mExpiry); }

  void addNode(const std::string& name, Node node) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mNodes[name] = State{std::move(node)};
  }
  /// Pulls the node out under those who have it open.
  void remove(const std::string& name) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mNodes[name].isGone = true;
    for (const auto& [descriptor, owner] : mOpen) {
      if (owner == name) eventfd_write(descriptor, 1);
    }
  }
  /// The next such call of the node fails with this errno value.
  void failNext(const std::string& name, unsigned long request, int error) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mNodes[name].failures.emplace_back(request, error);
  }
  /// The next such call of the node waits, as slow cameras make it, until it is let go.
  void holdNext(const std::string& name, unsigned long request) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mHeld = {name, request, true, false};
  }
  /// Returns once the call is waiting.
  void waitForHeld() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    while (!mHeld.isWaiting) mHeldChanged.wait(mMutex);
  }
  void letGo() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mHeld.isHeld = false;
    mHeldChanged.notify_all();
  }
  /// Lets so many microseconds go by: without that, no time does.
  void pass(int64_t microseconds) { mNow += microseconds; }
  /// Whoever waits now has waited for as long as was asked; returns when that has been noticed.
  void expire() {
    eventfd_write(mExpiry, 1);
    uint64_t left = 1;
    for (pollfd waiting = {mExpiry, POLLIN, 0}; left != 0; std::this_thread::yield())
      left = ::poll(&waiting, 1, 0) > 0 ? 1 : 0;
  }
  /// Wakes the receiver, so that it meets what has been set.
  void wake(const std::string& name) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    if (mNodes[name].streamer >= 0) eventfd_write(mNodes[name].streamer, 1);
  }
  /// The driver has a picture. @return false when no buffer was free for it
  bool deliver(const std::string& name, const Picture& picture) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    State& node = mNodes[name];
    const uint32_t sequence = node.sequence++;
    if (!node.isStreaming || node.queued.empty()) return false;
    v4l2_buffer buffer{};
    buffer.index = node.queued.front();
    node.queued.pop_front();
    std::vector<uint8_t>& memory = *node.buffers[buffer.index];
    std::copy_n(picture.bytes.begin(), std::min(picture.bytes.size(), memory.size()), memory.begin());
    buffer.bytesused = picture.bytesUsed.value_or(static_cast<uint32_t>(picture.bytes.size()));
    buffer.flags = picture.flags | node.node.stampFlags;
    buffer.sequence = sequence;
    const int64_t stamp = picture.stamp.value_or(capture::monotonicMicroseconds());
    buffer.timestamp = {stamp / 1'000'000, stamp % 1'000'000};
    node.done.push_back(buffer);
    eventfd_write(node.streamer, 1);
    return true;
  }

  bool isStreaming(const std::string& name) { return stateOf(name).isStreaming; }
  /// Whether all failures that were set have happened.
  bool isCalm(const std::string& name) { return stateOf(name).failures.empty(); }
  /// The interval that the node was set to last; 0/0 before that.
  v4l2_fract intervalOf(const std::string& name) { return stateOf(name).interval; }
  size_t buffersOf(const std::string& name) { return stateOf(name).buffers.size(); }
  size_t queuedOf(const std::string& name) { return stateOf(name).queued.size(); }
  /// How often the node has been set running.
  size_t startsOf(const std::string& name) { return stateOf(name).starts; }
  /// Whether `memory` lies in a buffer of the driver's.
  bool isDriverMemory(const std::string& name, const uint8_t* memory) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    const auto& buffers = mNodes[name].buffers;
    return std::any_of(buffers.begin(), buffers.end(), [&](const auto& buffer) {
      return memory >= buffer->data() && memory < buffer->data() + buffer->size();
    });
  }
  /// The settings that were made, in order: control and value.
  std::vector<std::pair<uint32_t, int32_t>> controlsSet(const std::string& name) { return stateOf(name).controls; }
  /// The controls of the node, to look at or to change while no call is under way.
  FakeControls& controlsOf(const std::string& name) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mNodes[name].node.controls;
  }
  size_t openCount() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mOpen.size();
  }
  size_t opensSoFar() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mOpens;
  }
  size_t mappedCount() VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mMapped.size();
  }

  // V4L2Calls.
  int open(const std::string& name) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    ++mOpens;
    const auto found = mNodes.find(name);
    if (found == mNodes.end() || found->second.isGone) return -ENOENT;
    if (found->second.node.openError != 0) return -found->second.node.openError;
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    mOpen[descriptor] = name;
    return descriptor;
  }
  void close(int descriptor) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    State& node = mNodes[mOpen.at(descriptor)];
    if (node.streamer == descriptor) reset(node);
    mOpen.erase(descriptor);
    ::close(descriptor);
  }
  uint8_t* map(int descriptor, size_t length, uint32_t offset) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    State& node = mNodes[mOpen.at(descriptor)];
    if (offset >= node.buffers.size() || length != kBufferBytes) return nullptr;
    mMapped[node.buffers[offset]->data()] = node.buffers[offset];
    return node.buffers[offset]->data();
  }
  void unmap(uint8_t* memory, size_t) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mMapped.erase(memory);
  }
  int64_t now() override { return mNow; }
  /// The time is over when a test says so.
  int poll(std::span<pollfd> descriptors, int) override {
    std::vector<pollfd> all(descriptors.begin(), descriptors.end());
    all.push_back({mExpiry, POLLIN, 0});
    const int ready = ::poll(all.data(), all.size(), -1);
    std::copy_n(all.begin(), descriptors.size(), descriptors.begin());
    if (all.back().revents == 0) return ready;
    uint64_t ignored = 0;
    if (ready == 1) eventfd_read(mExpiry, &ignored);
    return ready - 1;
  }

  int ioctl(int descriptor, unsigned long request, void* argument) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    while (mHeld.isHeld && mHeld.request == request && mHeld.name == mOpen.at(descriptor)) {
      mHeld.isWaiting = true;
      mHeldChanged.notify_all();
      mHeldChanged.wait(mMutex);
    }
    State& node = mNodes[mOpen.at(descriptor)];
    if (node.isGone) return -ENODEV;
    const auto failure = std::find_if(node.failures.begin(), node.failures.end(),
                                      [&](const auto& each) { return each.first == request; });
    if (failure != node.failures.end()) {
      const int error = failure->second;
      node.failures.erase(failure);
      return -error;
    }
    return answer(node, descriptor, request, argument);
  }

 private:
  using BufferPtr = std::shared_ptr<std::vector<uint8_t>>;
  struct State {
    Node node;
    bool isGone = false;
    bool isStreaming = false;
    int streamer = -1;  // who has the buffers
    uint32_t sequence = 0;
    size_t starts = 0;
    std::vector<BufferPtr> buffers;
    std::deque<uint32_t> queued;
    std::deque<v4l2_buffer> done;
    std::vector<std::pair<unsigned long, int>> failures;
    std::vector<std::pair<uint32_t, int32_t>> controls;
    v4l2_fract interval = {};
  };

  State stateOf(const std::string& name) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mNodes[name];
  }

  static void reset(State& node) {
    node.isStreaming = false;
    node.streamer = -1;
    node.buffers.clear();
    node.queued.clear();
    node.done.clear();
  }

  static int answer(State& node, int descriptor, unsigned long request, void* argument) {
    if (const auto told = node.node.controls.answer(request, argument)) return *told;
    const bool isOthers = node.streamer >= 0 && node.streamer != descriptor;
    switch (request) {
      case VIDIOC_QUERYCAP:
        return identify(node.node, *static_cast<v4l2_capability*>(argument));
      case VIDIOC_ENUMINPUT:
        return !node.node.hasInputs ? -ENOTTY : static_cast<v4l2_input*>(argument)->index == 0 ? 0 : -EINVAL;
      case VIDIOC_ENUM_FMT: {
        auto& entry = *static_cast<v4l2_fmtdesc*>(argument);
        if (entry.index >= node.node.formats.size()) return -EINVAL;
        entry.pixelformat = node.node.formats[entry.index].fourcc;
        return 0;
      }
      case VIDIOC_ENUM_FRAMESIZES:
        return enumerateSizes(node.node, *static_cast<v4l2_frmsizeenum*>(argument));
      case VIDIOC_ENUM_FRAMEINTERVALS:
        return enumerateIntervals(node.node, *static_cast<v4l2_frmivalenum*>(argument));
      case VIDIOC_TRY_FMT:
        return choose(node.node, *static_cast<v4l2_format*>(argument));
      case VIDIOC_S_FMT:
        if (isOthers || !node.buffers.empty()) return -EBUSY;
        return choose(node.node, *static_cast<v4l2_format*>(argument));
      case VIDIOC_S_PARM: {
        if (isOthers) return -EBUSY;
        v4l2_fract& interval = static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe;
        node.interval = interval;
        interval = node.node.onlyInterval.value_or(interval);
        return 0;
      }
      case VIDIOC_S_CTRL: {
        const auto& control = *static_cast<v4l2_control*>(argument);
        node.controls.emplace_back(control.id, control.value);
        return 0;
      }
      case VIDIOC_REQBUFS: {
        if (isOthers) return -EBUSY;
        auto& wish = *static_cast<v4l2_requestbuffers*>(argument);
        reset(node);
        if (wish.count == 0) return 0;
        node.streamer = descriptor;
        for (uint32_t at = 0; at < wish.count; ++at)
          node.buffers.push_back(std::make_shared<std::vector<uint8_t>>(kBufferBytes));
        return 0;
      }
      case VIDIOC_QUERYBUF: {
        auto& buffer = *static_cast<v4l2_buffer*>(argument);
        if (buffer.index >= node.buffers.size()) return -EINVAL;
        buffer.length = kBufferBytes;
        buffer.m.offset = buffer.index;
        return 0;
      }
      case VIDIOC_QBUF: {
        const uint32_t index = static_cast<v4l2_buffer*>(argument)->index;
        const bool isQueued = std::find(node.queued.begin(), node.queued.end(), index) != node.queued.end();
        if (index >= node.buffers.size() || isQueued) return -EINVAL;
        node.queued.push_back(index);
        return 0;
      }
      case VIDIOC_DQBUF: {
        if (!node.isStreaming) return -EINVAL;
        uint64_t ignored = 0;
        if (node.done.empty()) {
          eventfd_read(descriptor, &ignored);
          return -EAGAIN;
        }
        *static_cast<v4l2_buffer*>(argument) = node.done.front();
        node.done.pop_front();
        return 0;
      }
      case VIDIOC_STREAMON:
        if (node.streamer != descriptor) return -EBUSY;
        node.isStreaming = true;
        node.sequence = 0;
        ++node.starts;
        return 0;
      case VIDIOC_STREAMOFF:
        if (isOthers) return -EBUSY;
        node.isStreaming = false;
        node.queued.clear();
        node.done.clear();
        return 0;
      default:
        return -ENOTTY;
    }
  }

  static int identify(const Node& node, v4l2_capability& capability) {
    std::memcpy(capability.card, node.card.data(), std::min(node.card.size(), sizeof capability.card));
    std::memcpy(capability.bus_info, node.bus.data(), std::min(node.bus.size(), sizeof capability.bus_info));
    std::memcpy(capability.driver, "testcam", 7);
    capability.capabilities = V4L2_CAP_DEVICE_CAPS | V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    capability.device_caps = node.deviceCaps;
    return 0;
  }

  static const Format* formatOf(const Node& node, uint32_t fourcc) {
    const auto found = std::find_if(node.formats.begin(), node.formats.end(),
                                    [&](const Format& format) { return format.fourcc == fourcc; });
    return found == node.formats.end() ? nullptr : &*found;
  }

  static int enumerateSizes(const Node& node, v4l2_frmsizeenum& entry) {
    const Format* const format = formatOf(node, entry.pixel_format);
    if (!format || (format->range && entry.index > 0)) return -EINVAL;
    if (format->range) {
      entry.type = V4L2_FRMSIZE_TYPE_STEPWISE;
      entry.stepwise = *format->range;
      return 0;
    }
    if (entry.index >= format->sizes.size()) return -EINVAL;
    entry.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    entry.discrete = {format->sizes[entry.index].width, format->sizes[entry.index].height};
    return 0;
  }

  static int enumerateIntervals(const Node& node, v4l2_frmivalenum& entry) {
    const Format* const format = formatOf(node, entry.pixel_format);
    if (!format) return -EINVAL;
    if (format->intervalRange) {
      entry.type = V4L2_FRMIVAL_TYPE_STEPWISE;
      entry.stepwise = *format->intervalRange;
      return entry.index == 0 ? 0 : -EINVAL;
    }
    for (const Size& size : format->sizes) {
      if (size.width != entry.width || size.height != entry.height) continue;
      if (entry.index >= size.intervals.size()) return -EINVAL;
      entry.type = V4L2_FRMIVAL_TYPE_DISCRETE;
      entry.discrete = size.intervals[entry.index];
      return 0;
    }
    return -EINVAL;
  }

  /// Takes the wish where it can be met, else the first size, as drivers do.
  static int choose(const Node& node, v4l2_format& wish) {
    v4l2_pix_format& form = wish.fmt.pix;
    const Format* const format = formatOf(node, form.pixelformat);
    if (!format) return -EINVAL;
    const bool isThere = std::any_of(format->sizes.begin(), format->sizes.end(), [&](const Size& size) {
      return size.width == form.width && size.height == form.height;
    });
    if (!isThere && !format->range && !format->sizes.empty()) {
      form.width = format->sizes.front().width;
      form.height = format->sizes.front().height;
    }
    const bool isTwoBytes = form.pixelformat == V4L2_PIX_FMT_YUYV || form.pixelformat == V4L2_PIX_FMT_UYVY;
    form.bytesperline = form.width * (isTwoBytes ? 2 : 1) + format->padding;
    form.sizeimage = kBufferBytes;
    return 0;
  }

  std::atomic<int64_t> mNow = capture::monotonicMicroseconds();
  const int mExpiry = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct Held {
    std::string name;
    unsigned long request = 0;
    bool isHeld = false;
    bool isWaiting = false;
  };

  Mutex mMutex;
  std::condition_variable_any mHeldChanged;
  Held mHeld VESK_GUARDED_BY(mMutex);
  std::map<std::string, State> mNodes VESK_GUARDED_BY(mMutex);
  std::map<int, std::string> mOpen VESK_GUARDED_BY(mMutex);
  std::map<uint8_t*, BufferPtr> mMapped VESK_GUARDED_BY(mMutex);
  size_t mOpens VESK_GUARDED_BY(mMutex) = 0;
};

/// A finder that is told what is there.
class FakeCameraFinder : public capture::CameraFinder {
 public:
  std::vector<capture::VideoNode> nodes() override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return mNodes;
  }
  void watch(std::function<void()> changed) override { mChanged = std::move(changed); }

  void set(std::vector<capture::VideoNode> nodes) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mNodes = std::move(nodes);
  }
  /// Tells the watcher, on this thread.
  void tell() {
    if (mChanged) mChanged();
  }

 private:
  Mutex mMutex;
  std::vector<capture::VideoNode> mNodes VESK_GUARDED_BY(mMutex);
  std::function<void()> mChanged;
};

/// A node of a USB camera at a port: "3" and "4" are two ports.
inline capture::VideoNode usbNode(const std::string& node, const std::string& port, int index, int deviceNumber = 7) {
  capture::VideoNode found;
  found.node = node;
  found.usbPath = "/sys/devices/usb1/1-" + port;
  found.systemPath = found.usbPath + "/1-" + port + ":1.0/video4linux/" + node.substr(5);
  found.place = "pci-0000:00:14.0-usb-0:" + port + ":1.0";
  found.attachment = found.usbPath + "#" + std::to_string(deviceNumber);
  found.product = "From the database";
  found.capabilities = index == 0 ? ":capture:" : ":";
  found.index = index;
  found.vendorID = 0x1234;
  found.productID = 0x5678;
  found.revisionID = 0x0102;
  return found;
}

}  // namespace vesk::test
