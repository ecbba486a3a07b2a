#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <jpeglib.h>

/// libjpeg-turbo by itself, as a program would use it that wants the samples: one decompressor, one
/// set of planes, no conversion, no care for damage. 4:2:0, 4:2:2 and 4:4:4 only.
class BareJPEG {
 public:
  BareJPEG() {
    mJPEG.err = jpeg_std_error(&mErrors);
    jpeg_create_decompress(&mJPEG);
  }
  ~BareJPEG() { jpeg_destroy_decompress(&mJPEG); }
  BareJPEG(const BareJPEG&) = delete;
  BareJPEG& operator=(const BareJPEG&) = delete;

  void decode(const std::vector<uint8_t>& frame) {
    jpeg_mem_src(&mJPEG, frame.data(), static_cast<unsigned long>(frame.size()));
    jpeg_read_header(&mJPEG, TRUE);
    mJPEG.raw_data_out = TRUE;
    mJPEG.dct_method = JDCT_ISLOW;
    jpeg_start_decompress(&mJPEG);
    JSAMPROW rows[3][2 * DCTSIZE];
    JSAMPARRAY planes[3] = {rows[0], rows[1], rows[2]};
    const auto rowsAtOnce = static_cast<JDIMENSION>(mJPEG.max_v_samp_factor * DCTSIZE);
    while (mJPEG.output_scanline < mJPEG.output_height) {
      for (size_t i = 0; i < 3; ++i) {
        const jpeg_component_info& part = mJPEG.comp_info[i];
        const size_t width = size_t{part.width_in_blocks} * DCTSIZE;
        const auto count = static_cast<size_t>(part.v_samp_factor) * DCTSIZE;
        const size_t first = mJPEG.output_scanline / rowsAtOnce * count;
        mPlanes[i].resize((size_t{part.height_in_blocks} + 2) * DCTSIZE * width);
        for (size_t row = 0; row < count; ++row) rows[i][row] = mPlanes[i].data() + (first + row) * width;
      }
      jpeg_read_raw_data(&mJPEG, planes, rowsAtOnce);
    }
    jpeg_finish_decompress(&mJPEG);
  }

 private:
  jpeg_decompress_struct mJPEG{};
  jpeg_error_mgr mErrors{};
  std::vector<uint8_t> mPlanes[3];
};
