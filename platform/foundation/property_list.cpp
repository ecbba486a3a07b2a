#include <vesk/property_list.h>

#include <glib.h>
#include <plist/plist.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/foundation/byte_reader.h"
#include "platform/foundation/file_bytes.h"
#include "platform/foundation/malloc_ptr.h"
#include "platform/foundation/xml_parser.h"

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

struct FreeGlib {
  void operator()(void* memory) const noexcept { g_free(memory); }
};

bool isBinary(Bytes bytes) {
  constexpr std::string_view kMagic = "bplist";
  return bytes.size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end(), bytes.begin());
}

// The library that reads binary lists parses and frees by recursion and expands shared values, so a
// small hostile file could exhaust the stack or the memory. What it would build is therefore measured
// first.

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

PlistPtr parseBinary(Bytes bytes) {
  plist_t root = nullptr;
  if (BinaryOutline::isModest(bytes))
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &root);
  return PlistPtr(root);
}

bool isUtf8(std::string_view text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

/// Turns the nodes of the library for binary lists into values. One of an unknown kind or beyond the limits fails the
/// whole.
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
      result.emplace_back(value(item, level + 1));
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

/// The text without white space at its ends.
std::string_view bareOf(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const size_t first = text.find_first_not_of(kSpace);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

/// The number that a text is from its first character to its last.
template <class T, class... Base>
std::optional<T> numberIn(std::string_view text, Base... base) {
  T value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base...);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// An integer, decimal or hexadecimal, of at most 64 bits without its sign.
std::optional<PropertyList::Value> integerIn(std::string_view text) {
  const bool isMinus = text.starts_with('-');
  if (isMinus || text.starts_with('+')) text.remove_prefix(1);
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (isHexadecimal) text.remove_prefix(2);
  const auto magnitude = numberIn<uint64_t>(text, isHexadecimal ? 16 : 10);
  if (!magnitude) return std::nullopt;
  return static_cast<int64_t>(isMinus ? 0 - *magnitude : *magnitude);
}

std::optional<PropertyList::Value> realIn(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto value = numberIn<double>(text);
  return value ? std::optional<PropertyList::Value>(*value) : std::nullopt;
}

/// A moment as ISO 8601 writes it for Greenwich: "2001-01-02T00:00:00Z".
std::optional<PropertyList::Value> dateIn(std::string_view text) {
  constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
  if (text.size() != kShape.size()) return std::nullopt;
  for (size_t i = 0; i < kShape.size(); ++i)
    if (kShape[i] != '0' && kShape[i] != text[i]) return std::nullopt;
  const auto part = [text](size_t at, size_t length) {
    return numberIn<unsigned>(text.substr(at, length)).value_or(99);
  };
  const std::chrono::year_month_day day{
      std::chrono::year(static_cast<int>(numberIn<unsigned>(text.substr(0, 4)).value_or(0))),
      std::chrono::month(part(5, 2)), std::chrono::day(part(8, 2))};
  constexpr std::chrono::year kFirst(1678), kLast(2261);  // that the clock can count in nanoseconds
  const unsigned hour = part(11, 2), minute = part(14, 2), second = part(17, 2);
  if (!day.ok() || day.year() < kFirst || day.year() > kLast || hour > 23 || minute > 59 || second > 60)
    return std::nullopt;
  return PropertyList::Date(std::chrono::sys_days(day) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                            std::chrono::seconds(second));
}

std::optional<PropertyList::Value> dataIn(const std::string& text) {
  gsize length = 0;
  const std::unique_ptr<guchar, FreeGlib> bytes(g_base64_decode(text.c_str(), &length));
  return bytes ? PropertyList::Data(bytes.get(), bytes.get() + length) : PropertyList::Data();
}

/// What an element that holds no others says.
std::optional<PropertyList::Value> leafOf(std::string_view element, std::string text) {
  if (element == "string") return PropertyList::Value(std::move(text));
  if (element == "integer") return integerIn(bareOf(text));
  if (element == "real") return realIn(bareOf(text));
  if (element == "date") return dateIn(bareOf(text));
  if (element == "data") return dataIn(text);
  if (element == "true" || element == "false") return PropertyList::Value(element == "true");
  return std::nullopt;
}

/// Makes values of an XML list while it is read, without recursion. The first thing that does not
/// belong there, or is beyond the limits, fails the whole.
class XmlConversion : public NSXMLParserDelegate {
 public:
  static std::optional<PropertyList::Dictionary> dictionaryOf(Bytes bytes, std::string& why) {
    XmlConversion conversion;
    NSXMLParser parser = NSXMLParser::initWithData(bytes);
    parser.setDelegate(&conversion);
    parser.parse();
    if (!conversion.mTop && conversion.mWhy.empty()) conversion.mWhy = "it holds no value";
    why = conversion.mWhy;
    if (!why.empty()) return std::nullopt;
    if (auto* const dictionary = std::get_if<PropertyList::Dictionary>(&*conversion.mTop))
      return std::move(*dictionary);
    why = "its value is no dictionary";
    return std::nullopt;
  }

  void parserDidStartElement(NSXMLParser&, std::string_view element, std::string_view, std::string_view,
                             XMLAttributes) override {
    if (!mWhy.empty()) return;
    if (!mLeaf.empty()) return fail("an element \"" + std::string(element) + "\" stands inside of a value");
    if (element == "plist" && mOpen.empty() && !mIsInList) {
      mIsInList = true;
    } else if (element == "dict" || element == "array") {
      if (mOpen.size() >= kMostLevels) return fail("it is nested too deeply");
      Open& open = mOpen.emplace_back();
      if (element == "dict")
        open.value.emplace<PropertyList::Dictionary>();
      else
        open.value.emplace<PropertyList::Array>();
    } else {
      mLeaf = element;
      mText.clear();
    }
  }

  void parserFoundCharacters(NSXMLParser&, std::string_view text) override {
    if (!mLeaf.empty()) mText += text;
  }

  void parserDidEndElement(NSXMLParser&, std::string_view element, std::string_view, std::string_view) override {
    if (!mWhy.empty()) return;
    if (!mLeaf.empty()) {
      mLeaf.clear();
      if (element == "key") return takeKey();
      auto value = leafOf(element, std::move(mText));
      if (!value) return fail("an element \"" + std::string(element) + "\" does not hold what it should");
      return put(std::move(*value));
    }
    if (mOpen.empty()) return;  // the list itself
    if (mOpen.back().key) return fail("a key has no value");
    Value value = std::move(mOpen.back().value);
    mOpen.pop_back();
    put(std::move(value));
  }

  void parserParseErrorOccurred(NSXMLParser&, const NSError& error) override {
    if (mWhy.empty()) mWhy = error.description;
  }

 private:
  using Value = PropertyList::Value;

  struct Open {
    Value value;
    std::optional<std::string> key;  ///< of a dictionary, whose value comes next
  };

  void takeKey() {
    if (mOpen.empty() || !std::holds_alternative<PropertyList::Dictionary>(mOpen.back().value) || mOpen.back().key)
      return fail("a key stands where a value should");
    mOpen.back().key = std::move(mText);
  }

  void put(Value value) {
    if (++mValues > kMostValues) return fail("it has too many values");
    if (mOpen.empty()) {
      if (mTop) return fail("it has more than one value");
      mTop = std::move(value);
      return;
    }
    Open& open = mOpen.back();
    if (auto* const array = std::get_if<PropertyList::Array>(&open.value)) {
      array->emplace_back(std::move(value));
      return;
    }
    if (!open.key) return fail("a value has no key");
    std::get<PropertyList::Dictionary>(open.value)
        .insert_or_assign(std::move(*open.key), PropertyList(std::move(value)));
    open.key.reset();
  }

  void fail(std::string why) { mWhy = std::move(why); }

  std::vector<Open> mOpen;  ///< the containers, the outermost first
  std::string mLeaf;        ///< the open element that holds no others; empty when there is none
  std::string mText;        ///< its text
  std::optional<Value> mTop;
  bool mIsInList = false;
  size_t mValues = 0;
  std::string mWhy;
};

}  // namespace

namespace {

std::optional<PropertyList::Dictionary> read(std::span<const uint8_t> bytes, std::string& reason) {
  if (bytes.size() > kMostBytes) {
    reason = "it is too large";
    return std::nullopt;
  }
  if (!isBinary(bytes)) return XmlConversion::dictionaryOf(bytes, reason);
  std::optional<PropertyList::Dictionary> result;
  const PlistPtr root = parseBinary(bytes);
  if (root && plist_get_node_type(root.get()) == PLIST_DICT) result = Conversion::dictionaryOf(root.get());
  if (!result) reason = "it is damaged, or its value is no dictionary";
  return result;
}

}  // namespace

std::optional<PropertyList::Dictionary> PropertyList::dictionaryWithContentsOfFile(const std::string& path,
                                                                                   Error* why) {
  const auto bytes = fileBytes(path, kMostBytes, why);
  if (!bytes) return std::nullopt;
  std::string reason;
  auto result = read(*bytes, reason);
  if (why && !result) *why = {Cause::kUnreadable, path + ": " + reason, "", path};
  return result;
}

std::optional<PropertyList::Dictionary> PropertyList::dictionaryWithData(std::span<const uint8_t> bytes, Error* why) {
  std::string reason;
  auto result = read(bytes, reason);
  if (why && !result) *why = {Cause::kUnreadable, "the property list cannot be read: " + reason, ""};
  return result;
}

}  // namespace vesk
