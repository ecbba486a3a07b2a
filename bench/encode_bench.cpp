/// A camera's pictures through EncodedCamera, one after the other, nothing left out.
///
///   encode_bench CLIP WIDTH HEIGHT      prints how many pictures there were, and their bytes encoded
///
/// CLIP is a movie of Motion JPEG, or raw packed 4:2:2 named *.uyvy. compare_encoding.py runs this.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <semaphore>
#include <span>
#include <string>
#include <vector>

#include <vesk/four_char_code.h>
#include "capture/encoding/av_handles.h"
#include "capture/encoding/encoded_camera.h"

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

/// Reads a clip picture by picture, as ffmpeg does.
class Clip {
 public:
  Clip(const std::string& path, size_t rawBytes) : mRaw(rawBytes) {
    if (rawBytes > 0)
      mFile.open(path, std::ios::binary);
    else if (avformat_open_input(&mMovie, path.c_str(), nullptr, nullptr) != 0)
      giveUp("cannot read " + path);
  }
  ~Clip() { avformat_close_input(&mMovie); }
  Clip(const Clip&) = delete;
  Clip& operator=(const Clip&) = delete;

  /// Empty at the end.
  std::span<uint8_t> next() {
    if (!mMovie)
      return mFile.read(reinterpret_cast<char*>(mRaw.data()), std::ssize(mRaw)) ? std::span(mRaw)
                                                                                : std::span<uint8_t>();
    av_packet_unref(mPacket.get());
    if (av_read_frame(mMovie, mPacket.get()) != 0) return {};
    return {mPacket->data, static_cast<size_t>(mPacket->size)};
  }

 private:
  Bytes mRaw;
  std::ifstream mFile;
  AVFormatContext* mMovie = nullptr;
  const vesk::capture::PacketHandle mPacket{av_packet_alloc()};
};

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

}  // namespace

int main(int count, char** arguments) {
  const std::span words(arguments, static_cast<size_t>(count));
  if (words.size() != 4) giveUp("usage: encode_bench CLIP WIDTH HEIGHT");
  const std::string path = words[1];
  const int width = std::atoi(words[2]);
  const int height = std::atoi(words[3]);
  const bool isRaw = path.ends_with(".uyvy");
  Clip clip(path, isRaw ? static_cast<size_t>(width) * static_cast<size_t>(height) * 2 : 0);
  const uint32_t codec = isRaw ? vesk::kCMPixelFormat_422YpCbCr8 : vesk::kCMVideoCodecType_MotionJPEG;

  FrameCallback deliver;
  const auto camera = vesk::capture::EncodedCamera::wrap(
      std::make_unique<Camera>(VideoFormat{codec, {{width, height, {kInterval}}}}, deliver), "bench");
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
  for (auto picture = clip.next(); !picture.empty(); picture = clip.next()) {
    deliver(picture.data(), static_cast<uint32_t>(picture.size()), static_cast<int64_t>(encoded) * kInterval / 10);
    isDone.acquire();
  }
  camera->stop(1);
  std::printf("{\"pictures\": %zu, \"bytes\": %zu}\n", encoded, bytes);
  return 0;
}
