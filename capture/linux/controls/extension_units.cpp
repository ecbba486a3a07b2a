#include "capture/linux/controls/extension_units.h"

#include <linux/usb/ch9.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <utility>

#include <vesk/vci.h>
#include "capture/linux/controls/control_status.h"

namespace vesk::capture {
namespace {

constexpr size_t kMostBytes = size_t{1} << 20;

// Descriptors (USB 2.0, 9.6; UVC 1.1, 3.7.2.5).
constexpr uint8_t kInterfaceDescriptor = 4, kClassInterfaceDescriptor = 0x24;
constexpr size_t kHeaderSize = 2, kInterfaceSize = 9;
constexpr size_t kUnitID = 3, kUnitIdentifier = 4, kUnitPins = 21, kUnitSources = 22;

constexpr uint8_t kQueries[] = {UVC_GET_CUR, UVC_GET_DEF, UVC_GET_MIN, UVC_GET_MAX};  // by PropertyRequest

/// Descriptors hold the first three fields of an identifier the other way round than its text.
PropertySetIdentifier inOrderOfText(std::span<const uint8_t, sizeof(PropertySetIdentifier)> bytes) {
  PropertySetIdentifier identifier;
  std::copy(bytes.begin(), bytes.end(), identifier.begin());
  std::reverse(identifier.begin(), identifier.begin() + 4);
  std::reverse(identifier.begin() + 4, identifier.begin() + 6);
  std::reverse(identifier.begin() + 6, identifier.begin() + 8);
  return identifier;
}

/// Adds the unit that a descriptor describes, unless it is of another kind or too short.
void addUnit(std::span<const uint8_t> descriptor, std::vector<ExtensionUnit>& units) {
  if (descriptor.size() <= kUnitSources || descriptor[1] != kClassInterfaceDescriptor ||
      descriptor[2] != UVC_VC_EXTENSION_UNIT)
    return;
  const size_t mask = kUnitSources + descriptor[kUnitPins] + 1;
  if (descriptor.size() < mask || descriptor.size() - mask < descriptor[mask - 1]) return;
  ExtensionUnit unit;
  unit.id = descriptor[kUnitID];
  unit.identifier = inOrderOfText(descriptor.subspan<kUnitIdentifier, sizeof(PropertySetIdentifier)>());
  const auto bits = descriptor.subspan(mask, descriptor[mask - 1]);
  for (uint32_t bit = 0; bit < bits.size() * 8 && bit < UINT8_MAX; ++bit) {
    if ((bits[bit / 8] >> (bit % 8) & 1) != 0) unit.selectors.push_back(bit + 1);
  }
  units.push_back(std::move(unit));
}

std::vector<uint8_t> contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<uint8_t> content(kMostBytes);
  file.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<size_t>(file.gcount()));
  return content;
}

int query(const OpenNode& node, uint8_t unit, uint32_t selector, uint8_t request, std::span<uint8_t> value) {
  uvc_xu_control_query query{unit, static_cast<uint8_t>(selector), request, static_cast<uint16_t>(value.size()),
                             value.data()};
  return node.ask(UVCIOC_CTRL_QUERY, &query);
}

int askLength(const OpenNode& node, uint8_t unit, uint32_t selector, uint32_t& length) {
  uint8_t bytes[2] = {};
  const int error = query(node, unit, selector, UVC_GET_LEN, bytes);
  length = bytes[0] | uint32_t{bytes[1]} << 8;
  return error;
}

}  // namespace

std::vector<ExtensionUnit> parseExtensionUnits(std::span<const uint8_t> descriptors, uint8_t interface) {
  std::vector<ExtensionUnit> units;
  bool isInside = false;
  while (descriptors.size() >= kHeaderSize) {
    const size_t length = descriptors[0];
    if (length < kHeaderSize || length > descriptors.size()) break;
    const auto descriptor = descriptors.first(length);
    descriptors = descriptors.subspan(length);
    if (descriptor[1] != kInterfaceDescriptor) {
      if (isInside) addUnit(descriptor, units);
    } else {
      isInside = length >= kInterfaceSize && descriptor[2] == interface && descriptor[5] == USB_CLASS_VIDEO &&
                 descriptor[6] == UVC_SC_VIDEOCONTROL;
    }
  }
  return units;
}

