#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vesk/error.h>
#include "capture/encoding/av_handles.h"
#include "platform/h264/access_unit_writer.h"

namespace vesk::capture {

/// Makes H.264 as cameras give it: each frame out as it goes in, none reordered, four-byte start
/// codes, every key frame an IDR frame with its parameter sets before it.
///
/// Threads: one at a time.
class H264Encoder {
 public:
  struct Settings {
    int width = 0;  ///< both sides are even
    int height = 0;
    uint32_t intervalNumerator = 0;  ///< seconds from frame to frame: numerator / denominator
    uint32_t intervalDenominator = 0;
    uint32_t bitRate = 0;  ///< bits per second
    const char* preset = nullptr;
    const char* profile = nullptr;
    int threads = 1;  ///< each makes slices of its own
    // What the pixels are; luma is from 16 to 235, the transfer that of BT.709.
    AVColorSpace matrix = AVCOL_SPC_SMPTE170M;
    AVColorPrimaries primaries = AVCOL_PRI_SMPTE170M;
  };

  /// Whether this machine's libavcodec has the encoder.
  static bool isPresent();
  /// An encoder for the frames of `camera` (as deviceText has it).
  /// @return null with the reason in `error`: there is no encoder, it refuses the settings, or memory is short
  static std::unique_ptr<H264Encoder> create(const Settings& settings, const std::string& camera, Error& error);
  /// For tests: a machine whose libavcodec lacks the encoder, until it is called with false.
  static void pretendMissing(bool isMissing);

  /// Memory for a frame of the encoder's size: planar 4:2:0. Null for want of memory.
  FrameHandle makeFrame() const;

  /// Encodes a frame that makeFrame made, as a key frame at least every two seconds of even
  /// intervals, and where it must be one. @return none when the encoder fails
  std::optional<h264::AccessUnitWriter::AccessUnit> encode(AVFrame& frame, bool mustBeKey = false);

 private:
  explicit H264Encoder(CodecHandle encoder) : mEncoder(std::move(encoder)) {}

  const CodecHandle mEncoder;
  const PacketHandle mPacket{av_packet_alloc()};
  h264::AccessUnitWriter mWriter{{}};
  int64_t mCount = 0;
};

/// At most, from key frame to key frame.
constexpr int kKeyFrameSeconds = 2;

}  // namespace vesk::capture
