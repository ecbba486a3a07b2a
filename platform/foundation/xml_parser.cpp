#include "platform/foundation/xml_parser.h"

#define XML_DTD  // shows the limits on entities in the header
#include <expat.h>
#include <iconv.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace vesk {
namespace {

// What entities may add to a document: so many times its own size, once it is beyond what is small.
constexpr float kMostAmplification = 4.0F;
constexpr unsigned long long kSmallDocument = 64 * 1024;

// expat walks all of an element's declared attributes for each declaration and for each such element.
constexpr size_t kMostDeclaredAttributes = 500;

constexpr int64_t kLimitCode = 1000;  // beyond expat's own numbers

struct FreeParser {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};
using ExpatHandle = std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser>;

/// The letters and digits of an encoding's name in capitals: what people mean when they misspell one.
std::string essenceOf(std::string_view name) {
  std::string essence;
  for (const char character : name)
    if (std::isalnum(static_cast<unsigned char>(character)) != 0)
      essence += static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
  return essence;
}

bool isLatin1(std::string_view essence) {
  constexpr std::string_view kNames[] = {"LATIN1", "ISOLATIN1", "ISO88591", "88591", "ISO885911987", "L1"};
  return std::find(std::begin(kNames), std::end(kNames), essence) != std::end(kNames);
}

/// The C library's converter from an encoding to UTF-32.
class EncodingConverter {
 public:
  explicit EncodingConverter(const char* encoding) : mConverter(iconv_open("UTF-32LE", encoding)) {}
  ~EncodingConverter() {
    if (isThere()) iconv_close(mConverter);
  }
  EncodingConverter(const EncodingConverter&) = delete;
  EncodingConverter& operator=(const EncodingConverter&) = delete;

  bool isThere() const { return mConverter != reinterpret_cast<iconv_t>(-1); }

  /// The character that a byte stands for; -1 when it stands for none on its own.
  int characterOf(uint8_t byte) const {
    std::array<char, 1> in{static_cast<char>(byte)};
    std::array<char, 4> out{};
    char* from = in.data();
    char* to = out.data();
    size_t inLeft = in.size();
    size_t outLeft = out.size();
    iconv(mConverter, nullptr, nullptr, nullptr, nullptr);
    if (iconv(mConverter, &from, &inLeft, &to, &outLeft) == static_cast<size_t>(-1)) return -1;
    iconv(mConverter, nullptr, nullptr, &to, &outLeft);  // a letter may wait for an accent
    if (outLeft != 0) return -1;
    const auto part = [&out](size_t i) { return static_cast<int>(static_cast<uint8_t>(out.at(i))); };
    return part(2) == 0 && part(3) == 0 ? part(1) << 8 | part(0) : -1;  // expat takes no more
  }

 private:
  iconv_t mConverter;
};

/// Fills in what each byte means in a single-byte encoding. @return whether it is one, and has ASCII
/// where that is.
bool fillCharacters(const char* encoding, XML_Encoding& to) {
  const EncodingConverter converter(encoding);
  if (!converter.isThere()) return false;
  int known = 0;
  for (int byte = 0; byte < 256; ++byte) {
    to.map[byte] = converter.characterOf(static_cast<uint8_t>(byte));
    if (byte >= 0x20 && byte < 0x7F && to.map[byte] != byte) return false;
    if (byte >= 0x80 && to.map[byte] >= 0) ++known;
  }
  constexpr int kFewest = 32;  // the lead bytes of larger encodings mean nothing on their own
  return known >= kFewest;
}

/// One run over a document: gathers what expat tells in scraps, and hands it on.
class Run {
 public:
  Run(NSXMLParser& parser, NSXMLParserDelegate& delegate) : mParser(parser), mDelegate(delegate) {}

  bool perform(std::span<const uint8_t> bytes) {
    if (bytes.size() > NSXMLParser::kMostBytes) return fail(kLimitCode, "it is larger than 16 MiB");
    bool isRead = read(bytes, nullptr);
    if (!isRead && mEncoding) isRead = read(bytes, mEncoding);  // nothing was told yet
    if (isRead) return true;
    if (!mExpat) return fail(XML_ERROR_NO_MEMORY, "there is no memory to read it");
    if (mRefusal) return fail(kLimitCode, mRefusal);
    const XML_Error error = XML_GetErrorCode(mExpat.get());
    return fail(error, XML_ErrorString(error));
  }

 private:
  static Run& from(void* self) { return *static_cast<Run*>(self); }

  /// @param encoding instead of what the document declares; null for that
  bool read(std::span<const uint8_t> bytes, const char* encoding) {
    mExpat.reset(XML_ParserCreate(encoding));
    if (!mExpat) return false;
    XML_SetUserData(mExpat.get(), this);
    XML_SetElementHandler(mExpat.get(), startElement, endElement);
    XML_SetCharacterDataHandler(mExpat.get(), characterData);
    XML_SetCommentHandler(mExpat.get(), [](void* self, const XML_Char*) { ended(self); });
    XML_SetProcessingInstructionHandler(mExpat.get(),
                                        [](void* self, const XML_Char*, const XML_Char*) { ended(self); });
    XML_SetCdataSectionHandler(mExpat.get(), ended, ended);
    XML_SetAttlistDeclHandler(mExpat.get(), attributeDeclared);
    XML_SetUnknownEncodingHandler(mExpat.get(), unknownEncoding, this);
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(mExpat.get(), kMostAmplification);
    XML_SetBillionLaughsAttackProtectionActivationThreshold(mExpat.get(), kSmallDocument);
    const auto* const text = reinterpret_cast<const char*>(bytes.data());
    return XML_Parse(mExpat.get(), text, static_cast<int>(bytes.size()), XML_TRUE) == XML_STATUS_OK;
  }

