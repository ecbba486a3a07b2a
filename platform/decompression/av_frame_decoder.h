#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <vesk/pixel_buffer.h>
#include "platform/decompression/av_picture.h"
#include "platform/decompression/frame_decoder.h"

struct AVBufferPool;
struct AVCodecContext;
struct AVPacket;

namespace vesk {

/// Everything that libavcodec decodes; H.264 ("avc1") length-prefixed, with the parameter sets of the
/// description's extension "avcC". Each picture is out before the next frame goes in, unless the
/// stream itself says that its pictures are reordered.
class AVFrameDecoder final : public FrameDecoder {
 public:
  /// Null when libavcodec has no software decoder for the description's codec or refuses to open it.
  static std::unique_ptr<FrameDecoder> create(const ImageDescription& description);

  OSStatus decode(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures) override;

  ~AVFrameDecoder() override;
  AVFrameDecoder(const AVFrameDecoder&) = delete;
  AVFrameDecoder& operator=(const AVFrameDecoder&) = delete;

 private:
  struct FreeContext {
    void operator()(AVCodecContext* context) const noexcept;
  };
  struct FreePacket {
    void operator()(AVPacket* packet) const noexcept;
  };
  struct FreePool {
    void operator()(AVBufferPool* pool) const noexcept;
  };
  using Context = std::unique_ptr<AVCodecContext, FreeContext>;

  AVFrameDecoder(Context context, YCbCrColour colour, bool isH264);
  OSStatus decodeH264(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures);
  OSStatus decodePacket(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures);
  bool fillPacket(std::span<const uint8_t> data);
  OSStatus receive(std::vector<DecodedPicture>& pictures);

  Context mContext;
  std::unique_ptr<AVPacket, FreePacket> mPacket;
  AVFramePtr mFrame;                              ///< for the next picture
  std::unique_ptr<AVBufferPool, FreePool> mPool;  ///< frames on their way through libavcodec
  size_t mPoolSize = 0;                           ///< bytes of each
  YCbCrColour mColour;                            ///< where the stream says nothing
  bool mIsH264;
};

}  // namespace vesk
