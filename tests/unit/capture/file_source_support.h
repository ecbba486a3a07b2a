#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vesk/four_char_code.h>
#include "capture/files/footage.h"
#include "tests/support/av_clip.h"
#include "tests/support/h264_stream.h"

namespace vesk::capture::test {

using vesk::test::AVInput;
using vesk::test::bestTrack;
using vesk::test::Bytes;
using vesk::test::bytes;
using vesk::test::ClipDecoder;
using vesk::test::contentOf;
using vesk::test::forEachPacket;
using vesk::test::openClip;
using vesk::test::samplesOf;
using vesk::test::TemporaryFolder;

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
  const AVInput in = openClip(from);
  ASSERT_TRUE(in);
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
  forEachPacket(in.get(), [&](const AVPacket& original) {
    AVPacket* packet = av_packet_clone(&original);
    const AVStream& track = *in->streams[packet->stream_index];
    if (track.codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      packet->pts += shift;
      packet->dts += shift;
    }
    av_packet_rescale_ts(packet, track.time_base, out->streams[packet->stream_index]->time_base);
    EXPECT_GE(av_interleaved_write_frame(out, packet), 0);
    av_packet_free(&packet);
  });
  ASSERT_GE(av_write_trailer(out), 0);
  avio_closep(&out->pb);
  avformat_free_context(out);
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

/// A number that stands for what a picture shows.
inline uint64_t hashOf(const AVFrame& picture) {
  const Bytes samples = samplesOf(picture);
  return std::hash<std::string_view>()({reinterpret_cast<const char*>(samples.data()), samples.size()});
}

/// A file as libav reads it by itself, without anything of ours.
struct Original {
  std::vector<Bytes> packets;
  std::vector<double> times;       ///< when each is shown, microseconds; not a number when the file does not say
  std::vector<uint64_t> pictures;  ///< a hash of each decoded picture, in the order of presentation
};

inline Original readOriginal(const std::string& path, AVMediaType kind) {
  Original original;
  const AVInput clip = openClip(path);
  const int index = clip ? bestTrack(clip, kind) : -1;
  if (index < 0) return original;
  const AVStream& track = *clip->streams[index];
  ClipDecoder decoder(track.codecpar->codec_id, track.codecpar);
  const auto take = [&](const AVFrame& picture) { original.pictures.push_back(hashOf(picture)); };
  forEachPacket(clip.get(), [&](const AVPacket& packet) {
    if (packet.stream_index != index) return;
    original.packets.emplace_back(packet.data, packet.data + packet.size);
    const double unit = av_q2d(track.time_base) * 1e6;
    original.times.push_back(packet.pts == AV_NOPTS_VALUE ? NAN : static_cast<double>(packet.pts) * unit);
    if (kind == AVMEDIA_TYPE_VIDEO) decoder.decode(&packet, take);
  });
  if (kind == AVMEDIA_TYPE_VIDEO) decoder.decode(nullptr, take);
  return original;
}

/// The pictures that a decoder makes of access units, which must tell it all it needs to know.
inline std::vector<uint64_t> decodeUnits(const std::vector<Unit>& units, AVCodecID codec) {
  std::vector<uint64_t> pictures;
  const auto take = [&](const AVFrame& picture) { pictures.push_back(hashOf(picture)); };
  ClipDecoder decoder(codec);
  for (const Unit& unit : units) {
    Bytes padded = unit.bytes;
    padded.resize(unit.bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    AVPacket packet{};
    packet.data = padded.data();
    packet.size = static_cast<int>(unit.bytes.size());
    packet.pts = packet.dts = AV_NOPTS_VALUE;
    decoder.decode(&packet, take);
  }
  decoder.decode(nullptr, take);
  return pictures;
}

}  // namespace vesk::capture::test
