#include "platform/writing/track_description.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <map>
#include <string>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include "platform/h264/decoder_configuration.h"
#include "platform/h264/picture_geometry.h"
#include "platform/media/aac_silence.h"
#include "platform/writing/atom_reader.h"
#include "platform/writing/atom_writer.h"

namespace vesk {
namespace {

constexpr uint32_t kSowt = fourCharCode("sowt");
constexpr uint32_t kLpcm = fourCharCode("lpcm");
constexpr uint32_t kMp4a = fourCharCode("mp4a");
constexpr uint32_t kHighestRateOf16Bits = 65535;
constexpr size_t kLargestExtension = 4096;  // a decoder configuration takes some 50 bytes
constexpr int32_t kLargestSide = 32767;

using Colour = h264::PictureGeometry::Colour;

struct PictureLooks {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t aspectWidth = 1;
  uint32_t aspectHeight = 1;
  bool progressive = true;
  std::optional<Colour> colour;
  uint16_t depth = 24;
  uint32_t spatialQuality = 0x200;   // normal
  uint32_t temporalQuality = 0x200;  // 0 when every picture stands alone
  const char* compressor = "";
};

/// The fields that all pictures' descriptions begin with (QuickTime file format, video sample
/// description).
void writePictureFields(AtomWriter& writer, const PictureLooks& looks) {
  writer.zeros(6);
  writer.u16(1);    // data reference
  writer.zeros(4);  // version, revision
  writer.zeros(4);  // vendor
  writer.u32(looks.temporalQuality);
  writer.u32(looks.spatialQuality);
  writer.u16(static_cast<uint16_t>(looks.width));
  writer.u16(static_cast<uint16_t>(looks.height));
  writer.u32(0x00480000);  // 72 dpi
  writer.u32(0x00480000);
  writer.u32(0);
  writer.u16(1);  // frames per sample
  const std::string name = looks.compressor;
  writer.u8(static_cast<uint8_t>(name.size()));
  writer.bytes(std::span(reinterpret_cast<const uint8_t*>(name.data()), name.size()));
  writer.zeros(31 - name.size());
  writer.u16(looks.depth);
  writer.u16(0xFFFF);  // no colour table
}

void writePictureExtensions(AtomWriter& writer, const PictureLooks& looks) {
  if (looks.colour) {
    const auto atom = writer.atom(fourCharCode("colr"));
    writer.u32(fourCharCode("nclc"));
    writer.u16(looks.colour->primaries);
    writer.u16(looks.colour->transfer);
    writer.u16(looks.colour->matrix);
  }
  if (looks.aspectWidth != looks.aspectHeight) {
    const auto atom = writer.atom(fourCharCode("pasp"));
    writer.u32(looks.aspectWidth);
    writer.u32(looks.aspectHeight);
  }
  if (looks.progressive) {
    const auto atom = writer.atom(fourCharCode("fiel"));
    writer.u8(1);
    writer.u8(0);
  }
}

/// The whole entry; `atoms` are those that the format brings along.
void writePictureDescription(std::vector<uint8_t>& out, uint32_t codec, const PictureLooks& looks,
                             const std::map<std::string, std::vector<uint8_t>>& atoms) {
  AtomWriter writer(out);
  const auto entry = writer.atom(codec);
  writePictureFields(writer, looks);
  for (const auto& [type, bytes] : atoms) {
    const auto atom = writer.atom(readBigEndian32(reinterpret_cast<const uint8_t*>(type.data())));
    writer.bytes(bytes);
  }
  writePictureExtensions(writer, looks);
}

/// The shown size: pixels that are not square widen the picture.
void setDisplaySize(TrackDescription& track, const PictureLooks& looks) {
  const uint64_t width = (uint64_t{looks.width} << 16) * looks.aspectWidth / looks.aspectHeight;
  track.width = static_cast<uint32_t>(std::min<uint64_t>(width, 0x7FFFFFFF));
  track.height = looks.height << 16;
}

std::optional<TrackDescription> describeH264(const CMVideoFormatDescription& format) {
  const auto& atoms = format.extensions().sampleDescriptionExtensionAtoms;
  const auto configuration = atoms.find("avcC");
  if (configuration == atoms.end()) return std::nullopt;

  const CMVideoDimensions given = format.dimensions();
  PictureLooks looks{.width = static_cast<uint32_t>(given.width),
                     .height = static_cast<uint32_t>(given.height),
                     .compressor = "H.264"};
  if (const auto parameterSet = h264::firstSequenceParameterSet(configuration->second)) {
    if (const auto geometry = h264::readPictureGeometry(*parameterSet)) {
      if (geometry->width != looks.width || geometry->height != looks.height) {
        NSLog(LogLevel::kWarning, "The camera's pictures are " + std::to_string(geometry->width) + " by " +
                                      std::to_string(geometry->height) + " pixels, not " + std::to_string(looks.width) +
                                      " by " + std::to_string(looks.height) + "; the movie says what they are");
      }
      looks.width = geometry->width;
      looks.height = geometry->height;
      looks.aspectWidth = geometry->aspectWidth;
      looks.aspectHeight = geometry->aspectHeight;
      looks.progressive = geometry->progressive;
      looks.colour = geometry->colour;
    }
  }

  TrackDescription track;
  track.kind = TrackKind::kVideo;
  track.timescale = kVideoTimescale;
  track.hasKeySamples = true;
  setDisplaySize(track, looks);
  for (const auto& [type, bytes] : atoms) {
    if (type.size() != 4 || bytes.size() > kLargestExtension) return std::nullopt;
  }
  writePictureDescription(track.sampleDescription, kCMVideoCodecType_H264, looks, atoms);
  return track;
}

std::optional<TrackDescription> describePacked422(const CMVideoFormatDescription& format) {
  const CMVideoDimensions size = format.dimensions();
  // Standard definition is BT.601 material, 720 lines and more are BT.709 (codes of ITU-T H.264, Annex E).
  const Colour colour = size.height >= 720 ? Colour{1, 1, 1} : Colour{6, 1, 6};
  const PictureLooks looks{.width = static_cast<uint32_t>(size.width),
                           .height = static_cast<uint32_t>(size.height),
                           .colour = colour,
                           .spatialQuality = 0x3FF,  // lossless
                           .temporalQuality = 0,
                           .compressor = "Component Y'CbCr 4:2:2"};
  TrackDescription track;
  track.kind = TrackKind::kVideo;
  track.timescale = kVideoTimescale;
  setDisplaySize(track, looks);
  writePictureDescription(track.sampleDescription, kCMPixelFormat_422YpCbCr8, looks, {});
  return track;
}

/// The fields that versions 0 and 1 of sound descriptions begin with.
void writeSoundFields(AtomWriter& writer, uint16_t version, uint32_t channels, uint32_t rate) {
  writer.zeros(6);
  writer.u16(1);  // data reference
  writer.u16(version);
  writer.zeros(6);
  writer.u16(static_cast<uint16_t>(channels));
  writer.u16(16);
  writer.zeros(4);
  writer.u32(rate <= kHighestRateOf16Bits ? rate << 16 : 0);
}

/// Version 2, which says any rate and width (QuickTime file format, sound sample description).
void writeSoundFieldsOfVersion2(AtomWriter& writer, const AudioStreamBasicDescription& sound) {
  writer.zeros(6);
  writer.u16(1);
  writer.u16(2);
  writer.zeros(6);
  writer.u16(3);
  writer.u16(16);
  writer.u16(0xFFFE);
  writer.u16(0);
  writer.u32(65536);
  writer.u32(72);  // bytes up to here and to the end of the fields, the atom's header included
  writer.u64(std::bit_cast<uint64_t>(sound.mSampleRate));
  writer.u32(sound.mChannelsPerFrame);
  writer.u32(0x7F000000);
  writer.u32(sound.mBitsPerChannel);
  writer.u32(sound.mFormatFlags);
  writer.u32(sound.mBytesPerFrame);
  writer.u32(1);
}

/// Says which loudspeaker each channel is for, so that readers need not guess. More than two channels
/// are left open: a microphone does not tell their order.
void writeChannelLayout(AtomWriter& writer, uint32_t channels) {
  constexpr uint32_t kMono = 100U << 16 | 1;  // layout tags, the number of channels in the low half
  constexpr uint32_t kStereo = 101U << 16 | 2;
  if (channels != 1 && channels != 2) return;
  const auto atom = writer.atom(fourCharCode("chan"));
  writer.u32(0);
  writer.u32(channels == 1 ? kMono : kStereo);
  writer.u32(0);  // no bitmap
  writer.u32(0);  // no descriptions
}

std::optional<TrackDescription> describePCM(const AudioStreamBasicDescription& sound, uint32_t rate) {
  if (sound.mBytesPerFrame == 0 || sound.mBytesPerFrame > kWidestFrame) return std::nullopt;
  if (sound.mFramesPerPacket > 1) return std::nullopt;
  TrackDescription track;
  track.frameSize = sound.mBytesPerFrame;
  AtomWriter writer(track.sampleDescription);
  constexpr uint32_t kSignedPacked = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
  const uint32_t channels = sound.mChannelsPerFrame;
  const bool widelyRead = sound.mBitsPerChannel == 16 && sound.mFormatFlags == kSignedPacked &&
                          rate <= kHighestRateOf16Bits && sound.mSampleRate == rate &&
                          sound.mBytesPerFrame == channels * 2;
  if (widelyRead) {
    const auto entry = writer.atom(kSowt);
    writeSoundFields(writer, 1, channels, rate);
    writer.u32(1);  // frames per packet
    writer.u32(2);  // bytes per packet of one channel
    writer.u32(sound.mBytesPerFrame);
    writer.u32(2);  // bytes per sample
    writeChannelLayout(writer, channels);
  } else {
    const auto entry = writer.atom(kLpcm);
    writeSoundFieldsOfVersion2(writer, sound);
    writeChannelLayout(writer, channels);
  }
  return track;
}

/// ISO/IEC 14496-3, 1.6.2.1: low complexity, the rate by its index where there is one.
std::vector<uint8_t> makeAudioSpecificConfig(uint32_t rate, uint32_t channels) {
  constexpr std::array<uint32_t, 13> kRates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                            22050, 16000, 12000, 11025, 8000,  7350};
  constexpr uint64_t kLowComplexity = 2;
  const auto known = std::find(kRates.begin(), kRates.end(), rate);
  uint64_t bits = kLowComplexity;
  int count = 5;
  const auto put = [&](uint64_t value, int width) {
    bits = bits << width | value;
    count += width;
  };
  if (known != kRates.end()) {
    put(static_cast<uint64_t>(known - kRates.begin()), 4);
  } else {
    put(15, 4);
    put(rate, 24);
  }
  put(channels == 8 ? 7 : channels, 4);
  put(0, 3);
  std::vector<uint8_t> bytes;
  bits <<= (8 - count % 8) % 8;
  for (int left = (count + 7) / 8; left > 0; --left) bytes.push_back(static_cast<uint8_t>(bits >> (8 * (left - 1))));
  return bytes;
}

/// ISO/IEC 14496-14, 5.6, with the descriptors of 14496-1, 7.2.6. All lengths fit one byte.
void writeElementaryStreamDescriptor(AtomWriter& writer, std::span<const uint8_t> config) {
  const auto atom = writer.atom(fourCharCode("esds"));
  writer.u32(0);
  const auto configSize = static_cast<uint8_t>(config.size());
  const auto decoderSize = static_cast<uint8_t>(13 + 2 + configSize);
  writer.u8(3);  // elementary stream
  writer.u8(static_cast<uint8_t>(3 + 2 + decoderSize + 3));
  writer.u16(0);
  writer.u8(0);
  writer.u8(4);  // decoder configuration
  writer.u8(decoderSize);
  writer.u8(0x40);  // MPEG-4 audio
  writer.u8(0x15);  // audio stream
  writer.zeros(3);  // buffer size, bit rates: not known
  writer.zeros(8);
  writer.u8(5);  // AudioSpecificConfig
  writer.u8(configSize);
  writer.bytes(config);
  writer.u8(6);  // synchronisation: as in MP4 files
  writer.u8(1);
  writer.u8(2);
}

/// Version 0 with the descriptor beside the fields: read by QuickTime and by ISO readers alike.
void writeAACDescription(std::vector<uint8_t>& out, uint32_t rate, uint32_t channels) {
  AtomWriter writer(out);
  const auto entry = writer.atom(kMp4a);
  writeSoundFields(writer, 0, channels, rate);
  writeElementaryStreamDescriptor(writer, makeAudioSpecificConfig(rate, channels));
}

std::optional<TrackDescription> describeAAC(const AudioStreamBasicDescription& sound, uint32_t rate) {
  const uint32_t channels = sound.mChannelsPerFrame;
  if (channels > 8 || channels == 7 || rate >= 1U << 24) return std::nullopt;
  TrackDescription track;
  track.defaultDuration = kFramesPerAACPacket;
  track.silentPacket = silentAACPacket(channels);
  writeAACDescription(track.sampleDescription, rate, channels);
  return track;
}

std::optional<TrackDescription> describeSound(const AudioStreamBasicDescription& sound) {
  if (!(sound.mSampleRate >= 1 && sound.mSampleRate <= 1e7)) return std::nullopt;
  if (sound.mChannelsPerFrame == 0 || sound.mChannelsPerFrame > 255) return std::nullopt;
  const auto rate = static_cast<uint32_t>(std::lround(sound.mSampleRate));
  std::optional<TrackDescription> track;
  if (sound.mFormatID == kAudioFormatLinearPCM) track = describePCM(sound, rate);
  if (sound.mFormatID == kAudioFormatMPEG4AAC) track = describeAAC(sound, rate);
  if (!track) return std::nullopt;
  track->kind = TrackKind::kSound;
  track->timescale = rate;
  return track;
}

/// What the fields say that versions 0 and 1 of sound descriptions begin with.
struct SoundFields {
  uint32_t type = 0;
  uint16_t channels = 0;
  uint16_t bits = 0;
};

std::optional<SoundFields> readSoundFields(ByteReader& reader) {
  if (!reader.skip(4)) return std::nullopt;
  const auto type = reader.u32();
  if (!type || !reader.skip(16)) return std::nullopt;
  const auto channels = reader.u16();
  const auto bits = reader.u16();
  if (!channels || !bits) return std::nullopt;
  return SoundFields{*type, *channels, *bits};
}

}  // namespace

