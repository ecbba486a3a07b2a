#include "capture/encoding/encoder_inputs.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

#include "platform/media/four_char_code.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kTenMillionths = 10'000'000;
constexpr int32_t kMostAside = 4096;  // what the encoder is good for, and decoders play

uint32_t shortestInterval(const FrameSize& size) {
  return *std::min_element(size.intervals.begin(), size.intervals.end());
}

bool isInputCodec(uint32_t codec) {
  return codec == kCMPixelFormat_422YpCbCr8 || codec == kCMVideoCodecType_MotionJPEG;
}

bool isEncodable(const FrameSize& size) {
  const auto isFine = [](int32_t side) { return side >= 16 && side <= kMostAside && side % 2 == 0; };
  return isFine(size.width) && isFine(size.height) && !size.intervals.empty();
}

/// Lower is better.
std::pair<uint32_t, bool> costOf(const EncoderInput& input) {
  return {shortestInterval(input.size), input.codec != kCMPixelFormat_422YpCbCr8};
}

}  // namespace

std::vector<EncoderInput> encoderInputs(const std::vector<VideoFormat>& formats) {
  std::map<std::pair<int32_t, int32_t>, EncoderInput> best;
  for (const VideoFormat& format : formats) {
    if (!isInputCodec(format.codec)) continue;
    for (const FrameSize& size : format.sizes) {
      if (!isEncodable(size)) continue;
      const EncoderInput input{format.codec, size};
      const auto [place, isNew] = best.try_emplace({size.width, size.height}, input);
      if (!isNew && costOf(input) < costOf(place->second)) place->second = input;
    }
  }
  std::vector<EncoderInput> inputs;
  inputs.reserve(best.size());
  for (auto& [size, input] : best) inputs.push_back(std::move(input));
  return inputs;
}

const EncoderInput* findInput(const std::vector<EncoderInput>& inputs, const VideoParameters& parameters) {
  const auto found = std::find_if(inputs.begin(), inputs.end(), [&](const EncoderInput& input) {
    return input.size.width == parameters.width && input.size.height == parameters.height;
  });
  return found == inputs.end() ? nullptr : &*found;
}

VideoParameters parametersOf(const EncoderInput& input, const VideoParameters& asked) {
  const uint64_t wanted = asked.intervalDenominator == 0
                              ? 0
                              : uint64_t{asked.intervalNumerator} * kTenMillionths / asked.intervalDenominator;
  const auto distance = [wanted](uint64_t interval) {
    return interval < wanted ? wanted - interval : interval - wanted;
  };
  const auto nearest = std::min_element(input.size.intervals.begin(), input.size.intervals.end(),
                                        [&](uint32_t one, uint32_t other) { return distance(one) < distance(other); });
  return {input.codec, asked.width, asked.height, *nearest, kTenMillionths, 0};
}

}  // namespace vesk::capture
