#pragma once

#include <vesk/pixel_buffer.h>
#include "platform/decompression/image_description.h"

namespace vesk {

/// The colours that a description's colour property tells of: video range, with the matrix of BT.709
/// when it names that one, and else, or without the property, with that of BT.601.
YCbCrColour describedColour(const ImageDescription& description);

}  // namespace vesk
