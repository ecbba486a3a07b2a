#include "platform/media/h264_parameter_sets.h"

#include <algorithm>

#include "platform/foundation/byte_reader.h"

namespace vesk {

namespace {

/// Zeros before a number: none that is read here is larger, not even the last macroblock of the largest picture.
constexpr int kMostZeros = 17;

/// Reads the Exp-Golomb numbers at the head of a NAL unit, past its emulation prevention bytes.
class HeadReader {
 public:
  HeadReader(std::span<const uint8_t> nal, size_t skipped) : mBytes(nal), mAt(skipped) {}

  std::optional<unsigned> number() {
    int zeros = 0;
    for (;;) {
      const auto next = bit();
      if (!next) return std::nullopt;
      if (*next) break;
      if (++zeros > kMostZeros) return std::nullopt;
    }
    unsigned value = 1;
    for (; zeros > 0; --zeros) {
      const auto next = bit();
      if (!next) return std::nullopt;
      value = value << 1 | *next;
    }
    return value - 1;
  }

 private:
  std::optional<unsigned> bit() {
    if (mBit == 0 && mAt >= 2 && mAt < mBytes.size() && mBytes[mAt] == 3 && mBytes[mAt - 1] == 0 &&
        mBytes[mAt - 2] == 0) {
      ++mAt;
    }
    if (mAt >= mBytes.size()) return std::nullopt;
    const unsigned value = mBytes[mAt] >> (7 - mBit) & 1;
    mBit = (mBit + 1) % 8;
    if (mBit == 0) ++mAt;
    return value;
  }

  std::span<const uint8_t> mBytes;
  size_t mAt;
  unsigned mBit = 0;
};

bool isSame(const std::vector<uint8_t>& kept, std::span<const uint8_t> nal) {
  return std::equal(kept.begin(), kept.end(), nal.begin(), nal.end());
}

std::optional<unsigned> below(std::optional<unsigned> number, unsigned limit) {
  return number && *number < limit ? number : std::nullopt;
}

}  // namespace

std::optional<unsigned> ParameterSets::sequenceNumber(std::span<const uint8_t> sequenceSet) {
  return below(HeadReader(sequenceSet, 4).number(), kMaxSequenceSets);  // after profile, constraints, level
}

std::optional<unsigned> ParameterSets::pictureNumber(std::span<const uint8_t> pictureSet) {
  return below(HeadReader(pictureSet, 1).number(), kMaxPictureSets);
}

std::optional<unsigned> ParameterSets::pictureNumberFromBits(std::span<const uint8_t> slice) {
  HeadReader head(slice, 1);
  if (!head.number() || !head.number()) return std::nullopt;  // first macroblock, slice type
  return below(head.number(), kMaxPictureSets);
}

bool ParameterSets::learn(std::span<const uint8_t> nal) {
  while (!nal.empty() && nal.back() == 0) nal = nal.first(nal.size() - 1);  // stands between units, not in them
  if (nal.empty()) return false;
  if (nalType(nal[0]) == kNalSequenceParameterSet) {
    const auto number = sequenceNumber(nal);
    if (!number || isSame(mSequence[*number], nal)) return false;
    mSequence[*number].assign(nal.begin(), nal.end());
    return true;
  }
  if (nalType(nal[0]) != kNalPictureParameterSet) return false;
  HeadReader head(nal, 1);
  const auto number = below(head.number(), kMaxPictureSets);
  const auto sequence = below(head.number(), kMaxSequenceSets);
  if (!number || !sequence || isSame(mPicture[*number].bytes, nal)) return false;
  mPicture[*number].bytes.assign(nal.begin(), nal.end());
  mPicture[*number].sequence = *sequence;
  return true;
}

std::optional<int> ParameterSets::learnRecord(std::span<const uint8_t> record) {
  ByteReader reader(record);
  if (!reader.skip(4)) return std::nullopt;
  const auto lengthByte = reader.u8();
  if (!lengthByte || record[0] != 1) return std::nullopt;
  const int lengthSize = (*lengthByte & 3) + 1;
  if (lengthSize == 3) return std::nullopt;
  for (const uint8_t mask : {0x1F, 0xFF}) {  // sequence sets, then picture sets
    const auto count = reader.u8();
    if (!count) return std::nullopt;
    for (int remaining = *count & mask; remaining > 0; --remaining) {
      const auto length = reader.u16();
      const auto nal = length ? reader.take(*length) : std::nullopt;
      if (!nal) return std::nullopt;
      learn(*nal);
    }
  }
  return lengthSize;
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

}  // namespace vesk
