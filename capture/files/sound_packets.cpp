#include "capture/files/sound_packets.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/media/aac_silence.h"

namespace vesk::capture {

namespace {

constexpr int64_t kAacFrames = 1024;
/// Of a microsecond: packets are no whole number of microseconds long, which adds up over hours.
constexpr int64_t kNanoseconds = 1000;

int16_t clip(long value) {
  return static_cast<int16_t>(std::clamp(value, -32768L, 32767L));
}

int16_t toSample(uint8_t value) {
  return static_cast<int16_t>((value - 128) << 8);
}
int16_t toSample(int16_t value) {
  return value;
}
int16_t toSample(int32_t value) {
  return static_cast<int16_t>(value >> 16);
}
int16_t toSample(double value) {
  return std::isfinite(value) ? clip(std::lrint(std::clamp(value, -2.0, 2.0) * 32768)) : int16_t{0};
}
int16_t toSample(float value) {
  return toSample(static_cast<double>(value));
}

template <class T>
void convertSamples(const AVFrame& frame, bool isPlanar, size_t channels, int16_t* out) {
  const auto frames = static_cast<size_t>(frame.nb_samples);
  for (size_t channel = 0; channel < channels; ++channel) {
    const auto* in = reinterpret_cast<const T*>(frame.extended_data[isPlanar ? channel : 0]) + (isPlanar ? 0 : channel);
    const size_t step = isPlanar ? 1 : channels;
    for (size_t at = 0; at < frames; ++at) out[at * channels + channel] = toSample(in[at * step]);
  }
}

bool convertFrame(const AVFrame& frame, size_t channels, int16_t* out) {
  const auto format = static_cast<AVSampleFormat>(frame.format);
  const bool isPlanar = av_sample_fmt_is_planar(format) != 0;
  switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8:
      convertSamples<uint8_t>(frame, isPlanar, channels, out);
      return true;
    case AV_SAMPLE_FMT_S16:
      convertSamples<int16_t>(frame, isPlanar, channels, out);
      return true;
    case AV_SAMPLE_FMT_S32:
      convertSamples<int32_t>(frame, isPlanar, channels, out);
      return true;
    case AV_SAMPLE_FMT_FLT:
      convertSamples<float>(frame, isPlanar, channels, out);
      return true;
    case AV_SAMPLE_FMT_DBL:
      convertSamples<double>(frame, isPlanar, channels, out);
      return true;
    default:
      return false;
  }
}

/// The packet without its ADTS header (ISO/IEC 13818-7, 6.2); empty when the header is broken.
std::span<uint8_t> withoutADTS(std::span<uint8_t> packet) {
  const bool isADTS = packet.size() >= 7 && packet[0] == 0xFF && (packet[1] & 0xF6) == 0xF0;
  if (!isADTS) return packet;
  const size_t header = packet[1] & 1 ? 7 : 9;
  const bool isOneBlock = (packet[6] & 3) == 0;
  return isOneBlock && packet.size() > header ? packet.subspan(header) : std::span<uint8_t>{};
}

}  // namespace

bool PcmPackets::start(int64_t time, bool again) {
  mChunker.restart(time, again);
  return time > 0 ? mReader->seek(time) : mReader->rewind();
}

std::optional<MediaUnit> PcmPackets::next() {
  for (;;) {
    if (const auto unit = mChunker.take(false)) return unit;
    if (mChunker.isFull() || !mReader->read()) return mChunker.take(true);
    mChunker.give(mReader->bytes(), mReader->time());
  }
}

bool DecodedSound::start(int64_t time, bool again) {
  mChunker.restart(time, again);
  return mDecoder->start(time);
}

