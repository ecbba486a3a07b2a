#include "capture/simulated/simulated_device.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/interface/call_error.h"
#include "capture/interface/frame_intervals.h"
#include "capture/simulated/frame_maker.h"
#include "capture/simulated/simulated_pattern.h"

namespace vesk::capture {
namespace {

constexpr int64_t kMicroseconds = 1'000'000;

struct SimulatedSize {
  int32_t width;
  int32_t height;
};
constexpr SimulatedSize kSizes[] = {{320, 240}, {640, 360}, {640, 480}, {864, 480}, {1280, 720}, {1920, 1080}};
constexpr SimulatedSize kPlainSizes[] = {{320, 240}, {640, 480}};
/// Frames a second: 60, 50, 30, 25, 24, 20, 15, 10 and 7.5.
constexpr uint32_t kIntervals[] = {166667, 200000, 333333, 400000, 416667, 500000, 666667, 1000000, 1333333};
constexpr uint32_t kPlainIntervals[] = {333333, 666667};
constexpr uint32_t kRates[] = {48000, 44100, 16000};

class SimulatedFrameStream : public PacedStream {
 public:
  SimulatedFrameStream(std::shared_ptr<SimulatedUnit> unit, Cadence cadence, std::unique_ptr<FrameMaker> maker,
                       FrameCallback callback)
      : mUnit(std::move(unit)), mCadence(cadence), mMaker(std::move(maker)), mCallback(std::move(callback)) {}

  void seek(int64_t time) override { mNumber = mCadence.firstFrom(time); }
  std::optional<int64_t> nextTime() override { return mCadence.timeOf(mNumber); }

  void deliver(int64_t timestamp) override {
    const int64_t number = mNumber++;
    if (mUnit->isSilent()) return;
    if (mUnit->takeKeyRequest()) mMaker->makeKeyFrame();
    const auto frame =
        mMaker->make(static_cast<uint32_t>(number), isFlash(number), mUnit->properties().imageSettings());
    if (!frame.empty()) mUnit->deliver(mCallback, frame, timestamp);
  }

 private:
  /// The first frame of each second flashes, and those that follow it soon enough.
  bool isFlash(int64_t number) const {
    return mCadence.timeOf(number) % kMicroseconds < std::max(kFlashMicroseconds, mCadence.interval());
  }

  const std::shared_ptr<SimulatedUnit> mUnit;
  const Cadence mCadence;
  const std::unique_ptr<FrameMaker> mMaker;
  const FrameCallback mCallback;
  int64_t mNumber = 0;
};

class SimulatedSoundStream : public PacedStream {
 public:
  SimulatedSoundStream(std::shared_ptr<SimulatedUnit> unit, Cadence cadence, std::unique_ptr<PacketMaker> maker,
                       FrameCallback callback)
      : mUnit(std::move(unit)), mCadence(cadence), mMaker(std::move(maker)), mCallback(std::move(callback)) {}

  void seek(int64_t time) override { mNumber = mCadence.firstFrom(time); }
  std::optional<int64_t> nextTime() override { return mCadence.timeOf(mNumber); }

  // Packets are made during a stall as well: each builds on the one before.
  void deliver(int64_t timestamp) override {
    const auto packet = mMaker->make(mNumber++, mUnit->level());
    if (!packet.empty() && !mUnit->isSilent()) mUnit->deliver(mCallback, packet, timestamp);
  }

 private:
  const std::shared_ptr<SimulatedUnit> mUnit;
  const Cadence mCadence;
  const std::unique_ptr<PacketMaker> mMaker;
  const FrameCallback mCallback;
  int64_t mNumber = 0;
};

std::vector<FrameSize> frameSizes(bool isPlain) {
  const std::span<const SimulatedSize> sizes =
      isPlain ? std::span<const SimulatedSize>(kPlainSizes) : std::span<const SimulatedSize>(kSizes);
  std::vector<FrameSize> answer;
  for (const SimulatedSize& size : sizes) {
    const auto intervals = isPlain ? std::span<const uint32_t>(kPlainIntervals) : std::span<const uint32_t>(kIntervals);
    answer.push_back({size.width, size.height, {intervals.begin(), intervals.end()}});
  }
  return answer;
}

}  // namespace

int32_t SimulatedDevice::start(uint32_t, FrameCallback callback) {
  const SimulatedFaults faults = mUnit->faults();
  if (faults.startStatus != 0) return refuse(faults.startStatus);
  if (!mUnit->isAttached()) return unplugged();
  if (!callback) return kVCIFailed;
  if (mCapture.isRunning()) return kVCISuccess;
  if (!mUnit->occupy()) return kVCIBusy;
  auto stream = makeStream(std::move(callback));
  if (!stream) {
    mUnit->vacate();
    return kVCIFailed;
  }
  mCapture.begin(std::move(stream));
  return kVCISuccess;
}

int32_t SimulatedDevice::stop(uint32_t) {
  if (const int32_t status = mUnit->faults().stopStatus) return refuse(status);
  end();
  return kVCISuccess;
}

/// A call that fails on command.
int32_t SimulatedDevice::refuse(int32_t status) const {
  const Error error = mUnit->faults().error;
  return error ? failed(status, error) : status;
}

int32_t SimulatedDevice::unplugged() const {
  return failed(kVCIFailed, {Cause::kUnplugged, inText() + " was unplugged", "Plug it in again."});
}

std::string SimulatedDevice::inText() const {
  return deviceText(mUnit->description().kind, mUnit->description().name);
}

void SimulatedDevice::end() {
  if (mCapture.end()) mUnit->vacate();
}

SimulatedCamera::SimulatedCamera(std::shared_ptr<SimulatedUnit> camera, std::shared_ptr<PacedScheduler> scheduler)
    : SimulatedDevice(std::move(camera), std::move(scheduler)) {
  const VideoFormat first = videoFormats().front();
  const FrameSize& size = first.sizes.front();
  mParameters = {first.codec, size.width, size.height, kUsualInterval, kTenMillionths, 0};
}

std::vector<VideoFormat> SimulatedCamera::videoFormats() {
  const bool isPlain = unit().isPlain();
  std::vector<VideoFormat> formats;
  if (!isPlain) formats.push_back({kCMVideoCodecType_H264, frameSizes(isPlain)});
  formats.push_back({kCMVideoCodecType_MotionJPEG, frameSizes(isPlain)});
  formats.push_back({kCMPixelFormat_422YpCbCr8, frameSizes(isPlain)});
  return formats;
}

int32_t SimulatedCamera::setVideoParameters(const VideoParameters& parameters) {
  const uint64_t asked = askedInterval(parameters);
  if (asked == 0) return kVCIInvalidArgument;
  for (const VideoFormat& format : videoFormats()) {
    if (format.codec != parameters.codec) continue;
    for (const FrameSize& size : format.sizes) {
      if (size.width != parameters.width || size.height != parameters.height) continue;
      MutexLock lock(mMutex);
      mParameters = parameters;
      mParameters.intervalNumerator = nearestInterval(size.intervals, asked).value_or(kUsualInterval);
      mParameters.intervalDenominator = kTenMillionths;
      return kVCISuccess;
    }
  }
  return kVCIInvalidArgument;
}

int32_t SimulatedCamera::getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t number,
                                     std::span<uint8_t> value, uint32_t& valueSize) {
  if (const int32_t status = unit().faults().propertyStatus) return refuse(status);
  if (!unit().isAttached()) return unplugged();
  const int32_t status = unit().properties().get(request, set, number, value, valueSize);
  if (status != kVCIFailed) return status;
  return failed(status, {Cause::kNotSupported, inText() + " does not report the range of this control", ""});
}

