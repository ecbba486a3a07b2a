#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>  // jpeglib.h needs it
#include <optional>
#include <span>
#include <vector>

#include <jpeglib.h>

#include "platform/decompression/huffman_tables.h"
#include "platform/decompression/picture_memory.h"
#include "platform/decompression/status.h"

namespace vesk {

/// libjpeg with its errors as statuses. It leaves through longjmp, over frames that have nothing to
/// destroy: every call of it is made inside `guarded`.
class JPEGReader {
 public:
  /// Throws std::bad_alloc. `tables` are for frames that bring none.
  explicit JPEGReader(std::vector<HuffmanTable> tables);
  ~JPEGReader();
  JPEGReader(const JPEGReader&) = delete;
  JPEGReader& operator=(const JPEGReader&) = delete;

  /// Reads the header of a frame, which stays in place until the picture has been read or given up.
  OSStatus readHeader(std::span<const uint8_t> data);

  uint32_t width() const { return mJPEG.image_width; }
  uint32_t height() const { return mJPEG.image_height; }
  /// Whether the picture comes in several passes, of which each costs as much as a picture.
  bool isProgressive() { return jpeg_has_multiple_scans(&mJPEG) != 0; }
  /// The pixel format in which the samples can be handed on as they are: planar 4:2:0, 4:2:2, 4:4:4
  /// or grey. Nothing for other kinds of JPEG.
  std::optional<uint32_t> planarFormat() const;
  /// What readPlanes needs: whole blocks.
  PictureMemory::Sizes planeSizes() const;

  /// Reads the samples, without any conversion.
  OSStatus readPlanes(const PictureMemory& memory);
  /// Reads the picture as red, green, blue and alpha into the first plane.
  OSStatus readRGBA(const PictureMemory& memory);
  /// Gives the picture up.
  void abandon();

 private:
  struct Errors : jpeg_error_mgr {
    std::jmp_buf leave;
    bool isDamaged;
    uint32_t damagedRow;  ///< the first row of blocks that damage has touched
  };

  template <class Work>
  OSStatus guarded(Work work);
  void installTables();
  JHUFF_TBL*& slotOf(const HuffmanTable& table);
  OSStatus finish();
  OSStatus statusOfError() const;

  static void leave(j_common_ptr jpeg);
  static void noteWarning(j_common_ptr jpeg, int level);
  static void ignoreMessage(j_common_ptr jpeg);
  static void limitPasses(j_common_ptr jpeg);

  std::vector<HuffmanTable> mTables;
  jpeg_decompress_struct mJPEG{};
  Errors mErrors{};
  jpeg_progress_mgr mProgress{};
};

}  // namespace vesk
