#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <vesk/decoder_protocol.h>
#include <vesk/export.h>

namespace vesk {

class ICMDecompressionSession;

/// Turns the frames of one camera format into pictures and hands each to one receiver.
///
/// It decodes from the first frame on that allows it: for H.264 ("avc1") that is the one in which the
/// last of the two parameter sets has come. A change of format takes a new decoder.
///
/// Threads: takes no locks; its owner calls it from one thread at a time. The receiver is called from
/// inside decompressData, on the same thread.
class VESK_EXPORT ICMDecoder {
 public:
  /// A decoder for pictures of width × inHeight pixels whose codec has the four-character code
  /// `inCodec`. Null when there is no memory. A size that cannot be decoded makes a decoder that
  /// drops every frame.
  static std::shared_ptr<ICMDecoder> initWithWidth(uint32_t width, uint32_t inHeight, uint32_t inCodec);

  ~ICMDecoder();
  ICMDecoder(const ICMDecoder&) = delete;
  ICMDecoder& operator=(const ICMDecoder&) = delete;

  /// Sets the receiver, which must outlive the decoder or its last call. To be set before the first
  /// frame: the session takes it over when it is made.
  void setDelegate(DecoderProtocol* delegate);

  /// Decodes the frame of `inSizeUsed` bytes at `data`, which is copied first and never written to.
  /// H.264 may have start codes or be length-prefixed already. `inTime` is the frame's time, on a
  /// scale of ten millionths of a second; any value will do, also one that has wrapped.
  ///
  /// @return 0 for success, and for frames that are dropped because no session can be made (yet),
  ///         empty ones before the parameter sets included. paramErr for no bytes otherwise; codecBadDataErr for a
  ///         damaged frame, and for one longer than any frame of this size can be: four times its pixels at 16 bits
  ///         each, but at least 16 MiB; codecUnimpErr for a kind of picture that cannot be shown; memFullErr.
  int16_t decompressData(const uint8_t* data, int32_t inSizeUsed, int32_t inTime);

  /// Looks for the parameter sets that are still missing in a length-prefixed frame; the first of
  /// each that fits into a description is kept for good.
  /// @return whether both are held.
  bool configH264DecoderWithData(const uint8_t* data, uint32_t size);

  /// A description of the frames, with the extensions that their codec calls for, byte for byte as a sample
  /// description stands in a QuickTime movie; no bytes when there is no memory.
  std::vector<uint8_t> createImageDescription() const;

  /// A new session for this decoder's frames and receiver, as it makes for itself; null on failure.
  std::shared_ptr<ICMDecompressionSession> createDecoderSession() const;

  /// Frames handed to the session so far.
  uint32_t frameCount() const;
  /// Units of frame times a second: 0 before the first frame that was handed to the session.
  int32_t timeScale() const;

 private:
  class VESK_LOCAL State;
  VESK_LOCAL explicit ICMDecoder(std::unique_ptr<State> state);

  const std::unique_ptr<State> mState;
};

}  // namespace vesk
