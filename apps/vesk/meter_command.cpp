#include <fmt/core.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>

#include <vesk/audio_format.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "apps/vesk/recording_report.h"

namespace vesk::program {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{50};
constexpr std::chrono::seconds kPatience{3};             // for the first level
constexpr std::chrono::milliseconds kLineInterval{250};  // between lines where there is no terminal
constexpr int kBarCells = 40;

bool isSilence(float level) {
  return !(level > kSilenceLevel);
}

/// Shows a microphone's level until it is stopped.
class MeterCommand {
 public:
  MeterCommand(const GlobalOptions& global, const MeterOptions& options)
      : mGlobal(global), mOptions(options), mHost(global) {}

  ~MeterCommand() { capture::Transport::shared().setEndHandler({}); }

  int run() {
    mMicrophone = chooseMicrophone(mOptions.microphone);
    const auto receiver = std::make_shared<Receiver>(*this);
    mMicrophone->addDelegate(receiver);
    if (mGlobal.pace == "fast") capture::Transport::shared().setLimit(mOptions.duration);
    capture::Transport::shared().setEndHandler([this] { mLoop.stop(); });
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) { deviceRemoved(std::move(info)); });
    mStarted = Clock::now();
    mMicrophone->startVUMeter();
    if (const Error error = mMicrophone->lastError()) throw Failure(kBusy, error);
    mLoop.every(kTick, [this] { tick(); });
    mLoop.endWithReader();
    mLoop.run();
    mMicrophone->stopVUMeter();
    mMicrophone->removeDelegate(receiver);
    mProgress.clear();
    if (mFailure) throw *mFailure;
    return kDone;
  }

 private:
  struct Receiver : VeskAVDeviceDelegate, VeskMicLevelDelegate {
    explicit Receiver(MeterCommand& command) : mCommand(command) {}
    void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<VeskDeviceInfo>&) override {}
    void didMicLevelEventOccured(float level) override { mCommand.show(level); }
    MeterCommand& mCommand;
  };

  double elapsed() const { return std::chrono::duration<double>(Clock::now() - mStarted).count(); }

  void show(float level) {
    mHasLevel = true;
    const double time = elapsed();
    if (mGlobal.json) {
      nlohmann::ordered_json line = {{"time", std::round(time * 1000) / 1000}, {"level", nullptr}};
      if (!isSilence(level)) line["level"] = std::round(static_cast<double>(level) * 100) / 100;
      printJson(line);
    } else if (std::isinf(level)) {
      return;  // the end
    } else if (mProgress.isShown()) {
      mProgress.show(levelBar(level, kBarCells));
    } else if (Clock::now() >= mNextLine) {
      mNextLine = Clock::now() + kLineInterval;
      printLine("{:8.2f} s {}", time, levelBar(level, kBarCells));
    }
  }

  void tick() {
    if (missingResults() != 0) mLoop.stop();
    if (mGlobal.pace != "fast" && mOptions.duration && elapsed() >= *mOptions.duration) mLoop.stop();
    if (mHasLevel || elapsed() < kPatience.count()) return;
    mFailure.emplace(kBusy, fmt::format("\"{}\" could not be listened to.", nameOf(*mMicrophone->deviceInfo())),
                     "Close other programs that use it, or plug it in again.");
    mLoop.stop();
  }

  void deviceRemoved(std::shared_ptr<VeskDeviceInfo> info) {
    if (!mMicrophone->deviceInfo()->isEqualToDevice(*info)) return;
    mLoop.post([this, info] {
      mFailure.emplace(kFailed, fmt::format("\"{}\" was unplugged.", nameOf(*info)), "Plug it in again.");
    });
    mLoop.stop();
  }

  const GlobalOptions& mGlobal;
  const MeterOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  ProgressLine mProgress;
  std::shared_ptr<VeskAudioDevice> mMicrophone;
  std::optional<DeviceWatch> mRemoved;
  std::optional<Failure> mFailure;
  Clock::time_point mStarted;
  Clock::time_point mNextLine;
  bool mHasLevel = false;
};

}  // namespace

int runMeter(const GlobalOptions& global, const MeterOptions& options) {
  return MeterCommand(global, options).run();
}

}  // namespace vesk::program
