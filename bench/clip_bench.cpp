// Records a clip as a host of the library does, as fast as it goes, and prints what the devices delivered:
// one JSON object on standard output. compare_clips.py looks whether the movie is the same.
//
//   clip_bench steady|capture CODEC CLIP OUT     CODEC: avc1 or 2vuy
#include <fmt/core.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/md5.h>
}

#include <vesk/audio_device.h>
#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/record_session.h>
#include <vesk/video_device.h>
#include "platform/foundation/file_manager.h"

namespace {

using namespace vesk;

std::string md5(const void* bytes, uint32_t length) {
  uint8_t sum[16];
  av_md5_sum(sum, static_cast<const uint8_t*>(bytes), length);
  std::string text;
  for (const uint8_t byte : sum) text += fmt::format("{:02x}", byte);
  return text;
}

/// Notes every picture before the session gets it: its time and, of raw ones, what it holds.
struct Noted : VeskAVDeviceDelegate {
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>&) override {
    times.push_back(timestamp);
    if (isRaw) sums.push_back(md5(frame, length));
  }
  bool isRaw = false;
  std::vector<int64_t> times;
  std::vector<std::string> sums;
};

[[noreturn]] void fail(const std::string& what) {
  fmt::print(stderr, "clip_bench: {}\n", what);
  std::exit(1);
}

template <class Device, class Format>
std::shared_ptr<Device> openFirst(const std::vector<std::shared_ptr<VeskDeviceInfo>>& list, uint32_t codec) {
  if (list.empty()) return nullptr;
  auto device = Device::initWithDeviceInfo(list.front());
  device->openDevice();
  for (const Format& format : *device->getSupportedFormats()) {
    if (codec == 0 || format->mediaSubType() == codec) {
      device->setFormat(format);
      return device;
    }
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const std::string timing = argv[1];
  const std::string codec = argv[2];
  const std::string out = argv[4];
  setStandardOutput(stderr);
  const auto error = capture::selectSource("file:" + std::string(argv[3]), {.pace = capture::Pace::kFast});
  if (error) fail(error.what);
  const auto manager = VeskDeviceManager::getSharedInstance();
  const uint32_t code = codec == "avc1" ? kCMVideoCodecType_H264 : kCMPixelFormat_422YpCbCr8;
  const auto camera = openFirst<VeskVideoDevice, CMVideoFormatDescriptionRef>(*manager->getVideoDeviceList(), code);
  const auto microphone = openFirst<VeskAudioDevice, CMAudioFormatDescriptionRef>(*manager->getAudioDeviceList(), 0);
  if (!camera) fail("no pictures of that codec");
  const auto noted = std::make_shared<Noted>();
  noted->isRaw = code == kCMPixelFormat_422YpCbCr8;
  camera->addDelegate(noted);

  setTemporaryDirectory(std::filesystem::path(out).parent_path());
  std::filesystem::remove(out);
  const auto session = VeskRecordSession::initWithVideoDevice(camera, microphone, out);
  session->setFrameTiming(timing == "capture" ? FrameTiming::kCapture : FrameTiming::kSteady);
  capture::Transport& transport = capture::Transport::shared();
  std::promise<void> ended;
  transport.setEndHandler([&] { ended.set_value(); });
  transport.setBackpressure([&] { return session->isWriterBusy(); });
  transport.hold();
  if (session->startSession() != 0) fail("the recording refused to start");
  transport.release();
  ended.get_future().wait();
  session->stopSession();
  camera->removeDelegate(noted);
  transport.setEndHandler({});
  transport.setBackpressure({});

  const RecordingOutcome outcome = session->lastOutcome();
  if (!outcome.isPlaced) fail(outcome.error.what);
  std::string times;
  std::string sums;
  for (const int64_t time : noted->times) times += fmt::format("{}{}", times.empty() ? "" : ",", time);
  for (const std::string& sum : noted->sums) sums += fmt::format("{}\"{}\"", sums.empty() ? "" : ",", sum);
  fmt::print("{{\"recorded\":{},\"lost\":{},\"unfit\":{},\"times\":[{}],\"md5\":[{}]}}\n",
             outcome.statistics.videoFrames, outcome.statistics.videoDropped, outcome.statistics.videoUnfit, times,
             sums);
  camera->closeDevice();
  if (microphone) microphone->closeDevice();
  VeskDeviceManager::destroy();
  return 0;
}
