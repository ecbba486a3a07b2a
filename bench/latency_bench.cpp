// How long a camera's picture takes to the main thread beyond its decoding. A simulated camera of
// 1280 x 720 H.264 runs in real time; before the preview session, a receiver decodes each frame by
// itself and stamps it; what the session adds is the time from that stamp to the picture's place in
// the view, less the decoding that was just measured.
//
// Usage: latency_bench [SECONDS]
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <vector>

#include <vesk/capture_host.h>
#include <vesk/device_manager.h>
#include <vesk/dispatch_queue.h>
#include <vesk/four_char_code.h>
#include <vesk/icm_decoder.h>
#include <vesk/log.h>
#include <vesk/preview_session.h>
#include <vesk/preview_view.h>
#include <vesk/run_loop.h>
#include <vesk/video_device.h>

namespace {

using namespace vesk;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr CMVideoDimensions kSize{1280, 720};

struct Dropped : DecoderProtocol {
  void displayData(CVImageBufferRef) override {}
};

/// Decodes each frame before the session gets it.
struct Before : VeskAVDeviceDelegate {
  void didCaptureFrame(void* frame, uint32_t length, int64_t timestamp,
                       const std::shared_ptr<VeskDeviceInfo>&) override {
    const auto begin = Clock::now();
    decoder->decompressData(static_cast<const uint8_t*>(frame), static_cast<int32_t>(length),
                            static_cast<int32_t>(timestamp));
    stamp = Clock::now();
    decoding = stamp - begin;
  }
  Before() { decoder->setDelegate(&dropped); }
  Dropped dropped;
  std::shared_ptr<ICMDecoder> decoder = ICMDecoder::initWithWidth(kSize.width, kSize.height, kCMVideoCodecType_H264);
  Clock::time_point stamp;
  Milliseconds decoding{};
};

/// After the session: the main queue runs its work right behind the session's.
struct After : VeskAVDeviceDelegate {
  explicit After(const Before& receiver) : before(receiver) {}
  void didCaptureFrame(void*, uint32_t, int64_t, const std::shared_ptr<VeskDeviceInfo>&) override {
    DispatchQueue::mainQueue()->async([this, stamp = before.stamp, decoding = before.decoding] {
      const Milliseconds whole = Clock::now() - stamp;
      added.push_back((whole - decoding).count());
      decodings.push_back(decoding.count());
    });
  }
  const Before& before;
  std::vector<double> added;
  std::vector<double> decodings;
};

double percentile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(static_cast<double>(values.size() - 1) * part)];
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
  setLogSink([](LogLevel, std::string_view) {});
  if (const auto error = capture::selectSource("simulated", {})) {
    fmt::print(stderr, "{}\n", error.what);
    return 1;
  }
  const auto manager = VeskDeviceManager::getSharedInstance();
  const auto camera = VeskVideoDevice::initWithDeviceInfo(manager->getVideoDeviceList()->front());
  camera->openDevice();
  camera->setFormat(CMVideoFormatDescription::create(kCMVideoCodecType_H264, kSize.width, kSize.height));
  const auto view = VeskPreviewView::initWithFrame({0, 0, 1280, 720});
  const auto before = std::make_shared<Before>();
  const auto after = std::make_shared<After>(*before);
  const auto session = VeskPreviewSession::initWithDevice(camera, nullptr);
  camera->addDelegate(before);
  // The session joins the list when it starts; the last receiver follows before the first frame.
  capture::Transport::shared().hold();
  const int32_t status = session->startSessionWithPreview(view);
  camera->addDelegate(after);
  capture::Transport::shared().release();
  if (status != 0) {
    fmt::print(stderr, "the simulated camera refused to start: {}\n", status);
    return 1;
  }
  NSRunLoop::currentRunLoop()->runUntilDate(Clock::now() + std::chrono::seconds(seconds));
  camera->removeDelegate(before);
  camera->removeDelegate(after);
  session->stopSession();
  camera->closeDevice();
  if (after->added.size() < 2) return 1;
  fmt::print("{{\"pictures\":{},\"shown\":{},\"decode_ms\":{:.3f},\"added_ms\":{:.3f},\"added_p99_ms\":{:.3f}}}\n",
             after->added.size(), session->statistics().shown, percentile(after->decodings, 0.5),
             percentile(after->added, 0.5), percentile(after->added, 0.99));
  return 0;
}
