#include "capture/interface/microphone_taps.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/vci.h>
#include "capture/interface/library.h"
#include "capture/interface/wide_text.h"

namespace vesk::capture {
namespace {

/// Nothing that a source throws may reach the meter.
template <class Answer, class Call>
Answer guarded(Answer otherwise, const Call& call) {
  try {
    return call();
  } catch (const std::exception& error) {
    NSLog(std::string("[WARNING]: a microphone could not be metered: ") + error.what());
  } catch (...) {
    NSLog("[WARNING]: a microphone could not be metered");
  }
  return otherwise;
}

/// Hands packets of bytes on as samples, in pieces that are aligned whatever the packet is.
void forward(const uint8_t* bytes, uint32_t length, uint32_t channels, const AudioTap::Sink& sink) {
  std::array<int16_t, 4096> samples;
  const size_t piece = samples.size() / channels * channels;
  size_t left = length / sizeof(int16_t);
  while (left > 0) {
    const size_t count = std::min(left, piece);
    std::memcpy(samples.data(), bytes, count * sizeof(int16_t));
    sink({samples.data(), count});
    bytes += count * sizeof(int16_t);
    left -= count;
  }
}

class MicrophoneTap : public AudioTap {
 public:
  MicrophoneTap(std::shared_ptr<CaptureSource> source, std::unique_ptr<CaptureDevice> device, const WaveFormat& format)
      : mSource(std::move(source)), mDevice(std::move(device)), mFormat(format) {}

  uint32_t channels() const override { return mFormat.channels; }
  uint32_t samplesPerSecond() const override { return mFormat.samplesPerSecond; }

  bool start(Sink sink) override {
    return guarded(false, [&] {
      if (mDevice->setWaveFormat(mFormat) != kVCISuccess) return false;
      return mDevice->start(0, [sink = std::move(sink), channels = mFormat.channels](const uint8_t* bytes,
                                                                                     uint32_t length, int64_t) {
        forward(bytes, length, channels, sink);
      }) == kVCISuccess;
    });
  }

  void stop() override {
    guarded(0, [&] { return mDevice->stop(0); });
  }

 private:
  const std::shared_ptr<CaptureSource> mSource;  // outlives the device
  const std::unique_ptr<CaptureDevice> mDevice;
  const WaveFormat mFormat;
};

constexpr uint16_t kMostChannels = 64;

bool canBeMetered(const WaveFormat& format) {
  return format.formatCode == kWaveFormatLinearPCM && format.bitsPerSample == 16 && format.channels > 0 &&
         format.channels <= kMostChannels && format.samplesPerSecond > 0;
}

}  // namespace

std::vector<AudioTapProvider::Microphone> MicrophoneTaps::microphones() {
  return guarded(std::vector<Microphone>(), [] {
    std::vector<Microphone> microphones;
    for (DeviceDescription& device : Library::shared().devices(DeviceKind::kAudio))
      microphones.push_back({shownPath(device.path), std::move(device.name)});
    return microphones;
  });
}

std::unique_ptr<AudioTap> MicrophoneTaps::openTap(const std::string& uniqueID) {
  return guarded(std::unique_ptr<AudioTap>(), [&]() -> std::unique_ptr<AudioTap> {
    auto source = Library::shared().source();
    if (!source) return nullptr;
    auto device = source->openForMetering(sourcePathOf(*source, DeviceKind::kAudio, uniqueID));
    if (!device) return nullptr;
    const auto formats = device->waveFormats();
    const auto format = std::find_if(formats.begin(), formats.end(), canBeMetered);
    if (format == formats.end()) return nullptr;
    return std::make_unique<MicrophoneTap>(std::move(source), std::move(device), *format);
  });
}

}  // namespace vesk::capture
