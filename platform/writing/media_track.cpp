#include "platform/writing/media_track.h"

#include <algorithm>
#include <utility>

#include <vesk/four_char_code.h>
#include "platform/media/aac_silence.h"

namespace vesk {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kSmallestGap = 2'000;                   // microseconds; less is rounding and jitter
constexpr uint64_t kLongGapSeconds = 2;                   // of pictures
constexpr uint64_t kMostSilence = uint64_t{1} << 40;      // frames or packets: so many make sense
constexpr uint64_t kMostSilentBytes = uint64_t{4} << 20;  // of PCM: 22 s of 48 kHz stereo
constexpr uint64_t kMostSilentSeconds = 600;              // of packets, which take some 12 bytes each
constexpr int64_t kLongestDuration = 1'800'000'000;       // of a picture, as its maker says
constexpr size_t kLargestSample = size_t{1} << 30;
constexpr int64_t kFarthestStamp = int64_t{1} << 61;
constexpr uint32_t kDurationOfLastPicture = 33'333;  // when its maker gave none
constexpr size_t kSilenceBytes = size_t{256} << 10;
const uint8_t kSilence[kSilenceBytes] = {};

/// The stamp in microseconds; nothing when it is no time or too far away to reckon with.
std::optional<int64_t> microsecondsOf(const CMTime& time) {
  const CMTime converted = time.timescale == kSecond ? time : CMTimeConvertScale(time, kSecond);
  if (!converted.valid || converted.value > kFarthestStamp || converted.value < -kFarthestStamp) return std::nullopt;
  return converted.value;
}

uint64_t scaled(uint64_t value, uint64_t to, uint64_t from) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(value) * to / from);
}

uint64_t rounded(uint64_t value, uint64_t to, uint64_t from) {
  return static_cast<uint64_t>((static_cast<unsigned __int128>(value) * to + from / 2) / from);
}

/// Of the frames or packets in it, how many at its beginning are silence.
uint64_t silenceInBuffer(const CMSampleBuffer& sample) {
  return sample.attachments().isSilenceLeftOut ? 0 : sample.attachments().insertedSilence;
}

bool isKeySample(const CMSampleBuffer& sample) {
  return !sample.sampleAttachments().valueOr(kCMSampleAttachmentKey_NotSync, false);
}

}  // namespace

std::optional<int64_t> MediaTrack::timeOf(const CMSampleBuffer& sample) {
  const auto stamp = microsecondsOf(sample.presentationTimeStamp());
  const uint64_t silence = std::min(sample.attachments().insertedSilence, kMostSilence);
  if (!stamp || silence == 0) return stamp;
  const auto* const format = sample.formatDescription() ? sample.formatDescription()->asSound() : nullptr;
  if (!format || !(format->streamBasicDescription().mSampleRate >= 1)) return stamp;
  const uint64_t frames = silence * std::max<uint64_t>(format->streamBasicDescription().mFramesPerPacket, 1);
  const double duration = static_cast<double>(frames) / format->streamBasicDescription().mSampleRate * kSecond;
  return *stamp + static_cast<int64_t>(std::min(duration, static_cast<double>(kFarthestStamp)));
}

bool MediaTrack::accept(const CMSampleBufferRef& sample, int64_t sessionStart) {
  if (!sample || mRefused || mFinished) return false;
  const auto stamp = microsecondsOf(sample->presentationTimeStamp());
  if (!stamp || sample->data().empty() || sample->data().size() > kLargestSample) return false;
  const int64_t at = *stamp - sessionStart;
  if (!mDescription ? !begin(*sample, at) : !hasFormat(sample->formatDescription())) return false;

  const bool accepted = mKind == TrackKind::kVideo     ? acceptPicture(*sample, at)
                        : mDescription->frameSize != 0 ? acceptFrames(*sample, at)
                                                       : acceptPackets(*sample, at);
  if (!accepted) return false;
  auto memory = sample->memory();
  if (mMemory.empty() || mMemory.back() != memory) mMemory.push_back(std::move(memory));
  return true;
}

