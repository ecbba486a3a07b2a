// A USB device's descriptors as hostile hardware might have them: read as far as they are whole, never
// past their end.

#include <cstdlib>

#include "capture/linux/controls/extension_units.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  for (const uint8_t interface : {0, 1}) {
    for (const auto& unit : vesk::capture::parseExtensionUnits({bytes, size}, interface)) {
      uint32_t last = 0;
      for (const uint32_t selector : unit.selectors) {
        if (selector <= last || selector > UINT8_MAX) std::abort();
        last = selector;
      }
    }
  }
  return 0;
}
