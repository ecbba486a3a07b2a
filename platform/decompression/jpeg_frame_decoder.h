#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/decompression/frame_decoder.h"
#include "platform/decompression/huffman_tables.h"
#include "platform/decompression/jpeg_reader.h"

namespace vesk {

/// Motion JPEG ("dmb1"): every frame a JPEG of its own. Planar pictures of 4:2:0, 4:2:2, 4:4:4 or grey
/// come out as their samples lie in the frame; others (such as 4:1:1 or RGB) are turned into RGBA.
/// Pictures have the size that their frame says. One that is cut off or damaged is an error, unless
/// no more than its last eighth is.
class JPEGFrameDecoder final : public FrameDecoder {
 public:
  /// Frames without Huffman tables are decoded with those of the extension "mjht"; without one, with
  /// those of the frame before, at first the typical ones.
  static std::unique_ptr<FrameDecoder> create(const ImageDescription& description);

  OSStatus decode(std::span<const uint8_t> data, int64_t frame, std::vector<DecodedPicture>& pictures) override;

  JPEGFrameDecoder(std::vector<HuffmanTable> tables, uint64_t mostPixels)
      : mReader(std::move(tables)), mMostPixels(mostPixels) {}

 private:
  OSStatus readPicture(CVImageBufferRef& picture);
  bool isTooLarge();

  JPEGReader mReader;
  uint64_t mMostPixels;
};

}  // namespace vesk
