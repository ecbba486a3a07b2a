#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::capture {

// A card's mixer: the first element with a capture volume, and the first with a capture switch.
// Answers are the status values of vci.h; kVCIFailed when the card has no such element.

int32_t getAlsaVolume(const std::string& card, uint32_t& volume);  ///< 0 to 255, of the loudest channel
/// Sets the loudest channel, and the others as far below it as they are.
int32_t setAlsaVolume(const std::string& card, uint8_t volume);
int32_t getAlsaMute(const std::string& card, bool& mute);
int32_t setAlsaMute(const std::string& card, bool mute);

/// The volume (0 to 255) that is nearest to a level of the card's, and the other way round.
uint32_t volumeOfAlsaLevel(long level, long least, long most);
long alsaLevelOfVolume(uint8_t volume, long least, long most);
/// The channels' levels with the loudest at `loudest`; all of them there where none is above `least`.
std::vector<long> scaledAlsaLevels(std::vector<long> levels, long least, long loudest);

}  // namespace vesk::capture
