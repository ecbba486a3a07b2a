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

#include <vesk/atomic_file.h>
#include <vesk/audio_device.h>
#include <vesk/bitmap_image_rep.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/ns_error.h>
#include <vesk/preview_session.h>
#include <vesk/recording_supervisor.h>
#include <vesk/video_device.h>
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/device_events.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "apps/vesk/preview_window.h"
#include "apps/vesk/recording_report.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;
using capture::Transport;
using Clock = std::chrono::steady_clock;
using Kind = RecordingEventKind;

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
      : mGlobal(global), mOptions(options), mHost(global) {}

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
    mRecorder->stop();
    mLoop.finish([this] { return !mIsRecording; });
    mProgress.clear();
    const PreviewStatistics statistics = mSession->statistics();
    mSession->stopSession();
    mSession->setAudioDevice(nullptr);
    mSession->closeSession();
    mWindow.reset();
    printResult(statistics);
    if (mFailure) throw *mFailure;
    return kDone;
  }

  void audioGainChanged(float level) override { mLevel = level; }

 private:
  void checkTargets() const {
    if (!mOptions.record.empty()) checkMovieTarget(mOptions.record, mOptions.force);
    if (!mOptions.screenshot.empty()) checkPictureTarget(mOptions.screenshot, mOptions.force, PictureKind::kPNG);
  }

  void chooseDevices() {
    openCamera(mOptions.camera);
    openMicrophone(mOptions.microphone);
  }

  void openCamera(const std::string& text) {
    mCamera = chooseCamera(text);
    openDevice(*mCamera);
    setVideoFormat(*mCamera, mOptions.format,
                   mOptions.record.empty() ? CapturePurpose::kPreview : CapturePurpose::kRecord);
  }

  void openMicrophone(const std::string& text) {
    mMicrophone = mOptions.noAudio ? nullptr : chooseMicrophoneFor(mCamera.get(), text);
    if (!mMicrophone) return;
    openDevice(*mMicrophone);
    setSoundFormat(*mMicrophone, mOptions.sound);
  }

  void openWindow() {
    const CMVideoDimensions size = windowSize(mCamera->getFormat()->dimensions());
    mView = VeskPreviewView::initWithFrame({0, 0, static_cast<float>(size.width), static_cast<float>(size.height)});
    mWindow.emplace(mLoop, mView, size.width, size.height, nameOf(*mCamera->deviceInfo()));
    mWindow->holdPicture(mCamera->getFormat()->dimensions().width, mCamera->getFormat()->dimensions().height);
    mWindow->setKeyHandler([this](int key) { keyPressed(key); });
    mWindow->setCloseHandler([this] { mLoop.stop(); });
  }

  void start() {
    Transport& transport = Transport::shared();
    transport.hold();
    if (mGlobal.pace == "fast") transport.setLimit(mOptions.duration);
    transport.setEndHandler([this] { mLoop.stop(); });
    mSession = VeskPreviewSession::initWithDevice(mCamera, this);
    show();
    if (!mOptions.record.empty()) {
      mIsStarting = true;
      startRecording(mOptions.record, mOptions.force);
      mLoop.runUntil([this] { return !mIsRecording || mIsMovieStarted; });
      mIsStarting = false;
      if (mFailure) throw Failure(*mFailure);
    }
    // Devices come and go on the source's thread, and are handled on the main thread.
    mAdded.emplace(KVXDeviceAdded, [this](auto info) { mLoop.post([this, info] { deviceAdded(*info); }); });
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) { mLoop.post([this, info] { deviceRemoved(*info); }); });
    mStarted = Clock::now();
    mLoop.every(kTick, [this] { tick(); });
    mLoop.every(kTitleInterval, [this] { updateTitle(); });
    if (!mGlobal.json && mProgress.isShown()) reportLine("Space takes a photo, r records, m mirrors, q quits.");
    transport.release();
  }

  /// Starts the camera, and the microphone's meter if there is one. @throws Failure
  void show() {
    mSession->setAudioDevice(mIsMicrophoneGone ? nullptr : mMicrophone);
    if (mSession->startSessionWithPreview(mView) != 0) throw Failure(kBusy, mSession->lastError());
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
    if (photo.error) return warn(Failure(kFailed, photo.error));
    mPhotos.push_back(photo.path);
    say(fmt::format("{}: {}x{}", photo.path, photo.width, photo.height));
  }

  void toggleRecording() {
    if (mIsRecording) return mRecorder->stop();
    try {
      startRecording(freeName(nameByTime(), ".mov") + ".mov", false);
    } catch (const Failure& failure) {
      warn(failure);
    }
  }

  /// What becomes of it comes in events.
  void startRecording(const std::string& file, bool force) {
    const auto format = mCamera->getFormat();
    if (!isRecordable(*format)) throw notRecordable(format->mediaSubType());
    if (mGlobal.pace == "fast") Transport::shared().setBackpressure(mRecorder->writerBusy());
    RecordingSettings settings;
    settings.file = mFirstMovie = file;
    settings.replacesFile = force;
    settings.camera = mCamera;
    settings.microphone = mIsMicrophoneGone ? nullptr : mMicrophone;
    settings.withSound = settings.microphone != nullptr;
    mIsRecording = true;
    mIsMovieStarted = false;
    mIsHeard = settings.withSound;
    mHasReturned = false;
    mHasMovieFailed = false;
    mRecorder->start(std::move(settings));
  }

  void handle(const RecordingEvent& event) {
    switch (event.kind) {
      case Kind::kStarted:
        mIsMovieStarted = true;
        if (mIsStarting) mLoop.stop();
        return showRecording(1);
      case Kind::kContinued:
        return say(fmt::format("The camera has changed its pictures; the recording goes on in \"{}\".", event.file));
      case Kind::kNotContinued:
        return keep(failureOf(event.error));
      case Kind::kMovieFinished:
        return movieFinished(*event.movie);
      case Kind::kMicrophoneReturned:
        mHasReturned = true;
        if (event.error) warn(failureOf(event.error));
        return reportChange("added", *event.device, "is back.");
      case Kind::kSoundQuiet:
      case Kind::kDiskFilling:
        return say("vesk: " + lineOf(event.error));
      case Kind::kEnded:
        return recordingEnded(event);
      case Kind::kWaiting:
      case Kind::kCameraRemoved:
      case Kind::kMicrophoneRemoved:
      case Kind::kSoundMissing:
        return;  // the preview sees these itself
      case Kind::kFramesStalled:
      case Kind::kFramesResumed:
      case Kind::kSoundStalled:
        return;  // the machine's own devices have a line in the log
    }
  }

  void movieFinished(const RecordedMovie& movie) {
    if (movie.error) {
      mHasMovieFailed = true;
      return keep(failureOf(movie, mFirstMovie));
    }
    mRecordings.push_back(documentOf(movie));
    say(summaryOf(movie));
    if (movie.missing) keep(failureOf(movie.missing));
  }

  void recordingEnded(const RecordingEvent& event) {
    mIsRecording = false;
    Transport::shared().setBackpressure({});
    showRecording(0);
    if (mIsStarting || mIsStopping) mLoop.stop();
    if (event.error && !mHasMovieFailed) recordingFailed(failureOf(event.error, event.device.get()), event.error.cause);
    const bool isBack = mHasReturned || (mIsMicrophoneGone && isMicrophoneThere());
    if (!isBack || mIsStopping) return;
    try {
      reopenMicrophone();
    } catch (const Failure& failure) {
      warn(failure);
    }
  }

  void recordingFailed(Failure failure, Cause cause) {
    if (mIsStarting || cause == Cause::kUnplugged) {  // that was said when it happened
      if (!mFailure) mFailure = std::move(failure);
    } else if (mIsMovieStarted) {
      keep(std::move(failure));
    } else {
      warn(failure);
    }
  }

  void showRecording(uint32_t isRecording) {
    mView->setIsRecording(isRecording);
    mView->setNeedsDisplay(true);
  }

  void toggleMirror() {
    VeskVideoDevice& camera = *mCamera;
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
    if (mMicrophone && mMicrophone->deviceInfo()->isEqualToDevice(info)) {
      reportChange("removed", info, "was unplugged.");
      mSession->setAudioDevice(nullptr);
      mIsMicrophoneGone = true;
    }
    if (!mIsCameraGone && mCamera->deviceInfo()->isEqualToDevice(info)) cameraRemoved(info);
  }

  /// The window stays, without a picture, until the camera is back. A recording ends by itself.
  void cameraRemoved(const VeskDeviceInfo& info) {
    mIsCameraGone = true;
    mSession->stopSession();
    mSession->closeSession();
    updateTitle();
    reportChange("removed", info, "was unplugged; it is shown again when it comes back.");
  }

  void deviceAdded(const VeskDeviceInfo& info) {
    if (mIsStopping) return;
    try {
      if (mIsCameraGone && mCamera->deviceInfo()->isEqualToDevice(info)) cameraAdded(info);
      if (!mIsCameraGone && mIsMicrophoneGone && mMicrophone->deviceInfo()->isEqualToDevice(info))
        microphoneAdded(info);
    } catch (const Failure& failure) {
      warn(failure);
    }
  }

  void cameraAdded(const VeskDeviceInfo& info) {
    openCamera(info.path().value_or(""));
    mSession->setDevice(mCamera);
    mIsCameraGone = false;
    if (mIsMicrophoneGone && !mIsRecording && isMicrophoneThere()) reopenMicrophone();
    show();
    reportChange("added", info, "is back.");
  }

  /// A recording opens its own again.
  void microphoneAdded(const VeskDeviceInfo& info) {
    if (mIsRecording && mIsHeard) return;
    reopenMicrophone();
    reportChange("added", info, "is back.");
  }

  bool isMicrophoneThere() const {
    const auto records = VeskAudioDevice::getAudioDeviceList();
    return std::any_of(records->begin(), records->end(),
                       [this](const auto& record) { return mMicrophone->deviceInfo()->isEqualToDevice(*record); });
  }

  void reopenMicrophone() {
    const std::string path = mMicrophone->deviceInfo()->path().value_or("");
    mMicrophone->closeDevice();
    openMicrophone(path);
    mIsMicrophoneGone = false;
    mSession->setAudioDevice(mMicrophone);
  }

  void tick() {
    if (mIsStopping) return;
    const std::chrono::duration<double> elapsed = Clock::now() - mStarted;
    if (mOptions.duration && mGlobal.pace != "fast" && elapsed.count() >= *mOptions.duration) return mLoop.stop();
    mProgress.show(stateLine());
  }

  std::string stateLine() const {
    std::string text = fmt::format("{:.1f} pictures/s", mRate);
    if (mMicrophone && std::isfinite(mLevel)) text += "  " + levelBar(mLevel, kBarCells);
    if (const RecordingProgress recording = mRecorder->progress(); !recording.file.empty()) {
      const RecordingStatistics& statistics = recording.statistics;
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
    const auto size = mCamera->getFormat()->dimensions();
    mWindow->setTitle(fmt::format("{} – {}x{} – {:.1f} pictures/s{}", nameOf(*mCamera->deviceInfo()), size.width,
                                  size.height, mRate,
                                  mIsCameraGone  ? " – unplugged"
                                  : mIsRecording ? " – recording"
                                                 : ""));
  }

  void reportChange(const char* event, const VeskDeviceInfo& info, const char* what) {
    if (mGlobal.json) printJson(deviceEvent(event, info));
    say(fmt::format("\"{}\" {}", nameOf(info), what));
  }

  /// A line for a person, above the line that is written over.
  void say(const std::string& line) {
    mProgress.clear();
    if (!mGlobal.json) reportLine("{}", line);
  }

  /// A failure that the preview outlives; scripts see it on standard error too.
  void warn(const Failure& failure) {
    mProgress.clear();
    reportLine("vesk: {} {}", failure.what(), failure.hint);
  }

  /// A failure that the preview outlives and ends with. At the end it is said once more only to scripts.
  void keep(Failure failure) {
    if (!mIsStopping || mFailure) {
      warn(failure);
      failure.isReported = true;
    }
    if (!mFailure) mFailure = std::move(failure);
  }

  void printResult(const PreviewStatistics& statistics) const {
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
  std::shared_ptr<VeskVideoDevice> mCamera;
  std::shared_ptr<VeskAudioDevice> mMicrophone;  ///< null: without sound
  std::shared_ptr<VeskPreviewView> mView;
  std::optional<PreviewWindow> mWindow;
  std::shared_ptr<VeskPreviewSession> mSession;
  const std::shared_ptr<VeskRecordingSupervisor> mRecorder =
      VeskRecordingSupervisor::initWithEventHandler([this](const RecordingEvent& event) { handle(event); });
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
  bool mIsRecording = false;     ///< from the start of a recording until it has ended
  bool mIsStarting = false;      ///< and the preview with it
  bool mIsMovieStarted = false;  ///< of that recording
  bool mHasMovieFailed = false;  ///< of the same
  bool mIsHeard = false;         ///< it has sound
  bool mHasReturned = false;     ///< its microphone was unplugged and is back
  bool mIsStopping = false;
};

}  // namespace

int runPreview(const GlobalOptions& global, const PreviewOptions& options) {
  return PreviewCommand(global, options).run();
}

}  // namespace vesk::program