bool MediaTrack::begin(const CMSampleBuffer& sample, int64_t at) {
  if (!sample.formatDescription()) return false;
  auto description = describeTrack(*sample.formatDescription());
  if (!description || description->kind != mKind) return false;
  description->track = mNumber;
  description->start = at > 0 ? rounded(static_cast<uint64_t>(at), 90'000, kSecond) : 0;
  // What lies before the movie's zero is kept and not presented, like what the maker wants trimmed.
  if (at < 0) description->trim = rounded(static_cast<uint64_t>(-at), description->timescale, kSecond);
  if (const auto& trim = sample.attachments().trimDurationAtStart) {
    const CMTime inScale = CMTimeConvertScale(*trim, static_cast<int32_t>(description->timescale));
    if (inScale.valid && inScale.value > 0) description->trim += static_cast<uint64_t>(inScale.value);
  }
  mDescription = std::move(description);
  mFormat = sample.formatDescription();
  mBegin = at;
  mIndex = SampleIndex::forTrack(*mDescription);
  return true;
}

bool MediaTrack::hasFormat(const CMFormatDescriptionRef& format) const {
  if (format == mFormat) return true;
  if (!format) return false;
  const auto other = describeTrack(*format);
  return other && other->kind == mKind && other->sampleDescription == mDescription->sampleDescription;
}

bool MediaTrack::acceptPicture(const CMSampleBuffer& sample, int64_t at) {
  uint64_t time = at > mBegin ? static_cast<uint64_t>(at - mBegin) : 0;
  if (mHasSamples) {
    if (time <= mLastTime) time = mLastTime + 1;
    stretchLast(time);
  }
  const auto duration = sample.duration().valid ? microsecondsOf(sample.duration()) : std::nullopt;
  mEnd = time;
  mLastTime = time;
  push(
      sample.data().data(), static_cast<uint32_t>(sample.data().size()),
      duration && *duration > 0 ? static_cast<uint32_t>(std::min(*duration, kLongestDuration)) : kDurationOfLastPicture,
      isKeySample(sample));
  return true;
}

/// The frame of the track at which a stamp lies; negative before its beginning.
int64_t MediaTrack::soundTime(int64_t at) const {
  const int64_t distance = at - mBegin;
  const auto frames =
      rounded(static_cast<uint64_t>(distance < 0 ? -distance : distance), mDescription->timescale, kSecond);
  const auto bounded = static_cast<int64_t>(std::min<uint64_t>(frames, INT64_MAX / 4));
  return distance < 0 ? -bounded : bounded;
}

/// Units of silence that lie before the sound of `sample`: what its maker put in and the gap to the end of
/// the track, without what would lie over that.
uint64_t MediaTrack::silenceBefore(const CMSampleBuffer& sample, int64_t at) const {
  const uint64_t unit = mDescription->frameSize != 0 ? 1 : kFramesPerAACPacket;
  const auto silence = static_cast<int64_t>(std::min(sample.attachments().insertedSilence, kMostSilence) * unit);
  if (!mHasSamples) return static_cast<uint64_t>(silence);
  const int64_t gap = soundTime(at) - static_cast<int64_t>(mEnd);
  const bool followsOn = gap >= 0 && gap <= kSmallestGap * mDescription->timescale / kSecond;
  return static_cast<uint64_t>(std::max<int64_t>(followsOn ? silence : gap + silence, 0));
}

/// Whether a gap lies between two fragments instead of being filled. Silence that costs little is written
/// out, so that programs which cannot seek play on.
bool MediaTrack::isLong(uint64_t gap) const {
  if (mDescription->frameSize != 0) return gap > kMostSilentBytes / mDescription->frameSize;
  const uint64_t most = mKind == TrackKind::kVideo ? kLongGapSeconds : kMostSilentSeconds;
  return gap > most * mDescription->timescale;
}

bool MediaTrack::acceptFrames(const CMSampleBuffer& sample, int64_t at) {
  const uint32_t frameSize = mDescription->frameSize;
  const uint64_t frames = sample.numSamples();
  if (!sample.sampleSizes().empty() || frames > sample.data().size() / frameSize) return false;
  const uint64_t inBuffer = std::min(silenceInBuffer(sample), frames);
  const uint64_t silence = silenceBefore(sample, at);
  if (isLong(silence)) {
    mEnd += silence;
  } else {
    pushSilence(silence);
  }
  pushFrames(sample.data().data() + inBuffer * frameSize, frames - inBuffer);
  return true;
}

bool MediaTrack::acceptPackets(const CMSampleBuffer& sample, int64_t at) {
  const auto sizes = sample.sampleSizes();
  const uint32_t count = sample.numSamples();
  const uint64_t silence = silenceBefore(sample, at);
  // The packet before the gap lasts over what its maker left open, unless that is much.
  const bool isFilled = silence > mIndex.longestStretch() || sample.attachments().insertedSilence > 0;
  const uint64_t packets = isFilled && !isLong(silence) ? silence / kFramesPerAACPacket : 0;
  mEnd += silence - packets * kFramesPerAACPacket;
  if (silence > 0) stretchLast(mEnd);
  const std::span<const uint8_t> silent = mDescription->silentPacket;
  for (uint64_t i = 0; i < packets; ++i)
    push(silent.data(), static_cast<uint32_t>(silent.size()), kFramesPerAACPacket, true);

  const uint8_t* bytes = sample.data().data();
  const auto same = static_cast<uint32_t>(sample.data().size() / count);
  const uint64_t inBuffer = silenceInBuffer(sample);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t size = sizes.empty() ? same : sizes[i];
    if (i >= inBuffer) push(bytes, size, mDescription->defaultDuration, true);
    bytes += size;
  }
  return true;
}

