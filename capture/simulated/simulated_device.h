#pragma once

#include <memory>
#include <vector>

#include <vesk/capture_source.h>
#include "capture/simulated/simulated_unit.h"
#include "capture/sources/paced_scheduler.h"

namespace vesk::capture {

/// What simulated cameras and microphones share: start and stop.
///
/// Threads: every operation from any thread, start one at a time; stop also from inside a callback.
class SimulatedDevice : public CaptureDevice {
 public:
  SimulatedDevice(std::shared_ptr<SimulatedUnit> unit, std::shared_ptr<PacedScheduler> scheduler)
      : mUnit(std::move(unit)), mScheduler(std::move(scheduler)), mCapture(*mScheduler) {}
  ~SimulatedDevice() override { end(); }

  int32_t start(uint32_t substream, FrameCallback callback) override;
  int32_t stop(uint32_t substream) override;

 protected:
  /// The stream in the format that has been set; null when it cannot be made.
  virtual std::shared_ptr<PacedStream> makeStream(FrameCallback callback) = 0;
  int32_t refuse(int32_t status) const;
  int32_t unplugged() const;
  std::string inText() const;
  SimulatedUnit& unit() { return *mUnit; }
  std::shared_ptr<SimulatedUnit> sharedUnit() { return mUnit; }

  Mutex mMutex;

 private:
  void end();

  const std::shared_ptr<SimulatedUnit> mUnit;
  const std::shared_ptr<PacedScheduler> mScheduler;
  PacedCapture mCapture;
};

class SimulatedCamera : public SimulatedDevice {
 public:
  SimulatedCamera(std::shared_ptr<SimulatedUnit> unit, std::shared_ptr<PacedScheduler> scheduler);

  std::vector<VideoFormat> videoFormats() override;
  /// Refuses what is not among the formats, and takes the nearest interval; takes effect at the next start.
  int32_t setVideoParameters(const VideoParameters& parameters) override;
  int32_t getProperty(uint32_t request, const PropertySetIdentifier& set, uint32_t number, std::span<uint8_t> value,
                      uint32_t& valueSize) override;
  int32_t setProperty(const PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) override;
  std::vector<PropertySetIdentifier> propertySets() override;
  std::vector<uint32_t> propertyItems(const PropertySetIdentifier& set) override;
  void requestKeyFrame() override { unit().requestKeyFrame(); }

 protected:
  std::shared_ptr<PacedStream> makeStream(FrameCallback callback) override;

 private:
  VideoParameters mParameters VESK_GUARDED_BY(mMutex);
};

class SimulatedMicrophone : public SimulatedDevice {
 public:
  SimulatedMicrophone(std::shared_ptr<SimulatedUnit> unit, std::shared_ptr<PacedScheduler> scheduler);

  std::vector<WaveFormat> waveFormats() override;
  /// Refuses what is not among the formats; takes effect at the next start.
  int32_t setWaveFormat(const WaveFormat& format) override;
  int32_t getMute(bool& mute) override;
  int32_t setMute(bool mute) override;
  int32_t getVolume(uint32_t& volume) override;
  int32_t setVolume(uint8_t volume) override;

 protected:
  std::shared_ptr<PacedStream> makeStream(FrameCallback callback) override;

 private:
  WaveFormat mFormat VESK_GUARDED_BY(mMutex);
};

}  // namespace vesk::capture
