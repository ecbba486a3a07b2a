#include "capture/simulated/picture_maker.h"

#include <algorithm>
#include <vector>

#include "capture/files/access_unit_writer.h"
#include "capture/files/av_handles.h"
#include "platform/media/four_char_code.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace vesk::capture {
namespace {

constexpr int kQuiet = AV_LOG_TRACE;   // keeps the encoder's lines off standard error
constexpr int kKeyPictureSeconds = 2;  // at most, from key picture to key picture
constexpr int kJpegQuality = 4;        // 2 best to 31

/// "2vuy": the pattern as it is painted.
class RawMaker : public PictureMaker {
 public:
  RawMaker(int width, int height)
      : mPattern(PictureLayout::kPacked422, width, height),
        mRowBytes(static_cast<size_t>(width) * 2),
        mBytes(mRowBytes * static_cast<size_t>(height)) {}

  std::span<uint8_t> make(uint32_t counter, bool isFlash, const PictureLook& look) override {
    mPattern.paint(counter, isFlash, look, {{mBytes.data()}, {mRowBytes}});
    return mBytes;
  }

 private:
  SimulatedPattern mPattern;
  const size_t mRowBytes;
  std::vector<uint8_t> mBytes;
};

/// A picture through an encoder that gives each one out as it goes in.
class EncodedMaker : public PictureMaker {
 public:
  EncodedMaker(CodecHandle encoder, PictureLayout layout)
      : mEncoder(std::move(encoder)), mPattern(layout, mEncoder->width, mEncoder->height) {}

  bool prepare() {
    if (!mFrame || !mPacket) return false;
    mFrame->format = mEncoder->pix_fmt;
    mFrame->width = mEncoder->width;
    mFrame->height = mEncoder->height;
    mFrame->quality = mEncoder->global_quality;
    return av_frame_get_buffer(mFrame.get(), 0) == 0;
  }

  std::span<uint8_t> make(uint32_t counter, bool isFlash, const PictureLook& look) override {
    if (av_frame_make_writable(mFrame.get()) < 0) return {};
    PicturePlanes planes;
    for (size_t plane = 0; plane < 3; ++plane) {
      planes.bytes[plane] = mFrame->data[plane];
      planes.rowBytes[plane] = static_cast<size_t>(mFrame->linesize[plane]);
    }
    mPattern.paint(counter, isFlash, look, planes);
    mFrame->pts = mCount++;
    av_packet_unref(mPacket.get());
    if (avcodec_send_frame(mEncoder.get(), mFrame.get()) < 0) return {};
    if (avcodec_receive_packet(mEncoder.get(), mPacket.get()) < 0) return {};
    return finish({mPacket->data, static_cast<size_t>(mPacket->size)});
  }

 protected:
  virtual std::span<uint8_t> finish(std::span<uint8_t> packet) { return packet; }

 private:
  const CodecHandle mEncoder;
  SimulatedPattern mPattern;
  const FrameHandle mFrame{av_frame_alloc()};
  const PacketHandle mPacket{av_packet_alloc()};
  int64_t mCount = 0;
};

/// H.264 as cameras give it: the encoder's three-byte start codes become four-byte ones.
class H264Maker : public EncodedMaker {
 public:
  using EncodedMaker::EncodedMaker;

 protected:
  std::span<uint8_t> finish(std::span<uint8_t> packet) override {
    const auto unit = mWriter.write(packet);
    return unit ? unit->bytes : std::span<uint8_t>();
  }

