#pragma once

#include <cstdint>
#include <memory>

#include <vesk/xml_reader.h>

namespace vesk {

/// The `Resolution` list of the first camera of `productID` in a catalogue that has been read; null
/// when there is none. A camera or a resolution that is the only one counts as a list of one.
std::shared_ptr<const XMLList> resolutionsOf(const XMLDictionary& catalogue, uint32_t productID);

}  // namespace vesk
