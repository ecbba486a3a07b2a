#include "capture/linux/cameras/frame_stream.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <system_error>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/frame_intervals.h"
#include "capture/interface/monotonic_clock.h"
#include "capture/linux/nodes/node_error.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kBuffers = 6;
constexpr uint32_t kFewestBuffers = 2;
constexpr size_t kMostWaiting = 2;  // beyond these, a receiver is shown the newest
constexpr int64_t kMicroseconds = 1'000'000;
constexpr int64_t kPatience = 3 * kMicroseconds;
constexpr int64_t kLongPatience = 30 * kMicroseconds;  // once it has been logged

int64_t realMicroseconds() {
  using std::chrono::microseconds;
  return std::chrono::duration_cast<microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

v4l2_buffer emptyBuffer(uint32_t index = 0) {
  v4l2_buffer buffer{};
  buffer.index = index;
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  return buffer;
}

/// Settings that not every camera has: one that lacks them is as good.
void setIfThere(const OpenNode& node, uint32_t control, int32_t value) {
  v4l2_control setting{control, value};
  node.ask(VIDIOC_S_CTRL, &setting);
}

std::string notStarted(const std::string& name) {
  return deviceText(DeviceKind::kVideo, name) + " could not be started";
}

}  // namespace

std::shared_ptr<FrameStream> FrameStream::start(std::shared_ptr<OpenNode> node, const CameraMode& mode,
                                                const VideoParameters& parameters, const std::string& name,
                                                FrameCallback callback, int32_t& status) {
  std::shared_ptr<FrameStream> stream(new FrameStream(std::move(node), *mode.format, name, std::move(callback)));
  int error = stream->mWake < 0 ? -errno : stream->setFormat(mode);
  if (error == 0) error = stream->setInterval(mode, parameters);
  if (error == 0) error = stream->makeBuffers();
  if (error == 0) error = stream->streamOn();
  status = kVCISuccess;
  if (error != 0) {
    status =
        failed(error == -EBUSY ? kVCIBusy : kVCIFailed, nodeError(notStarted(name), stream->mNode->name(), -error));
    stream->release();
    return nullptr;
  }
  try {
    stream->begin("vesk camera");
  } catch (const std::system_error& failure) {
    status = failed(kVCIFailed, errorOf(notStarted(name), failure));
    stream->release();
    return nullptr;
  }
  return stream;
}

FrameStream::FrameStream(std::shared_ptr<OpenNode> node, const PixelFormat& format, std::string name,
                         FrameCallback callback)
    : mNode(std::move(node)),
      mFormat(format),
      mName(std::move(name)),
      mCallback(std::move(callback)),
      mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

FrameStream::~FrameStream() {
  for (const Buffer& buffer : mBuffers) mNode->calls().unmap(buffer.memory, buffer.length);
  if (mWake >= 0) ::close(mWake);
}

int FrameStream::setFormat(const CameraMode& mode) {
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  format.fmt.pix.width = static_cast<uint32_t>(mode.width);
  format.fmt.pix.height = static_cast<uint32_t>(mode.height);
  format.fmt.pix.pixelformat = mFormat.fourcc;
  format.fmt.pix.field = V4L2_FIELD_ANY;
  if (const int error = mNode->ioctl(VIDIOC_S_FMT, &format); error < 0) return error;
  const v4l2_pix_format& chosen = format.fmt.pix;
  // Drivers change what they cannot do instead of refusing it.
  if (chosen.pixelformat != mFormat.fourcc || chosen.width != static_cast<uint32_t>(mode.width) ||
      chosen.height != static_cast<uint32_t>(mode.height))
    return -EINVAL;
  const uint32_t pixelBytes = chosen.width * mFormat.bytesPerPixel;
  mFrameFormat = {&mFormat, mode.width, mode.height, chosen.bytesperline == 0 ? pixelBytes : chosen.bytesperline,
                  chosen.quantization == V4L2_QUANTIZATION_FULL_RANGE};
  if (mFormat.codec == kCMVideoCodecType_H264) mUnits.emplace(std::span<const uint8_t>());
  if (mFormat.layout == PixelLayout::kNone) return 0;
  if (mFrameFormat.rowBytes < pixelBytes || mFrameFormat.rowBytes > 4 * pixelBytes) return -EINVAL;
  mConverter.emplace(mFrameFormat);
  return 0;
}

