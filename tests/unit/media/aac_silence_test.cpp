#include "platform/media/aac_silence.h"

#include <gtest/gtest.h>

#include <vector>

namespace vesk {
namespace {

std::vector<uint8_t> packetOf(uint32_t channels) {
  const auto packet = silentAACPacket(channels);
  return {packet.begin(), packet.end()};
}

TEST(AACSilence, HasTheElementsOfItsChannels) {
  const std::vector<uint8_t> mono{0x00, 0xD0, 0x00, 0x07};
  EXPECT_EQ(packetOf(1), mono);
  EXPECT_EQ(packetOf(0), mono);
  EXPECT_EQ(packetOf(7), mono);
  EXPECT_EQ(packetOf(9), mono);
  EXPECT_EQ(packetOf(2), (std::vector<uint8_t>{0x21, 0x00, 0x03, 0x40, 0x68, 0x1C}));
  EXPECT_EQ(packetOf(6).size(), 19U);
  EXPECT_EQ(packetOf(8).size(), 24U);
}

}  // namespace
}  // namespace vesk
