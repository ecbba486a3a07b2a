// H.264 as a hostile camera or file might hold it: searches, conversion, rewriting, parameter sets and sample
// making stay inside the buffer, and what they find agrees with a plain search.

#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include <vesk/h264_bitstream.h>
#include <vesk/log.h>
#include <vesk/sample_generators.h>
#include "platform/h264/access_unit_writer.h"
#include "platform/h264/byte_stream.h"
#include "platform/h264/picture_geometry.h"
#include "platform/h264/start_code_scan.h"

namespace {

using namespace vesk;
using Bytes = std::vector<uint8_t>;

void require(bool holds) {
  if (!holds) std::abort();
}

template <class Block>
std::vector<size_t> scan(const Bytes& data) {
  std::vector<size_t> found;
  h264::start_codes::forEachStartCode<Block>(data.data(), data.data() + data.size(), [&](const uint8_t* at) {
    found.push_back(static_cast<size_t>(at - data.data()));
  });
  return found;
}

std::vector<size_t> scanByteByByte(const Bytes& data) {
  std::vector<size_t> found;
  for (size_t at = 0; at + 4 <= data.size(); ++at)
    if (h264::start_codes::isStartCode(&data[at])) found.push_back(at);
  return found;
}

void checkShortCodes(const Bytes& data) {
  size_t found = h264::findStartCode(data, 0);
  for (size_t at = 0; at + 3 <= data.size(); ++at) {
    if (data[at] != 0 || data[at + 1] != 0 || data[at + 2] != 1) continue;
    require(found == at);
    found = h264::findStartCode(data, at + 1);
  }
  require(found == data.size());
}

/// The data as a header of a track, and as its packets.
void rewrite(const Bytes& data) {
  for (const bool hasHeader : {false, true}) {
    h264::AccessUnitWriter writer(hasHeader ? std::span<const uint8_t>(data) : std::span<const uint8_t>());
    for (int times = 0; times < 2; ++times) {
      Bytes packet = data;
      const auto unit = writer.write(packet);
      require(!unit || (unit->bytes.size() > 4 && h264::start_codes::isStartCode(unit->bytes.data())));
    }
  }
  h264::readPictureGeometry(data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  static FILE* const nowhere = std::fopen("/dev/null", "w");
  setStandardOutput(nowhere);

  Bytes data(bytes, bytes + size);
  const auto length = static_cast<uint32_t>(size);
  const auto expected = scanByteByByte(data);
  require(scan<h264::start_codes::FastestBlock>(data) == expected);
  require(scan<h264::start_codes::PortableBlock>(data) == expected);

  checkShortCodes(data);
  rewrite(data);

  uint32_t unitLength = 0;
  uint8_t* unit = nullptr;
  for (uint8_t type = 0; type < 32; ++type)
    if (FindNALUnit(type, data.data(), length, &unitLength, &unit))
      require(unit >= data.data() + 4 && unitLength <= data.size() - static_cast<size_t>(unit - data.data()));

  EnsureH264BoxFormat(data.data(), length);
  if (IsH264BoxFormat(data.data(), length)) {
    Bytes again = data;
    EnsureH264BoxFormat(again.data(), length);
    require(again == data);
  }

  H264SampleGenerator generator(16, 16, 30);
  if (const auto sample = generator.CreateSample(data.data(), length, 0)) require(sample->data().size() <= size);
  return 0;
}
