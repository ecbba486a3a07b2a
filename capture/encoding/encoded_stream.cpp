#include "capture/encoding/encoded_stream.h"

#include <system_error>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/pixel_buffer.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/usual_bit_rate.h"
#include "platform/decompression/av_layout.h"
#include "platform/foundation/errors.h"
#include "platform/pixels/picture_conversion.h"

namespace vesk::capture {
namespace {

constexpr int64_t kMicroseconds = 1'000'000;

// A town in 720p at 2 Mbit/s: "superfast" is 3.8 dB better than "ultrafast" for half more time;
// "veryfast" takes two fifths more again for 0.16 dB. The profile "high" adds nothing at these rates
// and asks more of the movie's description.
constexpr const char* kPreset = "superfast";
constexpr const char* kProfile = "main";
constexpr int64_t kMostPixelsOfOneThread = 1280 * 720;

}  // namespace

JPEGToPlanes::JPEGToPlanes(int width, int height)
    : mWidth(width), mHeight(height), mDecoder({}, static_cast<uint64_t>(width) * static_cast<uint64_t>(height)) {}

bool JPEGToPlanes::fill(const PlaneMemory& planes, std::span<const uint8_t> jpeg) {
  mDecoded.clear();
  if (jpeg.empty() || mDecoder.decode(jpeg, 0, mDecoded) != noErr || mDecoded.empty()) return false;
  const CVPixelBuffer& decoded = *mDecoded.front().image;
  return decoded.width() == mWidth && decoded.height() == mHeight && convertTo420(rawPictureOf(decoded), planes);
}

std::shared_ptr<EncodedStream> EncodedStream::start(const std::string& camera, const VideoParameters& input,
                                                    uint32_t bitRate, FrameCallback callback) {
  std::shared_ptr<EncodedStream> stream(new EncodedStream(camera, input, std::move(callback)));
  Error error;
  if (!stream->prepare(bitRate, error)) {
    failed(kVCIFailed, std::move(error));
    return nullptr;
  }
  try {
    stream->begin("vesk encoder");
  } catch (const std::system_error& failure) {
    failed(kVCIFailed,
           errorOf("the pictures of " + deviceText(DeviceKind::kVideo, camera) + " cannot be encoded", failure));
    return nullptr;
  }
  return stream;
}

EncodedStream::EncodedStream(std::string camera, const VideoParameters& input, FrameCallback callback)
    : mCamera(std::move(camera)), mInput(input), mCallback(std::move(callback)) {
  for (Slot& slot : mSlots) mEmpty.push_back(&slot);
}

bool EncodedStream::prepare(uint32_t bitRate, Error& error) {
  H264Encoder::Settings settings;
  settings.width = mInput.width;
  settings.height = mInput.height;
  settings.intervalNumerator = mInput.intervalNumerator;
  settings.intervalDenominator = mInput.intervalDenominator;
  settings.bitRate = bitRate > 0 ? bitRate : encodedH264BitRate(mInput.width, mInput.height, askedInterval(mInput));
  settings.preset = kPreset;
  settings.profile = kProfile;
  settings.threads = int64_t{mInput.width} * mInput.height > kMostPixelsOfOneThread ? 2 : 1;
  // USB cameras that say nothing else, and JPEG, have the matrix of BT.601 whatever their size, and
  // the primaries of BT.709. Raw frames are shown so too.
  settings.matrix = AVCOL_SPC_SMPTE170M;
  settings.primaries = AVCOL_PRI_BT709;
  const std::string name = deviceText(DeviceKind::kVideo, mCamera);
  mEncoder = H264Encoder::create(settings, name, error);
  if (!mEncoder) return false;
  error = {Cause::kOther, "the pictures of " + name + " cannot be encoded: there is not enough memory",
           "Close other programs, or choose a smaller size."};
  if (mInput.codec == kCMVideoCodecType_MotionJPEG) {
    mJPEG.emplace(mInput.width, mInput.height);
    mDecoded = mEncoder->makeFrame();
    return mDecoded != nullptr;
  }
  for (Slot& slot : mSlots) {
    slot.pixels = mEncoder->makeFrame();
    if (!slot.pixels) return false;
  }
  return true;
}

void EncodedStream::take(std::span<const uint8_t> bytes, int64_t timestamp) {
  Slot* const slot = emptySlot();
  if (!slot) return;
  if (!fill(*slot, bytes)) return recycle(*slot, &EncodingCounts::damaged);
  slot->timestamp = timestamp;
  MutexLock lock(mMutex);
  mWaiting.push_back(slot);
  mChanged.notify_all();
}

/// One that nobody uses, or that of the frame that has waited longest. Null once stopped.
EncodedStream::Slot* EncodedStream::emptySlot() {
  Slot* slot = nullptr;
  bool isFirstLate = false;
  {
    MutexLock lock(mMutex);
    if (mIsStopping) return nullptr;
    if (!mEmpty.empty()) {
      slot = mEmpty.back();
      mEmpty.pop_back();
    } else {
      slot = mWaiting.front();
      mWaiting.pop_front();
      isFirstLate = mCounts.late++ == 0;
    }
  }
  if (isFirstLate) logThatItIsSlow();
  return slot;
}

/// The bytes are the camera's for this call only. Raw frames are converted rather than copied.
bool EncodedStream::fill(Slot& slot, std::span<const uint8_t> bytes) const {
  if (slot.pixels) {
    const int rowBytes = mInput.width * 2;
    const bool isWhole = bytes.size() >= static_cast<size_t>(rowBytes) * static_cast<size_t>(mInput.height);
    const RawPicture raw{PixelLayout::kUYVY, mInput.width, mInput.height, {bytes.data()}, {rowBytes}};
    return isWhole && av_frame_make_writable(slot.pixels.get()) == 0 && convertTo420(raw, planeMemoryOf(*slot.pixels));
  }
  slot.jpeg.assign(bytes.begin(), bytes.end());
  return true;
}

void EncodedStream::recycle(Slot& slot, uint64_t EncodingCounts::*counter) {
  MutexLock lock(mMutex);
  ++(mCounts.*counter);
  mEmpty.push_back(&slot);
}

void EncodedStream::logThatItIsSlow() const {
  NSLog(LogLevel::kWarning, "The pictures of the camera \"" + mCamera +
                                "\" come faster than this computer encodes them at " + std::to_string(mInput.width) +
                                "x" + std::to_string(mInput.height) + ": some are left out. Choose a smaller size.");
}

void EncodedStream::requestEnd() {
  MutexLock lock(mMutex);
  mIsStopping = true;
  mChanged.notify_all();
}

EncodingCounts EncodedStream::counts() const {
  MutexLock lock(mMutex);
  return mCounts;
}

void EncodedStream::run() {
  while (Slot* const slot = nextSlot()) recycle(*slot, encode(*slot));
  report();
}

EncodedStream::Slot* EncodedStream::nextSlot() {
  MutexLock lock(mMutex);
  while (mWaiting.empty() && !mIsStopping) mChanged.wait(mMutex);
  if (mIsStopping) return nullptr;
  Slot* const slot = mWaiting.front();
  mWaiting.pop_front();
  return slot;
}

/// Encodes and delivers a frame. @return what it is to be counted as
uint64_t EncodingCounts::*EncodedStream::encode(Slot& slot) {
  if (mJPEG && (av_frame_make_writable(mDecoded.get()) != 0 || !mJPEG->fill(planeMemoryOf(*mDecoded), slot.jpeg)))
    return &EncodingCounts::damaged;
  const bool isKey = mIsKeyRequested.exchange(false, std::memory_order_relaxed) || isKeyDue(slot.timestamp);
  const auto unit = mEncoder->encode(mJPEG ? *mDecoded : *slot.pixels, isKey);
  if (!unit) return &EncodingCounts::failed;
  if (unit->isIDR) mKeyAt = slot.timestamp;
  mLastAt = slot.timestamp;
  mCallback(unit->bytes.data(), static_cast<uint32_t>(unit->bytes.size()), slot.timestamp);
  return &EncodingCounts::delivered;
}

/// Cameras slow down in the dark, and frames are left out: the encoder counts frames, this looks
/// at the clock. Due when the next one, coming as this one did, would be too late.
bool EncodedStream::isKeyDue(int64_t timestamp) const {
  return mKeyAt && timestamp + (timestamp - mLastAt) - *mKeyAt > kKeyFrameSeconds * kMicroseconds;
}

void EncodedStream::report() const {
  const EncodingCounts all = counts();
  if (all.late + all.damaged + all.failed == 0) return;
  NSLog(LogLevel::kInfo, "Of the camera \"" + mCamera + "\", " + std::to_string(all.delivered) +
                             " pictures were encoded; " + std::to_string(all.late) + " were left out, " +
                             std::to_string(all.damaged) + " were damaged and " + std::to_string(all.failed) +
                             " could not be encoded.");
}

}  // namespace vesk::capture
