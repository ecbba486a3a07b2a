#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/linux/sound/alsa_mixer.h"
#include "capture/linux/sound/alsa_stream.h"
#include "capture/linux/sound/node_watch.h"
#include "capture/linux/sound/sound_system.h"
#include "capture/linux/sound/usb_parent.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kRates[] = {48000, 44100, 32000, 16000};

struct ControlCloser {
  void operator()(snd_ctl_t* control) const noexcept { snd_ctl_close(control); }
};
struct PcmInfoFree {
  void operator()(snd_pcm_info_t* info) const noexcept { snd_pcm_info_free(info); }
};
struct CardInfoFree {
  void operator()(snd_ctl_card_info_t* info) const noexcept { snd_ctl_card_info_free(info); }
};
struct HardwareFree {
  void operator()(snd_pcm_hw_params_t* parameters) const noexcept { snd_pcm_hw_params_free(parameters); }
};

/// A microphone, and the names that ALSA has for it.
struct AlsaMicrophone {
  Microphone microphone;
  std::string pcm;       ///< converts what the hardware cannot deliver itself
  std::string hardware;  ///< does not convert
  std::string card;      ///< its mixer; empty when there is none
};

/// The capture devices of one card.
void addCard(int card, std::vector<AlsaMicrophone>& found) {
  const std::string cardName = "hw:" + std::to_string(card);
  snd_ctl_t* opened = nullptr;
  if (snd_ctl_open(&opened, cardName.c_str(), SND_CTL_NONBLOCK) < 0) return;
  const std::unique_ptr<snd_ctl_t, ControlCloser> control(opened);
  snd_pcm_info_t* madePcm = nullptr;
  snd_ctl_card_info_t* madeCard = nullptr;
  if (snd_pcm_info_malloc(&madePcm) < 0) return;
  const std::unique_ptr<snd_pcm_info_t, PcmInfoFree> pcm(madePcm);
  if (snd_ctl_card_info_malloc(&madeCard) < 0) return;
  const std::unique_ptr<snd_ctl_card_info_t, CardInfoFree> info(madeCard);
  if (snd_ctl_card_info(control.get(), info.get()) < 0) return;
  const UsbParent parent = usbParentOfCard(card);
  // The USB position stays the same over restarts; card numbers do not.
  const std::string identity =
      parent.folder.empty() ? std::string("card:") + snd_ctl_card_info_get_id(info.get()) : parent.folder;
  for (int device = -1; snd_ctl_pcm_next_device(control.get(), &device) >= 0 && device >= 0;) {
    snd_pcm_info_set_device(pcm.get(), static_cast<unsigned>(device));
    snd_pcm_info_set_subdevice(pcm.get(), 0);
    snd_pcm_info_set_stream(pcm.get(), SND_PCM_STREAM_CAPTURE);
    if (snd_ctl_pcm_info(control.get(), pcm.get()) < 0) continue;
    const std::string number = std::to_string(card) + "," + std::to_string(device);
    std::string name = snd_ctl_card_info_get_name(info.get());
    if (device > 0) name += std::string(" ") + snd_pcm_info_get_name(pcm.get());
    found.push_back({{{DeviceKind::kAudio, "alsa:" + identity + "#" + std::to_string(device), std::move(name),
                       parent.vendorID, parent.productID, parent.revisionID},
                      parent.folder,
                      parent.number},
                     "plughw:" + number,
                     "hw:" + number,
                     cardName});
  }
}

/// What of the usual rates and channels a PCM can deliver; all when it cannot be asked.
std::vector<WaveFormat> offered(const std::string& name) {
  int code = 0;
  const AlsaPcm pcm = openAlsaPcm(name, code);
  snd_pcm_hw_params_t* made = nullptr;
  std::unique_ptr<snd_pcm_hw_params_t, HardwareFree> parameters;
  if (pcm && snd_pcm_hw_params_malloc(&made) >= 0) {
    parameters.reset(made);
    if (snd_pcm_hw_params_any(pcm.get(), made) < 0) parameters.reset();
  }
  const auto hasChannels = [&](unsigned channels) {
    return !parameters || snd_pcm_hw_params_test_channels(pcm.get(), parameters.get(), channels) >= 0;
  };
  const auto hasRate = [&](unsigned rate) {
    return !parameters || snd_pcm_hw_params_test_rate(pcm.get(), parameters.get(), rate, 0) >= 0;
  };
  std::vector<WaveFormat> formats;
  for (const uint32_t rate : kRates) {
    if (!hasRate(rate)) continue;
    for (const uint16_t channels : {uint16_t{2}, uint16_t{1}}) {
      if (hasChannels(channels)) formats.push_back({kWaveFormatLinearPCM, channels, rate, 16});
    }
  }
  return formats;
}

