#pragma once

#include "capture/files/file_blocks.h"

namespace vesk::capture {

/// Whether a movie's index tells all that there is to know of the packets of track `trackId`: where they lie in this
/// very file and when each is shown. So it is where each packet is shown when it is decoded, in the track's one format,
/// and no fragment holds more of them (ISO/IEC 14496-12: no ctts, mvex or second stsd entry, a dref to the file itself,
/// and an edit list, if there is one, that hides nothing). Cameras and recorders write such tracks.
/// @return false for everything else, and for what cannot be read.
bool isWholeInIndex(FileBlocks& file, int trackId);

}  // namespace vesk::capture
