#include <vesk/xml_reader.h>

#include "catalogue/text_number.h"

namespace vesk {
namespace {

constexpr size_t kFewEntries = 16;
constexpr size_t kFirstRoom = 4;

std::optional<XMLNode> below(const XMLNode& node, std::string_view component) {
  if (const auto list = node.list()) {
    if (component == "last") return list->empty() ? std::nullopt : std::optional(list->back());
    const auto index = static_cast<uint32_t>(intValue(component));
    return index < list->size() ? std::optional((*list)[index]) : std::nullopt;
  }
  const auto dictionary = node.dictionary();
  const XMLNode* const found = dictionary ? dictionary->find(component) : nullptr;
  return found ? std::optional(*found) : std::nullopt;
}

/// Takes the text up to the next dot, and the dot.
std::string_view takeComponent(std::string_view& path) {
  const size_t dot = path.find('.');
  const std::string_view component = path.substr(0, dot);
  path = dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
  return component;
}

}  // namespace

int32_t XMLNode::int32Value() const {
  if (const int32_t* const value = number()) return *value;
  if (const bool* const value = boolean()) return *value ? 1 : 0;
  const std::string* const value = text();
  return value ? intValue(*value) : 0;
}

bool XMLNode::booleanValue() const {
  if (const bool* const value = boolean()) return *value;
  if (const int32_t* const value = number()) return *value != 0;
  const std::string* const value = text();
  return value && boolValue(*value);
}

const XMLNode* XMLDictionary::find(std::string_view name) const {
  if (!mPlaces.empty()) {
    const auto place = mPlaces.find(std::string(name));
    return place == mPlaces.end() ? nullptr : &mEntries[place->second].second;
  }
  for (const Entry& entry : mEntries)
    if (entry.first == name) return &entry.second;
  return nullptr;
}

void XMLDictionary::set(std::string_view name, XMLNode node) {
  if (XMLNode* const found = find(name))
    *found = std::move(node);
  else
    add(name, std::move(node));
}

void XMLDictionary::add(std::string_view name, XMLNode node) {
  if (mEntries.empty()) mEntries.reserve(kFirstRoom);
  mEntries.emplace_back(name, std::move(node));
  if (!mPlaces.empty()) {
    mPlaces.emplace(mEntries.back().first, mEntries.size() - 1);
  } else if (mEntries.size() > kFewEntries) {
    for (size_t place = 0; place < mEntries.size(); ++place) mPlaces.emplace(mEntries[place].first, place);
  }
}

std::optional<XMLNode> XMLDictionary::retrieveForPath(std::string_view path) const {
  const bool hasMore = path.find('.') != std::string_view::npos;
  const XMLNode* const first = find(takeComponent(path));
  if (!first || !hasMore) return first ? std::optional(*first) : std::nullopt;
  std::optional<XMLNode> current = *first;
  for (bool isLast = false; current && !isLast;) {
    isLast = path.find('.') == std::string_view::npos;
    current = below(*current, takeComponent(path));
  }
  return current;
}

}  // namespace vesk
