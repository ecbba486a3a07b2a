// Documents as a hostile file might hold them: read or refused within the limits, and what was read
// can be walked and searched.

#include <vesk/resolution_info.h>
#include <vesk/xml_reader.h>
#include "catalogue/resolutions_of.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  vesk::NSError error;
  const auto root = vesk::SMXMLReader::dictionaryForXMLData({bytes, size}, &error);
  if (!root && !error) __builtin_trap();
  if (!root) return 0;
  for (const char* path : {"Resolutions.Camera.last.Resolution.0.FrameRate.FMT", "a.-1.b", ".", ""})
    root->retrieveForPath(path);
  for (const uint32_t product : {0U, 0x1A2BU}) vesk::resolutionsOf(*root, product);
  return 0;
}
