#include "platform/media/aac_silence.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace vesk {
namespace {

constexpr uint32_t kGain = 0x68;  // of a channel; without spectral lines it plays no part

/// A raw_data_block (ISO/IEC 14496-3, 4.4.2.1), made bit by bit.
struct Packet {
  std::array<uint8_t, 24> bytes{};  // of eight channels
  size_t bits = 0;

  constexpr void put(uint32_t value, size_t width) {
    for (size_t bit = width; bit-- > 0; ++bits) {
      if ((value >> bit & 1) != 0) bytes.at(bits / 8) |= static_cast<uint8_t>(0x80U >> bits % 8);
    }
  }
  /// ics_info: one long window of sine form, no bands, no prediction.
  constexpr void putWindow() { put(0, 11); }
  /// The rest of individual_channel_stream: without bands there are no sections and no scale factors; no
  /// pulses, no noise shaping, no gain control.
  constexpr void putEmptyChannel() { put(0, 3); }

  std::span<const uint8_t> data() const { return std::span(bytes).first((bits + 7) / 8); }
};

constexpr uint32_t kSingleChannel = 0;
constexpr uint32_t kChannelPair = 1;
constexpr uint32_t kLowFrequency = 3;
constexpr uint32_t kEnd = 7;

/// The packet with these elements: 's' a single channel, 'p' a pair, 'l' one for low frequencies.
constexpr Packet makePacket(std::string_view elements) {
  Packet packet;
  uint32_t singles = 0;
  uint32_t pairs = 0;
  for (const char element : elements) {
    if (element == 'p') {
      packet.put(kChannelPair, 3);
      packet.put(pairs++, 4);
      packet.put(1, 1);  // common_window
      packet.putWindow();
      packet.put(0, 2);  // ms_mask_present
      for (int channel = 0; channel < 2; ++channel) {
        packet.put(kGain, 8);
        packet.putEmptyChannel();
      }
      continue;
    }
    const bool isLow = element == 'l';
    packet.put(isLow ? kLowFrequency : kSingleChannel, 3);
    packet.put(isLow ? 0 : singles++, 4);
    packet.put(kGain, 8);
    packet.putWindow();
    packet.putEmptyChannel();
  }
  packet.put(kEnd, 3);
  return packet;
}

/// By number of channels: the elements of the channel configurations 1 to 7 (table 1.19).
constexpr std::array<Packet, 9> kPackets{makePacket("s"),    makePacket("s"),   makePacket("p"),
                                         makePacket("sp"),   makePacket("sps"), makePacket("spp"),
                                         makePacket("sppl"), makePacket("s"),   makePacket("spppl")};

}  // namespace

std::span<const uint8_t> silentAACPacket(uint32_t channels) {
  return kPackets.at(channels < kPackets.size() ? channels : 0).data();
}

}  // namespace vesk
