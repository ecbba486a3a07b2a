#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <memory>
#include <string>

#include "platform/decompression/av_picture.h"

namespace vesk::capture {

struct AVPacketFree {
  void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};
struct AVCodecContextFree {
  void operator()(AVCodecContext* context) const noexcept { avcodec_free_context(&context); }
};
struct AVCodecParserFree {
  void operator()(AVCodecParserContext* parser) const noexcept { av_parser_close(parser); }
};
struct AVParametersFree {
  void operator()(AVCodecParameters* parameters) const noexcept { avcodec_parameters_free(&parameters); }
};

using PacketHandle = std::unique_ptr<AVPacket, AVPacketFree>;
using FrameHandle = AVFramePtr;
using CodecHandle = std::unique_ptr<AVCodecContext, AVCodecContextFree>;
using ParserHandle = std::unique_ptr<AVCodecParserContext, AVCodecParserFree>;
using ParametersHandle = std::shared_ptr<AVCodecParameters>;

/// Nothing larger is taken from a file: no frame of video and no packet of sound.
constexpr int kMaxFrameBytes = 64 << 20;

/// What libav says about an error of its own.
inline std::string avErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  return av_strerror(error, text, sizeof text) == 0 ? text : "unknown error";
}

}  // namespace vesk::capture
