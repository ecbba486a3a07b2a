#include "capture/files/file_source.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/vci.h>
#include "capture/files/footage.h"
#include "capture/files/track_stream.h"
#include "capture/interface/frame_intervals.h"
#include "capture/sources/paced_scheduler.h"
#include "platform/foundation/mutex.h"

namespace vesk::capture {

namespace {

/// How late sound may come, microseconds, to come along with a picture, as a sound server too hands on what has
/// gathered: an interval of 30 pictures a second. Its stamps say when it was heard.
constexpr int64_t kSoundSlack = 34'000;

/// What the devices of one file share.
class SharedFootage {
 public:
  SharedFootage(std::unique_ptr<Footage> footage, std::string name, const SourceOptions& options, Transport& transport)
      : mFootage(std::move(footage)), mName(std::move(name)), mScheduler(options.pace, transport) {
    if (!options.loop) return;
    // The frames say where, so that none are missing; the sound is cut or goes on in silence.
    if (video())
      mLoop = Loop{video()->begin, video()->end};
    else
      mLoop = Loop{0, sound()->end};
  }

  const std::optional<VideoTrack>& video() const { return mFootage->video; }
  const std::optional<SoundTrack>& sound() const { return mFootage->sound; }
  const std::optional<Loop>& loop() const { return mLoop; }
  const std::string& name() const { return mName; }
  PacedScheduler& scheduler() { return mScheduler; }

  /// Takes hold of a track. @return false when another device has it.
  bool acquire(DeviceKind kind) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    return !std::exchange(inUse(kind), true);
  }
  void release(DeviceKind kind) VESK_EXCLUDES(mMutex) {
    MutexLock lock(mMutex);
    inUse(kind) = false;
  }

  /// A reader at the track's beginning: the one left from looking into the file, or a new one. Beside the track's
  /// holder with blocks of its own.
  std::unique_ptr<TrackReader> reader(DeviceKind kind, bool isHolder, std::string& error) VESK_EXCLUDES(mMutex) {
    if (isHolder) {
      MutexLock lock(mMutex);
      auto& kept = kind == DeviceKind::kVideo ? mFootage->videoReader : mFootage->soundReader;
      if (kept) return std::move(kept);
    }
    TrackChoice choice = kind == DeviceKind::kVideo ? video()->choice : sound()->choice;
    if (!isHolder) choice.file = choice.file->again();
    if (choice.file) return TrackReader::open(choice, error);
    error = mName + ": too many files are open";
    return nullptr;
  }

 private:
  bool& inUse(DeviceKind kind) VESK_REQUIRES(mMutex) { return kind == DeviceKind::kVideo ? mVideoInUse : mSoundInUse; }

  const std::unique_ptr<Footage> mFootage;
  const std::string mName;
  std::optional<Loop> mLoop;
  Mutex mMutex;
  bool mVideoInUse VESK_GUARDED_BY(mMutex) = false;
  bool mSoundInUse VESK_GUARDED_BY(mMutex) = false;
  PacedScheduler mScheduler;
};

/// What camera and microphone have in common.
class FileDevice : public CaptureDevice {
 public:
  /// Exclusive devices hold their track; others play it beside its holder.
  FileDevice(std::shared_ptr<SharedFootage> footage, DeviceKind kind, bool isExclusive)
      : mFootage(std::move(footage)), mKind(kind), mIsExclusive(isExclusive), mCapture(mFootage->scheduler()) {}
  ~FileDevice() override { end(); }

  int32_t start(uint32_t, FrameCallback callback) override {
    if (mCapture.isRunning()) return kVCISuccess;
    if (!callback) return kVCIInvalidArgument;
    if (mIsExclusive && !mFootage->acquire(mKind)) return kVCIBusy;
    std::string error;
    auto reader = mFootage->reader(mKind, mIsExclusive, error);
    auto units = reader ? makeUnits(std::move(reader), error) : nullptr;
    if (!units) {
      if (mIsExclusive) mFootage->release(mKind);
      return failed(kVCIFailed, {Cause::kUnreadable, std::move(error), "Name a movie or sound file that plays."});
    }
    mCapture.begin(std::make_shared<TrackStream>(std::move(units), std::move(callback), mFootage->loop(),
                                                 mFootage->name(), mKind == DeviceKind::kAudio ? kSoundSlack : 0));
    return kVCISuccess;
  }

  int32_t stop(uint32_t) override {
    end();
    return kVCISuccess;
  }

 protected:
  virtual std::unique_ptr<UnitReader> makeUnits(std::unique_ptr<TrackReader> reader, std::string& error) = 0;
  const SharedFootage& footage() const { return *mFootage; }

 private:
  void end() {
    if (mCapture.end() && mIsExclusive) mFootage->release(mKind);
  }

  const std::shared_ptr<SharedFootage> mFootage;
  const DeviceKind mKind;
  const bool mIsExclusive;
  PacedCapture mCapture;
};

class FileCamera : public FileDevice {
 public:
  explicit FileCamera(std::shared_ptr<SharedFootage> footage)
      : FileDevice(std::move(footage), DeviceKind::kVideo, true), mCodec(track().codecs().front()) {}

  std::vector<VideoFormat> videoFormats() override {
    std::vector<VideoFormat> formats;
    for (const uint32_t codec : track().codecs()) {
      formats.push_back({codec, {{width(codec), track().height, {track().interval}}}});
    }
    return formats;
  }

