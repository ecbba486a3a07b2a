#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vesk/vci.h>
#include "capture/linux/sound/sound_system.h"

namespace vesk::test {

/// A sound system whose microphones are only listed.
class ListedMicrophones : public capture::SoundSystem {
 public:
  explicit ListedMicrophones(std::vector<capture::Microphone> microphones) : mMicrophones(std::move(microphones)) {}

  std::vector<capture::Microphone> microphones() override { return mMicrophones; }
  std::vector<capture::WaveFormat> formats(const std::string&) override { return {}; }
  std::unique_ptr<capture::SoundStream> record(const std::string&, const capture::WaveFormat&,
                                               std::shared_ptr<capture::SoundSink>, int32_t&, Error&) override {
    return nullptr;
  }
  bool canShare() const override { return true; }
  int32_t getVolume(const std::string&, uint32_t&) override { return kVCIFailed; }
  int32_t setVolume(const std::string&, uint8_t) override { return kVCIFailed; }
  int32_t getMute(const std::string&, bool&) override { return kVCIFailed; }
  int32_t setMute(const std::string&, bool) override { return kVCIFailed; }
  void setChangeHandler(std::function<void()>) override {}

 private:
  const std::vector<capture::Microphone> mMicrophones;
};

}  // namespace vesk::test