std::optional<MediaUnit> DecodedSound::next() {
  for (;;) {
    if (const auto unit = mChunker.take(false)) return unit;
    const AVFrame* frame = mChunker.isFull() ? nullptr : mDecoder->next();
    if (frame == nullptr) return mChunker.take(true);
    const size_t samples = static_cast<size_t>(frame->nb_samples) * mChannels;
    if (mSamples.size() < samples) mSamples.resize(samples);
    const bool fits = frame->ch_layout.nb_channels == mChannels && frame->sample_rate == static_cast<int>(mRate);
    if (!fits || !convertFrame(*frame, mChannels, mSamples.data())) {
      mDecoder->reader().noteDamage("the sound changes its format on the way");
      continue;
    }
    mChunker.give({reinterpret_cast<uint8_t*>(mSamples.data()), samples * 2}, mDecoder->time());
  }
}

AacPackets::AacPackets(std::unique_ptr<TrackReader> reader, uint32_t samplesPerSecond, uint32_t channels,
                       bool isBareStream, const std::optional<Loop>& loop)
    : mReader(std::move(reader)),
      mPacketTime((kAacFrames * 1000000 + samplesPerSecond / 2) / samplesPerSecond),
      mExactPacketTime(kAacFrames * 1000000000 / samplesPerSecond),
      mShift(isBareStream ? 0 : mPacketTime),
      mLoop(loop),
      mSilentPacket(silentAACPacket(channels)) {}

bool AacPackets::start(int64_t time, bool again) {
  mPacket = {};
  mFillers = 0;
  mMayFill = time == 0 && !again;
  mEarliest = time;
  if (mShift > 0 && (again || time == 0)) mEarliest = again ? time + mPacketTime / 2 : -mPacketTime / 2;
  if (again && mLoop && mPlace)
    *mPlace -= mLoop->length() * kNanoseconds;
  else
    mPlace.reset();
  return time > mShift ? mReader->seek(time - mShift) : mReader->rewind();
}

std::optional<MediaUnit> AacPackets::next() {
  if (mLoop && mPlace) return nextInLoop();
  if (mPacket.empty() && !readPacket()) return std::nullopt;
  if (const auto unit = filler()) return unit;
  return take(mStamp);
}

/// Every packet at its place, whatever the file says of it within half a packet.
std::optional<MediaUnit> AacPackets::nextInLoop() {
  const int64_t half = mPacketTime / 2;
  const int64_t place = *mPlace / kNanoseconds;
  if (place > mLoop->end + mShift - half) return std::nullopt;
  do {
    if (mPacket.empty() && !readPacket()) break;
    if (mStamp < place - half) mPacket = {};  // its place has gone to the end of the turn before
  } while (mPacket.empty());
  if (mPacket.empty() || mStamp >= place + half) {
    *mPlace += mExactPacketTime;
    return silence(std::max<int64_t>(place, 0));
  }
  return take(place);
}

/// The packet at hand, stamped `time`.
MediaUnit AacPackets::take(int64_t time) {
  if (mLoop) mPlace = mPlace.value_or(time * kNanoseconds) + mExactPacketTime;
  const MediaUnit unit{mPacket, std::max<int64_t>(time, 0)};
  mPacket = {};
  return unit;
}

bool AacPackets::readPacket() {
  while (mReader->read()) {
    const auto packet = withoutADTS(mReader->bytes());
    if (packet.empty()) {
      mReader->noteDamage("a packet of sound is broken");
      continue;
    }
    mStamp = mReader->time() + mShift;
    if (mStamp < mEarliest) continue;
    if (mMayFill && mStamp <= 2 * mPacketTime) {
      mFillers = (mStamp + mPacketTime / 2) / mPacketTime;
      mFillerTime = 0;
    }
    mMayFill = false;
    mPacket = packet;
    return true;
  }
  return false;
}

/// The next packet of silence that is to go before the first packet; none when there is none.
std::optional<MediaUnit> AacPackets::filler() {
  if (mFillers == 0) return std::nullopt;
  --mFillers;
  const int64_t time = mFillerTime;
  mFillerTime += mPacketTime;
  return silence(time);
}

MediaUnit AacPackets::silence(int64_t time) {
  mSilence.assign(mSilentPacket.begin(), mSilentPacket.end());  // whoever had the last one may have rewritten it
  return {mSilence, time};
}

}  // namespace vesk::capture
