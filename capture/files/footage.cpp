#include "capture/files/footage.h"

#include <fmt/format.h>

#include <algorithm>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include "capture/files/decoded_frames.h"
#include "capture/files/sound_packets.h"
#include "capture/files/track_decoder.h"
#include "capture/files/track_probe.h"
#include "capture/files/video_frames.h"

namespace vesk::capture {

namespace {

bool isAsItStands(const VideoTrack& track) {
  return track.coding != VideoCoding::kOther;
}
bool isAsItStands(const SoundTrack& track) {
  return track.coding != SoundCoding::kOther;
}

/// Where a track ends: by a movie's index when its packets are `inOrder` of presentation, else by
/// reading it once.
int64_t findEnd(TrackReader& reader, bool inOrder) {
  AVStream* stream = reader.container().context()->streams[reader.choice().index];
  const int entries = avformat_index_get_entries_count(stream);
  int64_t lastDuration = reader.choice().timeOfPackets(1);
  if (inOrder && reader.container().isMovie() && stream->nb_frames > 0 && entries > 0) {
    const AVIndexEntry* last = avformat_index_get_entry(stream, entries - 1);
    const AVCodecParameters& parameters = *stream->codecpar;
    const int frameBytes = parameters.ch_layout.nb_channels * 2;
    if (parameters.codec_id == AV_CODEC_ID_PCM_S16LE && frameBytes > 0 && parameters.sample_rate > 0) {
      lastDuration = int64_t{last->size} / frameBytes * 1000000 / parameters.sample_rate;
    }
    return reader.timeOf(last->timestamp) + lastDuration;
  }
  int64_t end = 0;
  while (reader.read()) {
    const int64_t duration = reader.isUntimed() ? 0 : reader.timeOf(reader.packet()->duration) - reader.timeOf(0);
    end = std::max(end, reader.time() + (duration > 0 ? duration : lastDuration));
  }
  reader.rewind();
  return end;
}

}  // namespace

std::vector<uint32_t> VideoTrack::codecs() const {
  std::vector<uint32_t> codecs;
  if (coding == VideoCoding::kH264) codecs.push_back(kCMVideoCodecType_H264);
  if (coding == VideoCoding::kMotionJPEG) codecs.push_back(kCMVideoCodecType_MotionJPEG);
  if (coding == VideoCoding::kPacked422 || (canBeDecoded && decodedWidth() > 0)) {
    codecs.push_back(kCMPixelFormat_422YpCbCr8);
  }
  return codecs;
}

std::unique_ptr<Footage> Footage::open(const std::string& path, bool wantsLength, Error& error) {
  const auto file = FileBlocks::open(path, error);
  if (!file) return nullptr;
  std::string unreadable;
  auto container = MediaContainer::open(path, file, unreadable);
  if (!container) {
    error = {Cause::kUnreadable, unreadable, "Name a movie or sound file that plays.", path};
    return nullptr;
  }
  auto footage = std::make_unique<Footage>();
  footage->path = path;
  const int videoIndex = container->bestTrack(AVMEDIA_TYPE_VIDEO);
  const int soundIndex = container->bestTrack(AVMEDIA_TYPE_AUDIO);
  if (videoIndex < 0 && soundIndex < 0) {
    error = {Cause::kUnreadable, fmt::format("{}: has neither a picture nor a sound track", path),
             "Name a movie or sound file that plays.", path};
    return nullptr;
  }

  Probe video;
  Probe sound;
  std::string videoError;
  std::string soundError;
  const auto reader = [&](int index, std::string& why) {
    const TrackChoice choice{path, file, index};
    return container ? TrackReader::take(choice, std::move(container)) : TrackReader::open(choice, why);
  };
  if (videoIndex >= 0) video.reader = reader(videoIndex, videoError);
  if (soundIndex >= 0) sound.reader = reader(soundIndex, soundError);
  if (video.reader) footage->video = probeVideo(video, videoError);
  if (sound.reader) footage->sound = probeSound(sound, soundError);
  if (!footage->video && !footage->sound) {
    error = {Cause::kUnreadable, videoError.empty() ? soundError : videoError, "Name a movie or sound file that plays.",
             path};
    return nullptr;
  }
  if (!videoError.empty()) NSLog(LogLevel::kWarning, videoError + "; only its sound is offered");
  if (!soundError.empty()) NSLog(LogLevel::kWarning, soundError + "; only its pictures are offered");

  const int64_t origin = std::min(video.start, sound.start);
  const auto settle = [&](auto& track, Probe& probe, std::unique_ptr<TrackReader>& kept) {
    if (!track) return;
    track->choice.origin = origin;
    probe.reader->setTiming(origin, track->choice.packetTime);
    if (wantsLength) track->end = findEnd(*probe.reader, isAsItStands(*track));
    kept = std::move(probe.reader);
  };
  if (footage->video) footage->video->begin = video.start - origin;
  settle(footage->video, video, footage->videoReader);
  settle(footage->sound, sound, footage->soundReader);
  return footage;
}

std::unique_ptr<UnitReader> videoFrames(const VideoTrack& track, uint32_t codec, std::unique_ptr<TrackReader> reader,
                                        std::string& error) {
  if (codec == kCMVideoCodecType_H264) return std::make_unique<H264Frames>(std::move(reader));
  if (codec == kCMVideoCodecType_MotionJPEG) return std::make_unique<MotionJPEGFrames>(std::move(reader));
  if (track.coding == VideoCoding::kPacked422) {
    return std::make_unique<Packed422Frames>(std::move(reader), size_t{2} * track.width * track.height);
  }
  auto decoder = TrackDecoder::open(std::move(reader), error);
  if (!decoder) return nullptr;
  return std::make_unique<DecodedFrames>(std::move(decoder), track.decodedWidth(), track.height);
}

std::unique_ptr<UnitReader> soundPackets(const SoundTrack& track, uint16_t formatCode,
                                         std::unique_ptr<TrackReader> reader, std::string& error,
                                         const std::optional<Loop>& loop) {
  if (formatCode == kWaveFormatAAC) {
    return std::make_unique<AacPackets>(std::move(reader), track.samplesPerSecond, track.channels, track.isBareStream,
                                        loop);
  }
  if (track.coding == SoundCoding::kPCM) {
    return std::make_unique<PcmPackets>(std::move(reader), track.samplesPerSecond, track.channels, loop);
  }
  auto decoder = TrackDecoder::open(std::move(reader), error);
  if (!decoder) return nullptr;
  return std::make_unique<DecodedSound>(std::move(decoder), track.samplesPerSecond, track.channels, loop);
}

}  // namespace vesk::capture
