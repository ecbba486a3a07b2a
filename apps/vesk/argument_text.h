#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesk::program {

/// The whole of `text` as a number; none for anything else.
template <class Number>
std::optional<Number> readNumber(std::string_view text);
extern template std::optional<int32_t> readNumber(std::string_view text);
extern template std::optional<uint32_t> readNumber(std::string_view text);
extern template std::optional<size_t> readNumber(std::string_view text);

std::string lowerCase(std::string text);
std::vector<std::string> split(const std::string& text, char separator);

/// Seconds of a length of time: "90", "0.5", "90s", "1m30s", "2h", "1h30m". None for anything else, among it
/// what is not finite or negative.
std::optional<double> readDuration(std::string_view text);

/// A picture format as it is asked for; what is none may be any.
struct WantedFormat {
  std::optional<uint32_t> codec;
  std::optional<int32_t> width;  ///< with the height
  std::optional<int32_t> height;
  std::optional<double> rate;  ///< pictures a second
};

/// "h264:1280x720@30" in any of its parts: "mjpeg", "720p", "raw:640x480", "h264@25", "avc1:4k". Letter case does
/// not count in words. None for what cannot be read.
std::optional<WantedFormat> readFormat(const std::string& text);

/// "h264", "mjpeg" or "raw", else the four characters of the code.
std::string codecName(uint32_t codec);

/// Whether the name ends in one of the endings, which are in small letters with their dots; letter case does
/// not count.
bool hasEnding(const std::string& file, std::initializer_list<std::string_view> endings);

}  // namespace vesk::program
