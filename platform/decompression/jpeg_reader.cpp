#include "platform/decompression/jpeg_reader.h"

#include <jerror.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>

namespace vesk {
namespace {

/// Work that a picture in several passes may cost: passes times pixels.
constexpr uint64_t kMostWork = uint64_t{1} << 28;
constexpr uint64_t kMostPasses = 64;

struct Sampling {
  int across;  ///< pixels for each chroma sample
  int down;
  uint32_t pixelFormat;
};
constexpr Sampling kSamplings[] = {
    {2, 2, kCVPixelFormat_420Planar},
    {2, 1, kCVPixelFormat_422Planar},
    {1, 1, kCVPixelFormat_444Planar},
};

/// Warnings that mean that samples are wrong. Others are about markers: many cameras leave out the
/// last one or put bytes before one, and their pictures are whole.
constexpr int kDamage[] = {JWRN_HIT_MARKER, JWRN_HUFF_BAD_CODE, JWRN_ARITH_BAD_CODE, JWRN_MUST_RESYNC,
                           JWRN_BOGUS_PROGRESSION};

constexpr int kUnsupported[] = {JERR_ARITH_NOTIMPL,      JERR_BAD_PRECISION,        JERR_CCIR601_NOTIMPL,
                                JERR_CONVERSION_NOTIMPL, JERR_FRACT_SAMPLE_NOTIMPL, JERR_NOTIMPL,
                                JERR_NOT_COMPILED,       JERR_SOF_UNSUPPORTED};

template <size_t count>
bool contains(const int (&codes)[count], int code) {
  return std::find(std::begin(codes), std::end(codes), code) != std::end(codes);
}

}  // namespace

/// Nothing that `work` makes may need to be destroyed, since an error leaves through the middle of it.
template <class Work>
OSStatus JPEGReader::guarded(Work work) {
  if (setjmp(mErrors.leave) != 0) {  // NOLINT: the one way that libjpeg reports errors
    const OSStatus status = statusOfError();
    jpeg_abort_decompress(&mJPEG);
    return status;
  }
  work();
  return noErr;
}

JPEGReader::JPEGReader(std::vector<HuffmanTable> tables) : mTables(std::move(tables)) {
  mJPEG.err = jpeg_std_error(&mErrors);
  mErrors.error_exit = leave;
  mErrors.emit_message = noteWarning;
  mErrors.output_message = ignoreMessage;
  // Not inside `guarded`, which gives up a picture: there is no decompressor for that yet.
  if (setjmp(mErrors.leave) != 0) throw std::bad_alloc();  // NOLINT
  jpeg_create_decompress(&mJPEG);
  mProgress.progress_monitor = limitPasses;
  mJPEG.progress = &mProgress;
}

JPEGReader::~JPEGReader() {
  jpeg_destroy_decompress(&mJPEG);
}

OSStatus JPEGReader::readHeader(std::span<const uint8_t> data) {
  mErrors.isDamaged = false;
  return guarded([&] {
    installTables();
    jpeg_mem_src(&mJPEG, data.data(), static_cast<unsigned long>(data.size()));
    jpeg_read_header(&mJPEG, TRUE);
  });
}

/// Puts the tables for frames without any in place; the frame before may have brought its own.
void JPEGReader::installTables() {
  for (const HuffmanTable& table : mTables) {
    JHUFF_TBL*& slot = slotOf(table);
    if (!slot) slot = jpeg_alloc_huff_table(reinterpret_cast<j_common_ptr>(&mJPEG));
    slot->bits[0] = 0;
    std::copy(table.counts.begin(), table.counts.end(), slot->bits + 1);
    std::copy(table.symbols.begin(), table.symbols.end(), slot->huffval);
  }
}

JHUFF_TBL*& JPEGReader::slotOf(const HuffmanTable& table) {
  return (table.isAC ? mJPEG.ac_huff_tbl_ptrs : mJPEG.dc_huff_tbl_ptrs)[table.identifier];
}

std::optional<uint32_t> JPEGReader::planarFormat() const {
  const jpeg_component_info* const parts = mJPEG.comp_info;
  if (mJPEG.num_components == 1) return kCVPixelFormat_Gray;
  if (mJPEG.num_components != 3 || mJPEG.jpeg_color_space != JCS_YCbCr) return std::nullopt;
  const jpeg_component_info& luma = parts[0];
  const jpeg_component_info& cb = parts[1];
  const jpeg_component_info& cr = parts[2];
  if (luma.h_samp_factor != mJPEG.max_h_samp_factor || luma.v_samp_factor != mJPEG.max_v_samp_factor ||
      cb.h_samp_factor != cr.h_samp_factor || cb.v_samp_factor != cr.v_samp_factor)
    return std::nullopt;
  for (const Sampling& sampling : kSamplings)
    if (luma.h_samp_factor == cb.h_samp_factor * sampling.across &&
        luma.v_samp_factor == cb.v_samp_factor * sampling.down)
      return sampling.pixelFormat;
  return std::nullopt;
}

PictureMemory::Sizes JPEGReader::planeSizes() const {
  PictureMemory::Sizes sizes;
  const auto across = static_cast<size_t>(mJPEG.max_h_samp_factor) * DCTSIZE;
  const auto down = static_cast<size_t>(mJPEG.max_v_samp_factor) * DCTSIZE;
  const size_t unitsAcross = (mJPEG.image_width + across - 1) / across;
  const size_t unitsDown = (mJPEG.image_height + down - 1) / down;
  for (size_t i = 0; i < static_cast<size_t>(mJPEG.num_components); ++i)
    sizes.at(i) = {unitsAcross * static_cast<size_t>(mJPEG.comp_info[i].h_samp_factor) * DCTSIZE,
                   unitsDown * static_cast<size_t>(mJPEG.comp_info[i].v_samp_factor) * DCTSIZE};
  return sizes;
}

OSStatus JPEGReader::readPlanes(const PictureMemory& memory) {
  const OSStatus status = guarded([&] {
    mJPEG.raw_data_out = TRUE;
    mJPEG.dct_method = JDCT_ISLOW;
    jpeg_start_decompress(&mJPEG);
    std::array<std::array<JSAMPROW, MAX_SAMP_FACTOR * DCTSIZE>, CVPixelBuffer::kMostPlanes> rows;
    std::array<JSAMPARRAY, CVPixelBuffer::kMostPlanes> planes{};
    const auto rowsAtOnce = static_cast<JDIMENSION>(mJPEG.max_v_samp_factor * DCTSIZE);
    for (size_t unit = 0; mJPEG.output_scanline < mJPEG.output_height; ++unit) {
      for (size_t i = 0; i < static_cast<size_t>(mJPEG.num_components); ++i) {
        const auto count = static_cast<size_t>(mJPEG.comp_info[i].v_samp_factor) * DCTSIZE;
        uint8_t* const first = memory.plane(i) + unit * count * memory.bytesPerRow(i);
        for (size_t row = 0; row < count; ++row) rows[i][row] = first + row * memory.bytesPerRow(i);
        planes[i] = rows[i].data();
      }
      jpeg_read_raw_data(&mJPEG, planes.data(), rowsAtOnce);
    }
  });
  return status != noErr ? status : finish();
}

OSStatus JPEGReader::readRGBA(const PictureMemory& memory) {
  const OSStatus status = guarded([&] {
    mJPEG.out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(&mJPEG);
    while (mJPEG.output_scanline < mJPEG.output_height) {
      JSAMPROW row = memory.plane(0) + mJPEG.output_scanline * memory.bytesPerRow(0);
      jpeg_read_scanlines(&mJPEG, &row, 1);
    }
  });
  return status != noErr ? status : finish();
}

/// Gives up what may follow the samples. A picture that is damaged in its last rows only is still
/// worth showing, and some cameras cut off every one; above that it is not.
OSStatus JPEGReader::finish() {
  const uint32_t units = mJPEG.total_iMCU_rows;
  jpeg_abort_decompress(&mJPEG);
  return mErrors.isDamaged && mErrors.damagedRow < units - units / 8 ? codecBadDataErr : noErr;
}

void JPEGReader::abandon() {
  jpeg_abort_decompress(&mJPEG);
}

OSStatus JPEGReader::statusOfError() const {
  if (mErrors.msg_code == JERR_OUT_OF_MEMORY) return memFullErr;
  return contains(kUnsupported, mErrors.msg_code) ? codecUnimpErr : codecBadDataErr;
}

void JPEGReader::leave(j_common_ptr jpeg) {
  std::longjmp(static_cast<Errors*>(jpeg->err)->leave, 1);  // NOLINT
}

void JPEGReader::noteWarning(j_common_ptr jpeg, int level) {
  auto* const errors = static_cast<Errors*>(jpeg->err);
  if (level >= 0 || errors->isDamaged || !contains(kDamage, errors->msg_code)) return;
  errors->isDamaged = true;
  errors->damagedRow = reinterpret_cast<j_decompress_ptr>(jpeg)->output_iMCU_row;
}

void JPEGReader::ignoreMessage(j_common_ptr /*jpeg*/) {}

void JPEGReader::limitPasses(j_common_ptr jpeg) {
  const auto* const picture = reinterpret_cast<j_decompress_ptr>(jpeg);
  const uint64_t pixels = uint64_t{picture->image_width} * picture->image_height;
  const uint64_t most = std::min(kMostPasses, kMostWork / std::max<uint64_t>(pixels, 1));
  if (static_cast<uint64_t>(picture->input_scan_number) > std::max<uint64_t>(most, 3)) ERREXIT(jpeg, JERR_NOTIMPL);
}

}  // namespace vesk
