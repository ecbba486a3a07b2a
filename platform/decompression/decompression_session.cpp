#include "platform/decompression/decompression_session.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/decompression/picture_limits.h"

namespace vesk {
namespace {

/// Frames whose pictures may still come; more than any stream holds back (H.264 holds back 16).
constexpr size_t kMostDecoding = 64;

/// Whether an attribute, if it is there at all, asks for `value`.
bool asksFor(const PixelBufferAttributes& attributes, const char* key, int64_t value) {
  const auto found = attributes.find(key);
  if (found == attributes.end()) return true;
  const auto* const number = found->second.as<int64_t>();
  return number != nullptr && *number == value;
}

}  // namespace

OSStatus ICMDecompressionSession::create(const ImageDescription& description,
                                         const ICMDecompressionSessionOptions* /*options*/,
                                         const PixelBufferAttributes& attributes,
                                         const ICMDecompressionTrackingCallbackRecord& trackingCallback,
                                         std::unique_ptr<ICMDecompressionSession>* session) {
  const uint16_t width = description.get(ImageDescription::kWidth);
  const uint16_t height = description.get(ImageDescription::kHeight);
  if (!session || !isDecodableSize(width, height)) return paramErr;
  if (!asksFor(attributes, kCVPixelBufferWidthKey, width) || !asksFor(attributes, kCVPixelBufferHeightKey, height))
    return paramErr;
  try {
    auto decoder = makeFrameDecoder(description);
    if (!decoder) return noCodecErr;
    session->reset(new ICMDecompressionSession(std::move(decoder), trackingCallback));
  } catch (const std::bad_alloc&) {
    return memFullErr;
  }
  return noErr;
}

ICMDecompressionSession::ICMDecompressionSession(std::unique_ptr<FrameDecoder> decoder,
                                                 const ICMDecompressionTrackingCallbackRecord& trackingCallback)
    : mDecoder(std::move(decoder)), mCallback(trackingCallback) {}

ICMDecompressionSession::~ICMDecompressionSession() {
  for (const Waiting& waiting : mWaiting) track(noErr, kICMDecompressionTracking_FrameDropped, nullptr, waiting.frame);
}

OSStatus ICMDecompressionSession::decodeFrame(std::span<const uint8_t> data, const ICMFrameTimeRecord& frameTime,
                                              void* sourceFrameRefCon) {
  if (data.empty() || frameTime.recordSize != static_cast<int32_t>(sizeof frameTime)) return paramErr;
  const bool isScheduled = (frameTime.flags & icmFrameTimeIsNonScheduledDisplayTime) == 0;
  const Frame frame{++mLastNumber, frameTime.value, frameTime.duration, sourceFrameRefCon};
  OSStatus status = noErr;
  try {
    mPictures.clear();
    mDecoding.push_back(frame);
    status = mDecoder->decode(data, frame.number, mPictures);
    for (DecodedPicture& picture : mPictures) mWaiting.push_back({std::move(picture.image), takeFrame(picture.frame)});
  } catch (const std::bad_alloc&) {
    status = memFullErr;
  }
  if (status != noErr) track(status, kICMDecompressionTracking_FrameDropped, nullptr, takeFrame(frame.number));
  forgetOldFrames();
  if (isScheduled) emitAll();
  return status;
}

OSStatus ICMDecompressionSession::setNonScheduledDisplayTime(int64_t /*displayTime*/, int32_t timeScale,
                                                             uint32_t flags) {
  if (timeScale <= 0 || flags != 0) return paramErr;
  emitAll();
  return noErr;
}

/// Takes a frame off the list of those that are being decoded. One that is no longer on it (a second
/// picture from the same frame) has no times.
ICMDecompressionSession::Frame ICMDecompressionSession::takeFrame(int64_t number) {
  const auto found =
      std::find_if(mDecoding.begin(), mDecoding.end(), [number](const Frame& each) { return each.number == number; });
  if (found == mDecoding.end()) return Frame{number};
  const Frame frame = *found;
  mDecoding.erase(found);
  return frame;
}

/// Frames that never gave a picture of their own, such as those without slices.
void ICMDecompressionSession::forgetOldFrames() {
  while (mDecoding.size() > kMostDecoding) mDecoding.pop_front();
}

void ICMDecompressionSession::track(OSStatus result, ICMDecompressionTrackingFlags flags, const CVImageBufferRef& image,
                                    const Frame& frame) const {
  if (!mCallback.decompressionTrackingCallback) return;
  mCallback.decompressionTrackingCallback(mCallback.decompressionTrackingRefCon, result,
                                          flags | kICMDecompressionTracking_LastCall, image, frame.displayTime,
                                          frame.duration, kICMValidTime_DisplayTimeStampIsValid, nullptr, frame.refCon);
}

void ICMDecompressionSession::emitAll() {
  while (!mWaiting.empty()) {
    const Waiting next = std::move(mWaiting.front());
    mWaiting.pop_front();
    track(noErr, kICMDecompressionTracking_EmittingFrame, next.image, next.frame);
  }
}

}  // namespace vesk
