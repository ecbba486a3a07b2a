#include "platform/h264/stream_conversion.h"

#include <cstring>

#include <vesk/log.h>
#include "platform/foundation/byte_reader.h"
#include "platform/h264/nal_unit.h"
#include "platform/h264/start_code_scan.h"

namespace vesk::h264 {
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
size_t leadingBytes(std::span<const uint8_t> buffer) {
  for (size_t offset = 0; offset < size_t{kLengthSize} && offset + kLengthSize <= buffer.size(); ++offset)
    if (start_codes::isStartCode(buffer.data() + offset)) return offset;
  return 0;
}

/// Rewrites a buffer of more than four bytes. True when the lengths add up: each leads to the next by
/// construction and the last one to the end, unless the buffer ends in a start code. That one has no
/// unit to tell the length of and stays as it is, which reads as a length of 1 past the end.
bool rewriteStartCodes(std::span<uint8_t> buffer) {
  uint8_t* const data = buffer.data();
  const uint8_t* const end = data + buffer.size();
  const size_t shift = leadingBytes(buffer);
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

void convertToLengths(std::span<uint8_t> buffer) {
  if (buffer.empty()) return;
  const bool addsUp = buffer.size() > kLengthSize ? rewriteStartCodes(buffer) : isLengthPrefixed(buffer);
  if (!addsUp) printToOutput(LogLevel::kWarning, "*** [Error] in converting to box format!!!\n");
}

bool isLengthPrefixed(std::span<const uint8_t> buffer) {
  if (buffer.empty()) return false;
  NALUnitWalk walk(buffer);
  while (walk.next()) {
  }
  return walk.atEnd();
}

void ensureLengths(std::span<uint8_t> buffer) {
  if (!isLengthPrefixed(buffer)) convertToLengths(buffer);
}

}  // namespace vesk::h264
