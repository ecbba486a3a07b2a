#include "capture/linux/camera_modes.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "platform/media/four_char_code.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kTenMillionths = 10'000'000;
constexpr uint32_t kUsualInterval = 333333;
constexpr uint32_t kLongestSide = 16384;
constexpr uint32_t kMostEntries = 256;  // a driver that never comes to an end is not listened to for ever

struct Size {
  uint32_t width;
  uint32_t height;
  bool operator<(const Size& other) const { return std::tie(width, height) < std::tie(other.width, other.height); }
};
constexpr Size kUsualSizes[] = {{160, 120},   {176, 144},   {320, 180},   {320, 240},   {352, 288},
                                {424, 240},   {640, 360},   {640, 480},   {800, 448},   {800, 600},
                                {848, 480},   {864, 480},   {960, 540},   {960, 720},   {1024, 576},
                                {1024, 768},  {1280, 720},  {1280, 960},  {1600, 900},  {1600, 1200},
                                {1920, 1080}, {2048, 1536}, {2560, 1440}, {2592, 1944}, {3840, 2160}};
/// Pictures a second: 60, 50, 30, 25, 20, 15, 10, 7.5 and 5.
constexpr uint32_t kUsualIntervals[] = {166667, 200000, 333333, 400000, 500000, 666667, 1000000, 1333333, 2000000};

/// Packed 4:2:2 has an even width.
bool isUsable(const Size& size) {
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

void addStepwise(const v4l2_frmsize_stepwise& range, std::set<Size>& sizes) {
  for (const Size& size : kUsualSizes) {
    if (fits(size.width, range.min_width, range.max_width, range.step_width) &&
        fits(size.height, range.min_height, range.max_height, range.step_height))
      sizes.insert(size);
  }
  if (sizes.empty()) sizes.insert({range.max_width, range.max_height});
}

/// For drivers that list no sizes: those that they would take as they are.
void tryUsualSizes(V4L2Calls& calls, int descriptor, uint32_t fourcc, std::set<Size>& sizes) {
  for (const Size& size : kUsualSizes) {
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

std::set<Size> sizesOf(V4L2Calls& calls, int descriptor, uint32_t fourcc) {
  std::set<Size> sizes;
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
  std::erase_if(sizes, [](const Size& size) { return !isUsable(size); });
  return sizes;
}

std::vector<uint32_t> intervalsOf(V4L2Calls& calls, int descriptor, uint32_t fourcc, const Size& size) {
  std::set<uint32_t> intervals;
  for (uint32_t index = 0; index < kMostEntries; ++index) {
    v4l2_frmivalenum entry{};
    entry.index = index;
    entry.pixel_format = fourcc;
    entry.width = size.width;
    entry.height = size.height;
    if (calls.ioctl(descriptor, VIDIOC_ENUM_FRAMEINTERVALS, &entry) < 0) break;
    if (entry.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
      intervals.insert(intervalOf(entry.discrete));
      continue;
    }
    const uint32_t least = intervalOf(entry.stepwise.min);
    const uint32_t most = intervalOf(entry.stepwise.max);
    for (const uint32_t interval : kUsualIntervals) {
      if (interval + 1 >= least && interval <= most) intervals.insert(interval);
    }
    if (intervals.empty()) intervals.insert(least);
    break;
  }
  intervals.erase(0);
  if (intervals.empty()) intervals.insert(kUsualInterval);
  return {intervals.begin(), intervals.end()};
}

/// How far the nearest interval of the mode is from the one that is asked for.
uint64_t distanceOf(const CameraMode& mode, uint64_t asked) {
  uint64_t least = UINT64_MAX;
  for (const uint64_t interval : mode.intervals)
    least = std::min(least, interval > asked ? interval - asked : asked - interval);
  return least <= 1 ? 0 : least;  // fractions are cut off here and there
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
    for (const Size& size : sizesOf(calls, descriptor, entry.pixelformat)) {
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
        sizes[{mode.width, mode.height}].insert(mode.intervals.begin(), mode.intervals.end());
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
  if (parameters.intervalNumerator == 0 || parameters.intervalDenominator == 0) return nullptr;
  const uint64_t asked = uint64_t{parameters.intervalNumerator} * kTenMillionths / parameters.intervalDenominator;
  const CameraMode* best = nullptr;
  std::pair<uint64_t, size_t> bestRank;
  for (const CameraMode& mode : modes) {
    if (mode.format->codec != parameters.codec || mode.width != parameters.width || mode.height != parameters.height)
      continue;
    const std::pair rank(distanceOf(mode, asked), rankOf(*mode.format));
    if (best && rank >= bestRank) continue;
    best = &mode;
    bestRank = rank;
  }
  return best;
}

}  // namespace vesk::capture
