#include <vesk/cg_image.h>

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "platform/foundation/byte_reader.h"
#include "platform/foundation/file_bytes.h"

namespace vesk {
namespace {

// What the largest picture takes uncompressed, and something for what stands around it.
constexpr size_t kMostFileBytes = size_t{kMostImagePixels} * 4 + (size_t{1} << 20);

struct UnrefObject {
  void operator()(void* object) const noexcept { g_object_unref(object); }
};

struct FreeMemory {
  void operator()(gchar* memory) const noexcept { g_free(memory); }
};

uint8_t premultiplied(uint8_t value, uint8_t alpha) {
  return static_cast<uint8_t>((value * alpha + 127) / 255);
}

/// One row of 8-bit RGB or RGBA, not premultiplied, as GdkPixbuf has them.
void convertRow(const uint8_t* from, int32_t width, bool hasAlpha, uint8_t* to) {
  const size_t step = hasAlpha ? 4 : 3;
  for (int32_t x = 0; x < width; ++x, from += step, to += 4) {
    const uint8_t alpha = hasAlpha ? from[3] : 0xFF;
    for (size_t i = 0; i < 3; ++i) to[i] = premultiplied(from[i], alpha);
    to[3] = alpha;
  }
}

bool isAcceptable(int64_t width, int64_t height) {
  return width > 0 && height > 0 && width <= kMostImagePixels / height;
}

/// Whether a JPEG file reaches its end marker. Thumbnails, which have their own, are passed over with
/// the segments that they are in.
bool endsAsJPEG(std::span<const uint8_t> bytes) {
  constexpr uint8_t kPrefix = 0xFF, kTemporary = 0x01, kFirstRestart = 0xD0, kStart = 0xD8, kEnd = 0xD9;
  ByteReader reader(bytes);
  while (const auto byte = reader.u8()) {
    if (*byte != kPrefix) continue;  // coded data
    auto marker = reader.u8();
    while (marker == kPrefix) marker = reader.u8();
    if (!marker || *marker == kEnd) return marker.has_value();
    if (*marker <= kTemporary || (*marker >= kFirstRestart && *marker <= kStart)) continue;
    const auto length = reader.u16();
    if (!length || *length < 2 || !reader.skip(*length - size_t{2})) return false;
  }
  return false;
}

/// Whether a PNG file has all its chunks up to the last one.
bool endsAsPNG(std::span<const uint8_t> bytes) {
  constexpr size_t kSignature = 8, kChecksum = 4;
  constexpr uint32_t kEnd = 0x49454E44;  // IEND
  ByteReader reader(bytes);
  reader.skip(kSignature);
  while (const auto length = reader.u32()) {
    const auto type = reader.u32();
    if (!type || !reader.skip(*length + kChecksum)) return false;
    if (*type == kEnd) return true;
  }
  return false;
}

/// A picture that is read by gdk-pixbuf.
class Reading {
 public:
  explicit Reading(std::span<const uint8_t> bytes) : mLoader(gdk_pixbuf_loader_new()) {
    g_signal_connect(mLoader.get(), "size-prepared", G_CALLBACK(sizePrepared), this);
    g_signal_connect(mLoader.get(), "area-updated", G_CALLBACK(areaUpdated), this);
    const bool isTaken = take(bytes);
    // To be closed in any case.
    const bool isClosed = gdk_pixbuf_loader_close(mLoader.get(), isTaken ? &mError : nullptr) != FALSE;
    if (isTaken && isClosed && !mIsTooLarge) mPixbuf = gdk_pixbuf_loader_get_pixbuf(mLoader.get());
  }
  ~Reading() {
    if (mError) g_error_free(mError);
  }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  /// Null when there is none; `why` then tells.
  GdkPixbuf* pixbuf() const { return mPixbuf; }
  std::string why() const {
    if (mIsTooLarge) return "it is too large";
    return mError ? mError->message : "it holds no picture";
  }

