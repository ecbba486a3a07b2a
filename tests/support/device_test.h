#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vesk/av_device.h>
#include <vesk/device_manager.h>
#include "tests/support/fake_capture_source.h"

namespace vesk::test {

/// A fake source below the capture interface, which the manager starts and lets go again.
struct DeviceTest : testing::Test {
  ~DeviceTest() override {
    VeskDeviceManager::destroy();
    capture::setSource(nullptr);
  }

  /// The record of the one device at `path`.
  static std::shared_ptr<VeskDeviceInfo> infoOf(const std::string& path) {
    const auto manager = VeskDeviceManager::getSharedInstance();
    for (const auto& list : {manager->getVideoDeviceList(), manager->getAudioDeviceList()})
      for (const auto& info : *list)
        if (info->path() == path) return info;
    return nullptr;
  }

  std::shared_ptr<FakeCaptureSource> source = FakeCaptureSource::install();
};

/// Expects an error of this cause that has the words in its line. A host that words it anew has the name of the line.
inline void expectError(const Error& error, Cause cause, const std::string& words = "") {
  EXPECT_EQ(causeName(error.cause), causeName(cause)) << error.what;
  EXPECT_NE(error.what.find(words), std::string::npos) << error.what;
  if (error.what.find('"') != std::string::npos) {
    EXPECT_NE(error.what.find('"' + error.subject + '"'), std::string::npos) << error.what;
  }
}

/// Remembers what it received.
struct Receiver : VeskAVDeviceDelegate {
  struct Frame {
    void* bytes;
    uint32_t length;
    int64_t timestamp;
    std::shared_ptr<VeskDeviceInfo> device;
  };
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>& device) override {
    frames.push_back({frame, length, timestamp, device});
    if (act) act();
  }
  std::vector<Frame> frames;
  std::function<void()> act;
};

/// The bytes of a record as the library sees them, in hexadecimal.
template <class Record>
std::string hexOf(const Record& record) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&record);
  std::string text;
  for (size_t i = 0; i < sizeof(record); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

}  // namespace vesk::test
