#include "platform/h264/access_unit_writer.h"

#include <algorithm>
#include <cstring>

#include "platform/foundation/byte_reader.h"
#include "platform/h264/byte_stream.h"
#include "platform/h264/nal_unit.h"

namespace vesk::h264 {

namespace {

constexpr size_t kStartCodeBytes = 4;

std::span<const uint8_t> withoutTrailingZeros(std::span<const uint8_t> unit) {
  while (!unit.empty() && unit.back() == 0) unit = unit.first(unit.size() - 1);
  return unit;
}

}  // namespace

AccessUnitWriter::AccessUnitWriter(std::span<const uint8_t> header) {
  learn(header);
}

void AccessUnitWriter::learn(std::span<const uint8_t> header) {
  if (header.size() >= 7 && header[0] == 1) {
    mForm = static_cast<NALForm>(mWatch.learnRecord(header).value_or(4));
    return;
  }
  ByteStreamWalk walk(header);
  while (const auto nal = walk.next()) mWatch.look(*nal);
}

std::optional<AccessUnitWriter::AccessUnit> AccessUnitWriter::write(std::span<uint8_t> packet) {
  mNals.clear();
  mIsIDR = false;
  mInUse.reset();
  if (!split(packet) || mNals.empty()) return std::nullopt;
  for (const auto nal : mNals) look(nal);
  const bool withParameterSets = mIsIDR && needsParameterSets();
  if (withParameterSets || !keepsPlaces(packet)) return AccessUnit{assemble(withParameterSets), mIsIDR};
  for (const auto nal : mNals) writeBigEndian32(packet.data() + (nal.data() - packet.data()) - kStartCodeBytes, 1);
  return AccessUnit{packet, mIsIDR};
}

bool AccessUnitWriter::split(std::span<const uint8_t> packet) {
  if (mForm != NALForm::kStartCodes) return splitLengths(packet);
  splitStartCodes(packet);
  return true;
}

bool AccessUnitWriter::splitLengths(std::span<const uint8_t> packet) {
  NALUnitWalk walk(packet, static_cast<size_t>(mForm));
  while (const auto nal = walk.next())
    if (const auto kept = withoutTrailingZeros(*nal); !kept.empty()) mNals.push_back(kept);
  return walk.atEnd();
}

void AccessUnitWriter::splitStartCodes(std::span<const uint8_t> packet) {
  ByteStreamWalk walk(packet);
  while (const auto nal = walk.next()) mNals.push_back(*nal);
}

void AccessUnitWriter::look(std::span<const uint8_t> nal) {
  mKeepsToItsSets = mWatch.look(nal) && mKeepsToItsSets;
  if (unitType(nal[0]) == kIDRSlice && !mIsIDR) {
    mIsIDR = true;
    mInUse = mWatch.sets().usedBy(nal);
  }
}

/// Whether the unit lacks the sets that its picture uses; then mMissing holds all that it lacks.
bool AccessUnitWriter::needsParameterSets() {
  if (!mInUse) return false;
  bool hasSequence = false;
  bool hasPicture = false;
  for (const auto nal : mNals) {
    const uint8_t type = unitType(nal[0]);
    hasSequence |= type == kSequenceParameterSet && ParameterSets::sequenceNumber(nal) == mInUse->sequence;
    hasPicture |= type == kPictureParameterSet && ParameterSets::pictureNumber(nal) == mInUse->picture;
  }
  if (hasSequence && hasPicture) return false;
  mWatch.sets().list(*mInUse, mMissing);
  std::erase_if(mMissing, [&](std::span<const uint8_t> set) {
    return std::any_of(mNals.begin(), mNals.end(), [&](std::span<const uint8_t> nal) {
      return std::equal(nal.begin(), nal.end(), set.begin(), set.end());
    });
  });
  return true;
}

/// Whether four-byte start codes fit exactly where the units stand.
bool AccessUnitWriter::keepsPlaces(std::span<const uint8_t> packet) const {
  const uint8_t* expected = packet.data() + kStartCodeBytes;
  for (const auto nal : mNals) {
    if (nal.data() != expected) return false;
    expected = nal.data() + nal.size() + kStartCodeBytes;
  }
  return expected - kStartCodeBytes == packet.data() + packet.size();
}

std::span<uint8_t> AccessUnitWriter::assemble(bool withParameterSets) {
  size_t total = 0;
  for (const auto nal : mNals) total += kStartCodeBytes + nal.size();
  if (withParameterSets) {
    for (const auto set : mMissing) total += kStartCodeBytes + set.size();
  }
  if (mBuffer.size() < total) mBuffer.resize(total);
  uint8_t* end = mBuffer.data();
  const auto append = [&](std::span<const uint8_t> nal) {
    writeBigEndian32(end, 1);
    std::memcpy(end + kStartCodeBytes, nal.data(), nal.size());
    end += kStartCodeBytes + nal.size();
  };
  // A delimiter opens its access unit, so the parameter sets stand behind it.
  size_t next = 0;
  while (next < mNals.size() && unitType(mNals[next][0]) == kAccessUnitDelimiter) append(mNals[next++]);
  if (withParameterSets) {
    for (const auto set : mMissing) append(set);
  }
  for (; next < mNals.size(); ++next) append(mNals[next]);
  return {mBuffer.data(), total};
}

}  // namespace vesk::h264
