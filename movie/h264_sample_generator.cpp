#include <vesk/sample_generators.h>

#include <utility>

#include <vesk/four_char_code.h>
#include "movie/copy_bytes.h"
#include "movie/h264_units.h"
#include "platform/h264/decoder_configuration.h"
#include "platform/h264/nal_unit.h"
#include "platform/media/memory_pool.h"
#include "platform/media/sample_arena.h"

namespace vesk {
namespace {

struct Slices {
  size_t size = 0;  ///< bytes copied, length fields included
  bool hasIDR = false;
};

/// Copies the slices of an access unit, each with its length field, and leaves out everything else.
/// Stops at a length that runs past the end. There is room for the whole access unit.
Slices copySlices(std::span<const uint8_t> accessUnit, uint8_t* room) {
  Slices slices;
  h264::NALUnitWalk walk(accessUnit);
  while (const auto unit = walk.next()) {
    if (unit->empty()) continue;
    const uint8_t type = h264::unitType(unit->front());
    if (type > h264::kIDRSlice) continue;
    const size_t size = h264::NALUnitWalk::kLengthSize + unit->size();
    copyBytes(room + slices.size, {unit->data() - h264::NALUnitWalk::kLengthSize, size});
    slices.size += size;
    slices.hasIDR |= type == h264::kIDRSlice;
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

H264SampleGenerator::H264SampleGenerator(int width, int height, int frameRate, FrameTiming timing)
    : VideoSampleGenerator(width, height, frameRate, timing),
      mHeaderInfo(std::make_unique<CH264HeaderInfo>()),
      mArena(std::make_unique<SampleArena>(MemoryPool::kHugePageBytes)) {}

H264SampleGenerator::~H264SampleGenerator() = default;

CMSampleBufferRef H264SampleGenerator::CreateVideoSampleBuffer(const unsigned char* buffer, unsigned long length,
                                                               const CMSampleTimingInfo& timing) {
  if (!mFormat) {
    mHeaderInfo->Collect(buffer, static_cast<uint32_t>(length));
    if (mHeaderInfo->isComplete()) mFormat = CreateVideoFormat();
    if (!mFormat) return nullptr;
  }
  const std::span<uint8_t> room = mArena->room(length);
  if (room.empty()) return nullptr;
  const Slices slices = copySlices({buffer, length}, room.data());
  if (slices.size == 0) return nullptr;

  auto block = mArena->take(slices.size);
  if (!block) return nullptr;
  auto sample = CMSampleBuffer::create(std::move(block), mFormat, timing, slices.size);
  if (sample) attach(sample->sampleAttachments(), slices.hasIDR);
  return sample;
}

CMVideoFormatDescriptionRef H264SampleGenerator::CreateVideoFormat() const {
  const auto set = [](const CNALUnit& unit) {
    return std::span(unit.mData, unit.mSize).subspan(h264::NALUnitWalk::kLengthSize);
  };
  auto record = h264::makeDecoderConfiguration(set(mHeaderInfo->mSPS), set(mHeaderInfo->mPPS));
  if (record.empty()) return nullptr;
  VideoFormatExtensions extensions;
  extensions.sampleDescriptionExtensionAtoms.emplace("avcC", std::move(record));
  return CMVideoFormatDescription::create(kCMVideoCodecType_H264, mWidth, mHeight, std::move(extensions));
}

}  // namespace vesk