/// Makes the last sample reach to `time`. When it is in the file already, the time of the next
/// fragment says so, and the index follows it.
void MediaTrack::stretchLast(uint64_t time) {
  if (mWaiting.empty()) return;
  Waiting& last = mWaiting.back();
  last.duration = static_cast<uint32_t>(std::min<uint64_t>(time - last.time, UINT32_MAX));
}

void MediaTrack::push(const uint8_t* bytes, uint32_t size, uint32_t duration, bool isKey) {
  mWaiting.push_back({bytes, mEnd, size, duration, isKey});
  mWaitingBytes += size;
  mEnd += duration;
  mHasSamples = true;
}

/// Adds frames in stretches short enough to lie between the pictures.
void MediaTrack::pushFrames(const uint8_t* bytes, uint64_t frames) {
  const uint64_t longest = std::max<uint64_t>(mDescription->timescale / 2, 1);
  while (frames > 0) {
    const uint64_t some = std::min(frames, longest);
    const auto size = static_cast<uint32_t>(some * mDescription->frameSize);
    push(bytes, size, static_cast<uint32_t>(some), true);
    bytes += size;
    frames -= some;
  }
}

void MediaTrack::pushSilence(uint64_t frames) {
  const uint64_t most = kSilenceBytes / mDescription->frameSize;
  while (frames > 0) {
    const uint64_t some = std::min(frames, most);
    push(kSilence, static_cast<uint32_t>(some * mDescription->frameSize), static_cast<uint32_t>(some), true);
    frames -= some;
  }
}

bool MediaTrack::endsFragment(const CMSampleBuffer& sample, int64_t sessionStart, uint64_t microseconds) const {
  if (mWaiting.empty()) return false;
  const auto stamp = microsecondsOf(sample.presentationTimeStamp());
  if (!stamp) return false;
  const int64_t at = *stamp - sessionStart;
  if (mKind == TrackKind::kSound) return isLong(silenceBefore(sample, at));
  if (at <= mBegin) return false;
  const auto time = static_cast<uint64_t>(at - mBegin);
  if (time > mLastTime && isLong(time - mLastTime)) return true;
  return isKeySample(sample) && time >= mWaiting.front().time + microseconds;
}

uint64_t MediaTrack::waitingDuration() const {
  if (mWaiting.empty()) return 0;
  return scaled(mEnd - mWaiting.front().time, kSecond, mDescription->timescale);
}

uint64_t MediaTrack::movieTime(uint64_t time) const {
  return static_cast<uint64_t>(std::max<int64_t>(mBegin, 0)) + scaled(time, kSecond, mDescription->timescale);
}

void MediaTrack::clearWaiting() {
  mWaiting.clear();
  mMemory.clear();
  mWaitingBytes = 0;
}

void MediaTrack::refuse() {
  mRefused = true;
  mDescription.reset();
  clearWaiting();
}

}  // namespace vesk