  /// An encoding that expat does not know by this name: one of single bytes, or a misspelled one.
  static int unknownEncoding(void* self, const XML_Char* name, XML_Encoding* info) {
    int status = XML_STATUS_ERROR;
    from(self).guarded([&](Run& run) {
      const std::string essence = essenceOf(name);
      if (essence == "UTF8")
        run.mEncoding = "UTF-8";
      else if (essence == "UTF16")
        run.mEncoding = "UTF-16";
      else if (fillCharacters(isLatin1(essence) ? "ISO-8859-1" : name, *info))
        status = XML_STATUS_OK;
    });
    info->data = nullptr;
    info->convert = nullptr;
    info->release = nullptr;
    return status;
  }

  static void attributeDeclared(void* self, const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    from(self).guarded([](Run& run) {
      if (++run.mDeclaredAttributes > kMostDeclaredAttributes) run.refuse("it declares more than 500 attributes");
    });
  }

  static void startElement(void* self, const XML_Char* name, const XML_Char** attributes) {
    from(self).guarded([&](Run& run) { run.start(name, attributes); });
  }
  static void endElement(void* self, const XML_Char* name) {
    from(self).guarded([&](Run& run) {
      run.flush();
      --run.mLevels;
      run.mDelegate.parserDidEndElement(run.mParser, name, {}, name);
    });
  }
  static void characterData(void* self, const XML_Char* text, int length) {
    from(self).guarded([&](Run& run) { run.gather({text, static_cast<size_t>(length)}); });
  }
  /// A piece of text has come to its end.
  static void ended(void* self) {
    from(self).guarded([](Run& run) { run.flush(); });
  }

  /// Nothing may be thrown through expat.
  template <class Body>
  void guarded(Body&& body) noexcept {
    if (mRefusal) return;  // expat may still finish what it has begun
    try {
      body(*this);
    } catch (const std::bad_alloc&) {
      refuse("there is no memory for what it holds");
    } catch (...) {
      refuse("its receiver failed");
    }
  }

  void start(const XML_Char* name, const XML_Char** attributes) {
    flush();
    if (++mLevels > NSXMLParser::kMostLevels) return refuse("it is nested more than 128 levels deep");
    mAttributes.clear();
    for (const XML_Char** each = attributes; *each; each += 2) mAttributes.push_back({each[0], each[1]});
    mItems += 1 + mAttributes.size();
    if (mItems > NSXMLParser::kMostItems) return refuse("it has more than 500000 elements and attributes");
    for (const XMLAttribute& attribute : mAttributes) count(attribute.value.size());
    if (mRefusal) return;
    mDelegate.parserDidStartElement(mParser, name, {}, name, mAttributes);
  }

  void gather(std::string_view text) {
    count(text.size());
    if (!mRefusal) mText += text;
  }

  void count(size_t bytes) {
    mTextBytes += bytes;
    if (mTextBytes > NSXMLParser::kMostText) refuse("its entities make it too large");
  }

  void flush() {
    if (mText.empty()) return;
    mDelegate.parserFoundCharacters(mParser, mText);
    mText.clear();
  }

  void refuse(const char* why) {
    mRefusal = why;
    XML_StopParser(mExpat.get(), XML_FALSE);
  }

  bool fail(int64_t code, const char* why) {
    std::string text = why;
    if (mExpat)
      text += " (line " + std::to_string(XML_GetCurrentLineNumber(mExpat.get())) + ", column " +
              std::to_string(XML_GetCurrentColumnNumber(mExpat.get()) + 1) + ")";
    mDelegate.parserParseErrorOccurred(mParser, {code, "The document cannot be read: " + text + "."});
    return false;
  }

  NSXMLParser& mParser;
  NSXMLParserDelegate& mDelegate;
  ExpatHandle mExpat;
  const char* mEncoding = nullptr;  ///< what the document meant by the encoding that it declares
  size_t mDeclaredAttributes = 0;
  std::string mText;  // since the last piece's end
  std::vector<XMLAttribute> mAttributes;
  size_t mLevels = 0;
  size_t mItems = 0;
  size_t mTextBytes = 0;
  const char* mRefusal = nullptr;
};

/// Hears nothing.
class NoDelegate final : public NSXMLParserDelegate {
 public:
  void parserDidStartElement(NSXMLParser&, std::string_view, std::string_view, std::string_view,
                             XMLAttributes) override {}
  void parserDidEndElement(NSXMLParser&, std::string_view, std::string_view, std::string_view) override {}
  void parserFoundCharacters(NSXMLParser&, std::string_view) override {}
  void parserParseErrorOccurred(NSXMLParser&, const NSError&) override {}
};

}  // namespace

bool NSXMLParser::parse() {
  NoDelegate none;
  return Run(*this, mDelegate ? *mDelegate : none).perform(mBytes);
}

}  // namespace vesk
