#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/h264/parameter_sets.h"

namespace vesk::h264 {

/// How NAL units stand in packets.
enum class NALForm : uint8_t {
  kStartCodes = 0,  ///< Annex B, three- or four-byte start codes
  kLength1 = 1,     ///< each unit after its length, 1, 2 or 4 bytes, big-endian
  kLength2 = 2,
  kLength4 = 4,
};

/// Turns access units of any form into the one that cameras give: NAL units that all begin with
/// four-byte start codes, without trailing zero bytes, the parameter sets before every IDR picture.
class AccessUnitWriter {
 public:
  /// `header` is the track's: an avcC record, or start codes with parameter sets, or nothing.
  explicit AccessUnitWriter(std::span<const uint8_t> header);

  NALForm form() const { return mForm; }

  struct AccessUnit {
    std::span<uint8_t> bytes;  ///< valid until the next call, writable
    bool isIDR = false;
  };
  /// Rewrites one access unit: in place where it keeps its size, else into a buffer that is used
  /// again. @return none when the unit is damaged or holds no NAL unit.
  std::optional<AccessUnit> write(std::span<uint8_t> packet);

  /// Takes up the sets of another header, for footage that goes on with it.
  void learn(std::span<const uint8_t> header);
  /// Whether all slices so far use the same two parameter sets, as those of a camera do.
  bool keepsToItsSets() const { return mKeepsToItsSets; }

 private:
  bool split(std::span<const uint8_t> packet);
  bool splitLengths(std::span<const uint8_t> packet);
  void splitStartCodes(std::span<const uint8_t> packet);
  void look(std::span<const uint8_t> nal);
  bool needsParameterSets();
  bool keepsPlaces(std::span<const uint8_t> packet) const;
  std::span<uint8_t> assemble(bool withParameterSets);

  NALForm mForm = NALForm::kStartCodes;
  ParameterSetWatch mWatch;
  bool mKeepsToItsSets = true;
  std::vector<std::span<const uint8_t>> mNals;  // of the unit at hand
  bool mIsIDR = false;
  std::optional<ParameterSets::InUse> mInUse;
  std::vector<std::span<const uint8_t>> mMissing;
  std::vector<uint8_t> mBuffer;
};

}  // namespace vesk::h264