int FrameStream::setInterval(const CameraMode& mode, const VideoParameters& parameters) {
  const auto [nearest, fraction] = nearestOf(mode, parameters);
  v4l2_streamparm request{};
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  v4l2_fract& chosen = request.parm.capture.timeperframe;
  chosen = fraction;
  const int error = mNode->ioctl(VIDIOC_S_PARM, &request);
  if (error == -EBUSY || error == -ENODEV) return error;
  // Cameras without a choice have no such call, or leave it empty.
  if (error != 0 || chosen.numerator == 0 || chosen.denominator == 0) chosen = fraction;
  const int64_t interval =
      std::clamp<int64_t>(chosen.numerator * kMicroseconds / chosen.denominator, 1, 10 * kMicroseconds);
  mClock.emplace(interval);
  mPatience = std::max(kPatience, 4 * interval);
  // Nothing is logged about a usual rate that the camera lacks where nobody has chosen one.
  const uint64_t asked = askedInterval(parameters) == kUsualInterval ? nearest : askedInterval(parameters);
  const uint64_t given = uint64_t{chosen.numerator} * kTenMillionths / chosen.denominator;
  if (given != 0 && !isSameRate(given, asked))
    NSLog(LogLevel::kInfo, "The camera \"" + mName + "\" was asked for " + rateText(asked) +
                               " pictures a second and gives " + rateText(given) + ".");
  if (mUnits && parameters.bitRate > 0)
    setIfThere(*mNode, V4L2_CID_MPEG_VIDEO_BITRATE,
               static_cast<int32_t>(std::min<uint32_t>(parameters.bitRate, INT32_MAX)));
  return 0;
}

int FrameStream::makeBuffers() {
  v4l2_requestbuffers request{};
  request.count = kBuffers;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  if (const int error = mNode->ioctl(VIDIOC_REQBUFS, &request); error < 0) return error;
  {
    MutexLock lock(mMutex);
    mIsReleased = false;
  }
  if (request.count < kFewestBuffers) return -ENOMEM;
  for (uint32_t index = 0; index < request.count; ++index) {
    v4l2_buffer buffer = emptyBuffer(index);
    if (const int error = mNode->ioctl(VIDIOC_QUERYBUF, &buffer); error < 0) return error;
    uint8_t* const memory = mNode->calls().map(mNode->descriptor(), buffer.length, buffer.m.offset);
    if (!memory) return -ENOMEM;
    mBuffers.push_back({memory, buffer.length});
  }
  mWaiting.reserve(mBuffers.size());
  return 0;
}

/// Gives the driver all buffers and lets it run.
int FrameStream::streamOn() {
  for (uint32_t index = 0; index < mBuffers.size(); ++index) {
    v4l2_buffer buffer = emptyBuffer(index);
    if (const int error = mNode->ioctl(VIDIOC_QBUF, &buffer); error < 0) return error;
  }
  mEmptyAt = monotonicMicroseconds();
  mSequence.reset();
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (const int error = mNode->ioctl(VIDIOC_STREAMON, &type); error < 0) return error;
  if (mUnits) setIfThere(*mNode, V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1);
  return 0;
}

/// Leaves the node to whoever starts it next. Mapped buffers live on until they are unmapped.
void FrameStream::release() {
  MutexLock lock(mMutex);
  if (mIsReleased) return;
  mIsReleased = true;
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  mNode->ioctl(VIDIOC_STREAMOFF, &type);
  v4l2_requestbuffers none{};
  none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  none.memory = V4L2_MEMORY_MMAP;
  mNode->ioctl(VIDIOC_REQBUFS, &none);
}

void FrameStream::requestEnd() {
  mIsStopping = true;
  eventfd_write(mWake, 1);
}

StreamCounts FrameStream::counts() const {
  return {.delivered = mCounts.delivered,
          .damaged = mCounts.damaged,
          .empty = mCounts.empty,
          .late = mCounts.late,
          .lost = mCounts.lost};
}

void FrameStream::run() {
  mLastFrameAt = mNode->calls().now();
  mDueAt = mLastFrameAt + mPatience;
  while (true) {
    waitForFrame();
    const bool isWell = mIsStopping || dequeueWaiting();
    if (!mIsStopping) deliverWaiting();
    mIsOverdue = mIsOverdue || mNode->calls().now() >= mDueAt;  // as with nothing but damaged ones
    if (mIsStopping || ((!isWell || mIsOverdue) && !recover())) break;
  }
  release();
  report();
}

