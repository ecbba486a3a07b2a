#include "capture/files/picture_units.h"

#include <algorithm>

namespace vesk::capture {

bool PictureUnits::start(int64_t time, bool) {
  mFrom = time;
  mWaitsForKey = time > 0;
  return time > 0 ? mReader->seek(time) : mReader->rewind();
}

std::optional<MediaUnit> PictureUnits::next() {
  while (mReader->read()) {
    const auto unit = picture(*mReader);
    if (!unit) continue;
    if (mReader->isHidden()) {  // cut off by the edit list, and with it what depends on it
      mWaitsForKey = true;
      continue;
    }
    if (mReader->time() < mFrom || (mWaitsForKey && !unit->isKey)) continue;
    mWaitsForKey = false;
    return MediaUnit{unit->bytes, std::max<int64_t>(mReader->time(), 0)};
  }
  return std::nullopt;
}

H264Units::H264Units(std::unique_ptr<TrackReader> reader)
    : PictureUnits(std::move(reader)), mWriter(track().header()) {}

std::optional<PictureUnits::Picture> H264Units::picture(TrackReader& reader) {
  if (const auto header = reader.newHeader(); !header.empty()) mWriter.learn(header);
  const auto unit = mWriter.write(reader.bytes());
  if (unit) return Picture{unit->bytes, unit->isIDR || reader.isKey()};
  reader.noteDamage("a picture's NAL units are broken");
  return std::nullopt;
}

std::optional<PictureUnits::Picture> MotionJPEGUnits::picture(TrackReader& reader) {
  const auto bytes = reader.bytes();
  if (bytes.size() >= 4 && bytes[0] == 0xFF && bytes[1] == 0xD8) return Picture{bytes};
  reader.noteDamage("a picture is no JPEG picture");
  return std::nullopt;
}

std::optional<PictureUnits::Picture> Packed422Units::picture(TrackReader& reader) {
  if (reader.bytes().size() == mPictureBytes) return Picture{reader.bytes()};
  reader.noteDamage("a picture has the wrong size");
  return std::nullopt;
}

}  // namespace vesk::capture
