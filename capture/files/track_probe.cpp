#include "capture/files/track_probe.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <string_view>

#include "capture/files/jpeg_size.h"
#include "capture/files/track_decoder.h"
#include "platform/decompression/av_layout.h"
#include "platform/h264/access_unit_writer.h"
#include "platform/pixels/picture_conversion.h"

namespace vesk::capture {

namespace {

constexpr AVRational kUsualRate = {25, 1};
/// Constrained Baseline has no frames that could be reordered; the file's times tell at once.
constexpr int kFramesToCheckBaseline = 32;
constexpr int kFramesToCheck = 300;
/// Changes of parameter sets and of size are looked for so far: to the end of most footage, and for 15 ms of
/// work in the rest.
constexpr size_t kBytesToCheck = size_t{32} << 20;
constexpr int kAacFrames = 1024;

std::string cannotRead(const TrackReader& reader, const std::string& what) {
  const std::string& why = reader.damage();
  return fmt::format("{}: {}{}{}", reader.choice().path, what, why.empty() ? "" : ": ", why);
}

bool isRate(AVRational rate) {
  return rate.num > 0 && rate.den > 0 && av_q2d(rate) < 1000 && av_q2d(rate) > 0.01;
}

/// The average rate of a video track: the container's, the stream's own, or what its packet says.
AVRational averageRate(const TrackReader& reader, AVRational streamRate) {
  const AVStream& stream = reader.stream();
  if (!reader.isUntimed()) {
    if (isRate(stream.avg_frame_rate)) return stream.avg_frame_rate;
    if (isRate(stream.r_frame_rate)) return stream.r_frame_rate;
  }
  return isRate(streamRate) ? streamRate : kUsualRate;
}

void setRate(VideoTrack& track, AVRational rate) {
  track.choice.packetTime = av_inv_q(rate);
  track.interval = static_cast<uint32_t>(av_rescale(10000000, rate.den, rate.num));
}

/// The rate that the duration of a packet speaks of.
AVRational rateOfPacket(const TrackReader& reader) {
  const int64_t duration = std::clamp<int64_t>(reader.packet()->duration, 0, INT_MAX);
  const AVRational seconds = av_mul_q({static_cast<int>(duration), 1}, reader.stream().time_base);
  return seconds.num > 0 ? av_inv_q(seconds) : AVRational{0, 1};
}

/// Whether H.264 frames are shown in the order in which they stand, as far as that has been looked at.
class OrderCheck {
 public:
  explicit OrderCheck(const AVCodecParameters& parameters)
      : mContext(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))),
        mParser(av_parser_init(AV_CODEC_ID_H264)) {
    mIsUsable = mContext && mParser && avcodec_parameters_to_context(mContext.get(), &parameters) >= 0;
    if (mParser) mParser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
  }

  bool isUsable() const { return mIsUsable; }
  bool isInOrder() const { return mIsInOrder; }
  bool isDone() const { return mCount >= mLimit || !mIsInOrder; }
  // Of the first frame.
  int width() const { return mWidth; }
  int height() const { return mHeight; }
  AVPixelFormat format() const { return mFormat; }
  AVRational rate() const { return av_mul_q(mContext->framerate, {1, 2}); }  // the parser counts fields

  void look(const TrackReader& reader) {
    const AVPacket& packet = *reader.packet();
    uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(mParser.get(), mContext.get(), &out, &outSize, packet.data, packet.size, packet.pts, packet.dts,
                     -1);
    if (mWidth <= 0 || mHeight <= 0) {
      mWidth = mParser->width;
      mHeight = mParser->height;
      mFormat = static_cast<AVPixelFormat>(mParser->format);
    }
    if (mParser->key_frame == 1) mLastNumber = std::numeric_limits<int>::min();
    const bool isField = mParser->picture_structure == AV_PICTURE_STRUCTURE_TOP_FIELD ||
                         mParser->picture_structure == AV_PICTURE_STRUCTURE_BOTTOM_FIELD;
    mIsInOrder = mParser->output_picture_number >= mLastNumber && reader.time() >= mLastTime && !isField &&
                 mParser->pict_type != AV_PICTURE_TYPE_B;
    mLastNumber = mParser->output_picture_number;
    mLastTime = reader.time();
    if (mContext->profile == FF_PROFILE_H264_CONSTRAINED_BASELINE) mLimit = kFramesToCheckBaseline;
    ++mCount;
  }

