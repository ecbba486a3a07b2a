// Measures the level of a file of raw 16-bit stereo samples at 48 kHz as the level meter does: in
// packets of 1024 frames, the level read every 0.03 seconds of sound. compare.py runs it beside
// ffmpeg's volume filter.
//
// Usage: meter_bench FILE
#include <fmt/core.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "platform/metering/power_meter.h"

int main(int argc, char** argv) {
  using namespace vesk;
  constexpr uint32_t kChannels = 2;
  constexpr uint32_t kRate = 48000;
  constexpr size_t kPacketFrames = 1024;
  constexpr size_t kTickFrames = kRate * 3 / 100;
  if (argc != 2) return 2;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(argv[1], "rb"), std::fclose);
  if (!file) return 1;

  PowerMeter meter(kChannels, kRate);
  std::vector<int16_t> packet(kPacketFrames * kChannels);
  size_t frames = 0;
  size_t ticks = 0;
  double sum = 0;
  while (const size_t samples = std::fread(packet.data(), sizeof(int16_t), packet.size(), file.get())) {
    meter.add({packet.data(), samples}, PowerMeter::Clock::now());
    for (frames += samples / kChannels; frames >= (ticks + 1) * kTickFrames; ++ticks)
      for (uint32_t channel = 0; channel < kChannels; ++channel)
        sum += meter.averagePowerLevel(channel, PowerMeter::Clock::now()) / kChannels;
  }
  fmt::print("{{\"levels\":{},\"mean\":{:.2f}}}\n", ticks, ticks ? sum / static_cast<double>(ticks) : 0);
  return 0;
}
