#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/linux/sound/pulse_connection.h"
#include "capture/linux/sound/pulse_stream.h"
#include "capture/linux/sound/sound_system.h"
#include "capture/linux/sound/usb_parent.h"

namespace vesk::capture {
namespace {

constexpr uint32_t kRates[] = {48000, 44100, 32000, 16000};  // the server resamples
constexpr uint64_t kMostVolume = 255;

/// What is asked of one source at a time.
struct SourceState {
  pa_cvolume volume{};
  bool isMuted = false;
  uint16_t channels = 0;
  bool isFound = false;
};

struct SourceList {
  PulseConnection* connection;
  std::vector<Microphone> microphones;
};
struct SourceQuestion {
  PulseConnection* connection;
  SourceState state;
};
struct DefaultQuestion {
  PulseConnection* connection;
  std::string name;
};
struct Success {
  PulseConnection* connection;
  bool isDone = false;
};

const char* property(const pa_source_info& info, const char* key) {
  const char* text = pa_proplist_gets(info.proplist, key);
  return text ? text : "";
}

uint16_t hexadecimal(const char* text) {
  return static_cast<uint16_t>(std::strtoul(text, nullptr, 16));
}

Microphone describe(const pa_source_info& info, unsigned connection) {
  Microphone microphone;
  microphone.description.kind = DeviceKind::kAudio;
  microphone.description.path = info.name;
  microphone.attachment = std::to_string(connection) + "." + std::to_string(info.index);
  microphone.description.name = info.description ? info.description : info.name;
  microphone.description.vendorID = hexadecimal(property(info, PA_PROP_DEVICE_VENDOR_ID));
  microphone.description.productID = hexadecimal(property(info, PA_PROP_DEVICE_PRODUCT_ID));
  const char* card = property(info, "alsa.card");
  if (*card == '\0') return microphone;
  const UsbParent parent = usbParentOfCard(static_cast<int>(std::strtol(card, nullptr, 10)));
  microphone.usbParent = parent.folder;
  microphone.description.revisionID = parent.revisionID;
  if (microphone.description.vendorID != 0 || parent.folder.empty()) return microphone;
  microphone.description.vendorID = parent.vendorID;
  microphone.description.productID = parent.productID;
  return microphone;
}

void addSource(pa_context*, const pa_source_info* info, int isLast, void* data) {
  auto* list = static_cast<SourceList*>(data);
  if (isLast != 0 || !info) {
    list->connection->signal();
    return;
  }
  if (info->monitor_of_sink != PA_INVALID_INDEX) return;
  list->microphones.push_back(describe(*info, list->connection->connections()));
}

void keepSource(pa_context*, const pa_source_info* info, int isLast, void* data) {
  auto* question = static_cast<SourceQuestion*>(data);
  if (isLast != 0 || !info) {
    question->connection->signal();
    return;
  }
  question->state = {info->volume, info->mute != 0, info->sample_spec.channels, true};
}

void keepDefault(pa_context*, const pa_server_info* info, void* data) {
  auto* question = static_cast<DefaultQuestion*>(data);
  if (info && info->default_source_name) question->name = info->default_source_name;
  question->connection->signal();
}

void keepSuccess(pa_context*, int isDone, void* data) {
  auto* success = static_cast<Success*>(data);
  success->isDone = isDone != 0;
  success->connection->signal();
}

class PulseSoundSystem : public SoundSystem {
 public:
  explicit PulseSoundSystem(const PulsePatience& patience) : mConnection(std::make_shared<PulseConnection>(patience)) {}
  bool begin(Error& error) { return mConnection->begin(error); }
  ~PulseSoundSystem() override { setChangeHandler({}); }

  std::vector<Microphone> microphones() override {
    PulseConnection::Lock lock(*mConnection);
    SourceList list{mConnection.get(), {}};
    DefaultQuestion best{mConnection.get(), {}};
    const PulseContext context = mConnection->context(lock);
    const bool isKnown = context &&
                         mConnection->finish(lock, pa_context_get_source_info_list(context.get(), addSource, &list)) &&
                         mConnection->finish(lock, pa_context_get_server_info(context.get(), keepDefault, &best));
    if (isKnown) {
      std::stable_partition(list.microphones.begin(), list.microphones.end(),
                            [&](const Microphone& microphone) { return microphone.description.path == best.name; });
      mKnown = std::move(list.microphones);
    } else if (!mConnection->isLeftAlone()) {
      mKnown.clear();  // with the server its microphones have gone; of one that hangs they are still there
    }
    return mKnown;
  }

