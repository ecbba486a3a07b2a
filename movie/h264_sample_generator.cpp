#include <vesk/h264_sample_generator.h>

#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/h264_bitstream.h>
#include "movie/copy_bytes.h"
#include "movie/nal_unit_walk.h"

namespace vesk {
namespace {

struct Slices {
  size_t size = 0;  ///< bytes copied, length fields included
  bool hasIDR = false;
};

/// Copies the slices of an access unit, each with its length field, and leaves out everything else.
/// Stops at a length that runs past the end. `block` is as long as the access unit.
Slices copySlices(std::span<const uint8_t> accessUnit, uint8_t* block) {
  Slices slices;
  NALUnitWalk walk(accessUnit);
  while (const auto unit = walk.next()) {
    if (unit->empty()) continue;
    const uint8_t type = nalUnitType(unit->front());
    if (type > kNALUnitTypeIDRSlice) continue;
    const size_t size = NALUnitWalk::kLengthSize + unit->size();
    copyBytes(block + slices.size, {unit->data() - NALUnitWalk::kLengthSize, size});
    slices.size += size;
    slices.hasIDR |= type == kNALUnitTypeIDRSlice;
  }
  return slices;
}

void attach(SampleAttachments& attachments, bool isSync) {
  attachments.addValue(kCMSampleAttachmentKey_DependsOnOthers, !isSync);
  if (!isSync) attachments.addValue(kCMSampleAttachmentKey_NotSync, true);
  attachments.addValue(kCMSampleAttachmentKey_DoNotDisplay, true);
  attachments.addValue(kCMSampleAttachmentKey_EarlierDisplayTimesAllowed, false);
}

}  // namespace

CMSampleBufferRef H264SampleGenerator::CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                                               const CMSampleTimingInfo& timing) {
  if (!mFormat) {
    mHeaderInfo.Collect(buffer, static_cast<uint32_t>(length));
    if (mHeaderInfo.isComplete()) mFormat = CreateVideoFormat();
    if (!mFormat) return nullptr;
  }
  auto block = CMBlockBuffer::create(length);
  if (!block) return nullptr;
  const Slices slices = copySlices({buffer, length}, block->data().data());
  if (slices.size == 0) return nullptr;

  auto sample = CMSampleBuffer::create(std::move(block), mFormat, timing, slices.size);
  if (sample) attach(sample->sampleAttachments(), slices.hasIDR);
  return sample;
}

CMVideoFormatDescriptionRef H264SampleGenerator::CreateVideoFormat() const {
  constexpr uint32_t kLengthSize = NALUnitWalk::kLengthSize;
  const CNALUnit& sps = mHeaderInfo.mSPS;
  const CNALUnit& pps = mHeaderInfo.mPPS;
  auto record = CreateH264ExtensionData(sps.mData + kLengthSize, sps.mSize - kLengthSize, pps.mData + kLengthSize,
                                        pps.mSize - kLengthSize);
  if (record.empty()) return nullptr;
  VideoFormatExtensions extensions;
  extensions.sampleDescriptionExtensionAtoms.emplace("avcC", std::move(record));
  return CMVideoFormatDescription::create(kCMVideoCodecType_H264, mWidth, mHeight, std::move(extensions));
}

}  // namespace vesk
