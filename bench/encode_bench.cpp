/// A camera's pictures through EncodedCamera, one after the other, nothing left out.
///
///   encode_bench CLIP WIDTH HEIGHT      prints the pictures and the CPU seconds that they took
///
/// CLIP is a movie of Motion JPEG, or raw packed 4:2:2 named *.uyvy. compare_encoding.py runs this.

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <semaphore>
#include <span>
#include <string>
#include <vector>

#include "capture/encoding/encoded_camera.h"
#include "capture/files/av_handles.h"
#include "platform/media/four_char_code.h"

namespace {

using vesk::capture::FrameCallback;
using vesk::capture::VideoFormat;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kInterval = 333333;
constexpr uint32_t kTenMillionths = 10'000'000;

[[noreturn]] void giveUp(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(1);
}

std::vector<Bytes> readMovie(const std::string& path) {
  AVFormatContext* movie = nullptr;
  if (avformat_open_input(&movie, path.c_str(), nullptr, nullptr) != 0) giveUp("cannot read " + path);
  const vesk::capture::PacketHandle packet(av_packet_alloc());
  std::vector<Bytes> pictures;
  while (av_read_frame(movie, packet.get()) == 0) {
    pictures.emplace_back(packet->data, packet->data + packet->size);
    av_packet_unref(packet.get());
  }
  avformat_close_input(&movie);
  return pictures;
}

std::vector<Bytes> readRaw(const std::string& path, size_t pictureBytes) {
  std::ifstream file(path, std::ios::binary);
  std::vector<Bytes> pictures;
  for (Bytes picture(pictureBytes); file.read(reinterpret_cast<char*>(picture.data()), std::ssize(picture));)
    pictures.push_back(picture);
  return pictures;
}

/// Delivers what it is told to.
class Camera : public vesk::capture::CaptureDevice {
 public:
  Camera(VideoFormat format, FrameCallback& callback) : mFormat(std::move(format)), mCallback(callback) {}
  std::vector<VideoFormat> videoFormats() override { return {mFormat}; }
  int32_t setVideoParameters(const vesk::capture::VideoParameters& /*parameters*/) override { return 0; }
  int32_t start(uint32_t /*substream*/, FrameCallback callback) override {
    mCallback = std::move(callback);
    return 0;
  }
  int32_t stop(uint32_t /*substream*/) override { return 0; }

 private:
  const VideoFormat mFormat;
  FrameCallback& mCallback;
};

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

int main(int count, char** arguments) {
  const std::span words(arguments, static_cast<size_t>(count));
  if (words.size() != 4) giveUp("usage: encode_bench CLIP WIDTH HEIGHT");
  const std::string path = words[1];
  const int width = std::atoi(words[2]);
  const int height = std::atoi(words[3]);
  const bool isRaw = path.ends_with(".uyvy");
  std::vector<Bytes> pictures =
      isRaw ? readRaw(path, static_cast<size_t>(width) * static_cast<size_t>(height) * 2) : readMovie(path);
  const uint32_t codec = isRaw ? vesk::kCMPixelFormat_422YpCbCr8 : vesk::kCMVideoCodecType_MotionJPEG;

  FrameCallback deliver;
  const auto camera = vesk::capture::EncodedCamera::wrap(
      std::make_unique<Camera>(VideoFormat{codec, {{width, height, {kInterval}}}}, deliver), "bench");
  const double before = cpuSeconds();
  std::binary_semaphore isDone(0);
  size_t encoded = 0;
  size_t bytes = 0;
  camera->setVideoParameters({vesk::kCMVideoCodecType_H264, width, height, kInterval, kTenMillionths, 0});
  const int32_t status = camera->start(1, [&](uint8_t*, uint32_t length, int64_t) {
    ++encoded;
    bytes += length;
    isDone.release();
  });
  if (status != 0) giveUp("the encoder did not start");
  for (size_t number = 0; number < pictures.size(); ++number) {
    Bytes& picture = pictures[number];
    deliver(picture.data(), static_cast<uint32_t>(picture.size()), static_cast<int64_t>(number) * kInterval / 10);
    isDone.acquire();
  }
  camera->stop(1);
  std::printf("{\"pictures\": %zu, \"cpu\": %.4f, \"bytes\": %zu}\n", encoded, cpuSeconds() - before, bytes);
  return 0;
}
