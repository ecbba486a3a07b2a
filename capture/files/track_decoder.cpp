#include "capture/files/track_decoder.h"

#include <fmt/format.h>

namespace vesk::capture {

std::unique_ptr<TrackDecoder> TrackDecoder::open(std::unique_ptr<TrackReader> reader, std::string& error) {
  const AVCodecParameters& parameters = *reader->stream().codecpar;
  const AVCodec* codec = avcodec_find_decoder(parameters.codec_id);
  if (codec == nullptr) {
    error = fmt::format("{}: no decoder for {}", reader->choice().path, avcodec_get_name(parameters.codec_id));
    return nullptr;
  }
  std::unique_ptr<TrackDecoder> decoder(new TrackDecoder);
  decoder->mCodec.reset(avcodec_alloc_context3(codec));
  decoder->mFrame.reset(av_frame_alloc());
  if (!decoder->mCodec || !decoder->mFrame) return nullptr;
  AVCodecContext* context = decoder->mCodec.get();
  context->thread_count = 1;
  context->max_pixels = kMaxFrameBytes / 2;
  context->pkt_timebase = reader->stream().time_base;
  int status = avcodec_parameters_to_context(context, &parameters);
  if (status >= 0) status = avcodec_open2(context, codec, nullptr);
  if (status < 0) {
    error = fmt::format("{}: {} cannot be decoded: {}", reader->choice().path, codec->name, avErrorText(status));
    return nullptr;
  }
  decoder->mReader = std::move(reader);
  return decoder;
}

bool TrackDecoder::start(int64_t time) {
  avcodec_flush_buffers(mCodec.get());
  mIsDraining = false;
  mCount = 0;
  return time > 0 ? mReader->seek(time) : mReader->rewind();
}

const AVFrame* TrackDecoder::next() {
  for (;;) {
    const int status = avcodec_receive_frame(mCodec.get(), mFrame.get());
    if (status >= 0) {
      ++mCount;
      return mFrame.get();
    }
    if (status == AVERROR_EOF || (status == AVERROR(EAGAIN) && mIsDraining)) return nullptr;
    if (status != AVERROR(EAGAIN)) {
      mReader->noteDamage(fmt::format("a frame cannot be decoded: {}", avErrorText(status)));
      if (status != AVERROR_INVALIDDATA) return nullptr;
    }
    if (!mIsDraining) feed();
  }
}

void TrackDecoder::feed() {
  mIsDraining = !mReader->read();
  const int status = avcodec_send_packet(mCodec.get(), mIsDraining ? nullptr : mReader->packet());
  if (status < 0 && status != AVERROR(EAGAIN) && status != AVERROR_EOF) {
    mReader->noteDamage(fmt::format("a frame cannot be decoded: {}", avErrorText(status)));
  }
}

std::optional<int64_t> TrackDecoder::time() const {
  if (mReader->isUntimed()) return mReader->choice().timeOfPackets(mCount - 1);
  if (mFrame->best_effort_timestamp == AV_NOPTS_VALUE) return std::nullopt;
  return mReader->timeOf(mFrame->best_effort_timestamp);
}

std::unique_ptr<TrackReader> TrackDecoder::release() {
  mReader->rewind();
  return std::move(mReader);
}

}  // namespace vesk::capture
