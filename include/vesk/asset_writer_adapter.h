#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vesk/export.h>
#include <vesk/sample_buffer.h>

namespace vesk {

class AVAssetWriterInput;

/// The status codes of a failed writer.
constexpr int32_t kMovieFileFailedToWrite = -198;  ///< the file or its folder is gone
constexpr int32_t kMovieDiskFull = -199;
constexpr int32_t kMovieWriterFailed = -200;  ///< anything else

/// Puts the samples of one recording into a movie file without making anyone wait: each track has a
/// queue bounded in samples and in bytes, which callers fill and the serial queue "Media Writer Queue" empties.
///
/// Samples are gathered before the writer is woken: it runs when a queue holds 32, or 100 ms after
/// the first that waits.
///
/// Threads: adding samples and finishing from any thread. Never to be destroyed on its own writer queue.
class VESK_EXPORT AVAssetWriterAdapter {
 public:
  /// Deletes the file at `path`, unless another recording is writing it, and prepares a writer with the tracks wanted.
  /// Where no writer can be made, the adapter takes samples and writes nothing.
  /// @param path UTF-8
  AVAssetWriterAdapter(const std::string& path, bool hasVideo, bool hasAudio);
  /// Finishes the movie.
  ~AVAssetWriterAdapter();
  AVAssetWriterAdapter(const AVAssetWriterAdapter&) = delete;
  AVAssetWriterAdapter& operator=(const AVAssetWriterAdapter&) = delete;

  /// Queues a picture. H.264 is held back until a picture comes that needs no other, at the start and
  /// again after a failure. @return 0, or the code of the failed writer.
  int32_t addVideoSample(const CMSampleBufferRef& sample);
  /// Queues sound. @return 0, or the code of the failed writer.
  int32_t addAudioSample(const CMSampleBufferRef& sample);
  /// Queues a sample for one of the two inputs below; 0, and nothing done, for a null one.
  int32_t addSample(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input);

  /// The inputs, for addSample; null for a track that is not wanted or could not be made, and once finished.
  std::shared_ptr<AVAssetWriterInput> audioInput() const;
  std::shared_ptr<AVAssetWriterInput> videoInput() const;

  /// Writes what is queued and completes the file. Samples added later are ignored.
  void finish();

  /// The status code for a writer's error. Asks for the free space on the movie's volume.
  int32_t AVErrorToMovieCreatorError(int64_t code) const;
  /// The same for a given free space in bytes; nothing where it is not known.
  static int32_t movieCreatorError(int64_t code, std::optional<uint64_t> freeSpace);

 protected:
  class VESK_LOCAL State;
  VESK_LOCAL explicit AVAssetWriterAdapter(std::unique_ptr<State> state);

 private:
  const std::unique_ptr<State> mState;
};

}  // namespace vesk
