#include "capture/encoding/h264_encoder.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>

extern "C" {
#include <libavutil/opt.h>
}

namespace vesk::capture {
namespace {

constexpr const char* kEncoder = "libx264";
constexpr int kQuiet = AV_LOG_TRACE;  // keeps the encoder's lines off standard error

std::atomic<bool> gIsMissing{false};

const AVCodec* findEncoder() {
  return gIsMissing ? nullptr : avcodec_find_encoder_by_name(kEncoder);
}

void setOption(const CodecHandle& encoder, const char* name, const char* value) {
  av_opt_set(encoder->priv_data, name, value, 0);
}

}  // namespace

bool H264Encoder::isPresent() {
  return findEncoder() != nullptr;
}

void H264Encoder::pretendMissing(bool isMissing) {
  gIsMissing = isMissing;
}

std::unique_ptr<H264Encoder> H264Encoder::create(const Settings& settings, const std::string& camera, Error& error) {
  const auto fail = [&](Cause cause, const std::string& why, const char* remedy) {
    error = {cause, "the pictures of " + camera + " cannot be encoded: " + why, remedy};
    return nullptr;
  };
  const auto failed = [&](int status) {
    if (status == AVERROR(ENOMEM))
      return fail(Cause::kOther, "there is not enough memory", "Close other programs, or choose a smaller size.");
    return fail(
        Cause::kNoFormat,
        fmt::format("the H.264 encoder refuses {} × {} at {:.4g} pictures and {} bits a second ({})", settings.width,
                    settings.height,
                    static_cast<double>(settings.intervalDenominator) / std::max(settings.intervalNumerator, 1U),
                    settings.bitRate, avErrorText(status)),
        "Choose another size, rate or format.");
  };
  const AVCodec* const codec = findEncoder();
  if (!codec)
    return fail(Cause::kNoEncoder, "this computer has no H.264 encoder",
                "Install a libavcodec that has libx264, or choose another format.");
  CodecHandle encoder(avcodec_alloc_context3(codec));
  if (!encoder) return failed(AVERROR(ENOMEM));
  const bool isTimed = settings.intervalNumerator > 0 && settings.intervalNumerator <= INT32_MAX &&
                       settings.intervalDenominator > 0 && settings.intervalDenominator <= INT32_MAX;
  const bool isEven = settings.width > 0 && settings.height > 0 && (settings.width | settings.height) % 2 == 0;
  if (!isTimed || !isEven) return failed(AVERROR(EINVAL));  // libx264 loses memory when it refuses by itself
  const auto numerator = static_cast<int>(settings.intervalNumerator);
  const auto denominator = static_cast<int>(settings.intervalDenominator);
  encoder->width = settings.width;
  encoder->height = settings.height;
  encoder->time_base = {numerator, denominator};
  encoder->framerate = {denominator, numerator};
  encoder->thread_count = settings.threads;
  encoder->log_level_offset = kQuiet;
  encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder->color_range = AVCOL_RANGE_MPEG;
  encoder->colorspace = settings.matrix;
  encoder->color_primaries = settings.primaries;
  encoder->color_trc = AVCOL_TRC_BT709;
  encoder->bit_rate = settings.bitRate;
  encoder->rc_max_rate = settings.bitRate;
  encoder->rc_buffer_size = static_cast<int>(std::min<uint32_t>(settings.bitRate, INT32_MAX));
  encoder->gop_size =
      static_cast<int>(std::clamp<int64_t>(kKeyFrameSeconds * int64_t{denominator} / numerator, 1, INT32_MAX));
  encoder->max_b_frames = 0;
  setOption(encoder, "preset", settings.preset);
  setOption(encoder, "tune", "zerolatency");
  setOption(encoder, "profile", settings.profile);
  setOption(encoder, "forced-idr", "1");
  const std::string slices = settings.threads > 1 ? "1" : "0";
  setOption(encoder, "x264-params", ("annexb=1:repeat-headers=1:scenecut=0:log=0:sliced-threads=" + slices).c_str());
  if (const int status = avcodec_open2(encoder.get(), nullptr, nullptr); status != 0) return failed(status);
  std::unique_ptr<H264Encoder> made(new H264Encoder(std::move(encoder)));
  if (!made->mPacket) return failed(AVERROR(ENOMEM));
  return made;
}

FrameHandle H264Encoder::makeFrame() const {
  FrameHandle frame(av_frame_alloc());
  if (!frame) return nullptr;
  frame->format = mEncoder->pix_fmt;
  frame->width = mEncoder->width;
  frame->height = mEncoder->height;
  return av_frame_get_buffer(frame.get(), 0) == 0 ? std::move(frame) : nullptr;
}

std::optional<h264::AccessUnitWriter::AccessUnit> H264Encoder::encode(AVFrame& frame, bool mustBeKey) {
  frame.pts = mCount++;
  frame.pict_type = mustBeKey ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  av_packet_unref(mPacket.get());
  if (avcodec_send_frame(mEncoder.get(), &frame) < 0) return std::nullopt;
  if (avcodec_receive_packet(mEncoder.get(), mPacket.get()) < 0) return std::nullopt;
  return mWriter.write({mPacket->data, static_cast<size_t>(mPacket->size)});
}

}  // namespace vesk::capture
