#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "capture/encoding/av_handles.h"

namespace vesk::test {

/// A decoder fed with packets one by one.
class PacketDecoder {
 public:
  explicit PacketDecoder(AVCodecID codec, const std::vector<uint8_t>& header = {})
      : mContext(avcodec_alloc_context3(nullptr)) {
    if (!header.empty()) {
      mContext->extradata = static_cast<uint8_t*>(av_mallocz(header.size() + AV_INPUT_BUFFER_PADDING_SIZE));
      std::copy(header.begin(), header.end(), mContext->extradata);
      mContext->extradata_size = static_cast<int>(header.size());
    }
    mContext->thread_count = 1;
    mContext->flags |= AV_CODEC_FLAG_LOW_DELAY;
    mContext->err_recognition = AV_EF_EXPLODE;
    EXPECT_EQ(avcodec_open2(mContext.get(), avcodec_find_decoder(codec), nullptr), 0);
  }

  /// The frame that comes out as the packet goes in; none on an error or a delay.
  const AVFrame* decode(const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> padded = bytes;
    padded.resize(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    mPacket->data = padded.data();
    mPacket->size = static_cast<int>(bytes.size());
    if (avcodec_send_packet(mContext.get(), mPacket.get()) < 0) return nullptr;
    return avcodec_receive_frame(mContext.get(), mFrame.get()) == 0 ? mFrame.get() : nullptr;
  }

 private:
  const capture::CodecHandle mContext;
  const capture::PacketHandle mPacket{av_packet_alloc()};
  const capture::FrameHandle mFrame{av_frame_alloc()};
};

}  // namespace vesk::test
