#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vesk/four_char_code.h>
#include "capture/files/footage.h"
#include "tests/support/bytes.h"

namespace vesk::capture::test {

using vesk::test::Bytes;
using vesk::test::bytes;

inline std::string dataPath(const std::string& name) {
  return std::string(VESK_TEST_DATA) + "/" + name;
}

struct Unit {
  Bytes bytes;
  int64_t time = 0;
};

inline std::vector<Unit> unitsFrom(UnitReader& reader, int64_t from = 0, bool again = false) {
  std::vector<Unit> units;
  if (!reader.start(from, again)) return units;
  while (const auto unit = reader.next()) units.push_back({{unit->bytes.begin(), unit->bytes.end()}, unit->time});
  return units;
}

inline std::unique_ptr<Footage> footageAt(const std::string& path, bool wantsLength = false) {
  Error error;
  auto footage = Footage::open(path, wantsLength, error);
  EXPECT_TRUE(footage) << error.what;
  return footage;
}

/// Copies a movie, its sound `shift` frames later, with or without edit lists.
inline void copyMovie(const std::string& from, const std::string& to, int64_t shift, bool hasEditLists) {
  AVFormatContext* in = nullptr;
  ASSERT_GE(avformat_open_input(&in, from.c_str(), nullptr, nullptr), 0);
  ASSERT_GE(avformat_find_stream_info(in, nullptr), 0);
  AVFormatContext* out = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&out, nullptr, "mov", to.c_str()), 0);
  for (unsigned index = 0; index < in->nb_streams; ++index) {
    AVStream* stream = avformat_new_stream(out, nullptr);
    avcodec_parameters_copy(stream->codecpar, in->streams[index]->codecpar);
    stream->codecpar->codec_tag = 0;
    stream->time_base = in->streams[index]->time_base;
  }
  AVDictionary* options = nullptr;
  av_dict_set(&options, "use_editlist", hasEditLists ? "1" : "0", 0);
  out->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  ASSERT_GE(avio_open(&out->pb, to.c_str(), AVIO_FLAG_WRITE), 0);
  ASSERT_GE(avformat_write_header(out, &options), 0);
  av_dict_free(&options);
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(in, packet) >= 0) {
    const int index = packet->stream_index;
    if (in->streams[index]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      packet->pts += shift;
      packet->dts += shift;
    }
    av_packet_rescale_ts(packet, in->streams[index]->time_base, out->streams[index]->time_base);
    ASSERT_GE(av_interleaved_write_frame(out, packet), 0);
  }
  av_packet_free(&packet);
  ASSERT_GE(av_write_trailer(out), 0);
  avio_closep(&out->pb);
  avformat_free_context(out);
  avformat_close_input(&in);
}

inline std::unique_ptr<UnitReader> videoReader(const Footage& footage, uint32_t codec) {
  std::string error;
  auto reader = TrackReader::open(footage.video->choice, error);
  return reader ? videoFrames(*footage.video, codec, std::move(reader), error) : nullptr;
}

inline std::unique_ptr<UnitReader> soundReader(const Footage& footage, uint16_t formatCode,
                                               const std::optional<Loop>& loop = std::nullopt) {
  std::string error;
  auto reader = TrackReader::open(footage.sound->choice, error);
  return reader ? soundPackets(*footage.sound, formatCode, std::move(reader), error, loop) : nullptr;
}

/// A file as libav reads it by itself, without anything of ours.
struct Original {
  std::vector<Bytes> packets;
  std::vector<double> times;       ///< when each is shown, microseconds; not a number when the file does not say
  std::vector<uint64_t> pictures;  ///< a hash of each decoded picture, in the order of presentation
};

/// A number that stands for what a picture shows.
inline uint64_t hashOf(const AVFrame& frame) {
  uint64_t hash = 1469598103934665603u;
  const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
  for (int plane = 0; plane < av_pix_fmt_count_planes(static_cast<AVPixelFormat>(frame.format)); ++plane) {
    const bool isChroma = plane > 0;
    const int rows = isChroma ? AV_CEIL_RSHIFT(frame.height, format->log2_chroma_h) : frame.height;
    const int columns = isChroma ? AV_CEIL_RSHIFT(frame.width, format->log2_chroma_w) : frame.width;
    for (int row = 0; row < rows; ++row) {
      const uint8_t* line = frame.data[plane] + static_cast<ptrdiff_t>(frame.linesize[plane]) * row;
      for (int column = 0; column < columns; ++column) hash = (hash ^ line[column]) * 1099511628211u;
    }
  }
  return hash;
}

