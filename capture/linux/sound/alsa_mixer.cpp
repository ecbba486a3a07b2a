#include "capture/linux/sound/alsa_mixer.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <memory>
#include <utility>

#include <vesk/vci.h>

namespace vesk::capture {
namespace {

constexpr long kMost = 255;

struct MixerCloser {
  void operator()(snd_mixer_t* mixer) const noexcept { snd_mixer_close(mixer); }
};
using Mixer = std::unique_ptr<snd_mixer_t, MixerCloser>;

Mixer openMixer(const std::string& card) {
  snd_mixer_t* opened = nullptr;
  if (snd_mixer_open(&opened, 0) < 0) return nullptr;
  Mixer mixer(opened);
  if (snd_mixer_attach(opened, card.c_str()) < 0) return nullptr;
  if (snd_mixer_selem_register(opened, nullptr, nullptr) < 0 || snd_mixer_load(opened) < 0) return nullptr;
  return mixer;
}

/// Calls `call` with the first element that has what is asked for.
template <class Call>
int32_t withElement(const std::string& card, int (*has)(snd_mixer_elem_t*), const Call& call) {
  const Mixer mixer = openMixer(card);
  if (!mixer) return kVCIFailed;
  for (auto* element = snd_mixer_first_elem(mixer.get()); element; element = snd_mixer_elem_next(element)) {
    if (has(element) == 0) continue;
    return call(element) >= 0 ? kVCISuccess : kVCIFailed;
  }
  return kVCIFailed;
}

using Channels = std::vector<std::pair<snd_mixer_selem_channel_id_t, long>>;

/// The channels of an element with their levels.
Channels channelsOf(snd_mixer_elem_t* element) {
  Channels channels;
  for (int channel = 0; channel <= SND_MIXER_SCHN_LAST; ++channel) {
    const auto id = static_cast<snd_mixer_selem_channel_id_t>(channel);
    long level = 0;
    if (snd_mixer_selem_has_capture_channel(element, id) == 0) continue;
    if (snd_mixer_selem_get_capture_volume(element, id, &level) >= 0) channels.emplace_back(id, level);
  }
  return channels;
}

std::vector<long> levelsOf(const Channels& channels) {
  std::vector<long> levels;
  for (const auto& [id, level] : channels) levels.push_back(level);
  return levels;
}

}  // namespace

uint32_t volumeOfAlsaLevel(long level, long least, long most) {
  const long range = most - least;
  return static_cast<uint32_t>(((std::clamp(level, least, most) - least) * kMost + range / 2) / range);
}

long alsaLevelOfVolume(uint8_t volume, long least, long most) {
  return least + (volume * (most - least) + kMost / 2) / kMost;
}

std::vector<long> scaledAlsaLevels(std::vector<long> levels, long least, long loudest) {
  if (levels.empty()) return levels;
  const long range = *std::max_element(levels.begin(), levels.end()) - least;
  for (long& level : levels)
    level = range > 0 ? least + ((level - least) * (loudest - least) + range / 2) / range : loudest;
  return levels;
}

int32_t getAlsaVolume(const std::string& card, uint32_t& volume) {
  return withElement(card, snd_mixer_selem_has_capture_volume, [&](snd_mixer_elem_t* element) {
    const auto channels = channelsOf(element);
    long least = 0;
    long most = 0;
    if (snd_mixer_selem_get_capture_volume_range(element, &least, &most) < 0 || most <= least) return -1;
    if (channels.empty()) return -1;
    const auto levels = levelsOf(channels);
    volume = volumeOfAlsaLevel(*std::max_element(levels.begin(), levels.end()), least, most);
    return 0;
  });
}

int32_t setAlsaVolume(const std::string& card, uint8_t volume) {
  return withElement(card, snd_mixer_selem_has_capture_volume, [&](snd_mixer_elem_t* element) {
    const auto channels = channelsOf(element);
    long least = 0;
    long most = 0;
    if (snd_mixer_selem_get_capture_volume_range(element, &least, &most) < 0 || most <= least) return -1;
    const long loudest = alsaLevelOfVolume(volume, least, most);
    const auto levels = scaledAlsaLevels(levelsOf(channels), least, loudest);
    int code = channels.empty() ? -1 : 0;
    for (size_t i = 0; i < channels.size() && code >= 0; ++i)
      code = snd_mixer_selem_set_capture_volume(element, channels[i].first, levels[i]);
    return code;
  });
}

int32_t getAlsaMute(const std::string& card, bool& mute) {
  return withElement(card, snd_mixer_selem_has_capture_switch, [&](snd_mixer_elem_t* element) {
    int isOn = 1;
    const int code = snd_mixer_selem_get_capture_switch(element, SND_MIXER_SCHN_MONO, &isOn);
    mute = isOn == 0;
    return code;
  });
}

int32_t setAlsaMute(const std::string& card, bool mute) {
  return withElement(card, snd_mixer_selem_has_capture_switch, [&](snd_mixer_elem_t* element) {
    return snd_mixer_selem_set_capture_switch_all(element, mute ? 0 : 1);
  });
}

}  // namespace vesk::capture
