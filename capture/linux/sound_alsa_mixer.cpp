#include "capture/linux/sound_alsa_mixer.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <memory>

#include "capture/vci.h"

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

}  // namespace

int32_t getAlsaVolume(const std::string& card, uint32_t& volume) {
  return withElement(card, snd_mixer_selem_has_capture_volume, [&](snd_mixer_elem_t* element) {
    long least = 0;
    long most = 0;
    long value = 0;
    int code = snd_mixer_selem_get_capture_volume_range(element, &least, &most);
    if (code >= 0) code = snd_mixer_selem_get_capture_volume(element, SND_MIXER_SCHN_MONO, &value);
    if (code < 0 || most <= least) return -1;
    volume = static_cast<uint32_t>((std::clamp(value, least, most) - least) * kMost / (most - least));
    return 0;
  });
}

int32_t setAlsaVolume(const std::string& card, uint8_t volume) {
  return withElement(card, snd_mixer_selem_has_capture_volume, [&](snd_mixer_elem_t* element) {
    long least = 0;
    long most = 0;
    if (snd_mixer_selem_get_capture_volume_range(element, &least, &most) < 0 || most <= least) return -1;
    // Rounded up, so that what is read back is what was set as nearly as the card can.
    const long value = least + (volume * (most - least) + kMost - 1) / kMost;
    return snd_mixer_selem_set_capture_volume_all(element, value);
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
