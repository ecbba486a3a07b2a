#include "catalogue/xml_parser.h"

#define XML_DTD  // shows the limits on entities in the header
#include <expat.h>

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

constexpr int64_t kLimitCode = 1000;  // beyond expat's own numbers

struct FreeParser {
  void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
};
using ParserHandle = std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser>;

/// One run over a document: gathers what expat tells in scraps, and hands it on.
class Run {
 public:
  Run(NSXMLParser& parser, NSXMLParserDelegate& delegate)
      : mParser(parser), mDelegate(delegate), mExpat(XML_ParserCreate(nullptr)) {}

  bool perform(std::span<const uint8_t> bytes) {
    if (!mExpat) return fail(XML_ERROR_NO_MEMORY, "there is no memory to read it");
    if (bytes.size() > NSXMLParser::kMostBytes) return fail(kLimitCode, "it is larger than 16 MiB");
    XML_SetUserData(mExpat.get(), this);
    XML_SetElementHandler(mExpat.get(), startElement, endElement);
    XML_SetCharacterDataHandler(mExpat.get(), characterData);
    XML_SetCommentHandler(mExpat.get(), [](void* self, const XML_Char*) { ended(self); });
    XML_SetProcessingInstructionHandler(mExpat.get(),
                                        [](void* self, const XML_Char*, const XML_Char*) { ended(self); });
    XML_SetCdataSectionHandler(mExpat.get(), ended, ended);
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(mExpat.get(), kMostAmplification);
    XML_SetBillionLaughsAttackProtectionActivationThreshold(mExpat.get(), kSmallDocument);
    const auto* const text = reinterpret_cast<const char*>(bytes.data());
    if (XML_Parse(mExpat.get(), text, static_cast<int>(bytes.size()), XML_TRUE) == XML_STATUS_OK) return true;
    if (mRefusal) return fail(kLimitCode, mRefusal);
    const XML_Error error = XML_GetErrorCode(mExpat.get());
    return fail(error, XML_ErrorString(error));
  }

 private:
  static Run& from(void* self) { return *static_cast<Run*>(self); }

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
  const ParserHandle mExpat;
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