void addExtensionUnits(const std::string& systemPath, size_t node, std::vector<ExtensionUnit>& units) {
  const std::string function = systemPath + "/device/";
  const std::vector<uint8_t> number = contentOf(function + "bInterfaceNumber");
  const std::string digits(number.begin(), number.end());
  uint8_t interface = 0;
  if (std::from_chars(digits.data(), digits.data() + digits.size(), interface, 16).ec != std::errc()) return;
  for (ExtensionUnit& unit : parseExtensionUnits(contentOf(function + "../descriptors"), interface)) {
    unit.node = node;
    units.push_back(std::move(unit));
  }
}

UnitProperties::UnitProperties(std::vector<std::shared_ptr<OpenNode>> nodes, std::vector<ExtensionUnit> units)
    : mNodes(std::move(nodes)), mUnits(std::move(units)) {}

/// Asks the units of that identifier in turn, until one has the property: a function's nodes know only
/// those of its units that their frames pass through.
template <class Query>
int32_t UnitProperties::askUnits(const PropertySetIdentifier& set, uint32_t number, Query query) const {
  int32_t status = kVCIPropertyNotSupported;
  for (const ExtensionUnit& unit : mUnits) {
    if (unit.identifier != set || number == 0 || number > UINT8_MAX || unit.node >= mNodes.size()) continue;
    status = query(*mNodes[unit.node], unit.id);
    if (status != kVCIPropertyNotSupported) break;
  }
  return status;
}

int32_t UnitProperties::get(uint32_t request, const PropertySetIdentifier& set, uint32_t number,
                            std::span<uint8_t> value, uint32_t& valueSize) const {
  if (request >= std::size(kQueries)) return kVCIInvalidArgument;
  return askUnits(set, number, [&](const OpenNode& node, uint8_t unit) -> int32_t {
    uint32_t length = 0;
    if (const int error = askLength(node, unit, number, length)) return controlStatus(node, error);
    // The kernel asks for the whole value; whoever asks for less is given its first bytes.
    std::vector<uint8_t> whole(length);
    if (const int error = query(node, unit, number, kQueries[request], whole)) return controlStatus(node, error);
    valueSize = static_cast<uint32_t>(std::min(value.size(), whole.size()));
    std::copy_n(whole.begin(), valueSize, value.begin());
    return kVCISuccess;
  });
}

int32_t UnitProperties::set(const PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) const {
  return askUnits(set, number, [&](const OpenNode& node, uint8_t unit) -> int32_t {
    uint32_t length = 0;
    if (const int error = askLength(node, unit, number, length)) return controlStatus(node, error);
    if (value.size() != length) return kVCIInvalidArgument;
    std::vector<uint8_t> bytes(value.begin(), value.end());
    return controlStatus(node, query(node, unit, number, UVC_SET_CUR, bytes));
  });
}

std::vector<PropertySetIdentifier> UnitProperties::sets() const {
  std::vector<PropertySetIdentifier> sets;
  for (const ExtensionUnit& unit : mUnits) {
    if (std::find(sets.begin(), sets.end(), unit.identifier) == sets.end()) sets.push_back(unit.identifier);
  }
  return sets;
}

std::vector<uint32_t> UnitProperties::items(const PropertySetIdentifier& set) const {
  std::vector<uint32_t> items;
  for (const ExtensionUnit& unit : mUnits) {
    if (unit.identifier == set) items.insert(items.end(), unit.selectors.begin(), unit.selectors.end());
  }
  std::sort(items.begin(), items.end());
  items.erase(std::unique(items.begin(), items.end()), items.end());
  return items;
}

}  // namespace vesk::capture
