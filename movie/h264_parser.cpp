#include "movie/h264_parser.h"

#include <vesk/h264_bitstream.h>
#include "platform/h264/nal_unit.h"

namespace vesk {

bool CH264Parser::FindNALUnit(int type, CNALUnit& unit) const {
  if (type < 0 || type > 0x1F) return false;
  uint32_t length = 0;
  const uint8_t* header = nullptr;
  if (!vesk::FindNALUnit(static_cast<uint8_t>(type), mData, mLength, &length, &header)) return false;
  unit = CNALUnit(header - h264::NALUnitWalk::kLengthSize, length + h264::NALUnitWalk::kLengthSize);
  return true;
}

}  // namespace vesk
