#include "movie/h264_units.h"

#include <cstring>
#include <new>
#include <utility>

#include <vesk/h264_bitstream.h>
#include "platform/h264/nal_unit.h"

namespace vesk {

CNALUnit::CNALUnit(CNALUnit&& other) noexcept
    : mData(std::exchange(other.mData, nullptr)),
      mSize(std::exchange(other.mSize, 0)),
      mOwnsData(std::exchange(other.mOwnsData, false)) {}

CNALUnit& CNALUnit::operator=(CNALUnit&& other) noexcept {
  CNALUnit taken(std::move(other));
  std::swap(mData, taken.mData);
  std::swap(mSize, taken.mSize);
  std::swap(mOwnsData, taken.mOwnsData);
  return *this;
}

CNALUnit::~CNALUnit() {
  if (mOwnsData) delete[] mData;
}

CNALUnit CNALUnit::copy() const {
  if (!mData || mSize == 0) return {};
  auto* const bytes = new (std::nothrow) uint8_t[mSize];
  if (!bytes) return {};
  std::memcpy(bytes, mData, mSize);
  CNALUnit unit(bytes, mSize);
  unit.mOwnsData = true;
  return unit;
}

bool CH264Parser::FindNALUnit(int type, CNALUnit& unit) const {
  if (type < 0 || type > 0x1F) return false;
  uint32_t length = 0;
  const uint8_t* header = nullptr;
  if (!vesk::FindNALUnit(static_cast<uint8_t>(type), mData, mLength, &length, &header)) return false;
  unit = CNALUnit(header - h264::NALUnitWalk::kLengthSize, length + h264::NALUnitWalk::kLengthSize);
  return true;
}

void CH264HeaderInfo::Collect(const uint8_t* data, uint32_t length) {
  const CH264Parser parser(data, length);
  CNALUnit found;
  if (parser.FindNALUnit(h264::kSequenceParameterSet, found)) mSPS = found.copy();
  if (parser.FindNALUnit(h264::kPictureParameterSet, found)) mPPS = found.copy();
}

}  // namespace vesk
