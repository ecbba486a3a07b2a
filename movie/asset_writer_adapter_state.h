#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <vesk/asset_writer_adapter.h>
#include <vesk/dispatch_queue.h>
#include <vesk/queue_levels.h>
#include <vesk/sample_buffer.h>
#include "movie/recording_counters.h"
#include "platform/foundation/media_type.h"
#include "platform/foundation/mutex.h"
#include "platform/media/simple_queue.h"
#include "platform/writing/asset_writer.h"
#include "platform/writing/file_system.h"

namespace vesk {

/// What stands behind the adapter: the queues, and the writer that they are for.
///
/// Locks: mMutex comes after the movie creator's mutex; what runs on the writer queue takes neither.
class AVAssetWriterAdapter::State {
 public:
  State(const std::string& path, bool hasVideo, bool hasAudio, std::shared_ptr<RecordingCounters> counters,
        FileSystem& fileSystem);

  int32_t addVideoSample(const CMSampleBufferRef& sample) VESK_EXCLUDES(mMutex);
  int32_t addAudioSample(const CMSampleBufferRef& sample) VESK_EXCLUDES(mMutex);
  int32_t addSample(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input)
      VESK_EXCLUDES(mMutex);
  std::shared_ptr<AVAssetWriterInput> audioInput() const VESK_EXCLUDES(mMutex);
  std::shared_ptr<AVAssetWriterInput> videoInput() const VESK_EXCLUDES(mMutex);
  void finish() VESK_EXCLUDES(mMutex);
  int32_t AVErrorToMovieCreatorError(int64_t code) const;

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
  std::shared_ptr<AVAssetWriterInput> makeInput(MediaType mediaType) VESK_REQUIRES(mMutex);
  int32_t addSampleLocked(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input)
      VESK_REQUIRES(mMutex);
  /// Starts the writer with the first sample. @return 0, or the code of the failed writer.
  int32_t addSamplePriv(const CMSampleBufferRef& sample, const std::shared_ptr<AVAssetWriterInput>& input)
      VESK_REQUIRES(mMutex);
  void startWriting() VESK_REQUIRES(mMutex);
  bool mustBeDiscarded(const CMSampleBuffer& sample) VESK_REQUIRES(mMutex);
  void wakeWriter(size_t waiting, uint64_t size, AVAssetWriterInput& input) VESK_REQUIRES(mMutex);
  void wakeSoon(DispatchQueue& writerQueue);
  int32_t noteFailure(NSError error) const;
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

/// An adapter that counts where its owner reads, and whose file may lie elsewhere than on the machine's disks.
class CountedAssetWriterAdapter final : public AVAssetWriterAdapter {
 public:
  /// @param counters where the recording is counted
  /// @param fileSystem where the file lives; it must outlive the adapter
  CountedAssetWriterAdapter(const std::string& path, bool hasVideo, bool hasAudio,
                            std::shared_ptr<RecordingCounters> counters, FileSystem& fileSystem = FileSystem::posix());
};

}  // namespace vesk
