#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vesk::capture {

/// NAL unit types of ITU-T H.264, table 7-1.
enum NalType : uint8_t {
  kNalSlice = 1,
  kNalIDRSlice = 5,
  kNalSequenceParameterSet = 7,
  kNalPictureParameterSet = 8,
  kNalAccessUnitDelimiter = 9,
};

constexpr uint8_t nalType(uint8_t header) {
  return header & 0x1F;
}

/// The parameter sets of an H.264 stream that are in force, by their numbers.
class ParameterSets {
 public:
  static constexpr unsigned kMaxSequenceSets = 32;
  static constexpr unsigned kMaxPictureSets = 256;

  /// Keeps a copy of `nal` when it is a parameter set; it takes the place of the one with its number.
  void learn(std::span<const uint8_t> nal);
  /// Keeps the sets of an avcC record (ISO/IEC 14496-15, 5.3.3.1). @return the bytes of a length
  /// field, 1, 2 or 4; none when the record is damaged.
  std::optional<int> learnRecord(std::span<const uint8_t> record);

  /// Numbers of the sets that a picture with this slice uses; none when they are not known.
  struct InUse {
    unsigned picture = 0;
    unsigned sequence = 0;
  };
  std::optional<InUse> usedBy(std::span<const uint8_t> slice) const;
  static std::optional<unsigned> sequenceNumber(std::span<const uint8_t> sequenceSet);
  static std::optional<unsigned> pictureNumber(std::span<const uint8_t> pictureSet);

  /// All sets in the order for a decoder, those in use first: sequence sets, then picture sets.
  void list(InUse inUse, std::vector<std::span<const uint8_t>>& sets) const;

 private:
  struct PictureSet {
    std::vector<uint8_t> bytes;
    unsigned sequence = 0;
  };
  std::array<std::vector<uint8_t>, kMaxSequenceSets> mSequence;
  std::vector<PictureSet> mPicture = std::vector<PictureSet>(kMaxPictureSets);
};

}  // namespace vesk::capture
