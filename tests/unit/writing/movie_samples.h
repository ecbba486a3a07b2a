#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/sample_buffer.h>
#include "platform/media/sample_arena.h"

namespace vesk::test {

/// Builds the samples that the sample generators hand to the writer.

/// The pictures of a real H.264 clip, length-prefixed, with the decoder configuration that goes with
/// them. The clip has one key picture, the first.
struct H264Clip {
  CMVideoFormatDescriptionRef format;
  std::vector<std::vector<uint8_t>> pictures;

  static const H264Clip& shared();
};

CMTime microseconds(int64_t value);

/// Picture `number` of an endless repetition of the clip, `duration` microseconds long.
CMSampleBufferRef h264Sample(size_t number, int64_t time, int64_t duration = 30'000);

CMVideoFormatDescriptionRef packedFormat(int width, int height);
/// A packed 4:2:2 picture that is `luma` all over.
CMSampleBufferRef packedSample(const CMVideoFormatDescriptionRef& format, uint8_t luma, int64_t time,
                               int64_t duration = 30'000);
/// The same in the memory of `arena`.
CMSampleBufferRef packedSampleIn(SampleArena& arena, const CMVideoFormatDescriptionRef& format, uint8_t luma,
                                 int64_t time);

CMAudioFormatDescriptionRef pcmFormat(double rate, uint32_t channels, uint32_t bits = 16);
/// `frames` frames that count up from `first` in every channel (16 bits), after `silence` zero frames. In memory of
/// its own or in that of `arena`.
CMSampleBufferRef pcmSample(const CMAudioFormatDescriptionRef& format, uint32_t frames, int64_t time,
                            uint32_t first = 0, uint32_t silence = 0, SampleArena* arena = nullptr);

CMAudioFormatDescriptionRef aacFormat(double rate, uint32_t channels);
/// `packets` packets of silence; the first of a track is to be trimmed.
CMSampleBufferRef aacSample(const CMAudioFormatDescriptionRef& format, uint32_t packets, int64_t timeInFrames,
                            bool isFirst);

std::vector<uint8_t> readFile(const std::string& path);
/// At most the last `count` bytes.
std::vector<uint8_t> readFileEnd(const std::string& path, size_t count);

}  // namespace vesk::test
