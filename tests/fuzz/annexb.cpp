// H.264 byte streams as a hostile camera might send them: conversion, unit search and sample making
// stay inside the buffer and agree with a plain search.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <vesk/h264_bitstream.h>
#include <vesk/h264_sample_generator.h>
#include <vesk/log.h>
#include "movie/start_code_scan.h"

namespace {

using namespace vesk;
using Bytes = std::vector<uint8_t>;

void require(bool holds) {
  if (!holds) std::abort();
}

template <class Block>
std::vector<size_t> scan(const Bytes& data) {
  std::vector<size_t> found;
  start_codes::forEachStartCode<Block>(data.data(), data.data() + data.size(), [&](const uint8_t* at) {
    found.push_back(static_cast<size_t>(at - data.data()));
  });
  return found;
}

std::vector<size_t> scanByteByByte(const Bytes& data) {
  std::vector<size_t> found;
  for (size_t at = 0; at + 4 <= data.size(); ++at)
    if (start_codes::isStartCode(&data[at])) found.push_back(at);
  return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  static FILE* const nowhere = std::fopen("/dev/null", "w");
  setStandardOutput(nowhere);

  Bytes data(bytes, bytes + size);
  const auto length = static_cast<uint32_t>(size);
  const auto expected = scanByteByByte(data);
  require(scan<start_codes::FastestBlock>(data) == expected);
  require(scan<start_codes::PortableBlock>(data) == expected);

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
