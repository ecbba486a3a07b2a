#include "capture/simulated/simulated_sound.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <vesk/four_char_code.h>
#include "capture/simulated/simulated_pattern.h"

namespace vesk::capture {
namespace {

constexpr double kBeepFrequency = 1000;
constexpr double kBeepPeak = 16384;  // half of full scale
constexpr int64_t kAacBitsPerChannel = 64000;
constexpr int kQuiet = AV_LOG_TRACE;  // keeps the encoder's lines off standard error

/// Linear PCM: the samples as they are.
class PcmMaker : public PacketMaker {
 public:
  explicit PcmMaker(const WaveFormat& format)
      : mSound(format.samplesPerSecond, format.channels), mSamples(kFramesPerPacket * format.channels) {}

  std::span<uint8_t> make(int64_t number, const SoundLevel& level) override {
    mSound.fill(number * kFramesPerPacket, level, mSamples);
    return {reinterpret_cast<uint8_t*>(mSamples.data()), mSamples.size() * sizeof(int16_t)};
  }

 private:
  const SimulatedSound mSound;
  std::vector<int16_t> mSamples;
};

/// AAC, raw packets without ADTS.
///
/// The encoder puts 1024 frames of its own before the sound: when frames f, f + 1024, … go in, the
/// packets that come out decode to [f − 1024, f), [f, f + 1024), … A movie's sound track drops the
/// first packet's 1024 frames, so what is heard first is the second packet's sound, from f on, at
/// the place of the first packet's stamp. Hence the first packet is stamped with the time of frame
/// f, not of f − 1024, and so on: packet n carries the stamp of the n-th thousand and twenty-four
/// frames, exactly as in PCM, and after the trim the sound is heard when it was made. This holds
/// from whichever packet a recording begins.
/// The encoder looks one packet ahead, so that sound is computed a packet before it is due.
class AacMaker : public PacketMaker {
 public:
  AacMaker(const WaveFormat& format, CodecHandle encoder)
      : mSound(format.samplesPerSecond, format.channels),
        mChannels(format.channels),
        mEncoder(std::move(encoder)),
        mSamples(kFramesPerPacket * format.channels) {}

  bool prepare() {
    if (!mFrame || !mPacket || mEncoder->frame_size != kFramesPerPacket) return false;
    mFrame->format = mEncoder->sample_fmt;
    mFrame->nb_samples = mEncoder->frame_size;
    mFrame->sample_rate = mEncoder->sample_rate;
    return av_channel_layout_copy(&mFrame->ch_layout, &mEncoder->ch_layout) == 0 &&
           av_frame_get_buffer(mFrame.get(), 0) == 0;
  }

  std::span<uint8_t> make(int64_t number, const SoundLevel& level) override {
    if (!mHasBegun) mNextInput = number;
    mHasBegun = true;
    for (;;) {
      av_packet_unref(mPacket.get());
      const int status = avcodec_receive_packet(mEncoder.get(), mPacket.get());
      if (status == 0) return {mPacket->data, static_cast<size_t>(mPacket->size)};
      if (status != AVERROR(EAGAIN) || !feed(level)) return {};
    }
  }

 private:
  bool feed(const SoundLevel& level) {
    if (av_frame_make_writable(mFrame.get()) < 0) return false;
    mSound.fill(mNextInput * kFramesPerPacket, level, mSamples);
    for (size_t channel = 0; channel < mChannels; ++channel) {
      auto* const plane = reinterpret_cast<float*>(mFrame->extended_data[channel]);
      for (size_t i = 0; i < kFramesPerPacket; ++i) plane[i] = mSamples[i * mChannels + channel] / 32768.0f;
    }
    mFrame->pts = mNextInput * kFramesPerPacket;
    ++mNextInput;
    return avcodec_send_frame(mEncoder.get(), mFrame.get()) == 0;
  }

  const SimulatedSound mSound;
  const size_t mChannels;
  const CodecHandle mEncoder;
  const FrameHandle mFrame{av_frame_alloc()};
  const PacketHandle mPacket{av_packet_alloc()};
  std::vector<int16_t> mSamples;
  bool mHasBegun = false;
  int64_t mNextInput = 0;  // in packets
};

CodecHandle makeAacEncoder(const WaveFormat& format) {
  const AVCodec* const codec = avcodec_find_encoder_by_name("aac");
  CodecHandle encoder(codec ? avcodec_alloc_context3(codec) : nullptr);
  if (!encoder) return nullptr;
  encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
  encoder->sample_rate = static_cast<int>(format.samplesPerSecond);
  encoder->time_base = {1, encoder->sample_rate};
  encoder->bit_rate = kAacBitsPerChannel * format.channels;
  encoder->thread_count = 1;
  encoder->log_level_offset = kQuiet;
  av_channel_layout_default(&encoder->ch_layout, format.channels);
  return avcodec_open2(encoder.get(), codec, nullptr) == 0 ? std::move(encoder) : nullptr;
}

}  // namespace

SimulatedSound::SimulatedSound(uint32_t samplesPerSecond, uint16_t channels)
    : mSamplesPerSecond(samplesPerSecond),
      mChannels(channels),
      mBeep(static_cast<size_t>(samplesPerSecond * kBeepMicroseconds / 1'000'000)) {
  const double step = 2 * std::numbers::pi * kBeepFrequency / samplesPerSecond;
  for (size_t i = 0; i < mBeep.size(); ++i) {
    mBeep[i] = static_cast<int16_t>(std::lround(kBeepPeak * std::sin(step * static_cast<double>(i))));
  }
}

void SimulatedSound::fill(int64_t first, const SoundLevel& level, std::span<int16_t> samples) const {
  const int volume = level.isMuted.load() ? 0 : int{level.volume.load()};
  const size_t channels = mChannels;
  for (size_t frame = 0; frame < samples.size() / channels; ++frame) {
    const auto place = static_cast<size_t>((first + static_cast<int64_t>(frame)) % mSamplesPerSecond);
    const int sample = place < mBeep.size() ? mBeep[place] * volume / 255 : 0;
    for (size_t channel = 0; channel < channels; ++channel) {
      samples[frame * channels + channel] = static_cast<int16_t>(channel == 0 ? sample : sample / 2);
    }
  }
}

std::unique_ptr<PacketMaker> PacketMaker::create(const WaveFormat& format) {
  if (format.formatCode == kWaveFormatLinearPCM) return std::make_unique<PcmMaker>(format);
  if (format.formatCode != kWaveFormatAAC) return nullptr;
  CodecHandle encoder = makeAacEncoder(format);
  if (!encoder) return nullptr;
  auto maker = std::make_unique<AacMaker>(format, std::move(encoder));
  return maker->prepare() ? std::move(maker) : nullptr;
}

}  // namespace vesk::capture
