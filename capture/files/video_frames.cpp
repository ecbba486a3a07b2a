#include "capture/files/video_frames.h"

#include <algorithm>

namespace vesk::capture {

bool VideoFrames::start(int64_t time, bool) {
  mFrom = time;
  mWaitsForKey = time > 0;
  return time > 0 ? mReader->seek(time) : mReader->rewind();
}

std::optional<MediaUnit> VideoFrames::next() {
  while (mReader->read()) {
    const auto found = frame(*mReader);
    if (!found) continue;
    if (mReader->isHidden()) {  // cut off by the edit list, and with it what depends on it
      mWaitsForKey = true;
      continue;
    }
    if (mReader->time() < mFrom || (mWaitsForKey && !found->isKey)) continue;
    mWaitsForKey = false;
    return MediaUnit{found->bytes, std::max<int64_t>(mReader->time(), 0)};
  }
  return std::nullopt;
}

H264Frames::H264Frames(std::unique_ptr<TrackReader> reader)
    : VideoFrames(std::move(reader)), mWriter(track().header()) {}

std::optional<VideoFrames::Frame> H264Frames::frame(TrackReader& reader) {
  if (const auto header = reader.newHeader(); !header.empty()) mWriter.learn(header);
  const auto unit = mWriter.write(reader.bytes());
  if (unit) return Frame{unit->bytes, unit->isIDR || reader.isKey()};
  reader.noteDamage("a picture's NAL units are broken");
  return std::nullopt;
}

std::optional<VideoFrames::Frame> MotionJPEGFrames::frame(TrackReader& reader) {
  const auto bytes = reader.bytes();
  if (bytes.size() >= 4 && bytes[0] == 0xFF && bytes[1] == 0xD8) return Frame{bytes};
  reader.noteDamage("a picture is no JPEG picture");
  return std::nullopt;
}

std::optional<VideoFrames::Frame> Packed422Frames::frame(TrackReader& reader) {
  if (reader.bytes().size() == mFrameBytes) return Frame{reader.bytes()};
  reader.noteDamage("a picture has the wrong size");
  return std::nullopt;
}

}  // namespace vesk::capture