 private:
  AccessUnitWriter mWriter{{}};
};

CodecHandle allocate(const char* name, const VideoParameters& parameters, const Cadence& cadence) {
  const AVCodec* const codec = avcodec_find_encoder_by_name(name);
  CodecHandle encoder(codec ? avcodec_alloc_context3(codec) : nullptr);
  if (!encoder) return nullptr;
  encoder->width = parameters.width;
  encoder->height = parameters.height;
  encoder->time_base = {static_cast<int>(cadence.numerator()), static_cast<int>(cadence.denominator())};
  encoder->framerate = {static_cast<int>(cadence.denominator()), static_cast<int>(cadence.numerator())};
  encoder->thread_count = 1;
  encoder->log_level_offset = kQuiet;
  return encoder;
}

/// No reordering and no waiting: a picture goes out as it goes in.
CodecHandle makeH264Encoder(const VideoParameters& parameters, const Cadence& cadence) {
  CodecHandle encoder = allocate("libx264", parameters, cadence);
  if (!encoder) return nullptr;
  const bool isHighDefinition = parameters.height >= kFirstHighDefinitionLine;
  const int64_t bitPerPixel = int64_t{parameters.width} * parameters.height;  // and second
  const int64_t bitRate = parameters.bitRate ? parameters.bitRate : bitPerPixel;
  const auto secondsInPictures = kKeyPictureSeconds * int64_t{cadence.denominator()} / cadence.numerator();
  encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder->color_range = AVCOL_RANGE_MPEG;
  encoder->colorspace = isHighDefinition ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
  encoder->color_primaries = isHighDefinition ? AVCOL_PRI_BT709 : AVCOL_PRI_SMPTE170M;
  encoder->color_trc = AVCOL_TRC_BT709;
  encoder->bit_rate = bitRate;
  encoder->rc_max_rate = bitRate;
  encoder->rc_buffer_size = static_cast<int>(std::min<int64_t>(bitRate, INT32_MAX));
  encoder->gop_size = static_cast<int>(std::max<int64_t>(1, secondsInPictures));
  encoder->max_b_frames = 0;
  av_opt_set(encoder->priv_data, "preset", "ultrafast", 0);
  av_opt_set(encoder->priv_data, "tune", "zerolatency", 0);
  av_opt_set(encoder->priv_data, "profile", "baseline", 0);
  av_opt_set(encoder->priv_data, "x264-params", "annexb=1:repeat-headers=1:scenecut=0:sliced-threads=0:log=0", 0);
  return avcodec_open2(encoder.get(), nullptr, nullptr) == 0 ? std::move(encoder) : nullptr;
}

CodecHandle makeJpegEncoder(const VideoParameters& parameters, const Cadence& cadence) {
  CodecHandle encoder = allocate("mjpeg", parameters, cadence);
  if (!encoder) return nullptr;
  encoder->pix_fmt = AV_PIX_FMT_YUVJ422P;
  encoder->color_range = AVCOL_RANGE_JPEG;
  encoder->flags |= AV_CODEC_FLAG_QSCALE;
  encoder->global_quality = kJpegQuality * FF_QP2LAMBDA;
  return avcodec_open2(encoder.get(), nullptr, nullptr) == 0 ? std::move(encoder) : nullptr;
}

template <class Maker>
std::unique_ptr<PictureMaker> makeEncoded(CodecHandle encoder, PictureLayout layout, std::string& error) {
  if (encoder) {
    auto maker = std::make_unique<Maker>(std::move(encoder), layout);
    if (maker->prepare()) return maker;
  }
  error = "the encoder of the simulated camera could not be set up";
  return nullptr;
}

}  // namespace

std::unique_ptr<PictureMaker> PictureMaker::create(const VideoParameters& parameters, const Cadence& cadence,
                                                   std::string& error) {
  switch (parameters.codec) {
    case kCMVideoCodecType_H264:
      return makeEncoded<H264Maker>(makeH264Encoder(parameters, cadence), PictureLayout::k420, error);
    case kCMVideoCodecType_MotionJPEG:
      return makeEncoded<EncodedMaker>(makeJpegEncoder(parameters, cadence), PictureLayout::k422Full, error);
    case kCMPixelFormat_422YpCbCr8:
      return std::make_unique<RawMaker>(parameters.width, parameters.height);
  }
  error = "the simulated camera has no pictures in " + fourCharString(parameters.codec);
  return nullptr;
}

}  // namespace vesk::capture