  /// Whether the file was there to its end. The readers of some formats fill up what was cut off.
  bool isWhole(std::span<const uint8_t> bytes) const {
    const GdkPixbufFormat* const format = gdk_pixbuf_loader_get_format(mLoader.get());
    const std::unique_ptr<gchar, FreeMemory> name(gdk_pixbuf_format_get_name(const_cast<GdkPixbufFormat*>(format)));
    const std::string_view kind = name ? name.get() : "";
    if (kind == "jpeg") return endsAsJPEG(bytes);
    if (kind == "png") return endsAsPNG(bytes);
    const bool tellsOfRows = kind == "bmp" || kind == "pnm" || kind == "ico";
    return !tellsOfRows || mRowsSeen >= gdk_pixbuf_get_height(mPixbuf);
  }

 private:
  // In portions, so that the reading can be ended when the size is known.
  bool take(std::span<const uint8_t> bytes) {
    constexpr size_t kPortion = 4096;
    while (!bytes.empty() && !mIsTooLarge) {
      const auto portion = bytes.first(std::min(kPortion, bytes.size()));
      if (!gdk_pixbuf_loader_write(mLoader.get(), portion.data(), portion.size(), &mError)) return false;
      bytes = bytes.subspan(portion.size());
    }
    return true;
  }

  static void sizePrepared(GdkPixbufLoader* loader, int width, int height, gpointer self) {
    if (isAcceptable(width, height)) return;
    static_cast<Reading*>(self)->mIsTooLarge = true;
    gdk_pixbuf_loader_set_size(loader, 0, 0);  // makes most readers stop at once
  }

  /// Rows come from the top or from the bottom, each once or a few at a time.
  static void areaUpdated(GdkPixbufLoader* loader, int, int y, int, int height, gpointer self) {
    auto& reading = *static_cast<Reading*>(self);
    auto& rows = reading.mRows;
    const GdkPixbuf* const pixbuf = gdk_pixbuf_loader_get_pixbuf(loader);
    if (rows.empty()) rows.resize(static_cast<size_t>(gdk_pixbuf_get_height(pixbuf)));
    const int end = std::min(static_cast<int>(rows.size()), y + height);
    for (int row = std::max(y, 0); row < end; ++row)
      if (!std::exchange(rows[static_cast<size_t>(row)], uint8_t{1})) ++reading.mRowsSeen;
  }

  const std::unique_ptr<GdkPixbufLoader, UnrefObject> mLoader;
  GdkPixbuf* mPixbuf = nullptr;  ///< the loader's
  GError* mError = nullptr;
  bool mIsTooLarge = false;
  std::vector<uint8_t> mRows;  ///< 1 for those that were read
  int mRowsSeen = 0;
};

}  // namespace

CGImageRef CGImage::create(int32_t width, int32_t height, std::vector<uint8_t> pixels) {
  if (width <= 0 || height <= 0 || pixels.size() / 4 / static_cast<size_t>(width) != static_cast<size_t>(height))
    return nullptr;
  return std::make_shared<const CGImage>(width, height, std::move(pixels));
}

CGImageRef CGImageCreateWithFile(const std::string& path, Error* why) {
  const auto fail = [&](const std::string& reason) {
    if (why) *why = {Cause::kUnreadable, path + " cannot be read: " + reason, "", path};
    return nullptr;
  };
  const auto bytes = fileBytes(path, kMostFileBytes, why);
  if (!bytes) return nullptr;
  try {
    const Reading reading(*bytes);
    if (!reading.pixbuf()) return fail(reading.why());
    if (!reading.isWhole(*bytes)) return fail("it was cut off");
    const int32_t width = gdk_pixbuf_get_width(reading.pixbuf());
    const int32_t height = gdk_pixbuf_get_height(reading.pixbuf());
    if (!isAcceptable(width, height)) return fail("it is too large");
    const bool hasAlpha = gdk_pixbuf_get_has_alpha(reading.pixbuf()) != 0;
    const auto rowBytes = static_cast<size_t>(gdk_pixbuf_get_rowstride(reading.pixbuf()));
    const uint8_t* const rows = gdk_pixbuf_read_pixels(reading.pixbuf());
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    for (int32_t y = 0; y < height; ++y) {
      const auto row = static_cast<size_t>(y);
      convertRow(rows + row * rowBytes, width, hasAlpha, pixels.data() + row * static_cast<size_t>(width) * 4);
    }
    return CGImage::create(width, height, std::move(pixels));
  } catch (const std::bad_alloc&) {
    return fail("memory is short");
  }
}

}  // namespace vesk
