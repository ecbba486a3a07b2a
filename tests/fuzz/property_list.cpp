// Property lists as a hostile file might hold them: read to the end or refused, and never a crash
// in the library below.

#include <vesk/property_list.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  vesk::PropertyList::dictionaryWithData({bytes, size});
  return 0;
}
