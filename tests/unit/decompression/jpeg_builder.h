#pragma once

#include <cstdint>
#include <cstdlib>
#include <vector>

#include <jpeglib.h>

namespace vesk::test {

using Bytes = std::vector<uint8_t>;

struct JPEGOptions {
  int width = 64;
  int height = 48;
  int across = 2;  ///< luma samples for each chroma sample; 0 for a grey picture, whose only factor is `down`
  int down = 1;
  bool hasOwnTables = false;  ///< Huffman tables made for this very picture
  bool isProgressive = false;
  bool isRGB = false;  ///< samples are red, green and blue
  int restartInterval = 0;
  unsigned seed = 1;
};

/// A picture of stripes and some noise, so that neither rows nor columns repeat.
inline Bytes makeJPEG(const JPEGOptions& options) {
  jpeg_compress_struct jpeg{};
  jpeg_error_mgr errors{};
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_compress(&jpeg);
  uint8_t* memory = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&jpeg, &memory, &size);
  jpeg.image_width = static_cast<JDIMENSION>(options.width);
  jpeg.image_height = static_cast<JDIMENSION>(options.height);
  const bool isGrey = options.across == 0;
  jpeg.input_components = isGrey ? 1 : 3;
  jpeg.in_color_space = isGrey ? JCS_GRAYSCALE : options.isRGB ? JCS_RGB : JCS_YCbCr;
  jpeg_set_defaults(&jpeg);
  if (options.isRGB) jpeg_set_colorspace(&jpeg, JCS_RGB);
  jpeg_set_quality(&jpeg, 90, TRUE);
  jpeg.comp_info[0].h_samp_factor = isGrey ? options.down : options.across;
  jpeg.comp_info[0].v_samp_factor = options.down;
  jpeg.optimize_coding = options.hasOwnTables ? TRUE : FALSE;
  jpeg.restart_interval = static_cast<unsigned>(options.restartInterval);
  if (options.isProgressive) jpeg_simple_progression(&jpeg);
  jpeg_start_compress(&jpeg, TRUE);
  unsigned state = options.seed;
  Bytes row(static_cast<size_t>(options.width) * static_cast<size_t>(jpeg.input_components));
  for (int y = 0; y < options.height; ++y) {
    for (size_t x = 0; x < row.size(); ++x) {
      state = state * 1664525U + 1013904223U;
      row[x] = static_cast<uint8_t>(static_cast<unsigned>(y) * 3U + static_cast<unsigned>(x) + (state >> 28));
    }
    uint8_t* const rows[] = {row.data()};
    jpeg_write_scanlines(&jpeg, const_cast<JSAMPARRAY>(rows), 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  Bytes bytes(memory, memory + size);
  std::free(memory);
  return bytes;
}

/// A JPEG in two parts: without its Huffman tables, as cameras send it, and the bodies of its DHT
/// segments joined into one.
struct Stripped {
  Bytes frame;
  Bytes tables;
};

inline Stripped stripTables(const Bytes& jpeg) {
  Stripped parts{{jpeg[0], jpeg[1]}, {0, 0}};
  size_t at = 2;
  while (jpeg[at + 1] != 0xDA) {
    const size_t end = at + 2 + (size_t{jpeg[at + 2]} << 8 | jpeg[at + 3]);
    const bool isTables = jpeg[at + 1] == 0xC4;
    auto& part = isTables ? parts.tables : parts.frame;
    const size_t from = isTables ? at + 4 : at;
    part.insert(part.end(), jpeg.begin() + static_cast<ptrdiff_t>(from), jpeg.begin() + static_cast<ptrdiff_t>(end));
    at = end;
  }
  parts.frame.insert(parts.frame.end(), jpeg.begin() + static_cast<ptrdiff_t>(at), jpeg.end());
  parts.tables[0] = static_cast<uint8_t>(parts.tables.size() >> 8);
  parts.tables[1] = static_cast<uint8_t>(parts.tables.size());
  return parts;
}

/// A JPEG as libjpeg decodes it by itself, each pixel with its components one after the other; chroma
/// samples are repeated, not smoothed. RGB stays RGB.
inline Bytes decodePlainly(const Bytes& bytes) {
  jpeg_decompress_struct jpeg{};
  jpeg_error_mgr errors{};
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_decompress(&jpeg);
  jpeg_mem_src(&jpeg, bytes.data(), static_cast<unsigned long>(bytes.size()));
  jpeg_read_header(&jpeg, TRUE);
  jpeg.out_color_space = jpeg.jpeg_color_space;
  jpeg.do_fancy_upsampling = FALSE;
  jpeg_start_decompress(&jpeg);
  const size_t rowSize = size_t{jpeg.output_width} * static_cast<size_t>(jpeg.output_components);
  Bytes pixels(rowSize * jpeg.output_height);
  while (jpeg.output_scanline < jpeg.output_height) {
    uint8_t* row = pixels.data() + rowSize * jpeg.output_scanline;
    jpeg_read_scanlines(&jpeg, &row, 1);
  }
  jpeg_finish_decompress(&jpeg);
  jpeg_destroy_decompress(&jpeg);
  return pixels;
}

}  // namespace vesk::test
