#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vesk::test {

/// Frees what libav takes by the address of the pointer.
template <auto release>
struct AVFree {
  template <class Object>
  void operator()(Object* object) const {
    release(&object);
  }
};
using AVInput = std::unique_ptr<AVFormatContext, AVFree<avformat_close_input>>;

/// A clip as libav reads it by itself, without anything of ours; null when it cannot.
inline AVInput openClip(const std::string& path) {
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return nullptr;
  AVInput clip(input);
  return avformat_find_stream_info(input, nullptr) < 0 ? nullptr : std::move(clip);
}

inline int bestTrack(const AVInput& clip, AVMediaType kind) {
  return av_find_best_stream(clip.get(), kind, -1, -1, nullptr, 0);
}

inline void forEachPacket(AVFormatContext* clip, const std::function<void(const AVPacket& packet)>& work) {
  const std::unique_ptr<AVPacket, AVFree<av_packet_free>> packet(av_packet_alloc());
  for (; av_read_frame(clip, packet.get()) >= 0; av_packet_unref(packet.get())) work(*packet);
}

/// Decodes packets one by one, with all the delay that libavcodec likes; a null packet ends it.
class ClipDecoder {
 public:
  explicit ClipDecoder(AVCodecID codec, const AVCodecParameters* parameters = nullptr)
      : mContext(avcodec_alloc_context3(avcodec_find_decoder(codec))) {
    if (parameters) avcodec_parameters_to_context(mContext.get(), parameters);
    mContext->thread_count = 1;
    avcodec_open2(mContext.get(), avcodec_find_decoder(codec), nullptr);
  }
  void decode(const AVPacket* packet, const std::function<void(const AVFrame& frame)>& take) {
    avcodec_send_packet(mContext.get(), packet);
    while (avcodec_receive_frame(mContext.get(), mFrame.get()) >= 0) take(*mFrame);
  }

 private:
  const std::unique_ptr<AVCodecContext, AVFree<avcodec_free_context>> mContext;
  const std::unique_ptr<AVFrame, AVFree<av_frame_free>> mFrame{av_frame_alloc()};
};

/// A picture as its samples alone, plane after plane, without padding.
inline std::vector<uint8_t> samplesOf(const AVFrame& frame) {
  const auto format = static_cast<AVPixelFormat>(frame.format);
  std::vector<uint8_t> samples(static_cast<size_t>(av_image_get_buffer_size(format, frame.width, frame.height, 1)));
  av_image_copy_to_buffer(samples.data(), static_cast<int>(samples.size()), frame.data, frame.linesize, format,
                          frame.width, frame.height, 1);
  return samples;
}

}  // namespace vesk::test
