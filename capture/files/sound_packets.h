#pragma once

#include <memory>
#include <span>
#include <vector>

#include "capture/files/pcm_chunker.h"
#include "capture/files/track_decoder.h"
#include "capture/files/track_reader.h"
#include "capture/files/unit_reader.h"

namespace vesk::capture {

/// 16-bit little-endian PCM as it stands in the file.
class PcmPackets : public UnitReader {
 public:
  PcmPackets(std::unique_ptr<TrackReader> reader, uint32_t samplesPerSecond, uint16_t channels,
             const std::optional<Loop>& loop)
      : mReader(std::move(reader)), mChunker(samplesPerSecond, channels, loop) {}

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mReader->damage(); }

 private:
  const std::unique_ptr<TrackReader> mReader;
  PcmChunker mChunker;
};

/// Any sound that can be decoded, as 16-bit PCM of one rate.
class DecodedSound : public UnitReader {
 public:
  DecodedSound(std::unique_ptr<TrackDecoder> decoder, uint32_t samplesPerSecond, uint16_t channels,
               const std::optional<Loop>& loop)
      : mDecoder(std::move(decoder)),
        mRate(samplesPerSecond),
        mChannels(channels),
        mChunker(samplesPerSecond, channels, loop) {}

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mDecoder->reader().damage(); }

 private:
  const std::unique_ptr<TrackDecoder> mDecoder;
  const uint32_t mRate;
  const uint16_t mChannels;
  PcmChunker mChunker;
  std::vector<int16_t> mSamples;
};

/// AAC-LC as raw packets of 1024 frames.
///
/// A recording hides the first 1024 frames of its AAC track, an encoder's priming, so a packet
/// stamped s is heard at s − D, D being 1024 frames. A packet that the original lets be heard at T
/// is therefore stamped T + D:
/// - a movie whose edit list hides one packet of priming has T = −D for its first: stamped 0;
/// - more priming (T < −1.5 D): the packets that could not be hidden are left out, and the sound is
///   off by less than half a packet;
/// - less priming, or sound that begins up to one packet after the first frame of video: a recording takes a
///   first packet that comes within 2 D for one at 0, so packets of silence go before it;
/// - an ADTS stream says nothing of priming: its first packet is taken for it.
/// In a loop the priming is left out after the first time, and the packets follow on without a gap: at the
/// loop's end, packets are left out or silent ones put in, so that the sound is off by half a packet at most,
/// however often the loop comes round.
class AacPackets : public UnitReader {
 public:
  AacPackets(std::unique_ptr<TrackReader> reader, uint32_t samplesPerSecond, uint32_t channels, bool isBareStream,
             const std::optional<Loop>& loop);

  bool start(int64_t time, bool again) override;
  std::optional<MediaUnit> next() override;
  const std::string& damage() const override { return mReader->damage(); }

 private:
  std::optional<MediaUnit> filler();
  MediaUnit silence(int64_t time);
  MediaUnit take(int64_t time);
  bool readPacket();
  std::optional<MediaUnit> nextInLoop();

  const std::unique_ptr<TrackReader> mReader;
  const int64_t mPacketTime;
  const int64_t mExactPacketTime;  ///< nanoseconds
  const int64_t mShift;
  const std::optional<Loop> mLoop;
  std::span<uint8_t> mPacket;  ///< read but not delivered yet; empty when there is none
  int64_t mStamp = 0;          ///< of that packet
  int64_t mEarliest = 0;       ///< packets stamped earlier are left out
  bool mMayFill = false;
  int64_t mFillers = 0;
  int64_t mFillerTime = 0;
  const std::span<const uint8_t> mSilentPacket;
  std::vector<uint8_t> mSilence;
  std::optional<int64_t> mPlace;  ///< in a loop: where the next packet belongs, nanoseconds; none before the first
};

}  // namespace vesk::capture