/// Decodes packets one by one; null packet data ends it.
class ReferenceDecoder {
 public:
  ReferenceDecoder(AVCodecID codec, const AVCodecParameters* parameters) {
    const AVCodec* decoder = avcodec_find_decoder(codec);
    mContext = avcodec_alloc_context3(decoder);
    if (parameters != nullptr) avcodec_parameters_to_context(mContext, parameters);
    mContext->thread_count = 1;
    avcodec_open2(mContext, decoder, nullptr);
  }
  ~ReferenceDecoder() { avcodec_free_context(&mContext); }
  ReferenceDecoder(const ReferenceDecoder&) = delete;
  ReferenceDecoder& operator=(const ReferenceDecoder&) = delete;

  void decode(const AVPacket* packet, std::vector<uint64_t>& pictures) {
    avcodec_send_packet(mContext, packet);
    AVFrame* frame = av_frame_alloc();
    while (avcodec_receive_frame(mContext, frame) >= 0) pictures.push_back(hashOf(*frame));
    av_frame_free(&frame);
  }

 private:
  AVCodecContext* mContext = nullptr;
};

inline Original readOriginal(const std::string& path, AVMediaType kind) {
  Original original;
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return original;
  avformat_find_stream_info(context, nullptr);
  const int index = av_find_best_stream(context, kind, -1, -1, nullptr, 0);
  if (index >= 0) {
    const AVCodecParameters* parameters = context->streams[index]->codecpar;
    ReferenceDecoder decoder(parameters->codec_id, parameters);
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
      if (packet->stream_index == index) {
        original.packets.emplace_back(packet->data, packet->data + packet->size);
        const double unit = av_q2d(context->streams[index]->time_base) * 1e6;
        original.times.push_back(packet->pts == AV_NOPTS_VALUE ? NAN : static_cast<double>(packet->pts) * unit);
        if (kind == AVMEDIA_TYPE_VIDEO) decoder.decode(packet, original.pictures);
      }
      av_packet_unref(packet);
    }
    if (kind == AVMEDIA_TYPE_VIDEO) decoder.decode(nullptr, original.pictures);
    av_packet_free(&packet);
  }
  avformat_close_input(&context);
  return original;
}

/// The pictures that a decoder makes of access units, which must tell it all it needs to know.
inline std::vector<uint64_t> decodeUnits(const std::vector<Unit>& units, AVCodecID codec) {
  std::vector<uint64_t> pictures;
  ReferenceDecoder decoder(codec, nullptr);
  AVPacket* packet = av_packet_alloc();
  for (const Unit& unit : units) {
    av_new_packet(packet, static_cast<int>(unit.bytes.size()));
    std::copy(unit.bytes.begin(), unit.bytes.end(), packet->data);
    decoder.decode(packet, pictures);
    av_packet_unref(packet);
  }
  decoder.decode(nullptr, pictures);
  av_packet_free(&packet);
  return pictures;
}

/// The NAL units of an Annex B access unit, cut at four-byte start codes only.
inline std::vector<std::span<const uint8_t>> nalsOf(std::span<const uint8_t> unit) {
  std::vector<size_t> codes;
  for (size_t at = 0; at + 4 <= unit.size(); ++at) {
    if (unit[at] == 0 && unit[at + 1] == 0 && unit[at + 2] == 0 && unit[at + 3] == 1) codes.push_back(at);
  }
  std::vector<std::span<const uint8_t>> nals;
  for (size_t number = 0; number < codes.size(); ++number) {
    const size_t end = number + 1 < codes.size() ? codes[number + 1] : unit.size();
    nals.push_back(unit.subspan(codes[number] + 4, end - codes[number] - 4));
  }
  return nals;
}

inline bool holdsThreeByteCode(std::span<const uint8_t> nal) {
  for (size_t at = 0; at + 3 <= nal.size(); ++at) {
    if (nal[at] == 0 && nal[at + 1] == 0 && nal[at + 2] == 1) return true;
  }
  return false;
}

}  // namespace vesk::capture::test