 private:
  const CodecHandle mContext;
  const ParserHandle mParser;
  bool mIsUsable = false;
  int mWidth = 0;
  int mHeight = 0;
  AVPixelFormat mFormat = AV_PIX_FMT_NONE;
  bool mIsInOrder = true;
  int mCount = 0;
  int mLimit = kFramesToCheck;
  int mLastNumber = std::numeric_limits<int>::min();
  int64_t mLastTime = std::numeric_limits<int64_t>::min();
};

/// Looks at an H.264 track: its size, whether its frames are shown in the order in which they stand,
/// and whether they keep to their parameter sets. @return false when there is no frame.
bool probeH264(TrackReader& reader, VideoTrack& track, int64_t& start, AVRational& rate) {
  const AVCodecParameters& parameters = *reader.stream().codecpar;
  OrderCheck order(parameters);
  if (!order.isUsable()) return false;
  h264::AccessUnitWriter units(reader.header());
  bool isAsFromCamera = true;
  size_t bytes = 0;
  const auto isDone = [&] { return !isAsFromCamera || (order.isDone() && bytes >= kBytesToCheck); };
  while ((start == Probe::kNever || !isDone()) && reader.read()) {
    if (!order.isDone()) order.look(reader);
    if (!reader.isHidden()) start = std::min(start, reader.time());
    bytes += reader.bytes().size();
    if (const auto header = reader.newHeader(); !header.empty()) units.learn(header);
    units.write(reader.bytes());  // after all else: it rewrites the packet
    isAsFromCamera = order.isInOrder() && units.keepsToItsSets();
  }
  if (order.width() <= 0 || order.height() <= 0 || start == Probe::kNever) return false;
  track.width = order.width();
  track.height = order.height();
  track.canBeDecoded = Packed422Converter::canConvert(pixelLayoutOf(order.format()));
  // What can neither be decoded nor kept to one set is still better than nothing.
  const bool isDelivered = isAsFromCamera || (order.isInOrder() && !track.canBeDecoded);
  track.coding = isDelivered ? VideoCoding::kH264 : VideoCoding::kOther;
  rate = order.rate();
  return true;
}

/// Whether all frames of a Motion JPEG track are of one size.
bool keepsItsSize(TrackReader& reader) {
  std::optional<JpegSize> first;
  for (size_t bytes = 0; bytes < kBytesToCheck && reader.read(); bytes += reader.bytes().size()) {
    const auto size = jpegSize(reader.bytes());
    if (size && first && *size != *first) return false;
    if (size) first = size;
  }
  return true;
}

/// Decodes the first frame of a track. @return false when none can be decoded.
bool probeDecoded(std::unique_ptr<TrackReader>& reader, VideoTrack& track, int64_t& start, AVRational& rate,
                  std::string& error) {
  auto decoder = TrackDecoder::open(std::move(reader), error);
  if (!decoder) return false;
  const AVCodecID codec = decoder->reader().stream().codecpar->codec_id;
  const AVFrame* frame = decoder->next();
  if (frame == nullptr) {
    error = cannotRead(decoder->reader(), "no picture in it can be decoded");
    return false;
  }
  const auto format = static_cast<AVPixelFormat>(frame->format);
  track.width = frame->width;
  track.height = frame->height;
  track.canBeDecoded = Packed422Converter::canConvert(pixelLayoutOf(format));
  rate = isRate(decoder->codec().framerate) ? decoder->codec().framerate : rateOfPacket(decoder->reader());
  start = std::min(start, decoder->time().value_or(0));
  const bool isPacked = codec == AV_CODEC_ID_RAWVIDEO && format == AV_PIX_FMT_UYVY422 && frame->width % 2 == 0;
  if (codec == AV_CODEC_ID_MJPEG) track.coding = VideoCoding::kMotionJPEG;
  if (isPacked) track.coding = VideoCoding::kPacked422;
  if (track.coding == VideoCoding::kOther && !track.canBeDecoded) {
    error = cannotRead(decoder->reader(), "its pictures are in a format that cannot be converted");
    return false;
  }
  reader = decoder->release();
  if (track.coding == VideoCoding::kMotionJPEG && track.canBeDecoded) {
    if (!keepsItsSize(*reader)) track.coding = VideoCoding::kOther;
    reader->rewind();
  }
  return true;
}

