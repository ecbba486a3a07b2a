#include "apps/vesk/argument_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <filesystem>

#include <vesk/format_description.h>
#include <vesk/four_char_code.h>

namespace vesk::program {
namespace {

struct Codec {
  std::string_view name;
  uint32_t code;
};
/// The first name of a code is the one that is shown.
constexpr std::array kCodecs = {
    Codec{"h264", kCMVideoCodecType_H264},       Codec{"mjpeg", kCMVideoCodecType_MotionJPEG},
    Codec{"raw", kCMPixelFormat_422YpCbCr8},     Codec{"h.264", kCMVideoCodecType_H264},
    Codec{"mjpg", kCMVideoCodecType_MotionJPEG}, Codec{"uyvy", kCMPixelFormat_422YpCbCr8}};

struct Size {
  std::string_view name;
  int32_t width;
  int32_t height;
};
constexpr std::array kSizes = {Size{"360p", 640, 360},    Size{"480p", 640, 480},    Size{"720p", 1280, 720},
                               Size{"1080p", 1920, 1080}, Size{"1440p", 2560, 1440}, Size{"2160p", 3840, 2160},
                               Size{"4k", 3840, 2160}};

/// The codes themselves are as long as this.
constexpr size_t kCodeLength = 4;
constexpr double kHighestRate = 1000;

/// The number at the front of `text`, which is shortened by it: digits, with a point among them or not.
std::optional<double> takeNumber(std::string_view& text) {
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text.front())))
    return std::nullopt;  // no "nan", no "-1"
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (error != std::errc() || !std::isfinite(number)) return std::nullopt;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return number;
}

std::optional<double> readRate(std::string_view text) {
  const auto rate = takeNumber(text);
  return rate && text.empty() && *rate > 0 && *rate <= kHighestRate ? rate : std::nullopt;
}

bool readSize(const std::string& text, WantedFormat& wanted) {
  const auto named = std::find_if(kSizes.begin(), kSizes.end(), [&](const Size& size) { return size.name == text; });
  if (named != kSizes.end()) {
    wanted.width = named->width;
    wanted.height = named->height;
    return true;
  }
  const auto numbers = split(text, 'x');
  if (numbers.size() != 2) return false;
  const auto width = readNumber<int32_t>(numbers[0]);
  const auto height = readNumber<int32_t>(numbers[1]);
  if (width.value_or(0) <= 0 || height.value_or(0) <= 0) return false;
  wanted.width = width;
  wanted.height = height;
  return true;
}

/// Of the words for codecs, or a code as cameras and JSON have it, whose letter case counts.
std::optional<uint32_t> readCodec(const std::string& text) {
  const std::string lower = lowerCase(text);
  for (const Codec& codec : kCodecs)
    if (codec.name == lower) return codec.code;
  const auto letters = std::count_if(text.begin(), text.end(), [](unsigned char each) { return std::isalpha(each); });
  if (text.size() != kCodeLength || letters < 2) return std::nullopt;  // "640x" is a size cut short
  uint32_t code = 0;
  for (const char character : text) code = code << 8 | static_cast<uint8_t>(character);
  return code;
}

}  // namespace

template <class Number>
std::optional<Number> readNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}
template std::optional<int32_t> readNumber(std::string_view text);
template std::optional<uint32_t> readNumber(std::string_view text);
template std::optional<size_t> readNumber(std::string_view text);

std::string lowerCase(std::string text) {
  for (char& character : text) character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  return text;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts{""};
  for (const char character : text) {
    if (character == separator)
      parts.emplace_back();
    else
      parts.back() += character;
  }
  return parts;
}

std::optional<double> readDuration(std::string_view text) {
  if (std::string_view rest = text; const auto seconds = takeNumber(rest)) {
    if (rest.empty()) return seconds;
  }
  constexpr std::string_view kUnits = "hms";
  constexpr std::array<double, 3> kSeconds = {3600, 60, 1};
  double total = 0;
  size_t next = 0;  // units come once each, the larger first
  do {
    const auto number = takeNumber(text);
    const size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.front(), next);
    if (!number || unit == std::string_view::npos) return std::nullopt;
    total += *number * kSeconds.at(unit);
    next = unit + 1;
    text.remove_prefix(1);
  } while (!text.empty());
  return total;
}

std::optional<WantedFormat> readFormat(const std::string& text) {
  WantedFormat wanted;
  const auto halves = split(text, '@');
  if (halves.size() > 2) return std::nullopt;
  if (halves.size() == 2) {
    wanted.rate = readRate(halves[1]);
    if (!wanted.rate) return std::nullopt;
    if (halves[0].empty()) return wanted;
  }
  for (const std::string& part : split(halves[0], ':')) {
    if (!wanted.width && readSize(lowerCase(part), wanted)) continue;
    const auto codec = wanted.codec ? std::nullopt : readCodec(part);
    if (!codec) return std::nullopt;
    wanted.codec = codec;
  }
  return wanted;
}

std::string codecName(uint32_t codec) {
  for (const Codec& known : kCodecs)
    if (known.code == codec) return std::string(known.name);
  return fourCharString(codec);
}

bool hasEnding(const std::string& file, std::initializer_list<std::string_view> endings) {
  const std::string ending = lowerCase(std::filesystem::path(file).extension().string());
  return std::find(endings.begin(), endings.end(), ending) != endings.end();
}

}  // namespace vesk::program
