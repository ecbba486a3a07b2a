#pragma once

#include "platform/decompression/image_description.h"
#include "platform/media/pixel_buffer.h"

namespace vesk {

/// The colours that a description's colour property tells of: video range, with the matrix of BT.709
/// when it names that one, and else, or without the property, with that of BT.601.
YCbCrColour describedColour(const ImageDescription& description);

}  // namespace vesk
