#include "capture/simulated/frame_maker.h"

#include <utility>
#include <vector>

#include <vesk/four_char_code.h>
#include "capture/encoding/h264_encoder.h"
#include "capture/interface/frame_intervals.h"
#include "capture/interface/usual_bit_rate.h"
#include "platform/decompression/av_layout.h"

namespace vesk::capture {
namespace {

constexpr int kQuiet = AV_LOG_TRACE;  // keeps the encoder's lines off standard error
constexpr int kJpegQuality = 4;       // 2 best to 31

/// "2vuy": the pattern as it is painted.
class RawMaker : public FrameMaker {
 public:
  RawMaker(int width, int height)
      : mPattern(PatternLayout::kPacked422, width, height),
        mRowBytes(static_cast<size_t>(width) * 2),
        mBytes(mRowBytes * static_cast<size_t>(height)) {}

  std::span<uint8_t> make(uint32_t counter, bool isFlash, const ImageSettings& settings) override {
    mPattern.paint(counter, isFlash, settings, {{mBytes.data()}, {mRowBytes}});
    return mBytes;
  }

 private:
  SimulatedPattern mPattern;
  const size_t mRowBytes;
  std::vector<uint8_t> mBytes;
};

/// Paints the pattern into the planes that an encoder takes.
class PlanesMaker : public FrameMaker {
 public:
  PlanesMaker(FrameHandle frame, PatternLayout layout)
      : mFrame(std::move(frame)), mPattern(layout, mFrame->width, mFrame->height) {}

  std::span<uint8_t> make(uint32_t counter, bool isFlash, const ImageSettings& settings) override {
    if (av_frame_make_writable(mFrame.get()) < 0) return {};
    mPattern.paint(counter, isFlash, settings, planeMemoryOf(*mFrame));
    return encode(*mFrame);
  }

 private:
  virtual std::span<uint8_t> encode(AVFrame& frame) = 0;

  const FrameHandle mFrame;
  SimulatedPattern mPattern;
};

class H264Maker : public PlanesMaker {
 public:
  H264Maker(std::unique_ptr<H264Encoder> encoder, FrameHandle frame)
      : PlanesMaker(std::move(frame), PatternLayout::k420), mEncoder(std::move(encoder)) {}

  void makeKeyFrame() override { mIsKey = true; }

 private:
  std::span<uint8_t> encode(AVFrame& frame) override {
    const auto unit = mEncoder->encode(frame, std::exchange(mIsKey, false));
    return unit ? unit->bytes : std::span<uint8_t>();
  }

  const std::unique_ptr<H264Encoder> mEncoder;
  bool mIsKey = false;
};

class JPEGMaker : public PlanesMaker {
 public:
  JPEGMaker(CodecHandle encoder, PacketHandle packet, FrameHandle frame)
      : PlanesMaker(std::move(frame), PatternLayout::k422Full),
        mEncoder(std::move(encoder)),
        mPacket(std::move(packet)) {}

 private:
  std::span<uint8_t> encode(AVFrame& frame) override {
    frame.pts = mCount++;
    av_packet_unref(mPacket.get());
    if (avcodec_send_frame(mEncoder.get(), &frame) < 0) return {};
    if (avcodec_receive_packet(mEncoder.get(), mPacket.get()) < 0) return {};
    return {mPacket->data, static_cast<size_t>(mPacket->size)};
  }

  const CodecHandle mEncoder;
  const PacketHandle mPacket;
  int64_t mCount = 0;
};

std::unique_ptr<FrameMaker> makeH264Maker(const VideoParameters& parameters, const Cadence& cadence,
                                          const std::string& camera, Error& error) {
  const bool isHighDefinition = parameters.height >= kFirstHighDefinitionLine;
  H264Encoder::Settings settings;
  settings.width = parameters.width;
  settings.height = parameters.height;
  settings.intervalNumerator = cadence.numerator();
  settings.intervalDenominator = cadence.denominator();
  const auto bitPerPixel = static_cast<uint32_t>(int64_t{parameters.width} * parameters.height);  // and second
  settings.bitRate = parameters.bitRate ? parameters.bitRate : h264BitRateAt(askedInterval(parameters), bitPerPixel);
  settings.preset = "ultrafast";
  settings.profile = "baseline";
  settings.matrix = isHighDefinition ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
  settings.primaries = isHighDefinition ? AVCOL_PRI_BT709 : AVCOL_PRI_SMPTE170M;
  auto encoder = H264Encoder::create(settings, camera, error);
  FrameHandle frame = encoder ? encoder->makeFrame() : nullptr;
  return frame ? std::make_unique<H264Maker>(std::move(encoder), std::move(frame)) : nullptr;
}

std::unique_ptr<FrameMaker> makeJPEGMaker(const VideoParameters& parameters, const Cadence& cadence) {
  const AVCodec* const codec = avcodec_find_encoder_by_name("mjpeg");
  CodecHandle encoder(codec ? avcodec_alloc_context3(codec) : nullptr);
  PacketHandle packet(av_packet_alloc());
  FrameHandle frame(av_frame_alloc());
  if (!encoder || !packet || !frame) return nullptr;
  encoder->width = parameters.width;
  encoder->height = parameters.height;
  encoder->time_base = {static_cast<int>(cadence.numerator()), static_cast<int>(cadence.denominator())};
  encoder->framerate = {static_cast<int>(cadence.denominator()), static_cast<int>(cadence.numerator())};
  encoder->thread_count = 1;
  encoder->log_level_offset = kQuiet;
  encoder->pix_fmt = AV_PIX_FMT_YUVJ422P;
  encoder->color_range = AVCOL_RANGE_JPEG;
  encoder->flags |= AV_CODEC_FLAG_QSCALE;
  encoder->global_quality = kJpegQuality * FF_QP2LAMBDA;
  if (avcodec_open2(encoder.get(), nullptr, nullptr) != 0) return nullptr;
  frame->format = encoder->pix_fmt;
  frame->width = encoder->width;
  frame->height = encoder->height;
  frame->quality = encoder->global_quality;
  if (av_frame_get_buffer(frame.get(), 0) != 0) return nullptr;
  return std::make_unique<JPEGMaker>(std::move(encoder), std::move(packet), std::move(frame));
}

}  // namespace

std::unique_ptr<FrameMaker> FrameMaker::create(const VideoParameters& parameters, const Cadence& cadence,
                                               const std::string& camera, Error& error) {
  error = {Cause::kOther, "the pictures of " + camera + " cannot be encoded", "Choose another format."};
  switch (parameters.codec) {
    case kCMVideoCodecType_H264:
      return makeH264Maker(parameters, cadence, camera, error);
    case kCMVideoCodecType_MotionJPEG:
      return makeJPEGMaker(parameters, cadence);
    case kCMPixelFormat_422YpCbCr8:
      return std::make_unique<RawMaker>(parameters.width, parameters.height);
    default:
      return nullptr;
  }
}

}  // namespace vesk::capture
