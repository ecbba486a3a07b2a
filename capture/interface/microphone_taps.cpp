#include "capture/interface/microphone_taps.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/library.h"
#include "capture/interface/open_device.h"
#include "capture/interface/wide_text.h"
#include "platform/foundation/errors.h"

namespace vesk::capture {
namespace {

/// A call for the meter, whose error lastError answers; nothing that a source throws may reach the meter.
template <class Answer, class Call>
Answer guarded(Answer otherwise, const Call& call) {
  try {
    forgetError();
    return call();
  } catch (const std::exception& error) {
    failed(kVCIFailed, errorOf("the microphone could not be metered", error));
  } catch (...) {
    failed(kVCIFailed, {Cause::kOther, "the microphone could not be metered", ""});
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
  MicrophoneTap(std::shared_ptr<CaptureSource> source, std::unique_ptr<CaptureDevice> device, const WaveFormat& format,
                std::string name)
      : mDevice(DeviceKind::kAudio, std::move(name), std::move(source), std::move(device)), mFormat(format) {}
  ~MicrophoneTap() override { end(); }
  MicrophoneTap(const MicrophoneTap&) = delete;
  MicrophoneTap& operator=(const MicrophoneTap&) = delete;

  uint32_t channels() const override { return mFormat.channels; }
  uint32_t samplesPerSecond() const override { return mFormat.samplesPerSecond; }

  bool start(Sink sink) override {
    return guarded(false, [&] {
      int32_t status = mDevice.setUp([&](CaptureDevice& device) { return device.setWaveFormat(mFormat); });
      mDevice.frames().set([sink = std::move(sink), channels = mFormat.channels](const Event& packet) {
        forward(packet.bytes, packet.length, channels, sink);
      });
      if (status == kVCISuccess) status = mDevice.start(0);
      return endCall(status, DeviceKind::kAudio, mDevice.name()) == kVCISuccess;
    });
  }

  void stop() override { end(); }

 private:
  void end() {
    mDevice.stop();
    mDevice.frames().set({});  // also when the source cannot stop
  }

  OpenDevice mDevice;
  const WaveFormat mFormat;
};

constexpr uint16_t kMostChannels = 64;

bool canBeMetered(const WaveFormat& format) {
  return format.formatCode == kWaveFormatLinearPCM && format.bitsPerSample == 16 && format.channels > 0 &&
         format.channels <= kMostChannels && format.samplesPerSecond > 0;
}

/// The name of the microphone at a path as meters know it; empty when it is not there.
std::string nameAt(const std::string& shown) {
  for (DeviceDescription& device : Library::shared().devices(DeviceKind::kAudio))
    if (shownPath(device.path) == shown) return std::move(device.name);
  return {};
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
    const std::string name = nameAt(uniqueID);
    auto device = source->openForMetering(sourcePathOf(*source, DeviceKind::kAudio, uniqueID));
    if (!device) {
      endCall(kVCIFailed, DeviceKind::kAudio, name);
      return nullptr;
    }
    const auto formats = device->waveFormats();
    const auto format = std::find_if(formats.begin(), formats.end(), canBeMetered);
    if (format == formats.end()) {
      failedUnlessExplained(
          kVCIFailed,
          {Cause::kNoFormat, deviceText(DeviceKind::kAudio, name) + " offers no sound that can be metered", "", name});
      return nullptr;
    }
    forgetError();
    return std::make_unique<MicrophoneTap>(std::move(source), std::move(device), *format, name);
  });
}

}  // namespace vesk::capture
