#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <vesk/property_sets.h>
#include "capture/linux/nodes/open_node.h"

namespace vesk::capture {

/// The properties that controls of the kernel's stand for. Nothing is remembered: other programs, and the
/// camera's automatic modes, change values too, and the kernel keeps what does not change.
///
/// Statuses as for CaptureDevice: 14 what the camera does not have; 2 a value of the wrong size or out of
/// range, which changes nothing, but a head goes as far as it can; 19 a control that another program holds; 1 one that
/// cannot be set now, a request that it does not answer, and a camera that stalls or is gone.
///
/// Threads: every operation from any thread.
class ControlProperties {
 public:
  /// `nodes` are all of the camera's: a property is looked for on each.
  explicit ControlProperties(std::vector<std::shared_ptr<OpenNode>> nodes);

  int32_t get(uint32_t request, const PropertySetIdentifier& set, uint32_t number, std::span<uint8_t> value,
              uint32_t& valueSize) const;
  int32_t set(const PropertySetIdentifier& set, uint32_t number, std::span<const uint8_t> value) const;
  std::vector<PropertySetIdentifier> sets() const;
  std::vector<uint32_t> items(const PropertySetIdentifier& set) const;

 private:
  struct Found;

  int32_t find(const PropertySetIdentifier& set, uint32_t number, Found& found) const;

  const std::vector<std::shared_ptr<OpenNode>> mNodes;
};

}  // namespace vesk::capture