/// Whether the AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) or ADTS header names its channels by
/// number: packets with a channel list of their own cannot be described by the count alone.
bool namesChannels(const AVCodecParameters& parameters) {
  if (parameters.extradata_size < 2) return true;  // ADTS, whose packets say so themselves
  const unsigned bits = unsigned{parameters.extradata[0]} << 8 | parameters.extradata[1];
  const unsigned rateIndex = bits >> 7 & 0xF;
  return rateIndex != 15 && (bits >> 3 & 0xF) != 0;
}

}  // namespace

std::optional<VideoTrack> probeVideo(Probe& probe, std::string& error) {
  VideoTrack track;
  AVRational rate = {0, 1};
  if (probe.reader->stream().codecpar->codec_id == AV_CODEC_ID_H264) {
    if (!probeH264(*probe.reader, track, probe.start, rate)) {
      error = cannotRead(*probe.reader, "no picture in it can be read");
      return std::nullopt;
    }
    if (track.coding == VideoCoding::kOther && !track.canBeDecoded) {
      error = cannotRead(*probe.reader, "its pictures are in a format that cannot be converted");
      return std::nullopt;
    }
    probe.reader->rewind();
  } else if (!probeDecoded(probe.reader, track, probe.start, rate, error)) {
    return std::nullopt;
  }
  if (int64_t{track.width} * track.height > kMaxFrameBytes / 2) {
    error = cannotRead(*probe.reader, fmt::format("pictures of {}x{} are too large", track.width, track.height));
    return std::nullopt;
  }
  track.choice = probe.reader->choice();
  setRate(track, averageRate(*probe.reader, rate));
  return track;
}

std::optional<SoundTrack> probeSound(Probe& probe, std::string& error) {
  const std::string path = probe.reader->choice().path;
  auto decoder = TrackDecoder::open(std::move(probe.reader), error);
  if (!decoder) return std::nullopt;
  const AVFrame* frame = decoder->next();
  if (frame == nullptr) {
    error = cannotRead(decoder->reader(), "no sound in it can be decoded");
    return std::nullopt;
  }
  SoundTrack track;
  track.choice = decoder->reader().choice();
  track.samplesPerSecond = static_cast<uint32_t>(std::max(frame->sample_rate, 0));
  track.channels = static_cast<uint16_t>(std::clamp(frame->ch_layout.nb_channels, 0, 64));
  if (track.samplesPerSecond < 1000 || track.samplesPerSecond > 768000 || track.channels == 0) {
    error = fmt::format("{}: sound of {} channels at {} samples a second is not supported", path, track.channels,
                        track.samplesPerSecond);
    return std::nullopt;
  }
  const AVCodecContext& codec = decoder->codec();
  const AVCodecParameters& parameters = *decoder->reader().stream().codecpar;
  probe.start = std::min(probe.start, decoder->time().value_or(0));
  track.isBareStream = std::string_view(decoder->reader().container().context()->iformat->name) == "aac";
  if (codec.codec_id == AV_CODEC_ID_PCM_S16LE) track.coding = SoundCoding::kPCM;
  const bool isPlain = codec.codec_id == AV_CODEC_ID_AAC && codec.profile == FF_PROFILE_AAC_LOW &&
                       codec.frame_size == kAacFrames && track.channels <= 6 && namesChannels(parameters);
  if (isPlain) track.coding = SoundCoding::kAAC;
  track.choice.packetTime = {std::max(frame->nb_samples, 1), frame->sample_rate};
  probe.reader = decoder->release();
  return track;
}

}  // namespace vesk::capture
