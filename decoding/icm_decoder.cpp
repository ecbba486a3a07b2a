#include <vesk/icm_decoder.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <span>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include "decoding/jpeg_huffman_table.h"
#include "decoding/tracking_callback.h"
#include "platform/decompression/codec_info.h"
#include "platform/decompression/decompression_session.h"
#include "platform/decompression/image_description.h"
#include "platform/decompression/picture_limits.h"
#include "platform/h264/decoder_configuration.h"
#include "platform/h264/nal_unit.h"
#include "platform/h264/stream_conversion.h"

namespace vesk {
namespace {

constexpr int32_t kUnitsPerSecond = 10'000'000;
constexpr uint32_t k72DotsPerInch = 72U << 16;
constexpr int32_t kNormalRate = 1 << 16;
constexpr uint16_t kNoColourTable = 0xFFFF;
constexpr uint32_t kLongestParameterSet = 0xFFFF;            // its length has 16 bits in the description
constexpr size_t kLeastFrameBound = kMostPixelsUndescribed;  // a byte for each pixel of pictures that grow on the way

/// Keeps a copy of the first parameter set of a type.
void keepParameterSet(uint8_t type, const uint8_t* data, uint32_t size, std::unique_ptr<uint8_t[]>& set,
                      uint32_t& setLength) {
  if (set) return;
  const auto unit = h264::findUnit(type, {data, size});
  if (!unit || unit->size() > kLongestParameterSet) return;
  set.reset(new (std::nothrow) uint8_t[unit->size()]);
  if (!set) return;
  std::memcpy(set.get(), unit->data(), unit->size());
  setLength = static_cast<uint32_t>(unit->size());
}

/// Colours of standard-definition video: SMPTE 170M primaries, the transfer of BT.709, the matrix of BT.601.
constexpr std::array<uint8_t, kNCLCColorInfoSize> kVideoColours = {'n', 'c', 'l', 'c', 0, 6, 0, 1, 0, 6};

void addColours(ImageDescription& description) {
  std::array<uint8_t, kNCLCColorInfoSize> present{};
  if (ICMImageDescriptionGetProperty(description, kQTPropertyClass_ImageDescription,
                                     kICMImageDescriptionPropertyID_NCLCColorInfo, present) != noErr)
    ICMImageDescriptionSetProperty(description, kQTPropertyClass_ImageDescription,
                                   kICMImageDescriptionPropertyID_NCLCColorInfo, kVideoColours);
}

void reportTooLong(uint32_t length, uint32_t width, uint32_t height) {
  std::array<char, 128> line{};
  std::snprintf(line.data(), line.size(), "a frame of %u bytes is too long for %u x %u pixels and was dropped", length,
                width, height);
  NSLog(LogLevel::kWarning, line.data());
}

}  // namespace

/// Threads: like its decoder.
class ICMDecoder::State {
 public:
  State(uint32_t width, uint32_t height, uint32_t codec) : mWidth(width), mHeight(height), mCodec(codec) {}

  size_t rawSize() const;
  bool makeRoom(size_t length);
  int16_t decompressData(const uint8_t* data, int32_t inSizeUsed, int32_t inTime, void* refCon);
  bool configH264DecoderWithData(const uint8_t* data, uint32_t size);
  ImageDescription imageDescription() const;
  std::shared_ptr<ICMDecompressionSession> createDecoderSession() const;

  void setDelegate(DecoderProtocol* delegate) { mDelegate = delegate; }
  uint32_t frameCount() const { return mFrameCount; }
  int32_t timeScale() const { return mTimeScale; }

 private:
  bool makeSession(uint32_t length);
  void addCodecExtension(ImageDescription& description) const;

