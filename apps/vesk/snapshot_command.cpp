#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>

#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/preview_session.h>
#include <vesk/preview_view.h>
#include "apps/vesk/argument_text.h"
#include "apps/vesk/choices.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"
#include "apps/vesk/recording_report.h"

namespace vesk::program {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{20};
constexpr std::chrono::seconds kPatience{10};  // beyond the delay, for the first picture

/// One photo: a preview session whose view is in no window.
class SnapshotCommand {
 public:
  SnapshotCommand(const GlobalOptions& global, const SnapshotOptions& options)
      : mGlobal(global), mOptions(options), mHost(global) {}

  ~SnapshotCommand() { capture::Transport::shared().setEndHandler({}); }

  int run() {
    checkPictureTarget(mOptions.file, mOptions.force, PictureKind::kJPEG);
    mCamera = chooseCamera(mOptions.camera);
    openDevice(*mCamera);
    setVideoFormat(*mCamera, mOptions.format, CapturePurpose::kPhoto);
    start();
    mLoop.run();
    const PhotoOutcome photo = mSession->lastPhoto();
    mSession->closeSession();
    return finish(photo);
  }

 private:
  void start() {
    capture::Transport::shared().setEndHandler([this] { mLoop.post([this] { mIsAtEnd = true; }); });
    mSession = VeskPreviewSession::initWithDevice(mCamera, nullptr);
    if (mSession->startSessionWithPreview(mView) != 0) throw Failure(kBusy, mCamera->lastError());
    mRemoved.emplace(KVXDeviceRemoved, [this](auto info) {
      if (mCamera->deviceInfo()->isEqualToDevice(*info)) mLoop.stop();
    });
    mStarted = Clock::now();
    mLoop.every(kTick, [this] { tick(); });
  }

  void tick() {
    const std::chrono::duration<double> elapsed = Clock::now() - mStarted;
    const bool isDue = mIsAtEnd || elapsed.count() >= mOptions.delay;
    if (isDue && mView->image()) {
      mSession->capturePhotoFrameToPath(withoutEnding());
      mLoop.stop();
    } else if (mIsAtEnd || elapsed.count() > mOptions.delay + kPatience.count()) {
      mLoop.stop();
    }
  }

  /// The session adds ".jpeg" itself. A name that ends otherwise is made under a hidden one first.
  std::string withoutEnding() const {
    const fs::path file(mOptions.file);
    if (file.extension() == ".jpeg") return fs::path(file).replace_extension().string();
    return (file.parent_path() / fmt::format(".{}.{}", file.filename().string(), getpid())).string();
  }

  int finish(const PhotoOutcome& photo) const {
    if (mLoop.wasInterrupted() && photo.path.empty())
      throw Failure(kInterrupted, "no photo was taken.", "It was interrupted before the first picture.");
    if (photo.path.empty())
      throw Failure(kFailed, fmt::format("no picture came from \"{}\".", nameOf(*mCamera->deviceInfo())),
                    "See with \"vesk devices\" that it is there, or try another format with --format.");
    if (photo.error)
      throw Failure(kFailed,
                    Error{photo.error.cause, fmt::format("\"{}\" was not written: {}", mOptions.file, photo.error.what),
                          photo.error.remedy});
    if (photo.path != mOptions.file && std::rename(photo.path.c_str(), mOptions.file.c_str()) != 0) {
      const std::error_code error(errno, std::generic_category());
      std::remove(photo.path.c_str());
      throw Failure(kFailed, fmt::format("\"{}\" was not written: {}.", mOptions.file, error.message()),
                    "Choose another name.");
    }
    if (mGlobal.json)
      printJson({{"file", mOptions.file}, {"width", photo.width}, {"height", photo.height}, {"bytes", photo.bytes}});
    else
      printLine("{}: {}x{}, {}", mOptions.file, photo.width, photo.height, humanSize(photo.bytes));
    return kDone;
  }

  const GlobalOptions& mGlobal;
  const SnapshotOptions& mOptions;
  Host mHost;
  MainLoop mLoop;
  std::shared_ptr<VeskVideoDevice> mCamera;
  std::shared_ptr<VeskPreviewView> mView = VeskPreviewView::initWithFrame({});
  std::shared_ptr<VeskPreviewSession> mSession;
  std::optional<DeviceWatch> mRemoved;
  Clock::time_point mStarted;
  bool mIsAtEnd = false;
};

}  // namespace

void checkPictureTarget(const std::string& file, bool force, PictureKind kind) {
  const bool isPhoto = kind == PictureKind::kJPEG;
  std::error_code ignored;
  if (fs::is_directory(file, ignored) || fs::path(file).filename().empty())
    throw Failure(kWrongUse, fmt::format("\"{}\" is a folder.", file),
                  fmt::format("Name a file, for example {}.", isPhoto ? "photo.jpeg" : "window.png"));
  if (!(isPhoto ? hasEnding(file, {".jpeg", ".jpg"}) : hasEnding(file, {".png"})))
    throw Failure(kWrongUse,
                  fmt::format("\"{}\" would not be what its name says: {}.", file,
                              isPhoto ? "photos are JPEG files" : "the window's content is a PNG file"),
                  fmt::format("Name it {}.", fs::path(file).replace_extension(isPhoto ? ".jpeg" : ".png").string()));
  if (!force && fs::exists(fs::symlink_status(file, ignored)))
    throw Failure(kFailed, fmt::format("\"{}\" exists already.", file),
                  "Choose another name, or replace it with --force.");
  const fs::path folder = fs::path(file).parent_path();
  if (!folder.empty() && !fs::is_directory(folder, ignored))
    throw Failure(kFailed, fmt::format("there is no folder \"{}\".", folder.string()), "Make it first.");
  const std::string place = folder.empty() ? "." : folder.string();
  if (access(place.c_str(), W_OK | X_OK) != 0)
    throw Failure(kFailed, fmt::format("cannot write in \"{}\": {}.", place, std::generic_category().message(errno)),
                  "Choose a place that you may write to.");
}

int runSnapshot(const GlobalOptions& global, const SnapshotOptions& options) {
  return SnapshotCommand(global, options).run();
}

}  // namespace vesk::program