/// Waits for a frame, the end, or until it is time to do something about there being none.
void FrameStream::waitForFrame() {
  pollfd descriptors[] = {{mWake, POLLIN, 0}, {mNode->descriptor(), POLLIN, 0}};
  const int64_t left = std::max<int64_t>(mDueAt - mNode->calls().now(), 0);
  const auto milliseconds = static_cast<int>((left + 999) / 1000);
  const int ready = mNode->calls().poll(std::span(descriptors).first(mIsDown ? 1 : 2), milliseconds);
  mIsBroken = ready < 0 || (descriptors[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  mIsOverdue = ready == 0;
}

/// Takes from the driver what is ready. @return false when it cannot go on like this
bool FrameStream::dequeueWaiting() {
  mWaiting.clear();
  if (mIsDown) return true;
  while (mWaiting.size() < mBuffers.size()) {
    v4l2_buffer buffer = emptyBuffer();
    const int error = mNode->ioctl(VIDIOC_DQBUF, &buffer);
    if (error == -EAGAIN) return !mIsBroken || !mWaiting.empty();
    if (error < 0 || buffer.index >= mBuffers.size()) return false;
    mWaiting.push_back(buffer);
  }
  return true;
}

void FrameStream::deliverWaiting() {
  const int64_t emptyAgainAt = monotonicMicroseconds();
  size_t late = mWaiting.size() > kMostWaiting && !mUnits ? mWaiting.size() - kMostWaiting : 0;
  for (const v4l2_buffer& buffer : mWaiting) {
    if (mIsStopping) return;
    countGap(buffer.sequence);
    if (late > 0) {
      --late;
      count(&Counts::late);
    } else {
      deliver(buffer);
    }
    if (!mIsStopping) queueBuffer(buffer.index);
  }
  mEmptyAt = emptyAgainAt;
}

void FrameStream::deliver(const v4l2_buffer& buffer) {
  const Buffer& memory = mBuffers[buffer.index];
  if (buffer.bytesused == 0) return count(&Counts::empty);
  const bool isWhole = (buffer.flags & V4L2_BUF_FLAG_ERROR) == 0 && buffer.bytesused <= memory.length;
  const std::span<uint8_t> frame = isWhole ? prepare({memory.memory, buffer.bytesused}) : std::span<uint8_t>();
  if (frame.empty()) {
    if (mUnits) setIfThere(*mNode, V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1);  // the next ones need it
    return count(&Counts::damaged);
  }
  const int64_t time =
      mClock->stamp({buffer.timestamp.tv_sec * kMicroseconds + buffer.timestamp.tv_usec,
                     (buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC,
                     monotonicMicroseconds(), realMicroseconds(), mEmptyAt});
  count(&Counts::delivered);
  mCallback(frame.data(), static_cast<uint32_t>(frame.size()), time);
  frameCame();
}

/// The payload in the form that was asked for; empty when it is not whole.
std::span<uint8_t> FrameStream::prepare(std::span<uint8_t> payload) {
  if (mConverter) return mConverter->convert(payload);
  if (mUnits) {
    const auto unit = mUnits->write(payload);
    return unit ? unit->bytes : std::span<uint8_t>();
  }
  // Decoders cope with missing tables and ends, but not with what does not begin as a frame.
  const bool beginsWell = payload.size() > 2 && payload[0] == 0xFF && payload[1] == 0xD8;
  return beginsWell ? payload : std::span<uint8_t>();
}

bool FrameStream::queueBuffer(uint32_t index) {
  v4l2_buffer buffer = emptyBuffer(index);
  return mNode->ioctl(VIDIOC_QBUF, &buffer) == 0;
}

bool FrameStream::isAttached() const {
  v4l2_capability capability{};
  return mNode->ioctl(VIDIOC_QUERYCAP, &capability) != -ENODEV;
}

/// A whole frame has come.
void FrameStream::frameCame() {
  const int64_t now = mNode->calls().now();
  if (mFailures > 1)
    NSLog(LogLevel::kInfo, "The camera \"" + mName + "\" sends pictures again, after " +
                               std::to_string((now - mLastFrameAt) / kMicroseconds) + " s.");
  mFailures = 0;
  mNextReportAt = 0;
  mLastFrameAt = now;
  mDueAt = now + mPatience;
}

/// After an error or a time without frames: streams of a machine that has slept, and of cameras that
/// hang, go on when they are started anew. @return false when the camera has gone
bool FrameStream::recover() {
  if (!isAttached()) return false;  // reported by the hot-plug handler
  const int64_t now = mNode->calls().now();
  const std::string waited = std::to_string((now - mLastFrameAt) / kMicroseconds) + " s";
  const bool isHopeful = mFailures++ == 0;
  if (isHopeful && mIsOverdue)
    NSLog(LogLevel::kWarning,
          "The camera \"" + mName + "\" has sent no picture for " + waited + ": it is being started again.");
  if (!isHopeful && now >= mNextReportAt) {
    mNextReportAt = now + kLongPatience;
    NSLog(LogLevel::kWarning, "The camera \"" + mName + "\" has stopped sending pictures " + waited +
                                  " ago, and starting it again did not help. Plug it in again.");
  }
  // One that failed again at once is given time.
  mIsDown = (!isHopeful && !mIsOverdue) || !restart();
  mDueAt = now + (mFailures > 2 ? kLongPatience : mPatience);
  return true;
}

bool FrameStream::restart() {
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  mNode->ioctl(VIDIOC_STREAMOFF, &type);
  return streamOn() == 0;
}

void FrameStream::countGap(uint32_t sequence) {
  if (mSequence && sequence - *mSequence > 1 && sequence - *mSequence < UINT32_MAX / 2) {
    count(&Counts::lost, sequence - *mSequence - 1);
    if (mUnits) setIfThere(*mNode, V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1);
  }
  mSequence = sequence;
}

void FrameStream::report() {
  const StreamCounts all = counts();
  if (all.damaged + all.empty + all.late + all.lost == 0) return;
  NSLog(LogLevel::kInfo, "The camera \"" + mName + "\" delivered " + std::to_string(all.delivered) + " pictures; " +
                             std::to_string(all.lost) + " were lost on the way, " + std::to_string(all.late) +
                             " came too fast, " + std::to_string(all.damaged) + " were damaged and " +
                             std::to_string(all.empty) + " empty.");
}

}  // namespace vesk::capture
