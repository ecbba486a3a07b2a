#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/mathematics.h>
}

#include "capture/encoding/av_handles.h"
#include "capture/files/media_container.h"

namespace vesk::capture {

/// Which track of which file, and how its times are counted.
struct TrackChoice {
  std::string path;
  std::shared_ptr<FileBlocks> file;
  int index = -1;
  int64_t origin = 0;               ///< microseconds of the file's clock at the footage's time 0
  AVRational packetTime = {1, 25};  ///< seconds from packet to packet where the file does not say

  /// Microseconds that `count` packets take.
  int64_t timeOfPackets(int64_t count) const {
    return av_rescale(count, int64_t{1000000} * packetTime.num, packetTime.den);
  }
};

/// Reads one track of a file, packet by packet, in the order of decoding. Each track has a reader of
/// its own, so that badly interleaved files need no memory: what one track needs is never read
/// ahead of the other. Whoever gets its packets may rewrite them where they lie, so that two
/// readers of one track need blocks of their own.
class TrackReader {
 public:
  /// Opens the file for the track. @return null with one line for a person in `error`.
  static std::unique_ptr<TrackReader> open(const TrackChoice& choice, std::string& error);
  /// Reads the track from a file that is open already.
  static std::unique_ptr<TrackReader> take(const TrackChoice& choice, std::unique_ptr<MediaContainer> container);

  /// Reads the next packet. @return false at the end, or where reading cannot go on (see damage).
  bool read();

  // The packet last read.
  AVPacket* packet() const { return mPacket.get(); }
  /// Its bytes, writable until the next read.
  std::span<uint8_t> bytes() const { return {mPacket->data, static_cast<size_t>(mPacket->size)}; }
  /// Presentation time, microseconds of the footage; may be below 0 for what an edit list hides.
  int64_t time() const { return mTime; }
  bool isKey() const { return (mPacket->flags & AV_PKT_FLAG_KEY) != 0; }
  /// The file's edit list hides it: it only helps to decode what follows.
  bool isHidden() const { return (mPacket->flags & AV_PKT_FLAG_DISCARD) != 0; }
  /// The header that holds from this packet on, where a new one came with it; else empty.
  std::span<const uint8_t> newHeader() const;
  /// Frames of sound that an edit list cuts from the packet's beginning.
  uint32_t skippedFrames() const;

  /// Goes to the key packet at or before `time`, or to the beginning where the file cannot tell.
  bool seek(int64_t time);
  /// Goes to the beginning and forgets the damage noted on the way.
  bool rewind();

  /// Why reading ended early, one line; empty when it did not.
  const std::string& damage() const { return mDamage; }
  /// Notes that something in the footage is broken; the first note stays.
  void noteDamage(const std::string& what);

  /// The track's header: an avcC record, parameter sets, a decoder's configuration, or nothing.
  std::span<const uint8_t> header() const;
  const AVStream& stream() const { return *mContainer->context()->streams[mChoice.index]; }
  const MediaContainer& container() const { return *mContainer; }
  bool isUntimed() const { return mIsUntimed; }
  const TrackChoice& choice() const { return mChoice; }
  /// Sets what the choice lacked when the file was first looked at.
  void setTiming(int64_t origin, AVRational packetTime);
  /// Microseconds of the footage at `timestamp` of the track.
  int64_t timeOf(int64_t timestamp) const;

 private:
  explicit TrackReader(const TrackChoice& choice) : mChoice(choice), mPacket(av_packet_alloc()) {}
  void use(std::unique_ptr<MediaContainer> container);
  int readFromIndex();
  std::span<uint8_t> bytesAt(int64_t position, int size);
  void forgetPackets();
  bool openContainer(std::string& error);
  bool seekToFirst();
  int64_t packetTime();
  bool isWhole() const;

  TrackChoice mChoice;
  std::unique_ptr<MediaContainer> mContainer;
  PacketHandle mPacket;
  bool mIsUntimed = false;
  // A movie's track whose index tells all is read by it: packets are given as they lie in the file's blocks, without
  // the demuxer's memory and copy for each.
  bool mIsIndexed = false;
  int mEntry = 0;                                   ///< of the index, the next
  std::shared_ptr<const FileBlocks::Block> mBlock;  ///< that the packet last read lies in
  std::vector<uint8_t> mBuffer;                     ///< of what lies in more than one
  int64_t mEndInFile = 0;                           ///< of the packet last read
  bool mAtBeginning = true;
  bool mIsFromBeginning = true;  ///< not after a seek
  int64_t mSeen = 0;             ///< packets since then, empty ones too
  int64_t mCount = 0;            ///< packets read since then
  int64_t mTime = 0;
  int64_t mDecodeTimestamp = AV_NOPTS_VALUE;  ///< of the packet last read
  std::string mDamage;
};

}  // namespace vesk::capture
