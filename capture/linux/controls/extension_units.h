#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <vesk/property_sets.h>
#include "capture/linux/nodes/open_node.h"

namespace vesk::capture {

/// A unit with controls of the maker's own (UVC 1.1, 2.3.5). Its identifier is that of a property set,
/// its selectors are the properties.
struct ExtensionUnit {
  size_t node = 0;  ///< which of the camera's
  uint8_t id = 0;   ///< among the units of its video function
  PropertySetIdentifier identifier{};
  std::vector<uint32_t> selectors;  ///< rising
};

/// The extension units of one video function in the descriptors of a USB device (UVC 1.1, 3.7.2.5); as
/// far as they are whole.
/// @param interface the number of the function's control interface
std::vector<ExtensionUnit> parseExtensionUnits(std::span<const uint8_t> descriptors, uint8_t interface);

/// Adds the extension units of the function that a video node belongs to; none for nodes of other buses.
/// @param systemPath the node's folder in sysfs
void addExtensionUnits(const std::string& systemPath, size_t node, std::vector<ExtensionUnit>& units);

/// The properties that a camera has in extension units. Statuses as for CaptureDevice; 14 what no unit has.
///
/// Threads: every operation from any thread.
class UnitProperties {
 public:
  UnitProperties(std::vector<std::shared_ptr<OpenNode>> nodes, std::vector<ExtensionUnit> units);

  int32_t get(uint32_t request, const PropertySetIdentifier& set, uint32_t number, std::span<uint8_t> value,
              uint32_t& valueSize) const;
  int32_t set(const PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) const;
  std::vector<PropertySetIdentifier> sets() const;
  std::vector<uint32_t> items(const PropertySetIdentifier& set) const;

 private:
  template <class Query>
  int32_t askUnits(const PropertySetIdentifier& set, uint32_t number, Query query) const;

  const std::vector<std::shared_ptr<OpenNode>> mNodes;
  const std::vector<ExtensionUnit> mUnits;
};

}  // namespace vesk::capture
