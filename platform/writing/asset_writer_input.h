#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include <vesk/dispatch_queue.h>
#include <vesk/sample_buffer.h>
#include "platform/foundation/media_type.h"

namespace vesk {

class MovieFileWriter;

/// One track of a movie that is being written. Samples are written as they come.
///
/// Threads: requestMediaData… and mediaDataAvailable from any thread; the block, appendSampleBuffer
/// and markAsFinished on the queue given to requestMediaData….
class AVAssetWriterInput : public std::enable_shared_from_this<AVAssetWriterInput> {
 public:
  /// An input for a track of the given type, without output settings: nothing is re-encoded.
  static std::shared_ptr<AVAssetWriterInput> initWithMediaType(MediaType mediaType);

  MediaType mediaType() const { return mMediaType; }
  /// Kept for the host; this writer is always ready for live data.
  void setExpectsMediaDataInRealTime(bool expects) { mExpectsRealTime = expects; }
  bool expectsMediaDataInRealTime() const { return mExpectsRealTime; }

  /// Runs `block` on `queue` once at once, and again after every mediaDataAvailable, for as long as
  /// the input takes data. The block appends what there is and returns.
  void requestMediaDataWhenReadyOnQueue(std::shared_ptr<DispatchQueue> queue, std::function<void()> block);
  /// Says that there is something to append: the block runs again. Calls made while a run is
  /// waiting its turn cost nothing. Does nothing before requestMediaData… and after markAsFinished.
  void mediaDataAvailable();

  /// False before writing starts, after a failure and once finished.
  bool isReadyForMoreMediaData() const;
  /// Hands samples to the writer. False when they were refused: the writer failed, the input is
  /// finished, or the sample does not fit the track.
  bool appendSampleBuffer(const CMSampleBufferRef& sample);
  /// No more samples follow.
  void markAsFinished();

  ~AVAssetWriterInput();

 private:
  friend class AVAssetWriter;
  explicit AVAssetWriterInput(MediaType mediaType);

  struct Request;
  const MediaType mMediaType;
  bool mExpectsRealTime = false;
  std::atomic<bool> mFinished{false};
  std::shared_ptr<Request> mRequest;
  std::shared_ptr<MovieFileWriter> mWriter;
  size_t mTrack = 0;
};

}  // namespace vesk
