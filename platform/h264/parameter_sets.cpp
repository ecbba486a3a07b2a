#include "platform/h264/parameter_sets.h"

#include <algorithm>

#include "platform/h264/bit_reader.h"
#include "platform/h264/decoder_configuration.h"

namespace vesk::h264 {
namespace {

bool isSame(const std::vector<uint8_t>& kept, std::span<const uint8_t> nal) {
  return std::equal(kept.begin(), kept.end(), nal.begin(), nal.end());
}

/// The next number of a unit; none when it is cut off or not below `limit`.
std::optional<unsigned> numberBelow(unsigned limit, BitReader& reader) {
  const unsigned number = reader.unsignedNumber();
  return reader.good() && number < limit ? std::optional(number) : std::nullopt;
}

}  // namespace

std::optional<unsigned> ParameterSets::sequenceNumber(std::span<const uint8_t> sequenceSet) {
  BitReader reader(sequenceSet, 4);  // after profile, constraints, level
  return numberBelow(kMaxSequenceSets, reader);
}

std::optional<unsigned> ParameterSets::pictureNumber(std::span<const uint8_t> pictureSet) {
  BitReader reader(pictureSet, 1);
  return numberBelow(kMaxPictureSets, reader);
}

std::optional<unsigned> ParameterSets::pictureNumberFromBits(std::span<const uint8_t> slice) {
  BitReader reader(slice, 1);
  reader.unsignedNumber();  // first macroblock
  reader.unsignedNumber();  // slice type
  return numberBelow(kMaxPictureSets, reader);
}

bool ParameterSets::learn(std::span<const uint8_t> nal) {
  while (!nal.empty() && nal.back() == 0) nal = nal.first(nal.size() - 1);  // stands between units, not in them
  if (nal.empty()) return false;
  if (unitType(nal[0]) == kSequenceParameterSet) {
    const auto number = sequenceNumber(nal);
    if (!number || isSame(mSequence[*number], nal)) return false;
    mSequence[*number].assign(nal.begin(), nal.end());
    return true;
  }
  if (unitType(nal[0]) != kPictureParameterSet) return false;
  BitReader reader(nal, 1);
  const auto number = numberBelow(kMaxPictureSets, reader);
  const auto sequence = numberBelow(kMaxSequenceSets, reader);
  if (!number || !sequence || isSame(mPicture[*number].bytes, nal)) return false;
  mPicture[*number].bytes.assign(nal.begin(), nal.end());
  mPicture[*number].sequence = *sequence;
  return true;
}

std::optional<int> ParameterSets::learnRecord(std::span<const uint8_t> record) {
  return readDecoderConfiguration(record, [this](std::span<const uint8_t> set) { learn(set); });
}

std::optional<ParameterSets::InUse> ParameterSets::usedBy(std::span<const uint8_t> slice) const {
  const auto picture = pictureNumberOfSlice(slice);
  if (!picture || mPicture[*picture].bytes.empty()) return std::nullopt;
  const unsigned sequence = mPicture[*picture].sequence;
  if (mSequence[sequence].empty()) return std::nullopt;
  return InUse{*picture, sequence};
}

void ParameterSets::list(InUse inUse, std::vector<std::span<const uint8_t>>& sets) const {
  sets.clear();
  sets.emplace_back(mSequence[inUse.sequence]);
  for (unsigned number = 0; number < kMaxSequenceSets; ++number) {
    if (number != inUse.sequence && !mSequence[number].empty()) sets.emplace_back(mSequence[number]);
  }
  sets.emplace_back(mPicture[inUse.picture].bytes);
  for (unsigned number = 0; number < kMaxPictureSets; ++number) {
    if (number != inUse.picture && !mPicture[number].bytes.empty()) sets.emplace_back(mPicture[number].bytes);
  }
}

std::optional<ParameterSets::InUse> ParameterSets::usedIn(std::span<const uint8_t> accessUnit) const {
  NALUnitWalk walk(accessUnit);
  while (const auto unit = walk.next()) {
    if (unit->empty() || unitType(unit->front()) > kIDRSlice) continue;
    if (const auto inUse = usedBy(*unit)) return inUse;
  }
  return std::nullopt;
}

std::vector<uint8_t> ParameterSets::prependedTo(std::span<const uint8_t> accessUnit, InUse inUse) const {
  std::vector<std::span<const uint8_t>> sets;
  list(inUse, sets);
  std::vector<uint8_t> result;
  for (const auto set : sets) appendUnit(result, set);
  result.insert(result.end(), accessUnit.begin(), accessUnit.end());
  return result;
}

void ParameterSetWatch::hold(std::span<const uint8_t> slice) {
  mHeld = mSets.usedBy(slice);
  if (!mHeld) return;
  const auto sequence = mSets.sequenceSet(mHeld->sequence);
  const auto picture = mSets.pictureSet(mHeld->picture);
  mHeldSequence.assign(sequence.begin(), sequence.end());
  mHeldPicture.assign(picture.begin(), picture.end());
  mAreInForce = true;
}

bool ParameterSetWatch::areInForce() const {
  return isSame(mHeldSequence, mSets.sequenceSet(mHeld->sequence)) &&
         isSame(mHeldPicture, mSets.pictureSet(mHeld->picture));
}

}  // namespace vesk::h264
