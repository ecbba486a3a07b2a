#include "platform/h264/decoder_configuration.h"

#include <limits>

#include "platform/h264/nal_unit.h"

namespace vesk::h264 {

std::vector<uint8_t> makeDecoderConfiguration(std::span<const uint8_t> sequenceSet,
                                              std::span<const uint8_t> pictureSet) {
  constexpr size_t kMostBytes = std::numeric_limits<uint16_t>::max();
  if (sequenceSet.size() > kMostBytes || pictureSet.size() > kMostBytes) return {};

  std::vector<uint8_t> record;
  record.reserve(11 + sequenceSet.size() + pictureSet.size());
  const auto addSet = [&record](std::span<const uint8_t> set) {
    record.push_back(static_cast<uint8_t>(set.size() >> 8));
    record.push_back(static_cast<uint8_t>(set.size()));
    record.insert(record.end(), set.begin(), set.end());
  };
  record.push_back(1);  // configurationVersion
  for (size_t index = 1; index <= 3; ++index) record.push_back(index < sequenceSet.size() ? sequenceSet[index] : 0);
  record.push_back(0xFF);  // lengthSizeMinusOne = 3 below six reserved bits
  record.push_back(sequenceSet.empty() ? 0xE0 : 0xE1);
  if (!sequenceSet.empty()) addSet(sequenceSet);
  record.push_back(pictureSet.empty() ? 0 : 1);
  if (!pictureSet.empty()) addSet(pictureSet);
  return record;
}

std::optional<std::span<const uint8_t>> firstSequenceParameterSet(std::span<const uint8_t> record) {
  std::optional<std::span<const uint8_t>> first;
  readDecoderConfiguration(record, [&first](std::span<const uint8_t> set) {
    if (!first && !set.empty() && unitType(set.front()) == kSequenceParameterSet) first = set;
  });
  return first;
}

}  // namespace vesk::h264
