#include "capture/linux/cameras/camera_modes.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include <vesk/four_char_code.h>
#include "capture/interface/frame_intervals.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kLongestSide = 16384;
constexpr uint32_t kMostEntries = 256;  // a driver that never comes to an end is not listened to for ever

struct ModeSize {
  uint32_t width;
  uint32_t height;
  bool operator<(const ModeSize& other) const { return std::tie(width, height) < std::tie(other.width, other.height); }
};
constexpr ModeSize kUsualSizes[] = {{160, 120},   {176, 144},   {320, 180},   {320, 240},   {352, 288},
                                    {424, 240},   {640, 360},   {640, 480},   {800, 448},   {800, 600},
                                    {848, 480},   {864, 480},   {960, 540},   {960, 720},   {1024, 576},
                                    {1024, 768},  {1280, 720},  {1280, 960},  {1600, 900},  {1600, 1200},
                                    {1920, 1080}, {2048, 1536}, {2560, 1440}, {2592, 1944}, {3840, 2160}};
constexpr v4l2_fract kUsualIntervals[] = {{1, 60}, {1, 50}, {1, 30}, {1, 25}, {1, 24},
                                          {1, 20}, {1, 15}, {1, 10}, {2, 15}, {1, 5}};

/// Packed 4:2:2 has an even width.
bool isUsable(const ModeSize& size) {
  return size.width > 0 && size.height > 0 && size.width <= kLongestSide && size.height <= kLongestSide &&
         size.width % 2 == 0;
}

uint32_t intervalOf(const v4l2_fract& fraction) {
  if (fraction.numerator == 0 || fraction.denominator == 0) return 0;
  const uint64_t interval =
      (uint64_t{fraction.numerator} * kTenMillionths + fraction.denominator / 2) / fraction.denominator;
  return interval <= UINT32_MAX ? static_cast<uint32_t>(interval) : 0;
}

bool fits(uint32_t value, uint32_t least, uint32_t most, uint32_t step) {
  return value >= least && value <= most && (step <= 1 || (value - least) % step == 0);
}

void addStepwise(const v4l2_frmsize_stepwise& range, std::set<ModeSize>& sizes) {
  for (const ModeSize& size : kUsualSizes) {
    if (fits(size.width, range.min_width, range.max_width, range.step_width) &&
        fits(size.height, range.min_height, range.max_height, range.step_height))
      sizes.insert(size);
  }
  if (sizes.empty()) sizes.insert({range.max_width, range.max_height});
}

/// For drivers that list no sizes: those that they would take as they are.
void tryUsualSizes(V4L2Calls& calls, int descriptor, uint32_t fourcc, std::set<ModeSize>& sizes) {
  for (const ModeSize& size : kUsualSizes) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = size.width;
    format.fmt.pix.height = size.height;
    format.fmt.pix.pixelformat = fourcc;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    if (calls.ioctl(descriptor, VIDIOC_TRY_FMT, &format) < 0 || format.fmt.pix.pixelformat != fourcc) continue;
    sizes.insert({format.fmt.pix.width, format.fmt.pix.height});
  }
}

std::set<ModeSize> sizesOf(V4L2Calls& calls, int descriptor, uint32_t fourcc) {
  std::set<ModeSize> sizes;
  for (uint32_t index = 0; index < kMostEntries; ++index) {
    v4l2_frmsizeenum entry{};
    entry.index = index;
    entry.pixel_format = fourcc;
    if (calls.ioctl(descriptor, VIDIOC_ENUM_FRAMESIZES, &entry) < 0) break;
    if (entry.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
      addStepwise(entry.stepwise, sizes);
      break;
    }
    sizes.insert({entry.discrete.width, entry.discrete.height});
  }
  if (sizes.empty()) tryUsualSizes(calls, descriptor, fourcc, sizes);
  std::erase_if(sizes, [](const ModeSize& size) { return !isUsable(size); });
  return sizes;
}

