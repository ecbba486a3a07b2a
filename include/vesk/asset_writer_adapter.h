#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vesk/dispatch_queue.h>
#include <vesk/export.h>
#include <vesk/sample_buffer.h>
#include "movie/recording_counters.h"
#include "platform/foundation/mutex.h"
#include "platform/media/simple_queue.h"
#include "platform/writing/asset_writer.h"

namespace vesk {

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
/// Threads: adding samples and finishing from any thread. Never to be destroyed on its own writer
/// queue. mMutex comes after the movie creator's mutex; what runs on the writer queue takes neither.
class VESK_EXPORT AVAssetWriterAdapter {
 public:
  /// Deletes the file at `path`, unless another recording is writing it, and prepares a writer with the tracks wanted.
  /// Where no writer can be made, the adapter takes samples and writes nothing (counters: writerMissing).
  /// @param path UTF-8
  /// @param counters where the recording is counted; the adapter makes its own without
  /// @param fileSystem where the file lives, which must outlive the adapter; the machine's own without
  AVAssetWriterAdapter(const std::string& path, bool hasVideo, bool hasAudio,
                       std::shared_ptr<RecordingCounters> counters = nullptr, FileSystem* fileSystem = nullptr);
  /// Finishes the movie.
  ~AVAssetWriterAdapter();
  AVAssetWriterAdapter(const AVAssetWriterAdapter&) = delete;
  AVAssetWriterAdapter& operator=(const AVAssetWriterAdapter&) = delete;

  /// Queues a picture. H.264 is held back until a picture comes that needs no other, at the start and
  /// again after a failure. @return 0, or the code of the failed writer.
  int32_t addVideoSample(const CMSampleBufferRef& sample) VESK_EXCLUDES(mMutex);
  /// Queues sound. @return 0, or the code of the failed writer.
  int32_t addAudioSample(const CMSampleBufferRef& sample) VESK_EXCLUDES(mMutex);
  /// Queues a sample for one of the two inputs below; 0, and nothing done, for a null one.
  int32_t addSample(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input)
      VESK_EXCLUDES(mMutex);

  /// The inputs; null for a track that is not wanted or could not be made, and once finished.
  std::shared_ptr<AVAssetWriterInput> audioInput() const VESK_EXCLUDES(mMutex);
  std::shared_ptr<AVAssetWriterInput> videoInput() const VESK_EXCLUDES(mMutex);

  /// Writes what is queued and completes the file. Samples added later are ignored.
  void finish() VESK_EXCLUDES(mMutex);

  /// The status code for a writer's error. Asks for the free space on the movie's volume.
  int32_t AVErrorToMovieCreatorError(int64_t code) const;
  /// The same for a given free space in bytes; nothing where it is not known.
  static int32_t movieCreatorError(int64_t code, std::optional<uint64_t> freeSpace);

 private:
  using SampleQueue = CMSimpleQueue<CMSampleBufferRef>;

  /// What the writer queue works with. Set before it starts; its targets live until the finishing
  /// block has run there and cleared `alive`.
  struct Writing {
    AVAssetWriter* writer = nullptr;
    AVAssetWriterInput* audioInput = nullptr;
    AVAssetWriterInput* videoInput = nullptr;
    bool alive = true;
  };

  void setup() VESK_EXCLUDES(mMutex);
  void deleteOldFile();
  std::shared_ptr<AVAssetWriterInput> makeInput(AVMediaType mediaType) VESK_REQUIRES(mMutex);
  int32_t addSampleLocked(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input)
      VESK_REQUIRES(mMutex);
  /// Starts the writer with the first sample. @return 0, or the code of the failed writer.
  int32_t addSamplePriv(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input)
      VESK_REQUIRES(mMutex);
  void startWriting() VESK_REQUIRES(mMutex);
  bool mustBeDiscarded(const CMSampleBuffer& sample) VESK_REQUIRES(mMutex);
  void wakeWriter(size_t waiting, uint64_t bytes, AVAssetWriterInput& input) VESK_REQUIRES(mMutex);
  int32_t reportFailure(const AVAssetWriter& writer) const;

  // On the writer queue:
  void pullWaiting();
  int32_t AddSampleFromQueue(SampleQueue& queue, AVAssetWriterInput* input, RecordingCounters::Track& counters);
  void finishWriting(AVAssetWriter& writer);

  /// Empties a queue whose samples have nowhere to go.
  void drain(SampleQueue& queue, RecordingCounters::Track& counters);

  SampleQueue mAudioQueue{kAudioQueueCapacity};
  SampleQueue mVideoQueue{kVideoQueueCapacity};
  mutable Mutex mMutex;
  std::shared_ptr<AVAssetWriterInput> mAudioInput VESK_GUARDED_BY(mMutex);
  std::shared_ptr<AVAssetWriterInput> mVideoInput VESK_GUARDED_BY(mMutex);
  std::shared_ptr<AVAssetWriter> mWriter VESK_GUARDED_BY(mMutex);
  bool mDiscardSamples VESK_GUARDED_BY(mMutex) = true;
  bool mFinished VESK_GUARDED_BY(mMutex) = false;
  const std::string mFilePath;
  std::shared_ptr<DispatchQueue> mWriterQueue VESK_GUARDED_BY(mMutex);
  const bool mHasAudio;
  const bool mHasVideo;

  FileSystem& mFileSystem;
  const std::shared_ptr<RecordingCounters> mCounters;
  std::atomic<bool> mWakePending{false};
  std::shared_ptr<Writing> mWriting;  ///< shared with work on the writer queue, which may outlive the adapter
};

}  // namespace vesk