  DecoderProtocol* mDelegate = nullptr;
  uint32_t mWidth;
  uint32_t mHeight;
  uint32_t mCodec;
  std::shared_ptr<ICMDecompressionSession> mDecompS;
  uint32_t mFrameCount = 0;
  int32_t mTimeScale = 0;
  std::unique_ptr<uint8_t[]> m_sps;  ///< from its header byte on
  uint32_t m_sps_length = 0;
  std::unique_ptr<uint8_t[]> m_pps;  ///< from its header byte on
  uint32_t m_pps_length = 0;
  std::unique_ptr<uint8_t[]> mConversionFrame;
  size_t mConversionSize = 0;
};

std::shared_ptr<ICMDecoder> ICMDecoder::initWithWidth(uint32_t width, uint32_t inHeight, uint32_t inCodec) {
  try {
    auto state = std::make_unique<State>(width, inHeight, inCodec);
    if (!state->makeRoom(state->rawSize())) return nullptr;
    return std::shared_ptr<ICMDecoder>(new ICMDecoder(std::move(state)));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ICMDecoder::ICMDecoder(std::unique_ptr<State> state) : mState(std::move(state)) {}

ICMDecoder::~ICMDecoder() = default;

void ICMDecoder::setDelegate(DecoderProtocol* delegate) {
  mState->setDelegate(delegate);
}

int16_t ICMDecoder::decompressData(const uint8_t* data, int32_t inSizeUsed, int32_t inTime) {
  return mState->decompressData(data, inSizeUsed, inTime, this);
}

bool ICMDecoder::configH264DecoderWithData(const uint8_t* data, uint32_t size) {
  return mState->configH264DecoderWithData(data, size);
}

std::vector<uint8_t> ICMDecoder::createImageDescription() const {
  try {
    const ImageDescription description = mState->imageDescription();
    return {description.bytes().begin(), description.bytes().end()};
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::shared_ptr<ICMDecompressionSession> ICMDecoder::createDecoderSession() const {
  return mState->createDecoderSession();
}

uint32_t ICMDecoder::frameCount() const {
  return mState->frameCount();
}

int32_t ICMDecoder::timeScale() const {
  return mState->timeScale();
}

int16_t ICMDecoder::State::decompressData(const uint8_t* data, int32_t inSizeUsed, int32_t inTime, void* refCon) {
  // An empty frame before the parameter sets is dropped like every other one then.
  if (inSizeUsed == 0 && mCodec == kCMVideoCodecType_H264 && !mDecompS) return noErr;
  if (!data || inSizeUsed <= 0) return paramErr;
  const auto length = static_cast<uint32_t>(inSizeUsed);
  if (length > std::max(4 * rawSize(), kLeastFrameBound)) {
    reportTooLong(length, mWidth, mHeight);
    return codecBadDataErr;
  }
  if (!makeRoom(length)) return memFullErr;
  std::memcpy(mConversionFrame.get(), data, length);
  if (mCodec == kCMVideoCodecType_H264) h264::ensureLengths({mConversionFrame.get(), length});
  if (!mDecompS && !makeSession(length)) return noErr;

  mTimeScale = kUnitsPerSecond;
  ICMFrameTimeRecord frameTime;
  frameTime.value = inTime;
  frameTime.scale = mTimeScale;
  frameTime.rate = kNormalRate;
  frameTime.recordSize = sizeof frameTime;
  frameTime.frameNumber = static_cast<int32_t>(++mFrameCount);
  frameTime.flags = icmFrameTimeIsNonScheduledDisplayTime;
  const OSStatus status = mDecompS->decodeFrame({mConversionFrame.get(), length}, frameTime, refCon);
  mDecompS->setNonScheduledDisplayTime(inTime, mTimeScale, 0);
  return static_cast<int16_t>(status);
}

/// Bytes of a picture at 16 bits a pixel; 0 for a picture too large to be decoded.
size_t ICMDecoder::State::rawSize() const {
  return isDecodableSize(mWidth, mHeight) ? size_t{mWidth} * mHeight * 2 : 0;
}

/// Sees to it that the conversion buffer holds `length` bytes. It grows with the odd frame that is
/// longer than its raw picture, as tiny and very detailed ones can be.
bool ICMDecoder::State::makeRoom(size_t length) {
  if (length <= mConversionSize) return true;
  mConversionSize = 0;
  mConversionFrame.reset();
  mConversionFrame.reset(new (std::nothrow) uint8_t[length]);
  if (!mConversionFrame) return false;
  mConversionSize = length;
  return true;
}

bool ICMDecoder::State::makeSession(uint32_t length) {
  if (mCodec == kCMVideoCodecType_H264 && !configH264DecoderWithData(mConversionFrame.get(), length)) return false;
  mDecompS = createDecoderSession();
  return mDecompS != nullptr;
}

bool ICMDecoder::State::configH264DecoderWithData(const uint8_t* data, uint32_t size) {
  keepParameterSet(h264::kSequenceParameterSet, data, size, m_sps, m_sps_length);
  keepParameterSet(h264::kPictureParameterSet, data, size, m_pps, m_pps_length);
  return m_sps && m_pps;
}

ImageDescription ICMDecoder::State::imageDescription() const {
  ImageDescription description;
  CodecInfo info;
  GetCodecInfo(&info, mCodec);
  description.set(ImageDescription::kIDSize, static_cast<uint32_t>(ImageDescription::kSize));
  description.set(ImageDescription::kCType, mCodec);
  description.set(ImageDescription::kVersion, info.version);
  description.set(ImageDescription::kRevisionLevel, info.revisionLevel);
  description.set(ImageDescription::kVendor, info.vendor);
  description.set(ImageDescription::kWidth, static_cast<uint16_t>(mWidth));
  description.set(ImageDescription::kHeight, static_cast<uint16_t>(mHeight));
  description.set(ImageDescription::kHRes, k72DotsPerInch);
  description.set(ImageDescription::kVRes, k72DotsPerInch);
  description.setName(info.typeName);
  description.set(ImageDescription::kDepth, static_cast<uint16_t>(mCodec == kCMPixelFormat_422YpCbCr8 ? 16 : 24));
  description.set(ImageDescription::kClutID, kNoColourTable);
  addCodecExtension(description);
  return description;
}

void ICMDecoder::State::addCodecExtension(ImageDescription& description) const {
  switch (mCodec) {
    case kCMVideoCodecType_MotionJPEG:
      AddImageDescriptionExtension(description, PtrToHand(JPEGHuffmanTable), fourCharCode("mjht"));
      return;
    case kCMVideoCodecType_H264:
      AddImageDescriptionExtension(
          description, h264::makeDecoderConfiguration({m_sps.get(), m_sps_length}, {m_pps.get(), m_pps_length}),
          fourCharCode("avcC"));
      return;
    case kCMPixelFormat_422YpCbCr8:
      addColours(description);
      return;
  }
}

std::shared_ptr<ICMDecompressionSession> ICMDecoder::State::createDecoderSession() const {
  try {
    const ImageDescription description = imageDescription();
    PixelBufferAttributes attributes;
    attributes.emplace(kCVPixelBufferWidthKey, PropertyList(int64_t{mWidth}));
    attributes.emplace(kCVPixelBufferHeightKey, PropertyList(int64_t{mHeight}));
    attributes.emplace(kCVPixelBufferOpenGLCompatibilityKey, PropertyList(true));
    const auto options = ICMDecompressionSessionOptions::create();
    if (options) {
      const uint32_t accuracy = codecNormalQuality;
      options->setProperty(kQTPropertyClass_ICMDecompressionSessionOptions,
                           kICMDecompressionSessionOptionsPropertyID_Accuracy, std::as_bytes(std::span(&accuracy, 1)));
    }
    ICMDecompressionSessionRef session;
    ICMDecompressionSession::create(description, options.get(), attributes, {SGVideoDecompTrackingCallback, mDelegate},
                                    &session);
    return session;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void SGVideoDecompTrackingCallback(void* decompressionTrackingRefCon, OSStatus result,
                                   ICMDecompressionTrackingFlags flags, const CVImageBufferRef& pixelBuffer,
                                   int64_t /*displayTime*/, int64_t /*displayDuration*/,
                                   ICMValidTimeFlags /*validTimeFlags*/, void* /*reserved*/,
                                   void* /*sourceFrameRefCon*/) {
  auto* const receiver = static_cast<DecoderProtocol*>(decompressionTrackingRefCon);
  const bool isEmitting = (flags & kICMDecompressionTracking_EmittingFrame) != 0;
  if (result != noErr || !isEmitting || !pixelBuffer || !receiver) return;
  receiver->displayData(pixelBuffer);
}

}  // namespace vesk