std::map<uint32_t, v4l2_fract> intervalsOf(V4L2Calls& calls, int descriptor, uint32_t fourcc, const ModeSize& size) {
  std::map<uint32_t, v4l2_fract> intervals;
  const auto add = [&](const v4l2_fract& fraction) { intervals.try_emplace(intervalOf(fraction), fraction); };
  for (uint32_t index = 0; index < kMostEntries; ++index) {
    v4l2_frmivalenum entry{};
    entry.index = index;
    entry.pixel_format = fourcc;
    entry.width = size.width;
    entry.height = size.height;
    if (calls.ioctl(descriptor, VIDIOC_ENUM_FRAMEINTERVALS, &entry) < 0) break;
    if (entry.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
      add(entry.discrete);
      continue;
    }
    const uint32_t least = intervalOf(entry.stepwise.min);
    const uint32_t longest = intervalOf(entry.stepwise.max);
    const uint32_t most = longest == 0 ? UINT32_MAX : longest;  // virtual cameras write 1/0: as long as one likes
    for (const v4l2_fract& fraction : kUsualIntervals) {
      if (intervalOf(fraction) >= least && intervalOf(fraction) <= most) add(fraction);
    }
    if (intervals.empty()) add(entry.stepwise.min);
    break;
  }
  intervals.erase(0);
  if (intervals.empty()) add({1, 30});
  return intervals;
}

}  // namespace

void addModes(V4L2Calls& calls, int descriptor, size_t node, std::vector<CameraMode>& modes) {
  for (uint32_t index = 0; index < kMostEntries; ++index) {
    v4l2_fmtdesc entry{};
    entry.index = index;
    entry.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (calls.ioctl(descriptor, VIDIOC_ENUM_FMT, &entry) < 0) return;
    const PixelFormat* const format = pixelFormat(entry.pixelformat);
    if (!format) continue;
    for (const ModeSize& size : sizesOf(calls, descriptor, entry.pixelformat)) {
      modes.push_back({node, format, static_cast<int32_t>(size.width), static_cast<int32_t>(size.height),
                       intervalsOf(calls, descriptor, entry.pixelformat, size)});
    }
  }
}

std::vector<VideoFormat> formatsOf(const std::vector<CameraMode>& modes) {
  constexpr std::array<uint32_t, 3> kCodecs = {kCMVideoCodecType_H264, kCMVideoCodecType_MotionJPEG,
                                               kCMPixelFormat_422YpCbCr8};
  std::vector<VideoFormat> formats;
  for (const uint32_t codec : kCodecs) {
    std::map<std::pair<int32_t, int32_t>, std::set<uint32_t>> sizes;
    for (const CameraMode& mode : modes) {
      if (mode.format->codec == codec)
        for (const auto& [interval, fraction] : mode.intervals) sizes[{mode.width, mode.height}].insert(interval);
    }
    if (sizes.empty()) continue;
    VideoFormat& format = formats.emplace_back();
    format.codec = codec;
    for (const auto& [size, intervals] : sizes)
      format.sizes.push_back({size.first, size.second, {intervals.begin(), intervals.end()}});
  }
  return formats;
}

const CameraMode* findMode(const std::vector<CameraMode>& modes, const VideoParameters& parameters) {
  const uint64_t asked = askedInterval(parameters);
  if (asked == 0) return nullptr;
  const CameraMode* best = nullptr;
  std::pair<std::pair<bool, uint64_t>, size_t> bestRank;
  for (const CameraMode& mode : modes) {
    if (mode.format->codec != parameters.codec || mode.width != parameters.width || mode.height != parameters.height)
      continue;
    const std::pair rank(distanceOf(nearestOf(mode, parameters).first, asked), rankOf(*mode.format));
    if (best && rank >= bestRank) continue;
    best = &mode;
    bestRank = rank;
  }
  return best;
}

std::pair<uint32_t, v4l2_fract> nearestOf(const CameraMode& mode, const VideoParameters& parameters) {
  const uint64_t asked = askedInterval(parameters);
  return *std::min_element(mode.intervals.begin(), mode.intervals.end(), [asked](const auto& one, const auto& other) {
    return distanceOf(one.first, asked) < distanceOf(other.first, asked);
  });
}

}  // namespace vesk::capture
