#include "capture/encoding/encoder_inputs.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include <vesk/four_char_code.h>
#include "capture/interface/frame_intervals.h"

namespace vesk::capture {
namespace {

constexpr int32_t kMostAside = 4096;  // what the encoder is good for, and decoders play

bool isInputCodec(uint32_t codec) {
  return codec == kCMPixelFormat_422YpCbCr8 || codec == kCMVideoCodecType_MotionJPEG;
}

bool isEncodable(const FrameSize& size) {
  const auto isFine = [](int32_t side) { return side >= 16 && side <= kMostAside && side % 2 == 0; };
  return isFine(size.width) && isFine(size.height) && !size.intervals.empty();
}

}  // namespace

std::vector<VideoFormat> encoderInputs(const std::vector<VideoFormat>& formats) {
  std::vector<VideoFormat> inputs;
  for (VideoFormat format : formats) {
    if (!isInputCodec(format.codec)) continue;
    std::erase_if(format.sizes, [](const FrameSize& size) { return !isEncodable(size); });
    if (!format.sizes.empty()) inputs.push_back(std::move(format));
  }
  return inputs;
}

std::vector<FrameSize> sizesOf(const std::vector<VideoFormat>& inputs) {
  std::map<std::pair<int32_t, int32_t>, std::set<uint32_t>> intervals;
  for (const VideoFormat& input : inputs) {
    for (const FrameSize& size : input.sizes)
      intervals[{size.width, size.height}].insert(size.intervals.begin(), size.intervals.end());
  }
  std::vector<FrameSize> sizes;
  sizes.reserve(intervals.size());
  for (const auto& [size, ofSize] : intervals)
    sizes.push_back({size.first, size.second, {ofSize.begin(), ofSize.end()}});
  return sizes;
}

std::optional<VideoParameters> inputFor(const std::vector<VideoFormat>& inputs, const VideoParameters& asked) {
  const uint64_t wanted = askedInterval(asked);
  std::optional<VideoParameters> best;
  const auto costOf = [wanted](const VideoParameters& input) {
    return std::pair(distanceOf(input.intervalNumerator, wanted), input.codec != kCMPixelFormat_422YpCbCr8);
  };
  for (const VideoFormat& input : inputs) {
    for (const FrameSize& size : input.sizes) {
      if (size.width != asked.width || size.height != asked.height) continue;
      const uint32_t nearest = nearestInterval(size.intervals, wanted).value_or(kUsualInterval);
      const VideoParameters candidate{input.codec, asked.width, asked.height, nearest, kTenMillionths, 0};
      if (!best || costOf(candidate) < costOf(*best)) best = candidate;
    }
  }
  return best;
}

}  // namespace vesk::capture
