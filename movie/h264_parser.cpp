#include "movie/h264_parser.h"

#include <vesk/h264_bitstream.h>
#include "movie/nal_unit_walk.h"

namespace vesk {

bool CH264Parser::FindNALUnit(int type, CNALUnit& unit) const {
  if (type < 0 || type > 0x1F) return false;
  uint32_t length = 0;
  const uint8_t* header = nullptr;
  if (!vesk::FindNALUnit(static_cast<uint8_t>(type), mData, mLength, &length, &header)) return false;
  unit = CNALUnit(header - NALUnitWalk::kLengthSize, length + NALUnitWalk::kLengthSize);
  return true;
}

}  // namespace vesk
