// A camera of the host's own: a clock, drawn by the program, recorded to a movie like any camera's picture.
//
//   own_camera OUT.mov
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vesk/vesk.h>

namespace {

using namespace vesk::capture;
using std::chrono::microseconds, std::chrono::steady_clock;

constexpr int32_t kWidth = 320, kHeight = 240;
constexpr microseconds kInterval{33'333};

/// Draws a frame of "2vuy" (Cb, Y', Cr, Y'): grey, with a white bar as long as the second is old.
void draw(std::vector<uint8_t>& frame, microseconds time) {
  const auto end = static_cast<size_t>(time.count() % 1'000'000 * kWidth / 1'000'000);
  for (size_t pixel = 0; pixel < frame.size() / 2; ++pixel) {
    frame[pixel * 2] = 128;
    frame[pixel * 2 + 1] = pixel % kWidth < end ? 235 : 80;
  }
}

class Clock : public CaptureDevice {
 public:
  int32_t start(uint32_t, FrameCallback callback) override {
    mThread = std::jthread([callback](const std::stop_token& stop) {
      std::vector<uint8_t> frame(size_t{kWidth} * kHeight * 2);
      for (auto next = steady_clock::now(); !stop.stop_requested(); next += kInterval) {
        std::this_thread::sleep_until(next);
        const auto stamp = std::chrono::duration_cast<microseconds>(next.time_since_epoch());
        draw(frame, stamp);
        callback(frame.data(), static_cast<uint32_t>(frame.size()), stamp.count());
      }
    });
    return 0;
  }
  /// It need not wait: the library passes on nothing that comes after this. The next start, or the end, joins.
  int32_t stop(uint32_t) override { return mThread.request_stop(), 0; }
  std::vector<VideoFormat> videoFormats() override {
    return {{vesk::kCMPixelFormat_422YpCbCr8, {{kWidth, kHeight, {333'333}}}}};
  }
  int32_t setVideoParameters(const VideoParameters&) override { return 0; }

 private:
  std::jthread mThread;
};

class ClockSource : public CaptureSource {
 public:
  void setHotplugHandler(HotplugHandler) override {}  // it neither comes nor goes
  std::vector<DeviceDescription> devices(DeviceKind kind) override {
    if (kind == DeviceKind::kAudio) return {};
    return {{.kind = kind, .path = "own:clock", .name = "Clock"}};
  }
  std::unique_ptr<CaptureDevice> open(DeviceKind kind, const std::string&) override {
    return kind == DeviceKind::kVideo ? std::make_unique<Clock>() : nullptr;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::fprintf(stderr, "usage: own_camera OUT.mov\n"), 2;
  setSource(std::make_shared<ClockSource>());  // before the first use of a device

  vesk::Error error;
  const auto loop = vesk::NSRunLoop::currentRunLoop();
  auto supervisor = vesk::VeskRecordingSupervisor::initWithEventHandler([&](const vesk::RecordingEvent& event) {
    if (event.movie) std::printf("%s\n", event.movie->file.c_str());
    if (event.kind != vesk::RecordingEventKind::kEnded) return;
    error = event.error;
    loop->stop();
  });
  vesk::RecordingSettings settings;
  settings.file = argv[1];
  settings.duration = 3;        // seconds
  supervisor->start(settings);  // with the only camera that there is
  loop->run();
  supervisor.reset();
  vesk::VeskDeviceManager::destroy();
  if (error) return std::fprintf(stderr, "%s. %s\n", error.what.c_str(), error.remedy.c_str()), 1;
}