  std::vector<WaveFormat> formats(const std::string& path) override {
    PulseConnection::Lock lock(*mConnection);
    const SourceState state = ask(lock, path);
    std::vector<WaveFormat> formats;
    if (!state.isFound) return formats;
    const uint16_t own = state.channels == 1 ? 1 : 2;
    for (const uint32_t rate : kRates) {
      formats.push_back({kWaveFormatLinearPCM, own, rate, 16});
      formats.push_back({kWaveFormatLinearPCM, static_cast<uint16_t>(3 - own), rate, 16});
    }
    return formats;
  }

  std::unique_ptr<SoundStream> record(const std::string& path, const WaveFormat& format,
                                      std::shared_ptr<SoundSink> sink, int32_t& status, Error& error) override {
    auto stream = std::make_unique<PulseStream>(mConnection, format, std::move(sink));
    status = stream->begin(path, error);
    if (status != kVCISuccess) return nullptr;
    return stream;
  }

  bool canShare() const override { return true; }

  int32_t getVolume(const std::string& path, uint32_t& volume) override {
    PulseConnection::Lock lock(*mConnection);
    const SourceState state = ask(lock, path);
    if (!state.isFound) return kVCIFailed;
    const uint64_t loudest = pa_cvolume_max(&state.volume);
    volume =
        static_cast<uint32_t>(std::min((loudest * kMostVolume + PA_VOLUME_NORM / 2) / PA_VOLUME_NORM, kMostVolume));
    return kVCISuccess;
  }

  int32_t setVolume(const std::string& path, uint8_t volume) override {
    PulseConnection::Lock lock(*mConnection);
    SourceState state = ask(lock, path);
    if (!state.isFound) return kVCIFailed;
    const auto level = static_cast<pa_volume_t>((uint64_t{volume} * PA_VOLUME_NORM + kMostVolume / 2) / kMostVolume);
    scaleKeepingBalance(state.volume, mBalances[path], level);
    return change(lock, [&](pa_context* context, Success& success) {
      return pa_context_set_source_volume_by_name(context, path.c_str(), &state.volume, keepSuccess, &success);
    });
  }

  int32_t getMute(const std::string& path, bool& mute) override {
    PulseConnection::Lock lock(*mConnection);
    const SourceState state = ask(lock, path);
    mute = state.isMuted;
    return state.isFound ? kVCISuccess : kVCIFailed;
  }

  int32_t setMute(const std::string& path, bool mute) override {
    PulseConnection::Lock lock(*mConnection);
    return change(lock, [&](pa_context* context, Success& success) {
      return pa_context_set_source_mute_by_name(context, path.c_str(), mute ? 1 : 0, keepSuccess, &success);
    });
  }

  Error trouble() override {
    const PulseConnection::Lock lock(*mConnection);
    return mConnection->trouble();
  }
  bool isAnswering() override { return mConnection->isReady(); }

  void setChangeHandler(std::function<void()> handler) override {
    if (!mHasBegunWatching && !handler) return;
    mHasBegunWatching = true;
    const PulseConnection::Lock lock(*mConnection);
    mConnection->setChangeHandler(std::move(handler));
  }

 private:
  SourceState ask(PulseConnection::Lock& lock, const std::string& path) {
    SourceQuestion question{mConnection.get(), {}};
    const PulseContext context = mConnection->context(lock);
    if (!context) return {};
    mConnection->finish(lock, pa_context_get_source_info_by_name(context.get(), path.c_str(), keepSource, &question));
    return question.state;
  }

  template <class Call>
  int32_t change(PulseConnection::Lock& lock, const Call& call) {
    Success success{mConnection.get()};
    const PulseContext context = mConnection->context(lock);
    if (!context || !mConnection->finish(lock, call(context.get(), success))) return kVCIFailed;
    return success.isDone ? kVCISuccess : kVCIFailed;
  }

  const std::shared_ptr<PulseConnection> mConnection;
  std::atomic<bool> mHasBegunWatching{false};
  // With the connection's Lock held.
  std::vector<Microphone> mKnown;               // when the server last listed them
  std::map<std::string, pa_cvolume> mBalances;  // the last volumes above 0
};

}  // namespace

void scaleKeepingBalance(pa_cvolume& volume, pa_cvolume& known, pa_volume_t level) {
  if (pa_cvolume_max(&volume) > PA_VOLUME_MUTED) {
    known = volume;
  } else if (known.channels == volume.channels) {
    volume = known;
  }
  pa_cvolume_scale(&volume, level);
}

std::shared_ptr<SoundSystem> makePulseSoundSystem(Error& error) {
  return makePulseSoundSystem(error, PulsePatience());
}

std::shared_ptr<SoundSystem> makePulseSoundSystem(Error& error, const PulsePatience& patience) {
  auto system = std::make_shared<PulseSoundSystem>(patience);
  if (!system->begin(error)) return nullptr;
  return system;
}

}  // namespace vesk::capture
