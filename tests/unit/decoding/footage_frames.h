#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include <vesk/decoder_protocol.h>
#include <vesk/four_char_code.h>
#include "tests/support/av_clip.h"
#include "tests/support/h264_stream.h"

namespace vesk::test {

using Samples = Bytes;

/// A clip as a camera of its kind sends it.
struct Footage {
  uint32_t codec = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<Bytes> frames;
};

inline void addUnit(Bytes& frame, const uint8_t* unit, size_t size) {
  frame.insert(frame.end(), {0, 0, 0, 1});
  frame.insert(frame.end(), unit, unit + size);
}

/// Lengths become start codes, with the parameter sets of the record before a key picture.
inline Bytes withStartCodes(const AVPacket& packet, const AVCodecParameters& parameters) {
  Bytes frame;
  const uint8_t* record = parameters.extradata + 5;
  for (int kind = 0; kind < 2 && (packet.flags & AV_PKT_FLAG_KEY) != 0; ++kind)
    for (int left = *record++ & 0x1F; left > 0; --left) {
      const size_t size = size_t{record[0]} << 8 | record[1];
      addUnit(frame, record + 2, size);
      record += 2 + size;
    }
  for (const uint8_t* at = packet.data; at < packet.data + packet.size;) {
    const size_t size = size_t{at[0]} << 24 | size_t{at[1]} << 16 | size_t{at[2]} << 8 | at[3];
    addUnit(frame, at + 4, size);
    at += 4 + size;
  }
  return frame;
}

inline Footage footageOf(const std::string& path) {
  const AVInput clip = openClip(path);
  EXPECT_TRUE(clip) << path;
  if (!clip) return {};
  const int track = bestTrack(clip, AVMEDIA_TYPE_VIDEO);
  const AVCodecParameters& parameters = *clip->streams[track]->codecpar;
  const bool isH264 = parameters.codec_id == AV_CODEC_ID_H264;
  const bool isBoxed = isH264 && parameters.extradata_size > 6 && parameters.extradata[0] == 1;
  Footage footage;
  footage.codec = isH264                                        ? kCMVideoCodecType_H264
                  : parameters.codec_id == AV_CODEC_ID_RAWVIDEO ? kCMPixelFormat_422YpCbCr8
                                                                : kCMVideoCodecType_MotionJPEG;
  footage.width = static_cast<uint32_t>(parameters.width);
  footage.height = static_cast<uint32_t>(parameters.height);
  forEachPacket(clip.get(), [&](const AVPacket& packet) {
    if (packet.stream_index != track)
      return;
    else if (isBoxed)
      footage.frames.push_back(withStartCodes(packet, parameters));
    else if (isH264)
      footage.frames.push_back(withLongCodes({packet.data, packet.data + packet.size}));
    else
      footage.frames.emplace_back(packet.data, packet.data + packet.size);
  });
  return footage;
}

/// The pictures of a clip as libavcodec decodes it the usual way, from the packets of the file as they
/// stand and with all the delay that it likes.
inline std::vector<Samples> decodeConventionally(const std::string& path) {
  const AVInput clip = openClip(path);
  const int track = bestTrack(clip, AVMEDIA_TYPE_VIDEO);
  ClipDecoder decoder(clip->streams[track]->codecpar->codec_id, clip->streams[track]->codecpar);
  std::vector<Samples> pictures;
  const auto take = [&](const AVFrame& picture) { pictures.push_back(samplesOf(picture)); };
  forEachPacket(clip.get(), [&](const AVPacket& packet) {
    if (packet.stream_index == track) decoder.decode(&packet, take);
  });
  decoder.decode(nullptr, take);
  return pictures;
}

inline Samples samplesOf(const CVPixelBuffer& picture) {
  const auto width = static_cast<size_t>(picture.width());
  const auto height = static_cast<size_t>(picture.height());
  const uint32_t format = picture.pixelFormat();
  Samples samples;
  for (size_t i = 0; i < picture.planeCount(); ++i) {
    const bool isChroma = i > 0 && format != kCVPixelFormat_444Planar;
    const size_t rows = isChroma && format == kCVPixelFormat_420Planar ? (height + 1) / 2 : height;
    const size_t row = isChroma ? (width + 1) / 2 : format == kCMPixelFormat_422YpCbCr8 ? width * 2 : width;
    const PixelPlane& plane = picture.plane(i);
    for (size_t y = 0; y < rows; ++y)
      samples.insert(samples.end(), plane.data + y * plane.bytesPerRow, plane.data + y * plane.bytesPerRow + row);
  }
  return samples;
}

/// Keeps every picture.
struct Pictures : DecoderProtocol {
  void displayData(CVImageBufferRef image) override { all.push_back(std::move(image)); }
  std::vector<CVImageBufferRef> all;
};

}  // namespace vesk::test
