#include "platform/decompression/av_frame_decoder.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include <vesk/four_char_code.h>
#include "platform/decompression/av_codec_lookup.h"
#include "platform/decompression/described_colour.h"
#include "platform/decompression/picture_limits.h"
#include "platform/h264/nal_unit.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
}

namespace vesk {
namespace {

constexpr size_t kLeastBuffer = 65536;  // bytes
constexpr int kMostPicturesAtOnce = 32;

OSStatus statusOf(int error) {
  switch (error) {
    case AVERROR(ENOMEM):
      return memFullErr;
    case AVERROR(ENOSYS):
    case AVERROR_PATCHWELCOME:
      return codecUnimpErr;
    default:
      return codecBadDataErr;
  }
}

bool setExtradata(AVCodecContext& context, std::span<const uint8_t> record) {
  auto* const copy = static_cast<uint8_t*>(av_mallocz(record.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (!copy) return false;
  std::copy(record.begin(), record.end(), copy);
  context.extradata = copy;
  context.extradata_size = static_cast<int>(record.size());
  return true;
}

/// What a length-prefixed H.264 frame holds.
struct Units {
  std::span<const uint8_t> whole;  ///< without a unit that is cut off at the end
  bool hasSlice = false;           ///< any part of a picture
};

Units unitsOf(std::span<const uint8_t> data) {
  Units units;
  h264::NALUnitWalk walk(data);
  while (const auto unit = walk.next()) {
    units.whole = data.first(static_cast<size_t>(unit->data() - data.data()) + unit->size());
    const uint8_t type = unit->empty() ? 0 : h264::unitType(unit->front());
    units.hasSlice |= type >= h264::kSlice && type <= h264::kIDRSlice;
  }
  return units;
}

/// The lines that libav prints about odd frames would stand beside ours; a host that has chosen a
/// level of its own keeps it.
void quietLibav() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (av_log_get_level() == AV_LOG_INFO) av_log_set_level(AV_LOG_QUIET);
  });
}

}  // namespace

void AVFrameDecoder::FreeContext::operator()(AVCodecContext* context) const noexcept {
  avcodec_free_context(&context);
}

void AVFrameDecoder::FreePacket::operator()(AVPacket* packet) const noexcept {
  av_packet_free(&packet);
}

void AVFrameDecoder::FreePool::operator()(AVBufferPool* pool) const noexcept {
  av_buffer_pool_uninit(&pool);
}

std::unique_ptr<FrameDecoder> AVFrameDecoder::create(const ImageDescription& description) {
  const uint32_t code = description.get(ImageDescription::kCType);
  const AVCodec* const codec = findAVDecoder(code);
  if (!codec) return nullptr;
  quietLibav();
  Context context(avcodec_alloc_context3(codec));
  if (!context) throw std::bad_alloc();
  context->codec_tag = avCodecTag(code);
  context->width = description.get(ImageDescription::kWidth);
  context->height = description.get(ImageDescription::kHeight);
  context->bits_per_coded_sample = description.get(ImageDescription::kDepth);
  context->max_pixels = static_cast<int64_t>(mostPixelsFor(description));
  context->flags |= AV_CODEC_FLAG_LOW_DELAY | AV_CODEC_FLAG_UNALIGNED;
  context->thread_count = 1;  // frame threads would hold pictures back
  const auto record = description.extension(fourCharCode("avcC"));
  if (record && !setExtradata(*context, *record)) throw std::bad_alloc();
  if (avcodec_open2(context.get(), codec, nullptr) != 0) return nullptr;
  return std::unique_ptr<FrameDecoder>(
      new AVFrameDecoder(std::move(context), describedColour(description), code == kCMVideoCodecType_H264));
}

AVFrameDecoder::AVFrameDecoder(Context context, YCbCrColour colour, bool isH264)
    : mContext(std::move(context)), mPacket(av_packet_alloc()), mColour(colour), mIsH264(isH264) {
  if (!mPacket) throw std::bad_alloc();
}

AVFrameDecoder::~AVFrameDecoder() = default;

OSStatus AVFrameDecoder::decode(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures) {
  return mIsH264 ? decodeH264(data, frame, pictures) : decodePacket(data, frame, pictures);
}

/// libavcodec refuses a whole frame for one unit that is cut off, so that is left out; and it takes
/// parameter sets that come by themselves, but calls them a failure.
OSStatus AVFrameDecoder::decodeH264(std::span<const uint8_t> data, int64_t frame,
                                    std::vector<DecodedPicture>& pictures) {
  const Units units = unitsOf(data);
  if (units.whole.empty()) return codecBadDataErr;
  const OSStatus status = decodePacket(units.whole, frame, pictures);
  return units.hasSlice || units.whole.size() != data.size() || status == memFullErr ? status : noErr;
}

OSStatus AVFrameDecoder::decodePacket(std::span<const uint8_t> data, int64_t frame,
                                      std::vector<DecodedPicture>& pictures) {
  if (!fillPacket(data)) return memFullErr;
  mPacket->pts = frame;
  const int error = avcodec_send_packet(mContext.get(), mPacket.get());
  av_packet_unref(mPacket.get());
  const OSStatus status = receive(pictures);
  return error == 0 ? status : statusOf(error);
}

/// Puts a copy of the frame into the packet: libavcodec reads a little past the end, and decoders of
/// raw pictures hand on the packet's own memory.
bool AVFrameDecoder::fillPacket(std::span<const uint8_t> data) {
  const size_t size = data.size() + AV_INPUT_BUFFER_PADDING_SIZE;
  if (size > mPoolSize) {
    mPoolSize = std::bit_ceil(std::max(size, kLeastBuffer));
    mPool.reset(av_buffer_pool_init(mPoolSize, nullptr));
  }
  mPacket->buf = mPool ? av_buffer_pool_get(mPool.get()) : nullptr;
  if (!mPacket->buf) {
    mPoolSize = 0;
    return false;
  }
  mPacket->data = mPacket->buf->data;
  mPacket->size = static_cast<int>(data.size());
  std::memcpy(mPacket->data, data.data(), data.size());
  std::memset(mPacket->data + data.size(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
  return true;
}

OSStatus AVFrameDecoder::receive(std::vector<DecodedPicture>& pictures) {
  OSStatus status = noErr;
  for (int count = 0; count < kMostPicturesAtOnce; ++count) {
    if (!mFrame) mFrame.reset(av_frame_alloc());
    if (!mFrame) return memFullErr;
    const int error = avcodec_receive_frame(mContext.get(), mFrame.get());
    if (error == AVERROR(EAGAIN)) return status;
    if (error != 0) {
      status = statusOf(error);
      continue;
    }
    const int64_t number = mFrame->pts;
    CVImageBufferRef picture;
    const OSStatus made = makePicture(std::move(mFrame), mColour, &picture);
    if (made == noErr)
      pictures.push_back({std::move(picture), number});
    else
      status = made;
  }
  return status;
}

}  // namespace vesk
