#include <vesk/h264_bitstream.h>

#include "platform/h264/decoder_configuration.h"
#include "platform/h264/nal_unit.h"
#include "platform/h264/stream_conversion.h"

namespace vesk {

void ConvertStreamToBoxFormat(uint8_t* data, uint32_t length) {
  if (data) h264::convertToLengths({data, length});
}

void H264ConvertStreamToBoxFormat(uint8_t* data, uint32_t length) {
  ConvertStreamToBoxFormat(data, length);
}

bool IsH264BoxFormat(const uint8_t* data, uint32_t length) {
  return data && h264::isLengthPrefixed({data, length});
}

void EnsureH264BoxFormat(uint8_t* data, uint32_t length) {
  if (data) h264::ensureLengths({data, length});
}

bool FindNALUnit(uint8_t type, const uint8_t* data, uint32_t length, uint32_t* unitLength, const uint8_t** unit) {
  if (!data) return false;
  const auto found = h264::findUnit(type, {data, length});
  if (!found) return false;
  *unitLength = static_cast<uint32_t>(found->size());
  *unit = found->data();
  return true;
}

bool FindNALUnit(uint8_t type, uint8_t* data, uint32_t length, uint32_t* unitLength, uint8_t** unit) {
  const uint8_t* found = nullptr;
  if (!FindNALUnit(type, static_cast<const uint8_t*>(data), length, unitLength, &found)) return false;
  *unit = data + (found - data);
  return true;
}

std::vector<uint8_t> CreateH264ExtensionData(const uint8_t* sps, uint32_t spsLength, const uint8_t* pps,
                                             uint32_t ppsLength) {
  return h264::makeDecoderConfiguration({sps, spsLength}, {pps, ppsLength});
}

}  // namespace vesk
