#include "platform/writing/sample_index.h"

#include <algorithm>
#include <cassert>

#include <vesk/four_char_code.h>
#include "platform/writing/atom_writer.h"

namespace vesk {
namespace {

/// Bytes of silence that the chunks of all gaps share: 48 kHz stereo has three chunks a second.
constexpr uint64_t kSilentStretch = uint64_t{64} << 10;
constexpr uint64_t kLongestDuration = 0x7FFFFFFF;  // in a table
constexpr uint64_t kLongestStretchSeconds = 2;

}  // namespace

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

SampleIndex SampleIndex::forTrack(const TrackDescription& track) {
  if (track.frameSize != 0) return SampleIndex(track.frameSize, {.size = track.frameSize});
  if (track.silentPacket.empty()) return SampleIndex(0);
  return SampleIndex(
      0, {.size = static_cast<uint32_t>(track.silentPacket.size()),
          .duration = kFramesPerAACPacket,
          .longestStretch = std::max<uint64_t>(kLongestStretchSeconds * track.timescale, kFramesPerAACPacket)});
}

void SampleIndex::beginChunk(uint64_t offset) {
  assert(offset >= mEnd);
  endChunk();
  mChunkOffset = offset;
  mEnd = offset;
}

void SampleIndex::addSample(uint32_t size, uint32_t duration, bool isKey) {
  enterLastDuration();
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
  if (mSilence.size != 0 && time > mDuration && time - mDuration > mSilence.longestStretch) {
    return addSilence(time - mDuration);
  }
  if (mLastDuration == 0) return;
  const uint64_t begin = mDuration - mLastDuration;
  mLastDuration = time > begin ? time - begin : 1;
  mDuration = begin + mLastDuration;
}

bool SampleIndex::canReach(uint64_t time) const {
  if (mSilence.size == 0 || time <= mDuration) return true;
  constexpr uint64_t kMostBytes = uint64_t{16} << 20;
  constexpr uint64_t kMostSamples = 0xFFFFFFFF;
  const uint64_t samples = (time - mDuration) / mSilence.duration;
  if (mCount > kMostSamples || samples > kMostSamples - mCount) return false;
  return samples / samplesPerSilentChunk() * 8 + (mFrameSize == 0 ? samples * 4 : 0) <= kMostBytes;
}

/// As many samples as lie in `duration`; what is left over lengthens the last one.
void SampleIndex::addSilence(uint64_t duration) {
  const uint64_t samples = duration / mSilence.duration;
  endChunk();
  mChunks.push(0);
  mChunks.push(samples);
  ++mGaps;
  const uint64_t most = samplesPerSilentChunk();
  mSilentChunks += (samples + most - 1) / most;
  mLongestSilence = std::max(mLongestSilence, std::min(samples, most));
  mCount += samples;
  mDuration += duration;
  if (mFrameSize != 0) return;
  mOneSize = false;
  enterLastDuration();
  mLastDuration = mSilence.duration;
  enterLastDuration();
  mRunSamples += samples - 2;  // one is in the run, and the last is not yet
  mLastDuration = mSilence.duration + duration % mSilence.duration;
}

void SampleIndex::enterLastDuration() {
  if (mLastDuration == 0) return;
  if (mLastDuration != mRunDuration) endDurationRun();
  mRunDuration = mLastDuration;
  mLongestDuration = std::max(mLongestDuration, mLastDuration);
  ++mRunSamples;
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
  mChunks.push(1 + mChunkOffset - mLastOffset);
  mChunks.push(mChunkSamples);
  ++mChunkCount;
  mChunkSamples = 0;
  mLastOffset = mChunkOffset;
}

uint64_t SampleIndex::samplesPerSilentChunk() const {
  return std::max<uint64_t>(kSilentStretch / mSilence.size, 1);
}

size_t SampleIndex::memory() const {
  return sizeof(*this) + mSizes.memory() + mDurations.memory() + mKeys.memory() + mChunks.memory();
}

uint32_t SampleIndex::timeDivisor(uint32_t timescale) const {
  const uint64_t longest = std::max(mLongestDuration, mLastDuration);
  uint64_t divisor = 1;
  while (longest / divisor > kLongestDuration && timescale % (divisor * 10) == 0) divisor *= 10;
  return static_cast<uint32_t>(divisor);
}

uint64_t SampleIndex::tablesSize() const {
  constexpr uint64_t kHeaders = 256;
  const uint64_t listedSizes = mFrameSize == 0 && !mOneSize ? mCount * 4 : 0;
  const bool isRounded = std::max(mLongestDuration, mLastDuration) > kLongestDuration;
  const uint64_t durations = isRounded ? mCount : mDurationRuns + 2;
  const uint64_t chunkCounts = mChunkCount + 1 + 2 * mGaps;
  return kHeaders + listedSizes + durations * 8 + mKeyCount * 4 + chunkCounts * 12 +
         (mChunkCount + 1 + mSilentChunks) * 8;
}

void SampleIndex::writeTables(AtomWriter& writer, const TrackDescription& track, uint64_t silenceOffset) const {
  const auto table = writer.atom(fourCharCode("stbl"));
  {
    const auto atom = writer.atom(fourCharCode("stsd"));
    writer.u32(0);
    writer.u32(1);
    writer.bytes(track.sampleDescription);
  }
  writeDurations(writer, timeDivisor(track.timescale));
  if (track.hasKeySamples && mCount > 0) writeKeys(writer);
  writeChunkCounts(writer);
  writeSizes(writer);
  writeOffsets(writer, silenceOffset);
}

/// Calls `visit(offset, samples, isSilence)` for every chunk of the tables in their order.
template <class Visit>
void SampleIndex::forEachChunk(uint64_t silenceOffset, Visit visit) const {
  NumberChain::Reader chunks(mChunks);
  uint64_t offset = 0;
  for (uint64_t i = 0; i < mChunkCount + mGaps; ++i) {
    const uint64_t distance = chunks.next();
    uint64_t samples = chunks.next();
    if (distance > 0) {
      offset += distance - 1;
      visit(offset, samples, false);
      continue;
    }
    for (const uint64_t most = samplesPerSilentChunk(); samples > 0; samples -= std::min(samples, most)) {
      visit(silenceOffset, std::min(samples, most), true);
    }
  }
  if (mChunkSamples > 0) visit(mChunkOffset, mChunkSamples, false);
}

/// Calls `visit(samples, duration)`; two calls in a row may say the same duration.
template <class Visit>
void SampleIndex::forEachDurationRun(Visit visit) const {
  NumberChain::Reader runs(mDurations);
  for (uint64_t i = 0; i < mDurationRuns; ++i) {
    const uint64_t samples = runs.next();
    visit(samples, runs.next());
  }
  if (mRunSamples > 0) visit(mRunSamples, mRunDuration);
  if (mLastDuration != 0) visit(uint64_t{1}, mLastDuration);
}

void SampleIndex::writeDurations(AtomWriter& writer, uint32_t divisor) const {
  const auto atom = writer.atom(fourCharCode("stts"));
  writer.u32(0);
  const size_t countAt = writer.position();
  writer.u32(0);
  uint32_t entries = 0;
  uint64_t runSamples = 0;
  uint64_t runDuration = 0;
  const auto endRun = [&] {
    if (runSamples == 0) return;
    writer.u32(static_cast<uint32_t>(runSamples));
    writer.u32(static_cast<uint32_t>(std::min(runDuration, kLongestDuration)));
    ++entries;
  };
  const auto add = [&](uint64_t samples, uint64_t duration) {
    if (duration != runDuration) {
      endRun();
      runSamples = 0;
      runDuration = duration;
    }
    runSamples += samples;
  };
  uint64_t exact = 0;  // time so far, in the track's scale and in the coarser one
  uint64_t coarse = 0;
  const auto addRounded = [&](uint64_t samples, uint64_t duration) {
    for (; samples > 0; --samples) {
      exact += duration;
      const uint64_t end = std::max((exact + divisor / 2) / divisor, coarse + 1);
      add(1, end - coarse);
      coarse = end;
    }
  };
  if (mFrameSize != 0) {
    if (mCount > 0) add(mCount, 1);
  } else if (divisor == 1) {
    forEachDurationRun(add);
  } else {
    forEachDurationRun(addRounded);
  }
  endRun();
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
  forEachChunk(0, [&](uint64_t, uint64_t samples, bool) {
    ++chunk;
    if (samples == before) return;
    writer.u32(chunk);
    writer.u32(static_cast<uint32_t>(samples));
    writer.u32(1);
    before = samples;
    ++entries;
  });
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
  forEachChunk(0, [&](uint64_t, uint64_t samples, bool isSilence) {
    writer.table32(samples,
                   [&] { return isSilence ? mSilence.size : static_cast<uint32_t>(size += sizes.nextSigned()); });
  });
}

void SampleIndex::writeOffsets(AtomWriter& writer, uint64_t silenceOffset) const {
  const uint64_t last = std::max(mLastOffset, mChunkSamples > 0 ? mChunkOffset : 0);
  const bool wide = std::max(last, mSilentChunks > 0 ? silenceOffset : 0) > 0xFFFFFFFF;
  const auto atom = writer.atom(wide ? fourCharCode("co64") : fourCharCode("stco"));
  writer.u32(0);
  writer.u32(static_cast<uint32_t>(mChunkCount + mSilentChunks + (mChunkSamples > 0 ? 1 : 0)));
  forEachChunk(silenceOffset, [&](uint64_t offset, uint64_t, bool) {
    wide ? writer.u64(offset) : writer.u32(static_cast<uint32_t>(offset));
  });
}

}  // namespace vesk
