#include "platform/writing/sample_index.h"

#include <algorithm>
#include <cassert>

#include "platform/media/four_char_code.h"
#include "platform/writing/atom_writer.h"

namespace vesk {

void NumberChain::push(uint64_t value) {
  do {
    if (mSize == mBlocks.size() * kBlock) mBlocks.push_back(std::make_unique_for_overwrite<uint8_t[]>(kBlock));
    mBlocks.back()[mSize % kBlock] = static_cast<uint8_t>((value & 0x7F) | (value > 0x7F ? 0x80 : 0));
    ++mSize;
    value >>= 7;
  } while (value != 0);
}

bool NumberChain::Reader::nextBlock() {
  if (mLeft == 0) return false;
  const size_t size = std::min(mLeft, kBlock);
  mAt = mChain.mBlocks[mBlock++].get();
  mEnd = mAt + size;
  mLeft -= size;
  return true;
}

void SampleIndex::beginChunk(uint64_t offset) {
  assert(offset >= mEnd);
  endChunk();
  mChunkOffset = offset;
  mEnd = offset;
}

void SampleIndex::addSample(uint32_t size, uint32_t duration, bool isKey) {
  if (mLastDuration != 0) {
    if (mLastDuration != mRunDuration) endDurationRun();
    mRunDuration = mLastDuration;
    ++mRunSamples;
  }
  mLastDuration = std::max<uint32_t>(duration, 1);
  mSizes.pushSigned(int64_t{size} - mLastSize);
  if (mCount > 0 && size != mLastSize) mOneSize = false;
  mLastSize = size;
  ++mCount;
  if (isKey) {
    mKeys.push(mCount - mLastKey);
    mLastKey = mCount;
    ++mKeyCount;
  }
  mDuration += mLastDuration;
  mEnd += size;
  ++mChunkSamples;
}

void SampleIndex::addFrames(uint64_t bytes) {
  assert(mFrameSize != 0 && bytes % mFrameSize == 0);
  const uint64_t frames = bytes / mFrameSize;
  mCount += frames;
  mDuration += frames;
  mEnd += bytes;
  mChunkSamples += frames;
}

void SampleIndex::moveEnd(uint64_t time) {
  if (mLastDuration == 0) return;
  const uint64_t begin = mDuration - mLastDuration;
  const uint64_t wanted = time > begin ? time - begin : 1;
  mLastDuration = static_cast<uint32_t>(std::min<uint64_t>(wanted, 0xFFFFFFFF));
  mDuration = begin + mLastDuration;
}

void SampleIndex::endDurationRun() {
  if (mRunSamples == 0) return;
  mDurations.push(mRunSamples);
  mDurations.push(mRunDuration);
  ++mDurationRuns;
  mRunSamples = 0;
}

void SampleIndex::endChunk() {
  if (mChunkSamples == 0) return;
  mChunks.push(mChunkOffset - mLastOffset);
  mChunks.push(mChunkSamples);
  ++mChunkCount;
  mChunkSamples = 0;
  mLastOffset = mChunkOffset;
}

size_t SampleIndex::memory() const {
  return sizeof(*this) + mSizes.memory() + mDurations.memory() + mKeys.memory() + mChunks.memory();
}

uint64_t SampleIndex::tablesSize() const {
  constexpr uint64_t kHeaders = 256;
  const uint64_t listedSizes = mFrameSize == 0 && !mOneSize ? mCount * 4 : 0;
  return kHeaders + listedSizes + (mDurationRuns + 2) * 8 + mKeyCount * 4 + (mChunkCount + 1) * (12 + 8);
}

void SampleIndex::writeTables(AtomWriter& writer, const TrackDescription& track) const {
  const auto table = writer.atom(fourCharCode("stbl"));
  {
    const auto atom = writer.atom(fourCharCode("stsd"));
    writer.u32(0);
    writer.u32(1);
    writer.bytes(track.sampleDescription);
  }
  writeDurations(writer);
  if (track.hasKeySamples && mCount > 0) writeKeys(writer);
  writeChunkCounts(writer);
  writeSizes(writer);
  writeOffsets(writer);
}

void SampleIndex::writeDurations(AtomWriter& writer) const {
  const auto atom = writer.atom(fourCharCode("stts"));
  writer.u32(0);
  const size_t countAt = writer.position();
  writer.u32(0);
  uint32_t entries = 0;
  const auto entry = [&](uint64_t samples, uint32_t duration) {
    writer.u32(static_cast<uint32_t>(samples));
    writer.u32(duration);
    ++entries;
  };
  if (mFrameSize != 0) {
    if (mCount > 0) entry(mCount, 1);
  } else {
    NumberChain::Reader runs(mDurations);
    for (uint64_t i = 0; i < mDurationRuns; ++i) {
      const uint64_t samples = runs.next();
      entry(samples, static_cast<uint32_t>(runs.next()));
    }
    const bool lastFits = mRunSamples > 0 && mRunDuration == mLastDuration;
    if (mRunSamples > 0) entry(mRunSamples + (lastFits ? 1 : 0), mRunDuration);
    if (mLastDuration != 0 && !lastFits) entry(1, mLastDuration);
  }
  writer.patch32(countAt, entries);
}

void SampleIndex::writeKeys(AtomWriter& writer) const {
  const auto atom = writer.atom(fourCharCode("stss"));
  writer.u32(0);
  writer.u32(static_cast<uint32_t>(mKeyCount));
  NumberChain::Reader keys(mKeys);
  uint32_t number = 0;
  for (uint64_t i = 0; i < mKeyCount; ++i) {
    number += static_cast<uint32_t>(keys.next());
    writer.u32(number);
  }
}

void SampleIndex::writeChunkCounts(AtomWriter& writer) const {
  const auto atom = writer.atom(fourCharCode("stsc"));
  writer.u32(0);
  const size_t countAt = writer.position();
  writer.u32(0);
  uint32_t entries = 0;
  uint64_t before = 0;
  uint32_t chunk = 0;
  const auto entry = [&](uint64_t samples) {
    ++chunk;
    if (samples == before) return;
    writer.u32(chunk);
    writer.u32(static_cast<uint32_t>(samples));
    writer.u32(1);
    before = samples;
    ++entries;
  };
  NumberChain::Reader chunks(mChunks);
  for (uint64_t i = 0; i < mChunkCount; ++i) {
    chunks.next();
    entry(chunks.next());
  }
  if (mChunkSamples > 0) entry(mChunkSamples);
  writer.patch32(countAt, entries);
}

void SampleIndex::writeSizes(AtomWriter& writer) const {
  const auto atom = writer.atom(fourCharCode("stsz"));
  writer.u32(0);
  const bool listed = mFrameSize == 0 && !mOneSize;
  writer.u32(listed || mCount == 0 ? 0 : mFrameSize != 0 ? mFrameSize : mLastSize);
  writer.u32(static_cast<uint32_t>(mCount));
  if (!listed) return;
  NumberChain::Reader sizes(mSizes);
  int64_t size = 0;
  writer.table32(mCount, [&] { return static_cast<uint32_t>(size += sizes.nextSigned()); });
}

void SampleIndex::writeOffsets(AtomWriter& writer) const {
  const bool wide = std::max(mLastOffset, mChunkSamples > 0 ? mChunkOffset : 0) > 0xFFFFFFFF;
  const auto atom = writer.atom(wide ? fourCharCode("co64") : fourCharCode("stco"));
  writer.u32(0);
  writer.u32(static_cast<uint32_t>(mChunkCount + (mChunkSamples > 0 ? 1 : 0)));
  const auto entry = [&](uint64_t offset) { wide ? writer.u64(offset) : writer.u32(static_cast<uint32_t>(offset)); };
  NumberChain::Reader chunks(mChunks);
  uint64_t offset = 0;
  for (uint64_t i = 0; i < mChunkCount; ++i) {
    offset += chunks.next();
    chunks.next();
    entry(offset);
  }
  if (mChunkSamples > 0) entry(mChunkOffset);
}

}  // namespace vesk
