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
#include "platform/decompression/codec_info.h"
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
  NSLog(line.data());
}

}  // namespace

std::shared_ptr<ICMDecoder> ICMDecoder::initWithWidth(uint32_t width, uint32_t inHeight, uint32_t inCodec) {
  try {
    std::shared_ptr<ICMDecoder> decoder(new ICMDecoder(width, inHeight, inCodec));
    return decoder->makeRoom(decoder->rawSize()) ? decoder : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ICMDecoder::ICMDecoder(uint32_t width, uint32_t height, uint32_t codec)
    : mWidth(width), mHeight(height), mCodec(codec) {}

ICMDecoder::~ICMDecoder() = default;

int16_t ICMDecoder::decompressData(const uint8_t* data, int32_t inSizeUsed, int32_t inTime) {
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
  const OSStatus status = mDecompS->decodeFrame({mConversionFrame.get(), length}, frameTime, this);
  mDecompS->setNonScheduledDisplayTime(inTime, mTimeScale, 0);
  return static_cast<int16_t>(status);
}

/// Bytes of a picture at 16 bits a pixel; 0 for a picture too large to be decoded.
size_t ICMDecoder::rawSize() const {
  return isDecodableSize(mWidth, mHeight) ? size_t{mWidth} * mHeight * 2 : 0;
}

/// Sees to it that the conversion buffer holds `length` bytes. It grows with the odd frame that is
/// longer than its raw picture, as tiny and very detailed ones can be.
bool ICMDecoder::makeRoom(size_t length) {
  if (length <= mConversionSize) return true;
  mConversionSize = 0;
  mConversionFrame.reset();
  mConversionFrame.reset(new (std::nothrow) uint8_t[length]);
  if (!mConversionFrame) return false;
  mConversionSize = length;
  return true;
}

bool ICMDecoder::makeSession(uint32_t length) {
  if (mCodec == kCMVideoCodecType_H264 && !configH264DecoderWithData(mConversionFrame.get(), length)) return false;
  mDecompS = createDecoderSession();
  return mDecompS != nullptr;
}

bool ICMDecoder::configH264DecoderWithData(const uint8_t* data, uint32_t size) {
  keepParameterSet(h264::kSequenceParameterSet, data, size, m_sps, m_sps_length);
  keepParameterSet(h264::kPictureParameterSet, data, size, m_pps, m_pps_length);
  return m_sps && m_pps;
}

ImageDescriptionHandle ICMDecoder::createImageDescription() const {
  try {
    auto description = std::make_unique<ImageDescription>();
    fillIn(*description);
    return description;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void ICMDecoder::fillIn(ImageDescription& description) const {
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
}

void ICMDecoder::addCodecExtension(ImageDescription& description) const {
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

ICMDecompressionSessionRef ICMDecoder::createDecoderSession() {
  ICMDecompressionSessionRef session;
  try {
    const auto description = createImageDescription();
    if (!description) return nullptr;
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
    ICMDecompressionSession::create(*description, options.get(), attributes, {SGVideoDecompTrackingCallback, mDelegate},
                                    &session);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return session;
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
