#include "capture/encoding/access_unit_writer.h"

#include <algorithm>
#include <cstring>

#include "platform/foundation/byte_reader.h"

namespace vesk::capture {

namespace {

constexpr size_t kStartCodeBytes = 4;

/// The position of the next 00 00 01 at or after `from`, or the size.
size_t findStartCode(std::span<const uint8_t> bytes, size_t from) {
  const uint8_t* data = bytes.data();
  const size_t size = bytes.size();
  // Looks at the third byte of the three first: above 1 it rules out three positions at once.
  for (size_t at = from; at + 3 <= size;) {
    if (data[at + 2] > 1) {
      at += 3;
    } else if (data[at + 2] == 1) {
      if (data[at] == 0 && data[at + 1] == 0) return at;
      at += 3;
    } else {
      ++at;
    }
  }
  return size;
}

size_t withoutTrailingZeros(const uint8_t* bytes, size_t size) {
  while (size > 0 && bytes[size - 1] == 0) --size;
  return size;
}

uint32_t readLength(const uint8_t* bytes, size_t width) {
  uint32_t length = 0;
  for (size_t at = 0; at < width; ++at) length = length << 8 | bytes[at];
  return length;
}

}  // namespace

AccessUnitWriter::AccessUnitWriter(std::span<const uint8_t> header) {
  learn(header);
}

void AccessUnitWriter::learn(std::span<const uint8_t> header) {
  if (header.size() >= 7 && header[0] == 1) {
    mForm = static_cast<NalForm>(mWatch.learnRecord(header).value_or(4));
    return;
  }
  std::vector<uint8_t> copy(header.begin(), header.end());
  mNals.clear();
  splitStartCodes(copy);
  for (const auto nal : mNals) mWatch.look(nal);
  mNals.clear();
}

std::optional<AccessUnitWriter::AccessUnit> AccessUnitWriter::write(std::span<uint8_t> packet) {
  mNals.clear();
  mIsIDR = false;
  mInUse.reset();
  if (!split(packet) || mNals.empty()) return std::nullopt;
  for (const auto nal : mNals) look(nal);
  const bool withParameterSets = mIsIDR && needsParameterSets();
  if (withParameterSets || !keepsPlaces(packet)) return AccessUnit{assemble(withParameterSets), mIsIDR};
  for (const auto nal : mNals) writeBigEndian32(nal.data() - kStartCodeBytes, 1);
  return AccessUnit{packet, mIsIDR};
}

bool AccessUnitWriter::split(std::span<uint8_t> packet) {
  if (mForm != NalForm::kStartCodes) return splitLengths(packet);
  splitStartCodes(packet);
  return true;
}

bool AccessUnitWriter::splitLengths(std::span<uint8_t> packet) {
  const size_t width = static_cast<size_t>(mForm);
  while (!packet.empty()) {
    if (packet.size() < width) return false;
    const size_t length = readLength(packet.data(), width);
    packet = packet.subspan(width);
    if (length > packet.size()) return false;
    if (const size_t kept = withoutTrailingZeros(packet.data(), length); kept > 0) {
      mNals.push_back(packet.first(kept));
    }
    packet = packet.subspan(length);
  }
  return true;
}

void AccessUnitWriter::splitStartCodes(std::span<uint8_t> packet) {
  size_t code = findStartCode(packet, 0);
  while (code < packet.size()) {
    const size_t begin = code + 3;
    code = findStartCode(packet, begin);
    const size_t kept = withoutTrailingZeros(packet.data() + begin, code - begin);
    if (kept > 0) mNals.push_back(packet.subspan(begin, kept));
  }
}

void AccessUnitWriter::look(std::span<const uint8_t> nal) {
  mKeepsToItsSets = mWatch.look(nal) && mKeepsToItsSets;
  if (nalType(nal[0]) == kNalIDRSlice && !mIsIDR) {
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
    const uint8_t type = nalType(nal[0]);
    hasSequence |= type == kNalSequenceParameterSet && ParameterSets::sequenceNumber(nal) == mInUse->sequence;
    hasPicture |= type == kNalPictureParameterSet && ParameterSets::pictureNumber(nal) == mInUse->picture;
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
  while (next < mNals.size() && nalType(mNals[next][0]) == kNalAccessUnitDelimiter) append(mNals[next++]);
  if (withParameterSets) {
    for (const auto set : mMissing) append(set);
  }
  for (; next < mNals.size(); ++next) append(mNals[next]);
  return {mBuffer.data(), total};
}

}  // namespace vesk::capture
