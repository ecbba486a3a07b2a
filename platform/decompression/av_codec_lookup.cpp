#include "platform/decompression/av_codec_lookup.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace vesk {
namespace {

AVCodecID codecId(uint32_t code) {
  const AVCodecTag* const tables[] = {avformat_get_mov_video_tags(), avformat_get_riff_video_tags(), nullptr};
  return av_codec_get_id(tables, avCodecTag(code));
}

}  // namespace

const AVCodec* findAVDecoder(uint32_t code) {
  const AVCodecID id = codecId(code);
  if (id == AV_CODEC_ID_NONE) return nullptr;
  const AVCodec* const codec = avcodec_find_decoder(id);
  if (!codec || codec->type != AVMEDIA_TYPE_VIDEO || (codec->capabilities & AV_CODEC_CAP_HARDWARE) != 0) return nullptr;
  return codec;
}

const char* avCodecName(uint32_t code) {
  const AVCodec* const codec = findAVDecoder(code);
  return codec ? avcodec_get_name(codec->id) : nullptr;
}

}  // namespace vesk