int32_t SimulatedCamera::setProperty(const PropertySetIdentifier& set, uint32_t number,
                                     std::span<const uint8_t> value) {
  if (const int32_t status = unit().faults().propertyStatus) return refuse(status);
  if (!unit().isAttached()) return unplugged();
  const int32_t status = unit().properties().set(set, number, value);
  return status == kVCIFailed ? refusedByMode(inText()) : status;
}

std::vector<PropertySetIdentifier> SimulatedCamera::propertySets() {
  return unit().properties().sets();
}

std::vector<uint32_t> SimulatedCamera::propertyItems(const PropertySetIdentifier& set) {
  return unit().properties().items(set);
}

std::shared_ptr<PacedStream> SimulatedCamera::makeStream(FrameCallback callback) {
  VideoParameters parameters;
  {
    MutexLock lock(mMutex);
    parameters = mParameters;
  }
  const auto cadence = Cadence::ofFrames(parameters.intervalNumerator, parameters.intervalDenominator);
  Error error;
  auto maker = FrameMaker::create(parameters, cadence, inText(), error);
  if (!maker) {
    failed(kVCIFailed, std::move(error));
    return nullptr;
  }
  return std::make_shared<SimulatedFrameStream>(sharedUnit(), cadence, std::move(maker), std::move(callback));
}

SimulatedMicrophone::SimulatedMicrophone(std::shared_ptr<SimulatedUnit> microphone,
                                         std::shared_ptr<PacedScheduler> scheduler)
    : SimulatedDevice(std::move(microphone), std::move(scheduler)) {
  mFormat = waveFormats().front();
}

std::vector<WaveFormat> SimulatedMicrophone::waveFormats() {
  std::vector<WaveFormat> formats;
  for (const uint16_t code : {kWaveFormatLinearPCM, kWaveFormatAAC}) {
    for (const uint32_t rate : kRates) {
      if (!unit().isPlain()) formats.push_back({code, 2, rate, 16});
      formats.push_back({code, 1, rate, 16});
    }
  }
  return formats;
}

int32_t SimulatedMicrophone::setWaveFormat(const WaveFormat& format) {
  const auto formats = waveFormats();
  if (std::find(formats.begin(), formats.end(), format) == formats.end()) return kVCIInvalidArgument;
  MutexLock lock(mMutex);
  mFormat = format;
  return kVCISuccess;
}

std::shared_ptr<PacedStream> SimulatedMicrophone::makeStream(FrameCallback callback) {
  WaveFormat format;
  {
    MutexLock lock(mMutex);
    format = mFormat;
  }
  auto maker = PacketMaker::create(format);
  if (!maker) {
    failed(kVCIFailed, {Cause::kOther, "the sound encoder of the simulated microphone could not be set up",
                        "Choose another sound format."});
    return nullptr;
  }
  const Cadence cadence(kFramesPerPacket, format.samplesPerSecond);
  return std::make_shared<SimulatedSoundStream>(sharedUnit(), cadence, std::move(maker), std::move(callback));
}

int32_t SimulatedMicrophone::getMute(bool& mute) {
  mute = unit().level().isMuted;
  return kVCISuccess;
}

int32_t SimulatedMicrophone::setMute(bool mute) {
  unit().level().isMuted = mute;
  return kVCISuccess;
}

int32_t SimulatedMicrophone::getVolume(uint32_t& volume) {
  volume = unit().level().volume;
  return kVCISuccess;
}

int32_t SimulatedMicrophone::setVolume(uint8_t volume) {
  unit().level().volume = volume;
  return kVCISuccess;
}

}  // namespace vesk::capture