  int32_t setVideoParameters(const VideoParameters& parameters) override {
    const auto codecs = track().codecs();
    const bool isOffered = std::find(codecs.begin(), codecs.end(), parameters.codec) != codecs.end();
    if (!isOffered || parameters.width != width(parameters.codec) || parameters.height != track().height) {
      return kVCIInvalidArgument;
    }
    mCodec = parameters.codec;
    const uint64_t asked = askedInterval(parameters);
    if (asked != 0 && asked != kUsualInterval && !isSameRate(track().interval, asked))
      NSLog(LogLevel::kInfo, "The footage \"" + footage().name() + "\" has its own rate, " +
                                 rateText(track().interval) + " pictures a second, and cannot be set to " +
                                 rateText(asked) + ".");
    return kVCISuccess;
  }

 protected:
  std::unique_ptr<UnitReader> makeUnits(std::unique_ptr<TrackReader> reader, std::string& error) override {
    return videoFrames(track(), mCodec, std::move(reader), error);
  }

 private:
  const VideoTrack& track() const { return *footage().video(); }
  int width(uint32_t codec) const {
    return codec == kCMPixelFormat_422YpCbCr8 ? track().decodedWidth() : track().width;
  }

  uint32_t mCodec;
};

class FileMicrophone : public FileDevice {
 public:
  FileMicrophone(std::shared_ptr<SharedFootage> footage, bool isExclusive)
      : FileDevice(std::move(footage), DeviceKind::kAudio, isExclusive), mFormat(waveFormats().front()) {}

  std::vector<WaveFormat> waveFormats() override {
    const SoundTrack& track = *footage().sound();
    const WaveFormat pcm{kWaveFormatLinearPCM, track.channels, track.samplesPerSecond, 16};
    const WaveFormat aac{kWaveFormatAAC, track.channels, track.samplesPerSecond, 16};
    if (track.coding == SoundCoding::kAAC) return {aac, pcm};
    return {pcm};
  }

  int32_t setWaveFormat(const WaveFormat& format) override {
    for (const WaveFormat& offered : waveFormats()) {
      const bool isSame = format.formatCode == offered.formatCode && format.channels == offered.channels &&
                          format.samplesPerSecond == offered.samplesPerSecond &&
                          (format.bitsPerSample == 16 || format.formatCode == kWaveFormatAAC);
      if (!isSame) continue;
      mFormat = offered;
      return kVCISuccess;
    }
    return kVCIInvalidArgument;
  }

 protected:
  std::unique_ptr<UnitReader> makeUnits(std::unique_ptr<TrackReader> reader, std::string& error) override {
    return soundPackets(*footage().sound(), mFormat.formatCode, std::move(reader), error, footage().loop());
  }

 private:
  WaveFormat mFormat;
};

/// The devices' paths are the file's, cut at the front where records would cut the end that tells
/// the two apart.
std::string devicePath(const std::string& path, DeviceKind kind) {
  constexpr size_t kMaxBytes = 900;
  size_t begin = path.size() > kMaxBytes ? path.size() - kMaxBytes : 0;
  while (begin < path.size() && (static_cast<unsigned char>(path[begin]) & 0xC0) == 0x80) ++begin;
  return path.substr(begin) + (kind == DeviceKind::kVideo ? "#pictures" : "#sound");
}

class FileSource : public CaptureSource {
 public:
  FileSource(std::unique_ptr<Footage> footage, const SourceOptions& options, Transport& transport) {
    std::error_code ignored;
    const auto path = std::filesystem::absolute(footage->path, ignored).lexically_normal();
    const std::string name = path.filename().string();
    if (footage->video) mCameras.push_back(describe(DeviceKind::kVideo, path, name));
    if (footage->sound) mMicrophones.push_back(describe(DeviceKind::kAudio, path, name));
    mFootage = std::make_shared<SharedFootage>(std::move(footage), name, options, transport);
  }

  void setHotplugHandler(HotplugHandler) override {}  // footage neither comes nor goes

  std::vector<DeviceDescription> devices(DeviceKind kind) override {
    return kind == DeviceKind::kVideo ? mCameras : mMicrophones;
  }

  std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string& path) override {
    const auto known = devices(kind);
    if (known.empty() || known.front().path != path) return nullptr;
    if (kind == DeviceKind::kVideo) return std::make_unique<FileCamera>(mFootage);
    return std::make_unique<FileMicrophone>(mFootage, true);
  }

  std::unique_ptr<CaptureDevice> openForMetering(const std::string& path) override {
    if (mMicrophones.empty() || mMicrophones.front().path != path) return nullptr;
    return std::make_unique<FileMicrophone>(mFootage, false);
  }

 private:
  static DeviceDescription describe(DeviceKind kind, const std::string& path, const std::string& name) {
    return {kind, devicePath(path, kind), name};
  }

  std::shared_ptr<SharedFootage> mFootage;
  std::vector<DeviceDescription> mCameras;
  std::vector<DeviceDescription> mMicrophones;
};

}  // namespace

std::shared_ptr<CaptureSource> makeFileSource(const std::string& path, const SourceOptions& options, Error& error) {
  return makeFileSource(path, options, error, Transport::shared());
}

std::shared_ptr<CaptureSource> makeFileSource(const std::string& path, const SourceOptions& options, Error& error,
                                              Transport& transport) {
  error = {};
  auto footage = Footage::open(path, options.loop, error);
  if (!footage) return nullptr;
  return std::make_shared<FileSource>(std::move(footage), options, transport);
}

}  // namespace vesk::capture
