#include "movie/h264_header_info.h"

#include "movie/h264_parser.h"
#include "platform/h264/nal_unit.h"

namespace vesk {

void CH264HeaderInfo::Collect(const uint8_t* data, uint32_t length) {
  const CH264Parser parser(data, length);
  CNALUnit found;
  if (parser.FindNALUnit(h264::kSequenceParameterSet, found)) mSPS = found.copy();
  if (parser.FindNALUnit(h264::kPictureParameterSet, found)) mPPS = found.copy();
}

}  // namespace vesk
