#include "apps/camera/format_words.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>

#include <vesk/four_char_code.h>
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

int64_t areaOf(CMVideoDimensions size) {
  return int64_t{size.width} * size.height;
}

/// The share of one processor core that encoding takes: 10 ms for a picture of 1280 × 720 on a laptop of some years.
double encodingLoad(CMVideoDimensions size, double rate) {
  constexpr double kSeconds = 0.010;
  return kSeconds * rate * static_cast<double>(areaOf(size)) / (1280.0 * 720.0);
}

/// 30 for 29.97: what is printed on cameras.
double roundedRate(double rate) {
  constexpr double kTolerance = 0.002;
  const double whole = std::round(rate);
  return std::abs(rate - whole) <= whole * kTolerance ? whole : std::round(rate * 10) / 10;
}

}  // namespace

std::vector<CMVideoDimensions> sizesIn(const std::vector<OfferedFormat>& offered, std::optional<uint32_t> codec) {
  std::vector<CMVideoDimensions> sizes;
  for (const OfferedFormat& format : offered)
    if ((!codec || format.codec == *codec) && std::find(sizes.begin(), sizes.end(), format.size) == sizes.end())
      sizes.push_back(format.size);
  std::stable_sort(sizes.begin(), sizes.end(), [](auto one, auto other) { return areaOf(one) > areaOf(other); });
  return sizes;
}

std::vector<double> ratesIn(const std::vector<OfferedFormat>& offered, const VideoFormatRequest& request) {
  std::set<double, std::greater<>> rates;
  for (const OfferedFormat& format : offered)
    if ((!request.codec || format.codec == *request.codec) && (!request.size || format.size == *request.size))
      for (const double rate : format.rates) rates.insert(roundedRate(rate));
  return {rates.begin(), rates.end()};
}

std::string shortSizeName(CMVideoDimensions size) {
  if (size == CMVideoDimensions{3840, 2160}) return _("4K");
  // People know sizes of 16:9 by their lines.
  const bool isWide = std::abs(size.width * 9.0 / 16.0 - size.height) <= 2;
  return isWide && size.height >= 480 ? filled(_("{}p"), size.height) : filled(_("{} × {}"), size.width, size.height);
}

std::string sizeName(CMVideoDimensions size) {
  const std::string exact = filled(_("{} × {}"), size.width, size.height);
  const std::string known = shortSizeName(size);
  return known == exact ? exact : filled(_("{} ({})"), known, exact);
}

std::string rateName(double rate) {
  return filled(_("{:.4g} a second"), roundedRate(rate));
}

std::string costText(const TakenFormat& taken, bool isEncodedHere) {
  if (!taken.format) return _("This camera has no format for films.");
  const uint32_t interval = taken.interval == 0 ? 333'333 : taken.interval;
  const double rate = 1e7 / interval;
  const auto size = taken.format->dimensions();
  const uint64_t minute = usualBitRate(*taken.format, interval, isEncodedHere) / 8 * 60;
  std::string text = filled(_("{}, {}. About {} a minute."), shortSizeName(size), rateName(rate), sizeText(minute));
  const bool isH264 = taken.format->mediaSubType() == kCMVideoCodecType_H264;
  if (!isH264) return text + ' ' + _("The disk must be fast.");
  if (!isEncodedHere) return text + ' ' + _("The camera compresses it; this computer has little to do.");
  const long percent = std::max(std::lround(encodingLoad(size, rate) * 20) * 5, 5L);
  return text + ' ' + filled(_("Compressing it takes about {} percent of a processor core."), percent);
}

}  // namespace vesk::camera