class AlsaSoundSystem : public SoundSystem {
 public:
  explicit AlsaSoundSystem(std::vector<std::string> extra) : mExtra(std::move(extra)) {}

  std::vector<Microphone> microphones() override {
    std::vector<Microphone> microphones;
    for (AlsaMicrophone& one : list()) microphones.push_back(std::move(one.microphone));
    return microphones;
  }

  std::vector<WaveFormat> formats(const std::string& path) override {
    const auto found = find(path);
    if (!found) return {};
    auto formats = offered(found->hardware);
    if (formats.empty()) formats = offered(found->pcm);
    return formats;
  }

  std::unique_ptr<SoundStream> record(const std::string& path, const WaveFormat& format,
                                      std::shared_ptr<SoundSink> sink, int32_t& status, Error& error) override {
    status = kVCIFailed;
    const auto found = find(path);
    if (!found) {
      error = {Cause::kUnplugged, "it was unplugged", "Plug it in again."};
      return nullptr;
    }
    auto stream = std::make_unique<AlsaStream>(format, std::move(sink));
    status = stream->begin(found->pcm, error);
    if (status != kVCISuccess) return nullptr;
    return stream;
  }

  bool canShare() const override { return false; }

  int32_t getVolume(const std::string& path, uint32_t& volume) override {
    return onMixer(path, [&](const std::string& card) { return getAlsaVolume(card, volume); });
  }
  int32_t setVolume(const std::string& path, uint8_t volume) override {
    return onMixer(path, [&](const std::string& card) { return setAlsaVolume(card, volume); });
  }
  int32_t getMute(const std::string& path, bool& mute) override {
    return onMixer(path, [&](const std::string& card) { return getAlsaMute(card, mute); });
  }
  int32_t setMute(const std::string& path, bool mute) override {
    return onMixer(path, [&](const std::string& card) { return setAlsaMute(card, mute); });
  }

  void setChangeHandler(std::function<void()> handler) override VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    mWatch.reset();
    if (handler) mWatch = std::make_unique<SoundNodeWatch>("/dev", "snd", std::move(handler));
  }

 private:
  std::vector<AlsaMicrophone> list() const {
    std::vector<AlsaMicrophone> found;
    for (int card = -1; snd_card_next(&card) >= 0 && card >= 0;) addCard(card, found);
    for (const std::string& name : mExtra) {
      found.push_back({{{DeviceKind::kAudio, "alsa:" + name, name}, "", ""}, name, name, ""});
    }
    return found;
  }

  std::optional<AlsaMicrophone> find(const std::string& path) const {
    for (AlsaMicrophone& one : list()) {
      if (one.microphone.description.path == path) return std::move(one);
    }
    return std::nullopt;
  }

  template <class Call>
  int32_t onMixer(const std::string& path, const Call& call) const {
    const auto found = find(path);
    return found && !found->card.empty() ? call(found->card) : int32_t{kVCIFailed};
  }

  const std::vector<std::string> mExtra;
  Mutex mMutex;
  std::unique_ptr<SoundNodeWatch> mWatch VESK_GUARDED_BY(mMutex);
};

void keepQuiet(const char*, int, const char*, int, const char*, ...) {}

}  // namespace

std::shared_ptr<SoundSystem> makeAlsaSoundSystem(const std::vector<std::string>& extra, Error& error) {
  // Otherwise it writes lines of its own to standard error.
  snd_lib_error_set_handler(keepQuiet);
  int card = -1;
  const int code = snd_card_next(&card);
  if (extra.empty() && (code < 0 || card < 0))
    error = {Cause::kNoDevice, "the kernel knows no sound card", "Plug a microphone in."};
  return std::make_shared<AlsaSoundSystem>(extra);
}

}  // namespace vesk::capture
