#include "catalogue/xml_tree_builder.h"

#include <algorithm>
#include <utility>

#include "catalogue/text_number.h"

namespace vesk {
namespace {

constexpr std::string_view kProduct = "PID";
constexpr std::string_view kFrameRate = "FrameRate";
constexpr std::string_view kText = "text";

constexpr std::string_view kIntegers[] = {"DisplayedWidth",  "DisplayedHeight", "SelectedHeight", "SelectedWidth",
                                          "StillHeight",     "StillName",       "StillWidth",     "StreamingWidth",
                                          "StreamingHeight", "VideoName",       "FrameRate",      "Bitrate"};
constexpr std::string_view kBooleans[] = {"Interpolated", "MotionDefault",    "MotionSupported",
                                          "StillDefault", "StillOnly",        "StillSupported",
                                          "VideoDefault", "VideoPostProcess", "VideoSupported"};

template <size_t count>
bool isAmong(const std::string_view (&names)[count], std::string_view name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

/// What the text of an element that has no sibling of its name becomes.
XMLNode converted(std::string_view name, std::string text) {
  if (isAmong(kIntegers, name)) return XMLNode(intValue(text));
  if (isAmong(kBooleans, name)) return XMLNode(boolValue(text));
  return XMLNode(std::move(text));
}

}  // namespace

std::shared_ptr<XMLDictionary> XMLTreeBuilder::build(std::span<const uint8_t> bytes) {
  begin();
  NSXMLParser parser = NSXMLParser::initWithData(bytes);
  parser.setDelegate(this);
  return parser.parse() ? mDictionaryStack.front() : nullptr;
}

void XMLTreeBuilder::begin() {
  mDictionaryStack.assign(1, std::make_shared<XMLDictionary>());
  mTextInProgress.clear();
}

XMLDictionary& XMLTreeBuilder::dictionaryAt(size_t level) {
  auto& dictionary = mDictionaryStack[level];
  if (!dictionary) dictionary = std::make_shared<XMLDictionary>();
  return *dictionary;
}

void XMLTreeBuilder::parserDidStartElement(NSXMLParser&, std::string_view, std::string_view, std::string_view,
                                           XMLAttributes attributes) {
  if (mDictionaryStack.empty()) begin();
  mDictionaryStack.emplace_back();
  for (const XMLAttribute& attribute : attributes) {
    const bool isProduct = attribute.name == kProduct;
    dictionaryAt(mDictionaryStack.size() - 1)
        .set(attribute.name,
             isProduct ? XMLNode(hexadecimalValue(attribute.value)) : XMLNode(std::string(attribute.value)));
  }
}

void XMLTreeBuilder::parserFoundCharacters(NSXMLParser&, std::string_view text) {
  mTextInProgress += trimmed(text);
}

// Text belongs to the element that ends next, also where it stands before that element's start.
void XMLTreeBuilder::parserDidEndElement(NSXMLParser&, std::string_view elementName, std::string_view,
                                         std::string_view) {
  if (mDictionaryStack.size() < 2) return;
  const auto element = std::move(mDictionaryStack.back());
  mDictionaryStack.pop_back();
  std::string text = std::exchange(mTextInProgress, {});
  XMLDictionary& parent = dictionaryAt(mDictionaryStack.size() - 1);
  XMLNode* const sibling = parent.find(elementName);
  XMLList* const siblings = sibling ? &listAt(*sibling) : nullptr;

  if (element && !element->empty()) {
    if (elementName == kFrameRate && !text.empty())
      element->set(kFrameRate, XMLNode(intValue(text)));
    else if (!text.empty())
      element->set(kText, XMLNode(std::move(text)));
    add(parent, siblings, elementName, XMLNode(std::shared_ptr<const XMLDictionary>(element)));
  } else if (!text.empty()) {
    add(parent, siblings, elementName, siblings ? XMLNode(std::move(text)) : converted(elementName, std::move(text)));
  }
}

/// The list that a node is, or that it becomes the first entry of: its name is repeated.
XMLList& XMLTreeBuilder::listAt(XMLNode& node) {
  // Lists in a tree that is being made are the reader's own, and made to be changed.
  if (const auto list = node.list()) return const_cast<XMLList&>(*list);
  auto list = std::make_shared<XMLList>(1, std::move(node));
  XMLList& made = *list;
  node = XMLNode(std::shared_ptr<const XMLList>(std::move(list)));
  return made;
}

void XMLTreeBuilder::add(XMLDictionary& parent, XMLList* siblings, std::string_view name, XMLNode node) {
  if (siblings)
    siblings->push_back(std::move(node));
  else
    parent.set(name, std::move(node));
}

void XMLTreeBuilder::parserParseErrorOccurred(NSXMLParser&, const NSError& error) {
  if (mErrorPointer) *mErrorPointer = error;
}

}  // namespace vesk
