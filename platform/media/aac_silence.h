#pragma once

#include <cstdint>
#include <span>

#include <vesk/export.h>

namespace vesk {

/// One raw AAC packet of silence that has the elements of a stream of `channels` channels. A decoder that
/// meets a packet with other elements may keep to those for the rest of the stream. Of numbers that AAC has
/// no usual order for (0, 7 and more than 8) the packet is that of one channel. The bytes live for ever.
VESK_LOCAL std::span<const uint8_t> silentAACPacket(uint32_t channels);

}  // namespace vesk
