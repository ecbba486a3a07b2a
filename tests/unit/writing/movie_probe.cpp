#include "tests/unit/writing/movie_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "tests/support/av_clip.h"

namespace vesk::test {
namespace {

std::string* gComplaints = nullptr;

void collectComplaint(void*, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_WARNING || !gComplaints) return;
  char line[512];
  vsnprintf(line, sizeof line, format, arguments);
  *gComplaints += line;
}

struct MemoryInput {
  std::span<const uint8_t> bytes;
  size_t at = 0;

  static int read(void* opaque, uint8_t* into, int size) {
    auto& input = *static_cast<MemoryInput*>(opaque);
    const size_t count = std::min<size_t>(static_cast<size_t>(size), input.bytes.size() - input.at);
    if (count == 0) return AVERROR_EOF;
    memcpy(into, input.bytes.data() + input.at, count);
    input.at += count;
    return static_cast<int>(count);
  }
  static int64_t seek(void* opaque, int64_t offset, int whence) {
    auto& input = *static_cast<MemoryInput*>(opaque);
    const auto size = static_cast<int64_t>(input.bytes.size());
    if (whence == AVSEEK_SIZE) return size;
    if (whence == SEEK_CUR) offset += static_cast<int64_t>(input.at);
    if (whence == SEEK_END) offset += size;
    if (offset < 0 || offset > size) return -1;
    input.at = static_cast<size_t>(offset);
    return offset;
  }
};

const char* codecName(const AVCodecParameters& parameters) {
  if (parameters.codec_tag == MKTAG('2', 'v', 'u', 'y')) return "2vuy";
  return avcodec_get_name(parameters.codec_id);
}

void readPackets(AVFormatContext* context, ProbedMovie& movie, Probe depth) {
  std::vector<std::unique_ptr<ClipDecoder>> decoders;
  for (unsigned i = 0; depth == Probe::kDecode && i < context->nb_streams; ++i) {
    const AVCodecParameters& parameters = *context->streams[i]->codecpar;
    decoders.push_back(std::make_unique<ClipDecoder>(parameters.codec_id, &parameters));
  }
  /// Pictures or frames of sound that come out.
  const auto decode = [&](size_t index, const AVPacket* packet) {
    decoders[index]->decode(packet, [&](const AVFrame& frame) {
      movie.tracks[index].decoded += movie.tracks[index].channels > 0 ? frame.nb_samples : 1;
    });
  };
  std::vector<std::pair<int64_t, int>> places;
  forEachPacket(context, [&](const AVPacket& packet) {
    const auto index = static_cast<size_t>(packet.stream_index);
    ProbedTrack& track = movie.tracks[index];
    const AVRational base = context->streams[index]->time_base;
    const int64_t time = av_rescale_q(packet.pts, base, {1, 1'000'000});
    if (track.packets == 0) {
      track.firstTime = time;
      track.firstPosition = packet.pos;
    }
    track.endTime = av_rescale_q(packet.pts + packet.duration, base, {1, 1'000'000});
    track.bytes += packet.size;
    track.times.push_back(time);
    track.content.insert(track.content.end(), packet.data, packet.data + packet.size);
    places.emplace_back(packet.pos, packet.stream_index);
    ++track.packets;
    if (packet.flags & AV_PKT_FLAG_KEY) ++track.keyPackets;
    if (!decoders.empty()) decode(index, &packet);
  });
  for (size_t i = 0; i < decoders.size(); ++i) decode(i, nullptr);
  std::sort(places.begin(), places.end());
  for (size_t i = 0; i < places.size(); ++i) {
    if (i == 0 || places[i].second != places[i - 1].second)
      ++movie.tracks[static_cast<size_t>(places[i].second)].chunks;
  }
}

std::string tag(AVFormatContext* context, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(context->metadata, key, nullptr, 0);
  return entry ? entry->value : "";
}

void describe(AVFormatContext* context, ProbedMovie& movie) {
  movie.opened = true;
  movie.date = tag(context, "date");
  movie.creationTime = tag(context, "creation_time");
  movie.software = tag(context, "encoder");
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    const AVCodecParameters& parameters = *context->streams[i]->codecpar;
    ProbedTrack track;
    track.codec = codecName(parameters);
    track.width = parameters.width;
    track.height = parameters.height;
    track.sampleRate = parameters.sample_rate;
    track.channels = parameters.ch_layout.nb_channels;
    track.knowsLayout = parameters.ch_layout.order != AV_CHANNEL_ORDER_UNSPEC;
    movie.tracks.push_back(std::move(track));
  }
}

}  // namespace

ProbedMovie probeMovie(std::span<const uint8_t> bytes, Probe depth) {
  ProbedMovie movie;
  gComplaints = &movie.complaints;
  av_log_set_callback(collectComplaint);
  MemoryInput input{bytes};
  constexpr int kBuffer = 65536;
  AVFormatContext* context = avformat_alloc_context();
  context->pb = avio_alloc_context(static_cast<unsigned char*>(av_malloc(kBuffer)), kBuffer, 0, &input,
                                   MemoryInput::read, nullptr, MemoryInput::seek);
  AVIOContext* io = context->pb;
  if (avformat_open_input(&context, "movie.mov", nullptr, nullptr) == 0) {
    if (avformat_find_stream_info(context, nullptr) >= 0) {
      describe(context, movie);
      readPackets(context, movie, depth);
    }
    avformat_close_input(&context);
  }
  av_freep(&io->buffer);
  avio_context_free(&io);
  gComplaints = nullptr;
  return movie;
}

ProbedMovie probeMovieFile(const std::string& path, int64_t startTime) {
  ProbedMovie movie;
  gComplaints = &movie.complaints;
  av_log_set_callback(collectComplaint);
  if (const AVInput clip = openClip(path)) {
    describe(clip.get(), movie);
    av_seek_frame(clip.get(), -1, startTime, AVSEEK_FLAG_BACKWARD);
    readPackets(clip.get(), movie, Probe::kPackets);
  }
  gComplaints = nullptr;
  return movie;
}

void expectBeginningOf(const ProbedMovie& part, const ProbedMovie& whole) {
  for (const ProbedTrack& track : part.tracks) {
    const ProbedTrack* const same = whole.find(track.codec);
    ASSERT_TRUE(same);
    ASSERT_LE(track.content.size(), same->content.size());
    EXPECT_TRUE(std::equal(track.content.begin(), track.content.end(), same->content.begin()));
  }
}

}  // namespace vesk::test
