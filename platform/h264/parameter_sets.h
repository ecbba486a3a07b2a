#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/foundation/byte_reader.h"
#include "platform/h264/nal_unit.h"

namespace vesk::h264 {

/// The parameter sets of an H.264 stream that are in force, by their numbers.
class ParameterSets {
 public:
  static constexpr unsigned kMaxSequenceSets = 32;
  static constexpr unsigned kMaxPictureSets = 256;

  /// Keeps a copy of `nal` when it is a parameter set; it takes the place of the one with its number.
  /// @return whether that changed anything: a set that only comes again does not.
  bool learn(std::span<const uint8_t> nal);
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
  /// The number of the picture parameter set that a slice names. On a frame's way: nearly always the first
  /// five bytes hold it, read at once where no emulation prevention can stand among them.
  static std::optional<unsigned> pictureNumberOfSlice(std::span<const uint8_t> slice) {
    if (slice.size() < 9) return pictureNumberFromBits(slice);
    const uint64_t word = uint64_t{readBigEndian32(slice.data() + 1)} << 32 | readBigEndian32(slice.data() + 5);
    const uint64_t zeroBytes = (word - 0x0101010101010101) & ~word & 0x8080808000000000;
    if ((zeroBytes & zeroBytes >> 8) != 0) return pictureNumberFromBits(slice);
    int used = 0;
    uint64_t number = 0;
    for (int numbers = 0; numbers < 3; ++numbers) {  // first macroblock, slice type, picture parameter set
      const int zeros = std::countl_zero(word << used);
      const int length = 2 * zeros + 1;
      if (used + length > kBitsAtOnce) return pictureNumberFromBits(slice);
      number = (word << used >> (64 - length)) - 1;
      used += length;
    }
    return number < kMaxPictureSets ? std::optional(static_cast<unsigned>(number)) : std::nullopt;
  }

  /// The bytes of a set; empty when there is none of the number.
  std::span<const uint8_t> sequenceSet(unsigned number) const { return mSequence[number]; }
  std::span<const uint8_t> pictureSet(unsigned number) const { return mPicture[number].bytes; }

  /// All sets in the order for a decoder, those in use first: sequence sets, then picture sets.
  void list(InUse inUse, std::vector<std::span<const uint8_t>>& sets) const;

  /// Those of an access unit's first slice whose sets are known. Access units are length-prefixed here.
  std::optional<InUse> usedIn(std::span<const uint8_t> accessUnit) const;
  /// An access unit behind all sets, in that order: what a decoder or a movie can begin with, wherever the sets
  /// came from.
  std::vector<uint8_t> prependedTo(std::span<const uint8_t> accessUnit, InUse inUse) const;

 private:
  static constexpr int kBitsAtOnce = 40;
  static std::optional<unsigned> pictureNumberFromBits(std::span<const uint8_t> slice);

  struct PictureSet {
    std::vector<uint8_t> bytes;
    unsigned sequence = 0;
  };
  std::array<std::vector<uint8_t>, kMaxSequenceSets> mSequence;
  std::vector<PictureSet> mPicture = std::vector<PictureSet>(kMaxPictureSets);
};

/// Watches whether all pictures of a stream use one sequence and one picture parameter set, which never
/// change: those of a camera do as a rule, and a movie's track holds no others.
class ParameterSetWatch {
 public:
  /// Looks at the next NAL unit of the stream. The first slice whose sets are known takes hold of them.
  /// @return false for a slice that needs other sets than those held, or the same numbers with other content
  bool look(std::span<const uint8_t> nal) {
    if (nal.empty()) return true;
    const uint8_t type = unitType(nal[0]);
    if (type == kSequenceParameterSet || type == kPictureParameterSet) {
      if (mSets.learn(nal)) mAreInForce = !mHeld || areInForce();
      return true;
    }
    const bool isSlice = type == kSlice || type == kIDRSlice || type == kSlicePartitionA;
    if (!isSlice) return true;
    if (mHeld)
      return mAreInForce && ParameterSets::pictureNumberOfSlice(nal).value_or(mHeld->picture) == mHeld->picture;
    hold(nal);
    return true;
  }

  /// Takes up the sets of an avcC record, as ParameterSets does.
  std::optional<int> learnRecord(std::span<const uint8_t> record) {
    const auto lengthBytes = mSets.learnRecord(record);
    mAreInForce = !mHeld || areInForce();
    return lengthBytes;
  }

  bool isHolding() const { return mHeld.has_value(); }
  /// The numbers of the sets held; none when none are.
  std::optional<ParameterSets::InUse> held() const { return mHeld; }
  /// Lets go of the sets held: the next slice takes hold of its own.
  void release() { mHeld.reset(); }

  const ParameterSets& sets() const { return mSets; }

 private:
  void hold(std::span<const uint8_t> slice);
  bool areInForce() const;

  ParameterSets mSets;
  std::optional<ParameterSets::InUse> mHeld;
  std::vector<uint8_t> mHeldSequence;
  std::vector<uint8_t> mHeldPicture;
  bool mAreInForce = true;  ///< the stream has not replaced the sets held by others of their numbers
};

}  // namespace vesk::h264
