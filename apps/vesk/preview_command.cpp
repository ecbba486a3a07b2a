#include <fmt/chrono.h>
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include <vesk/bitmap_image_rep.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/ns_error.h>
#include <vesk/preview_session.h>
#include "apps/vesk/commands.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/host.h"
#include "apps/vesk/movie_recording.h"
#include "apps/vesk/output.h"
#include "apps/vesk/preview_window.h"
#include "apps/vesk/recording_devices.h"
#include "platform/foundation/atomic_file.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;
using capture::Transport;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::milliseconds kTitleInterval{500};
constexpr CMVideoDimensions kLargestWindow{1280, 720};
constexpr CMVideoDimensions kSmallestWindow{320, 240};
constexpr int kEscape = 27;
constexpr int kBarCells = 10;

/// "vesk-20261125-093000", by the clock on the wall.
std::string nameByTime() {
  return fmt::format("vesk-{:%Y%m%d-%H%M%S}", fmt::localtime(std::time(nullptr)));
}

/// The picture's size, scaled down to fit and never too small to take hold of.
CMVideoDimensions windowSize(CMVideoDimensions picture) {
  const double scale =
      std::min({1.0, double{kLargestWindow.width} / picture.width, double{kLargestWindow.height} / picture.height});
  return {std::max(kSmallestWindow.width, static_cast<int32_t>(std::lround(picture.width * scale))),
          std::max(kSmallestWindow.height, static_cast<int32_t>(std::lround(picture.height * scale)))};
}

/// One preview: a window, what the keys do in it, and the recordings made from it.
class PreviewCommand : public VeskPreviewSessionDelegate {
 public:
  PreviewCommand(const GlobalOptions& global, const PreviewOptions& options)
      : mGlobal(global), mOptions(options), mHost(global), mWish{options.camera,  options.microphone,
                                                                 options.format,  options.sound,
                                                                 options.noAudio, Purpose::kPreview} {}

  ~PreviewCommand() override {
    Transport::shared().setEndHandler({});
    Transport::shared().setBackpressure({});
  }

  int run() {
    checkTargets();
    chooseDevices();
    openWindow();
    start();
    mLoop.run();
    mIsStopping = true;
    if (!mOptions.screenshot.empty()) takeScreenshot();
    if (mMovie) stopRecording();
    mProgress.clear();
    const PreviewStatistics statistics = mSession->statistics();
    mSession->stopSession();
    mSession->setAudioDevice(nullptr);
    mSession->closeSession();
    mWindow.reset();
    tellResult(statistics);
    if (mFailure) throw *mFailure;
    return kDone;
  }

  void audioGainChanged(float level) override { mLevel = level; }

 private:
  void checkTargets() const {
    if (!mOptions.record.empty()) MovieRecording::checkTarget(mOptions.record, mOptions.force);
    if (!mOptions.screenshot.empty()) checkPictureTarget(mOptions.screenshot, mOptions.force, PictureKind::kPNG);
  }

  void chooseDevices() {
    mWish.purpose = mOptions.record.empty() ? Purpose::kPreview : Purpose::kRecord;
    openCamera(mPlan, mWish);
    openMicrophone(mPlan, mWish);
  }

  void openWindow() {
    const CMVideoDimensions size = windowSize(mPlan.videoFormat->dimensions());
    mView = VeskPreviewView::initWithFrame({0, 0, static_cast<float>(size.width), static_cast<float>(size.height)});
    mWindow.emplace(mLoop, mView, size.width, size.height, nameOf(*mPlan.camera->deviceInfo()));
    mWindow->holdPicture(mPlan.videoFormat->dimensions().width, mPlan.videoFormat->dimensions().height);
    mWindow->setKeyHandler([this](int key) { keyPressed(key); });
    mWindow->setCloseHandler([this] { mLoop.stop(); });
  }

