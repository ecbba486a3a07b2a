#include "tests/unit/movie/movie_reader.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace vesk::test {

std::vector<uint8_t> ReadTrack::allBytes() const {
  std::vector<uint8_t> all;
  for (const Sample& sample : samples) all.insert(all.end(), sample.data.begin(), sample.data.end());
  return all;
}

ReadMovie readMovie(const std::string& path) {
  ReadMovie movie;
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) != 0) return movie;
  movie.opened = true;
  const auto trackOf = [&](int stream) {
    const auto type = context->streams[stream]->codecpar->codec_type;
    return type == AVMEDIA_TYPE_VIDEO ? &movie.video : type == AVMEDIA_TYPE_AUDIO ? &movie.audio : nullptr;
  };
  for (unsigned stream = 0; stream < context->nb_streams; ++stream)
    if (auto* track = trackOf(static_cast<int>(stream))) track->exists = true;

  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(context, packet) >= 0) {
    if (auto* track = trackOf(packet->stream_index)) {
      const AVRational scale = context->streams[packet->stream_index]->time_base;
      track->samples.push_back({{packet->data, packet->data + packet->size},
                                av_rescale_q(packet->pts, scale, {1, 1'000'000}),
                                (packet->flags & AV_PKT_FLAG_KEY) != 0});
    }
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  avformat_close_input(&context);
  return movie;
}

}  // namespace vesk::test
