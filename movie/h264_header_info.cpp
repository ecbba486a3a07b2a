#include "movie/h264_header_info.h"

#include "movie/h264_parser.h"
#include "movie/nal_unit_walk.h"

namespace vesk {

void CH264HeaderInfo::Collect(const uint8_t* data, uint32_t length) {
  const CH264Parser parser(data, length);
  CNALUnit found;
  if (parser.FindNALUnit(kNALUnitTypeSPS, found)) mSPS = found.copy();
  if (parser.FindNALUnit(kNALUnitTypePPS, found)) mPPS = found.copy();
}

}  // namespace vesk
