#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/movie_recording.h"
#include "capture/capture_host.h"
#include "devices/device_manager.h"
#include "platform/media/four_char_code.h"

namespace vesk::program {
namespace {

using capture::Transport;

constexpr std::chrono::milliseconds kTick{200};

/// One recording: sets it up, runs it to its end, and says what became of it.
class RecordCommand {
 public:
  RecordCommand(const GlobalOptions& global, const RecordOptions& options)
      : mGlobal(global), mOptions(options), mHost(global) {}

  ~RecordCommand() {
    Transport::shared().setEndHandler({});
    Transport::shared().setBackpressure({});
  }

  int run() {
    MovieRecording::checkTarget(mOptions.file, mOptions.force);
    RecordingPlan plan = chooseDevices();
    mCamera = plan.camera;
    mMovie.emplace(std::move(plan));
    start();
    mLoop.run();
    mIsStopping = true;
    mProgress.clear();
    mMovie->stop();
    mCamera->closeDevice();  // no source thread calls back from here on
    return finish();
  }

 private:
  RecordingPlan chooseDevices() const {
    RecordingPlan plan;
    plan.file = mOptions.file;
    plan.force = mOptions.force;
    plan.camera = chooseCamera(mOptions.camera);
    openDevice(*plan.camera);
    plan.videoFormat = chooseVideoFormat(*plan.camera, mOptions.format);
    plan.camera->setFormat(plan.videoFormat);
    if (mOptions.noAudio) return plan;
    plan.microphone = mOptions.microphone.empty() ? defaultMicrophone() : chooseMicrophone(mOptions.microphone);
    if (!plan.microphone) return plan;
    openDevice(*plan.microphone);
    plan.soundFormat = chooseSoundFormat(*plan.microphone, mOptions.sound);
    plan.microphone->setFormat(plan.soundFormat);
    return plan;
  }

  void start() {
    Transport& transport = Transport::shared();
    transport.hold();  // camera and microphone begin at the same moment of their own time
    transport.setLimit(mOptions.duration);
    transport.setEndHandler([this] { mLoop.stop(); });
    if (mGlobal.pace == "fast") {
      transport.setBackpressure([session = std::weak_ptr(mMovie->session())] {
        const auto held = session.lock();
        return held && held->isWriterBusy();
      });
    }
    mMovie->start();
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) { deviceRemoved(std::move(info)); });
    mLoop.every(kTick, [this] { tick(); });
    const auto& format = *mMovie->plan().videoFormat;
    if (!mGlobal.json && mProgress.isShown())
      fmt::print(stderr, "Recording {} {}x{}{}; Ctrl-C ends it.\n", fourCharString(format.mediaSubType()),
                 format.dimensions().width, format.dimensions().height,
                 mMovie->plan().soundFormat ? " with sound" : "");
    transport.release();
  }

  void deviceRemoved(std::shared_ptr<VeskDeviceInfo> info) {
    const auto& microphone = mMovie->plan().microphone;
    const bool isOurs = mCamera->deviceInfo()->isEqualToDevice(*info) ||
                        (microphone && microphone->deviceInfo()->isEqualToDevice(*info));
    if (!isOurs) return;
    mLoop.post([this, info] {
      mFailure.emplace(kFailed, fmt::format("\"{}\" was unplugged; the movie ends there.", nameOf(*info)),
                       "What was recorded is whole.");
    });
    mLoop.stop();
  }

  void tick() {
    if (mIsStopping) return;
    const RecordingStatistics statistics = mMovie->statistics();
    const bool isLongEnough = mOptions.duration && static_cast<double>(statistics.duration) >= *mOptions.duration * 1e6;
    if (statistics.writerMissing || statistics.status != 0 || isLongEnough) {
      mLoop.stop();
      return;
    }
    std::string text = fmt::format("{}  {} pictures  {}", humanTime(statistics.duration), statistics.videoFrames,
                                   humanSize(statistics.bytes));
    const uint64_t dropped = statistics.videoDropped + statistics.audioDropped;
    if (dropped != 0) text += fmt::format("  {} DROPPED", dropped);
    mProgress.show(text);
  }

  int finish() {
    const RecordingStatistics statistics = mMovie->finish();
    if (mGlobal.json)
      printJson(mMovie->document(statistics));
    else
      fmt::print("{}\n", mMovie->summary(statistics));
    if (mFailure) throw *mFailure;
    return kDone;
  }

  const GlobalOptions& mGlobal;
  const RecordOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  ProgressLine mProgress;
  std::shared_ptr<VeskVideoDevice> mCamera;
  std::optional<MovieRecording> mMovie;
  std::optional<DeviceWatch> mRemoved;
  std::optional<Failure> mFailure;
  bool mIsStopping = false;
};

}  // namespace

int runRecord(const GlobalOptions& global, const RecordOptions& options) {
  return RecordCommand(global, options).run();
}

}  // namespace vesk::program
