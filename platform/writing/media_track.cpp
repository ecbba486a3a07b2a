#include "platform/writing/media_track.h"

#include <algorithm>

#include "platform/media/aac_silence.h"
#include "platform/media/four_char_code.h"

namespace vesk {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kSmallestGap = 2'000;                   // microseconds; less is rounding and jitter
constexpr uint64_t kLongestGapSeconds = 3600;             // longer ones are cut to this
constexpr uint64_t kMostSilentBytes = uint64_t{1} << 30;  // of PCM: it lies in one fragment
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

/// Empty for all but AAC.
std::span<const uint8_t> silentPacketOf(const CMFormatDescription& format) {
  const auto* const sound = dynamic_cast<const CMAudioFormatDescription*>(&format);
  if (!sound || sound->streamBasicDescription().mFormatID != kAudioFormatMPEG4AAC) return {};
  return silentAACPacket(sound->streamBasicDescription().mChannelsPerFrame);
}

bool isKeySample(const CMSampleBuffer& sample) {
  return !sample.sampleAttachments().valueOr(kCMSampleAttachmentKey_NotSync, false);
}

}  // namespace

bool MediaTrack::accept(const CMSampleBufferRef& sample, int64_t sessionStart) {
  if (!sample || mRefused || mFinished) return false;
  const auto stamp = microsecondsOf(sample->presentationTimeStamp());
  if (!stamp || sample->data().empty() || sample->data().size() > kLargestSample) return false;
  const int64_t at = *stamp - sessionStart;
  if (!mDescription ? !begin(*sample, at) : !hasFormat(sample->formatDescription())) return false;

  const bool accepted = mKind == TrackKind::kVideo     ? acceptPicture(*sample, at)
                        : mDescription->frameSize != 0 ? acceptFrames(*sample, at)
                                                       : acceptPackets(*sample, at);
  if (accepted) mHeld.push_back(sample);
  return accepted;
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
  mSilentPacket = silentPacketOf(*mFormat);
  mBegin = at;
  mIndex = SampleIndex(mDescription->frameSize);
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
    constexpr uint64_t kLongest = kLongestGapSeconds * kSecond;
    if (time - mLastTime > kLongest) {
      mBegin += static_cast<int64_t>(time - mLastTime - kLongest);
      time = mLastTime + kLongest;
    }
    stretchLast(time);
  }
  const auto duration = sample.duration().valid ? microsecondsOf(sample.duration()) : std::nullopt;
  const bool usable = duration && *duration > 0 && *duration <= static_cast<int64_t>(kLongestGapSeconds) * kSecond;
  mEnd = time;
  mLastTime = time;
  push(sample.data().data(), static_cast<uint32_t>(sample.data().size()),
       usable ? static_cast<uint32_t>(*duration) : kDurationOfLastPicture, isKeySample(sample));
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

bool MediaTrack::acceptFrames(const CMSampleBuffer& sample, int64_t at) {
  const uint32_t frameSize = mDescription->frameSize;
  uint64_t frames = sample.numSamples();
  if (!sample.sampleSizes().empty() || frames > sample.data().size() / frameSize) return false;
  const uint8_t* bytes = sample.data().data();
  if (mHasSamples) {
    const int64_t end = static_cast<int64_t>(mEnd);
    const int64_t wanted = soundTime(at);
    const int64_t smallestGap = kSmallestGap * mDescription->timescale / kSecond;
    if (wanted < end) {
      const uint64_t silence = std::min<uint64_t>(sample.attachments().insertedSilence, frames);
      const uint64_t over = std::min(silence, static_cast<uint64_t>(end - wanted));
      bytes += over * frameSize;
      frames -= over;
    } else if (wanted - end > smallestGap) {
      const uint64_t gap = static_cast<uint64_t>(wanted - end);
      const uint64_t longest = std::min(kLongestGapSeconds * mDescription->timescale, kMostSilentBytes / frameSize);
      if (gap > longest) mBegin += static_cast<int64_t>(scaled(gap - longest, kSecond, mDescription->timescale));
      pushSilence(std::min(gap, longest));
    }
  }
  pushFrames(bytes, frames);
  return true;
}

bool MediaTrack::acceptPackets(const CMSampleBuffer& sample, int64_t at) {
  const auto sizes = sample.sampleSizes();
  const uint32_t count = sample.numSamples();
  if (sizes.empty() && sample.data().size() % count != 0) return false;
  if (mHasSamples) {
    const int64_t end = static_cast<int64_t>(mEnd);
    const int64_t wanted = soundTime(at);
    if (wanted - end > kSmallestGap * mDescription->timescale / kSecond) {
      const uint64_t gap = static_cast<uint64_t>(wanted - end);
      const uint64_t longest = kLongestGapSeconds * mDescription->timescale;
      if (gap > longest) mBegin += static_cast<int64_t>(scaled(gap - longest, kSecond, mDescription->timescale));
      mEnd += std::min(gap, longest);
      stretchLast(mEnd);
    }
  }
  const uint8_t* bytes = sample.data().data();
  const auto same = static_cast<uint32_t>(sample.data().size() / count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t size = sizes.empty() ? same : sizes[i];
    const bool isSilence = i < sample.attachments().insertedSilence && !mSilentPacket.empty();
    const std::span<const uint8_t> packet = isSilence ? mSilentPacket : std::span(bytes, size);
    push(packet.data(), static_cast<uint32_t>(packet.size()), mDescription->defaultDuration, true);
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
  if (mKind != TrackKind::kVideo || mWaiting.empty() || !isKeySample(sample)) return false;
  const auto stamp = microsecondsOf(sample.presentationTimeStamp());
  if (!stamp) return false;
  const int64_t time = *stamp - sessionStart - mBegin;
  return time > 0 && static_cast<uint64_t>(time) >= mWaiting.front().time + microseconds;
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
  mHeld.clear();
  mWaitingBytes = 0;
}

void MediaTrack::refuse() {
  mRefused = true;
  mDescription.reset();
  clearWaiting();
}

}  // namespace vesk
