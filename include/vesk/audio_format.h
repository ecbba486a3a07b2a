#pragma once

#include <cstdint>

namespace vesk {

/// Flags of linear PCM: signed integers, packed without padding (little-endian, interleaved).
constexpr uint32_t kAudioFormatFlagIsSignedInteger = 4;
constexpr uint32_t kAudioFormatFlagIsPacked = 8;

/// What a stream of sound is made of. 0 in a field means "varies" or "not known".
struct AudioStreamBasicDescription {
  double mSampleRate = 0;         ///< frames per second
  uint32_t mFormatID = 0;         ///< kAudioFormat… or, from a microphone, kWaveFormat…
  uint32_t mFormatFlags = 0;      ///< kAudioFormatFlag…
  uint32_t mBytesPerPacket = 0;   ///< 0 when packets differ in size
  uint32_t mFramesPerPacket = 0;  ///< 1 for PCM, 1024 for AAC
  uint32_t mBytesPerFrame = 0;    ///< all channels; 0 for compressed sound
  uint32_t mChannelsPerFrame = 0;
  uint32_t mBitsPerChannel = 0;  ///< 0 for compressed sound
  uint32_t mReserved = 0;
};

/// Where one packet lies in a buffer of compressed sound.
struct AudioStreamPacketDescription {
  int64_t mStartOffset = 0;              ///< bytes from the buffer's start
  uint32_t mVariableFramesInPacket = 0;  ///< 0: as many as the format says
  uint32_t mDataByteSize = 0;
};

/// Bytes of one packet or of interleaved frames; not owned.
struct AudioBuffer {
  uint32_t mNumberChannels = 0;
  uint32_t mDataByteSize = 0;
  const void* mData = nullptr;
};

/// The level that silence reads, in decibels of full scale. Below anything that 16-bit sound can hold for
/// long: one step in every sample is −90.3.
constexpr float kSilenceLevel = -120.0F;

}  // namespace vesk
