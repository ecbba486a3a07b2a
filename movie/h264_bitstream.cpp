#include <vesk/h264_bitstream.h>

#include <cstring>
#include <limits>

#include <vesk/log.h>
#include "movie/nal_unit_walk.h"
#include "movie/start_code_scan.h"

namespace vesk {
namespace {

constexpr ptrdiff_t kLengthSize = NALUnitWalk::kLengthSize;

/// Writes the length of the unit between the length field at `field` and `unitEnd`.
void writeLength(uint8_t* field, const uint8_t* unitEnd) {
  writeBigEndian32(field, static_cast<uint32_t>(unitEnd - (field + kLengthSize)));
}

/// Moves the first unit, whose start code lay `shift` bytes after its length field, up to that field.
void closeGap(uint8_t* data, size_t shift) {
  uint8_t* const unit = data + kLengthSize;
  const size_t rest = readBigEndian32(data) - shift;
  std::memmove(unit, unit + shift, rest);
  std::memset(unit + rest, 0, shift);
}

/// Bytes before the first start code when it lies within the first length field; 0 otherwise.
size_t leadingBytes(const uint8_t* data, uint32_t length) {
  for (size_t offset = 0; offset < size_t{kLengthSize} && offset + kLengthSize <= length; ++offset)
    if (start_codes::isStartCode(data + offset)) return offset;
  return 0;
}

/// Rewrites a buffer of more than four bytes. True when the lengths add up: each leads to the next by
/// construction and the last one to the end, unless the buffer ends in a start code. That one has no
/// unit to tell the length of and stays as it is, which reads as a length of 1 past the end.
bool rewriteStartCodes(uint8_t* data, uint32_t length) {
  const uint8_t* const end = data + length;
  const size_t shift = leadingBytes(data, length);
  uint8_t* previous = data;  // where the next length goes
  start_codes::forEachStartCode<start_codes::FastestBlock>(data + shift + kLengthSize, end, [&](const uint8_t* found) {
    writeLength(previous, found);
    previous = data + (found - data);
  });
  const bool isClosed = end - previous > kLengthSize;
  if (isClosed) writeLength(previous, end);
  if (shift != 0) closeGap(data, shift);
  return isClosed;
}

}  // namespace

void ConvertStreamToBoxFormat(uint8_t* data, uint32_t length) {
  if (!data || length == 0) return;
  const bool addsUp = length > kLengthSize ? rewriteStartCodes(data, length) : IsH264BoxFormat(data, length);
  if (!addsUp) printToOutput("*** [Error] in converting to box format!!!\n");
}

void H264ConvertStreamToBoxFormat(uint8_t* data, uint32_t length) {
  ConvertStreamToBoxFormat(data, length);
}

bool IsH264BoxFormat(const uint8_t* data, uint32_t length) {
  if (!data || length == 0) return false;
  NALUnitWalk walk({data, length});
  while (walk.next()) {
  }
  return walk.atEnd();
}

void EnsureH264BoxFormat(uint8_t* data, uint32_t length) {
  if (!IsH264BoxFormat(data, length)) ConvertStreamToBoxFormat(data, length);
}

bool FindNALUnit(uint8_t type, const uint8_t* data, uint32_t length, uint32_t* unitLength, const uint8_t** unit) {
  if (!data) return false;
  NALUnitWalk walk({data, length});
  while (const auto found = walk.next()) {
    if (found->empty() || nalUnitType(found->front()) != type) continue;
    *unitLength = static_cast<uint32_t>(found->size());
    *unit = found->data();
    return true;
  }
  return false;
}

bool FindNALUnit(uint8_t type, uint8_t* data, uint32_t length, uint32_t* unitLength, uint8_t** unit) {
  const uint8_t* found = nullptr;
  if (!FindNALUnit(type, static_cast<const uint8_t*>(data), length, unitLength, &found)) return false;
  *unit = data + (found - data);
  return true;
}

std::vector<uint8_t> CreateH264ExtensionData(const uint8_t* sps, uint32_t spsLength, const uint8_t* pps,
                                             uint32_t ppsLength) {
  constexpr uint32_t kMostBytes = std::numeric_limits<uint16_t>::max();
  if (spsLength > kMostBytes || ppsLength > kMostBytes) return {};

  std::vector<uint8_t> record;
  record.reserve(11 + spsLength + ppsLength);
  const auto addSet = [&record](const uint8_t* set, uint32_t length) {
    record.push_back(static_cast<uint8_t>(length >> 8));
    record.push_back(static_cast<uint8_t>(length));
    record.insert(record.end(), set, set + length);
  };
  record.push_back(1);  // configurationVersion
  for (uint32_t index = 1; index <= 3; ++index) record.push_back(index < spsLength ? sps[index] : 0);
  record.push_back(0xFF);  // lengthSizeMinusOne = 3 below six reserved bits
  record.push_back(spsLength != 0 ? 0xE1 : 0xE0);
  if (spsLength != 0) addSet(sps, spsLength);
  record.push_back(ppsLength != 0 ? 1 : 0);
  if (ppsLength != 0) addSet(pps, ppsLength);
  return record;
}

}  // namespace vesk