std::optional<TrackDescription> describeTrack(const CMFormatDescription& format) {
  if (const auto* sound = format.asSound()) {
    return describeSound(sound->streamBasicDescription());
  }
  const auto* video = dynamic_cast<const CMVideoFormatDescription*>(&format);
  if (!video) return std::nullopt;
  if (video->dimensions().width > kLargestSide || video->dimensions().height > kLargestSide) return std::nullopt;
  switch (video->mediaSubType()) {
    case kCMVideoCodecType_H264:
      return describeH264(*video);
    case kCMPixelFormat_422YpCbCr8:
      return describePacked422(*video);
    default:
      return std::nullopt;
  }
}

uint32_t pcmFrameSize(std::span<const uint8_t> sampleDescription) {
  ByteReader reader(sampleDescription);
  const auto fields = readSoundFields(reader);
  if (!fields) return 0;
  if (fields->type == kSowt) return uint32_t{fields->channels} * (fields->bits / 8);
  if (fields->type != kLpcm || !reader.skip(36)) return 0;
  return reader.u32().value_or(0);
}

std::span<const uint8_t> silentPacketFor(std::span<const uint8_t> sampleDescription) {
  ByteReader reader(sampleDescription);
  const auto fields = readSoundFields(reader);
  if (!fields || fields->type != kMp4a) return {};
  return silentAACPacket(fields->channels);
}

}  // namespace vesk
