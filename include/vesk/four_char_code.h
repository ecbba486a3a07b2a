#pragma once

#include <cstdint>
#include <string>

namespace vesk {

/// A four-character code as a number, the first character in the most significant byte:
/// fourCharCode("avc1") is 0x61766331.
constexpr uint32_t fourCharCode(const char (&text)[5]) {
  return uint32_t{static_cast<uint8_t>(text[0])} << 24 | uint32_t{static_cast<uint8_t>(text[1])} << 16 |
         uint32_t{static_cast<uint8_t>(text[2])} << 8 | uint32_t{static_cast<uint8_t>(text[3])};
}

/// The four characters of a code; bytes that cannot be printed become '?'.
inline std::string fourCharString(uint32_t code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char character = static_cast<char>(code >> shift);
    text += character >= ' ' && character <= '~' ? character : '?';
  }
  return text;
}

constexpr uint32_t kCMVideoCodecType_H264 = fourCharCode("avc1");
constexpr uint32_t kCMVideoCodecType_MotionJPEG = fourCharCode("dmb1");
constexpr uint32_t kCMPixelFormat_422YpCbCr8 = fourCharCode("2vuy");
constexpr uint32_t kAudioFormatLinearPCM = fourCharCode("lpcm");
constexpr uint32_t kAudioFormatMPEG4AAC = fourCharCode("aac ");

/// The format codes of microphones: the low 16 bits of the audio format codes above.
constexpr uint16_t kWaveFormatLinearPCM = 0x636D;
constexpr uint16_t kWaveFormatAAC = 0x6320;

}  // namespace vesk
