#include "platform/foundation/property_list.h"

#include <fcntl.h>
#include <glib.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/foundation/byte_reader.h"

namespace vesk {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kMostBytes = size_t{4} << 20;
constexpr size_t kMostValues = 20000;
constexpr unsigned kMostLevels = 64;

struct FreePlist {
  void operator()(void* node) const noexcept { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, FreePlist>;

struct Free {
  void operator()(void* memory) const noexcept { std::free(memory); }
};
template <class T>
using MallocPtr = std::unique_ptr<T, Free>;

// The library parses and frees by recursion and expands shared values, so a small hostile file could
// exhaust the stack or the memory. What it would build is therefore measured first.

/// Whether an XML list is within the limits: no more levels than containers are opened.
bool isModestXml(Bytes bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  size_t opened = 0;
  for (const std::string_view tag : {"<array", "<dict"})
    for (size_t at = text.find(tag); at != std::string_view::npos; at = text.find(tag, at + tag.size()))
      if (++opened > kMostValues) return false;
  return true;
}

/// The objects of a binary list and how they refer to one another.
class BinaryOutline {
 public:
  /// Whether the list is whole as far as this looks, free of cycles, and within the limits.
  static bool isModest(Bytes bytes) {
    BinaryOutline outline(bytes);
    return outline.readTrailer() && outline.measure(outline.mTop, 0).has_value();
  }

 private:
  /// What a value becomes when everything it refers to is written out.
  struct Size {
    size_t values = 0;  ///< itself included; 0 while it is not known
    unsigned levels = 0;
    bool underWay = false;
  };

  explicit BinaryOutline(Bytes bytes) : mBytes(bytes) {}

  bool readTrailer() {
    constexpr size_t kTrailer = 32;
    if (mBytes.size() < kTrailer) return false;
    ByteReader reader(mBytes.last(kTrailer));
    reader.skip(6);
    mOffsetWidth = *reader.u8();
    mReferenceWidth = *reader.u8();
    const uint64_t count = *reader.u64();
    mTop = *reader.u64();
    const uint64_t table = *reader.u64();
    const auto isWidth = [](size_t width) { return width >= 1 && width <= 8; };
    if (!isWidth(mOffsetWidth) || !isWidth(mReferenceWidth)) return false;
    if (count > kMostValues || table > mBytes.size()) return false;
    if (count > (mBytes.size() - table) / mOffsetWidth) return false;
    mOffsets = mBytes.subspan(table, count * mOffsetWidth);
    mSizes.resize(count);
    return true;
  }

  static std::optional<uint64_t> number(ByteReader& reader, size_t width) {
    const auto bytes = reader.take(width);
    if (!bytes) return std::nullopt;
    uint64_t value = 0;
    for (const uint8_t byte : *bytes) value = value << 8 | byte;
    return value;
  }

  static constexpr unsigned kAsciiString = 0x5, kUtf16String = 0x6, kArray = 0xA, kSet = 0xC, kDictionary = 0xD;

  /// The length that an object's first byte gives, or the integer object that follows it.
  static std::optional<uint64_t> lengthOf(uint8_t marker, ByteReader& reader) {
    if ((marker & 0xF) != 0xF) return marker & 0xF;
    const auto width = reader.u8();
    if (!width || *width >> 4 != 1 || (*width & 0xF) > 3) return std::nullopt;
    return number(reader, size_t{1} << (*width & 0xF));
  }

  /// The bytes of object `index` from its first one on; empty when there is no such object.
  Bytes objectAt(uint64_t index) const {
    if (index >= mSizes.size()) return {};
    ByteReader offsets(mOffsets.subspan(index * mOffsetWidth));
    const auto offset = number(offsets, mOffsetWidth);
    return offset && *offset < mBytes.size() ? mBytes.subspan(*offset) : Bytes();
  }

  /// Whether an object is a text without a zero character: the library ends the program over one in a key.
  bool isKey(uint64_t index) const {
    ByteReader object(objectAt(index));
    const auto marker = object.u8();
    if (!marker) return false;
    const unsigned kind = *marker >> 4;
    if (kind != kAsciiString && kind != kUtf16String) return false;
    const size_t width = kind == kAsciiString ? 1 : 2;
    const auto length = lengthOf(*marker, object);
    if (!length || *length > object.remaining() / width) return false;
    for (uint64_t each = 0; each < *length; ++each)
      if (number(object, width) == 0U) return false;
    return true;
  }

  std::optional<Size> measure(uint64_t index, unsigned level) {
    if (index >= mSizes.size() || level > kMostLevels) return std::nullopt;
    const Size known = mSizes[index];
    if (known.underWay) return std::nullopt;
    if (known.values == 0) {
      mSizes[index].underWay = true;
      const auto size = measureObject(index, level);
      if (!size) return std::nullopt;
      mSizes[index] = *size;
    }
    if (level + mSizes[index].levels > kMostLevels) return std::nullopt;
    return mSizes[index];
  }

  std::optional<Size> measureObject(uint64_t index, unsigned level) {
    ByteReader object(objectAt(index));
    const auto marker = object.u8();
    if (!marker) return std::nullopt;
    Size size{1, 1};
    const unsigned kind = *marker >> 4;
    if (kind != kArray && kind != kSet && kind != kDictionary) return size;
    const auto length = lengthOf(*marker, object);
    if (!length || *length > kMostValues) return std::nullopt;
    const uint64_t keys = kind == kDictionary ? *length : 0;
    for (uint64_t each = 0; each < *length + keys; ++each) {
      const auto reference = number(object, mReferenceWidth);
      if (!reference || (each < keys && !isKey(*reference))) return std::nullopt;
      const auto part = measure(*reference, level + 1);
      if (!part) return std::nullopt;
      size.values += part->values;
      size.levels = std::max(size.levels, part->levels + 1);
      if (size.values > kMostValues * 2) return std::nullopt;  // keys count here
    }
    return size;
  }

  Bytes mBytes;
  Bytes mOffsets;
  size_t mOffsetWidth = 0;
  size_t mReferenceWidth = 0;
  uint64_t mTop = 0;
  std::vector<Size> mSizes;
};

PlistPtr parse(Bytes bytes) {
  const auto* const text = reinterpret_cast<const char*>(bytes.data());
  const auto length = static_cast<uint32_t>(bytes.size());
  plist_t root = nullptr;
  if (plist_is_binary(text, length)) {
    if (BinaryOutline::isModest(bytes)) plist_from_bin(text, length, &root);
  } else if (isModestXml(bytes)) {
    plist_from_xml(text, length, &root);
  }
  return PlistPtr(root);
}

bool isUtf8(std::string_view text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

/// Turns the library's nodes into values. One of an unknown kind or beyond the limits fails the whole.
class Conversion {
 public:
  static std::optional<PropertyList::Dictionary> dictionaryOf(plist_t root) {
    Conversion conversion;
    auto result = conversion.dictionary(root, 0);
    if (conversion.mFailed) return std::nullopt;
    return result;
  }

 private:
  PropertyList::Dictionary dictionary(plist_t node, unsigned level) {
    plist_dict_iter place = nullptr;
    plist_dict_new_iter(node, &place);
    const MallocPtr<void> placeOwner(place);
    PropertyList::Dictionary result;
    while (!mFailed) {
      char* key = nullptr;
      plist_t item = nullptr;
      plist_dict_next_item(node, place, &key, &item);
      const MallocPtr<char> keyOwner(key);
      if (!item) break;
      if (!key || !isUtf8(key)) return fail(result);
      result.insert_or_assign(key, PropertyList(value(item, level + 1)));
    }
    return result;
  }

  PropertyList::Array array(plist_t node, unsigned level) {
    plist_array_iter place = nullptr;
    plist_array_new_iter(node, &place);
    const MallocPtr<void> placeOwner(place);
    PropertyList::Array result;
    while (!mFailed) {
      plist_t item = nullptr;
      plist_array_next_item(node, place, &item);
      if (!item) break;
      result.push_back(PropertyList(value(item, level + 1)));
    }
    return result;
  }

  PropertyList::Value value(plist_t node, unsigned level) {
    if (level > kMostLevels || ++mValues > kMostValues) return fail(false);
    switch (plist_get_node_type(node)) {
      case PLIST_BOOLEAN:
        return read<bool, uint8_t>(node, plist_get_bool_val);
      case PLIST_UINT:
        return read<int64_t, uint64_t>(node, plist_get_uint_val);
      case PLIST_REAL:
        return read<double, double>(node, plist_get_real_val);
      case PLIST_STRING:
        return string(node);
      case PLIST_DATA:
        return data(node);
      case PLIST_DATE:
        return date(node);
      case PLIST_ARRAY:
        return array(node, level);
      case PLIST_DICT:
        return dictionary(node, level);
      case PLIST_KEY:
      case PLIST_UID:
      case PLIST_NONE:
        break;
    }
    return fail(false);
  }

  template <class Ours, class Theirs>
  static Ours read(plist_t node, void (*get)(plist_t, Theirs*)) {
    Theirs value = 0;
    get(node, &value);
    return static_cast<Ours>(value);
  }

  std::string string(plist_t node) {
    uint64_t length = 0;
    const char* const text = plist_get_string_ptr(node, &length);
    if (!text || !isUtf8({text, length})) return fail(std::string());
    return {text, length};
  }

  static PropertyList::Data data(plist_t node) {
    uint64_t length = 0;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(plist_get_data_ptr(node, &length));
    return bytes ? PropertyList::Data(bytes, bytes + length) : PropertyList::Data();
  }

  static PropertyList::Date date(plist_t node) {
    constexpr auto kEpoch = std::chrono::seconds(978307200);  // 2001-01-01, from which lists count
    int32_t seconds = 0;
    int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    return PropertyList::Date(kEpoch + std::chrono::seconds(seconds) + std::chrono::microseconds(microseconds));
  }

  template <class T>
  T fail(T instead) {
    mFailed = true;
    return instead;
  }

  size_t mValues = 0;
  bool mFailed = false;
};

/// The whole of a plain file that is not larger than a list may be.
std::optional<std::vector<uint8_t>> readFile(const std::string& path) {
  // Without waiting: a FIFO of that name must not hold the caller.
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return std::nullopt;
  struct CloseFile {
    int descriptor;
    ~CloseFile() { close(descriptor); }
  } const owner{descriptor};

  struct stat status = {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (static_cast<uint64_t>(status.st_size) > kMostBytes) return std::nullopt;
  std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
  size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t count = read(descriptor, bytes.data() + filled, bytes.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    filled += static_cast<size_t>(count);
  }
  return bytes;
}

}  // namespace

std::optional<PropertyList::Dictionary> PropertyList::dictionaryWithContentsOfFile(const std::string& path) {
  const auto bytes = readFile(path);
  if (!bytes) return std::nullopt;
  return dictionaryWithData(*bytes);
}

std::optional<PropertyList::Dictionary> PropertyList::dictionaryWithData(std::span<const uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > kMostBytes) return std::nullopt;
  const PlistPtr root = parse(bytes);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
  return Conversion::dictionaryOf(root.get());
}

}  // namespace vesk
