#pragma once

#include <cstdint>
#include <string>

namespace vesk::capture {

// A card's mixer: the first element with a capture volume, and the first with a capture switch.
// Answers are the status values of vci.h; kVCIFailed when the card has no such element.

int32_t getAlsaVolume(const std::string& card, uint32_t& volume);  ///< 0 to 255
int32_t setAlsaVolume(const std::string& card, uint8_t volume);
int32_t getAlsaMute(const std::string& card, bool& mute);
int32_t setAlsaMute(const std::string& card, bool mute);

}  // namespace vesk::capture