  void start() {
    Transport& transport = Transport::shared();
    transport.hold();
    if (mGlobal.pace == "fast") transport.setLimit(mOptions.duration);
    transport.setEndHandler([this] { mLoop.stop(); });
    mSession = VeskPreviewSession::initWithDevice(mPlan.camera, this);
    show();
    if (!mOptions.record.empty()) startRecording(mOptions.record, mOptions.force);
    // Devices that come and go are told on the source's thread, and heeded on the main thread.
    mAdded.emplace(KVXDeviceAdded, [this](auto info) { mLoop.post([this, info] { deviceAdded(*info); }); });
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) { mLoop.post([this, info] { deviceRemoved(*info); }); });
    mStarted = Clock::now();
    mLoop.every(kTick, [this] { tick(); });
    mLoop.every(kTitleInterval, [this] { updateTitle(); });
    if (!mGlobal.json && mProgress.isShown()) sayLine("Space takes a photo, r records, m mirrors, q quits.");
    transport.release();
  }

  /// Starts the camera, and the microphone's meter if there is one. @throws Failure
  void show() {
    mSession->setAudioDevice(mIsMicrophoneGone ? nullptr : mPlan.microphone);
    explained({nameOf(*mPlan.camera->deviceInfo())}, [this] {
      if (mSession->startSessionWithPreview(mView) != 0)
        throw Failure(kBusy, fmt::format("\"{}\" refused to start.", nameOf(*mPlan.camera->deviceInfo())),
                      "Close other programs that use it, or choose another format with --format.");
    });
  }

  void keyPressed(int key) {
    if (mIsStopping) return;
    if (mIsCameraGone && key != 'q' && key != kEscape) return;
    switch (key) {
      case ' ':
        return takePhoto();
      case 'r':
        return toggleRecording();
      case 'm':
        return toggleMirror();
      case 'q':
      case kEscape:
        return mLoop.stop();
      default:
        return;
    }
  }

  void takePhoto() {
    const std::string base = freeName(nameByTime(), ".jpeg");
    mSession->capturePhotoFrameToPath(base);
    const PhotoOutcome& photo = mSession->lastPhoto();
    if (!photo.error.empty()) return;  // the session has said why
    mPhotos.push_back(photo.path);
    say(fmt::format("{}: {}x{}", photo.path, photo.width, photo.height));
  }

  void toggleRecording() {
    if (mIsChangingRecording) return;  // stopping serves the main loop meanwhile
    try {
      if (mMovie)
        stopRecording();
      else
        startRecording(freeName(nameByTime(), ".mov") + ".mov", false);
    } catch (const Failure& failure) {
      warn(failure);
    }
  }

  void startRecording(const std::string& file, bool force) {
    if (!isRecordable(*mPlan.videoFormat)) throw notRecordable(mPlan.videoFormat->mediaSubType());
    RecordingPlan plan = mPlan;
    if (mIsMicrophoneGone) {
      plan.microphone = nullptr;
      plan.soundFormat = nullptr;
    }
    mFirstMovie = file;
    plan.file = file;
    plan.force = force;
    auto movie = std::make_unique<MovieRecording>(std::move(plan));
    movie->start();
    mMovie = std::move(movie);
    if (mGlobal.pace == "fast") {
      Transport::shared().setBackpressure([session = std::weak_ptr(mMovie->session())] {
        const auto held = session.lock();
        return held && held->isWriterBusy();
      });
    }
    showRecording(1);
  }

  void stopRecording() {
    if (mMovie->isToContinue()) continueRecording();
    mIsChangingRecording = true;
    const bool hasReturned = std::exchange(mReturned, nullptr) != nullptr;
    mMovie->stop();
    mIsChangingRecording = false;
    Transport::shared().setBackpressure({});
    showRecording(0);
    const auto movie = std::move(mMovie);
    try {
      tellRecorded(*movie);
    } catch (const Failure& failure) {
      keep(failure);
    }
    if (!hasReturned || mIsStopping) return;
    try {
      reopenMicrophone();
    } catch (const Failure& failure) {
      warn(failure);
    }
  }

  /// The camera has changed its pictures: what came since goes into the next movie.
  void continueRecording() {
    const std::string next = nextName(mFirstMovie, mMovie->plan().file);
    try {
      const auto ended = std::exchange(mMovie, mMovie->continueIn(next));
      tellRecorded(*ended);
      say(fmt::format("The camera has changed its pictures; the recording goes on in \"{}\".", next));
    } catch (const Failure& failure) {
      keep(failure);
    }
  }

  void tellRecorded(MovieRecording& movie) {
    const RecordingStatistics statistics = movie.finish();
    mRecordings.push_back(movie.document(statistics));
    say(movie.summary(statistics));
    if (const auto failure = movie.missingTrack(statistics)) throw *failure;
  }

  void showRecording(uint32_t isRecording) {
    mView->setIsRecording(isRecording);
    mView->setNeedsDisplay(true);
  }

  void toggleMirror() {
    VeskVideoDevice& camera = *mPlan.camera;
    if (!camera.isMirrorSupported()) return say(fmt::format("{} has no mirror.", nameOf(*camera.deviceInfo())));
    camera.setMirrorCur(camera.getMirrorCur().value_or(0) == 0 ? 1 : 0);
  }

  void takeScreenshot() {
    const auto bitmap = NSBitmapImageRep::initWithCGImage(mView->snapshot());
    const auto bytes = bitmap ? bitmap->representationUsingType(NSPNGFileType) : std::vector<uint8_t>();
    NSError error{0, "the window could not be read"};
    if (!bytes.empty() && writeToFileAtomically(mOptions.screenshot, bytes, &error)) {
      mScreenshot = mOptions.screenshot;
      return;
    }
    if (!mFailure)
      mFailure.emplace(kFailed, fmt::format("\"{}\" was not written: {}.", mOptions.screenshot, error.description),
                       "See that its folder exists and can be written.");
  }

  void deviceRemoved(const VeskDeviceInfo& info) {
    if (mIsStopping) return;
    if (mPlan.microphone && mPlan.microphone->deviceInfo()->isEqualToDevice(info)) {
      tellChange("removed", info, "was unplugged.");
      mReturned.reset();
      mSession->setAudioDevice(nullptr);
      mIsMicrophoneGone = true;
    }
    if (!mIsCameraGone && mPlan.camera->deviceInfo()->isEqualToDevice(info)) cameraRemoved(info);
  }

  /// The window stays, without a picture, until the camera is back; that may be while the recording is
  /// being stopped, which comes last therefore.
  void cameraRemoved(const VeskDeviceInfo& info) {
    mIsCameraGone = true;
    mWish.camera = info.path().value_or("");
    mSession->stopSession();
    mSession->closeSession();
    updateTitle();
    tellChange("removed", info, "was unplugged; it is shown again when it comes back.");
    if (mMovie && !mIsChangingRecording) {
      const std::string file = mMovie->plan().file;
      stopRecording();
      if (!mFailure)
        mFailure.emplace(kFailed, fmt::format("\"{}\" was unplugged; the movie ends there.", nameOf(info)),
                         fmt::format("What was recorded is whole, at \"{}\".", file));
    }
  }

  void deviceAdded(const VeskDeviceInfo& info) {
    if (mIsStopping) return;
    try {
      if (mIsCameraGone && mPlan.camera->deviceInfo()->isEqualToDevice(info)) cameraAdded(info);
      if (!mIsCameraGone && mIsMicrophoneGone && mPlan.microphone->deviceInfo()->isEqualToDevice(info))
        microphoneAdded(info);
    } catch (const Failure& failure) {
      warn(failure);
    }
  }

  void cameraAdded(const VeskDeviceInfo& info) {
    openCamera(mPlan, mWish);
    mSession->setDevice(mPlan.camera);
    mIsCameraGone = false;
    if (mIsMicrophoneGone && isMicrophoneThere(mPlan.microphone->deviceInfo()->path().value_or(""))) reopenMicrophone();
    show();
    tellChange("added", info, "is back.");
  }

  void microphoneAdded(const VeskDeviceInfo& info) {
    if (mMovie && !mIsChangingRecording && mMovie->plan().microphone)
      mReturned = std::make_unique<ReturnedMicrophone>(*mMovie);
    else
      reopenMicrophone();
    tellChange("added", info, "is back.");
  }

  void reopenMicrophone() {
    mWish.microphone = mPlan.microphone->deviceInfo()->path().value_or("");
    mPlan.microphone->closeDevice();
    openMicrophone(mPlan, mWish);
    mIsMicrophoneGone = false;
    mSession->setAudioDevice(mPlan.microphone);
  }

  void tick() {
    if (mIsStopping) return;
    const std::chrono::duration<double> elapsed = Clock::now() - mStarted;
    if (mOptions.duration && mGlobal.pace != "fast" && elapsed.count() >= *mOptions.duration) return mLoop.stop();
    if (mMovie && !mIsChangingRecording) {
      const RecordingStatistics statistics = mMovie->statistics();
      if (statistics.writerMissing || statistics.status != 0)
        stopRecording();
      else if (mMovie->isToContinue())
        continueRecording();
      else if (const auto quiet = mIsMicrophoneGone ? std::nullopt : mMovie->quietMicrophone())
        say("vesk: " + *quiet);
    }
    mProgress.show(stateLine());
  }

  std::string stateLine() const {
    std::string text = fmt::format("{:.1f} pictures/s", mRate);
    if (mPlan.microphone && std::isfinite(mLevel)) text += "  " + levelBar(mLevel, kBarCells);
    if (mMovie) {
      const RecordingStatistics statistics = mMovie->statistics();
      text += fmt::format("  recording {}  {}", humanTime(statistics.duration), humanSize(statistics.bytes));
      const uint64_t dropped = statistics.videoDropped + statistics.audioDropped;
      if (dropped != 0) text += fmt::format("  {} DROPPED", dropped);
    }
    return text;
  }

  void updateTitle() {
    if (mIsStopping) return;
    const auto now = Clock::now();
    const uint64_t shown = mSession->statistics().shown;
    const std::chrono::duration<double> elapsed = now - mRateSince;
    mRate = static_cast<double>(shown - mRateFrom) / elapsed.count();
    mRateSince = now;
    mRateFrom = shown;
    const auto size = mPlan.videoFormat->dimensions();
    mWindow->setTitle(fmt::format("{} – {}x{} – {:.1f} pictures/s{}", nameOf(*mPlan.camera->deviceInfo()), size.width,
                                  size.height, mRate,
                                  mIsCameraGone ? " – unplugged"
                                  : mMovie      ? " – recording"
                                                : ""));
  }

  void tellChange(const char* event, const VeskDeviceInfo& info, const char* what) {
    if (mGlobal.json) printJson(deviceEvent(event, info));
    say(fmt::format("\"{}\" {}", nameOf(info), what));
  }

  /// A line for a person, above the line that is written over.
  void say(const std::string& line) {
    mProgress.clear();
    if (!mGlobal.json) sayLine("{}", line);
  }

  /// A failure that the preview outlives; scripts see it on standard error too.
  void warn(const Failure& failure) {
    mProgress.clear();
    sayLine("vesk: {} {}", failure.what(), failure.hint);
  }

  /// A failure that the preview outlives and ends with. At the end it is said once more only to scripts.
  void keep(Failure failure) {
    if (!mIsStopping || mFailure) {
      warn(failure);
      failure.isTold = true;
    }
    if (!mFailure) mFailure = std::move(failure);
  }

  void tellResult(const PreviewStatistics& statistics) const {
    if (!mGlobal.json) {
      printLine("{} pictures, {} shown{}", statistics.frames, statistics.shown,
                mScreenshot.empty() ? "" : fmt::format("; the window is at {}", mScreenshot));
      return;
    }
    nlohmann::ordered_json document = {{"frames", statistics.frames},
                                       {"shown", statistics.shown},
                                       {"screenshot", nullptr},
                                       {"photos", mPhotos},
                                       {"recordings", mRecordings}};
    if (!mScreenshot.empty()) document["screenshot"] = mScreenshot;
    printJson(document);
  }

  const GlobalOptions& mGlobal;
  const PreviewOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  ProgressLine mProgress;
  CaptureWish mWish;
  RecordingPlan mPlan;
  std::shared_ptr<VeskPreviewView> mView;
  std::optional<PreviewWindow> mWindow;
  std::shared_ptr<VeskPreviewSession> mSession;
  std::unique_ptr<MovieRecording> mMovie;
  std::unique_ptr<ReturnedMicrophone> mReturned;
  std::optional<DeviceWatch> mAdded;
  std::optional<DeviceWatch> mRemoved;
  std::optional<Failure> mFailure;
  std::string mFirstMovie;  ///< of the recording that is being made
  std::string mScreenshot;
  std::vector<std::string> mPhotos;
  std::vector<nlohmann::ordered_json> mRecordings;
  Clock::time_point mStarted;
  Clock::time_point mRateSince = Clock::now();
  uint64_t mRateFrom = 0;
  double mRate = 0;
  float mLevel = -INFINITY;
  bool mIsCameraGone = false;
  bool mIsMicrophoneGone = false;
  bool mIsChangingRecording = false;
  bool mIsStopping = false;
};

}  // namespace

int runPreview(const GlobalOptions& global, const PreviewOptions& options) {
  return PreviewCommand(global, options).run();
}

}  // namespace vesk::program
