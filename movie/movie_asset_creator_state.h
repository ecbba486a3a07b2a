#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <vesk/movie_asset_creator.h>
#include <vesk/sample_generators.h>
#include "movie/asset_writer_adapter_state.h"
#include "movie/recording_counters.h"
#include "movie/waiting_samples.h"
#include "platform/foundation/mutex.h"
#include "platform/h264/parameter_sets.h"

namespace vesk {

/// What stands behind the creator.
///
/// Locks: mMutex is held for the whole of Open, AddSampleToMovie and Close, and comes before the
/// adapter's. Close waits for the writer queue while it holds it; nothing there takes it. ContinueIn takes
/// the next movie's while it holds it.
class VeskMovieAssetCreator::State {
 public:
  State(std::string path, FileSystem& fileSystem);

  int32_t Open(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) VESK_EXCLUDES(mMutex);
  int32_t AddSampleToMovie(void* buffer, unsigned long length, unsigned long long timestamp, VeskMediaType type)
      VESK_EXCLUDES(mMutex);
  void SetContinues(bool continues) VESK_EXCLUDES(mMutex);
  void ContinueIn(std::shared_ptr<VeskMovieCreator> next) VESK_EXCLUDES(mMutex);
  int32_t Close() VESK_EXCLUDES(mMutex);
  RecordingStatistics statistics() const { return mCounters->statistics(); }
  QueueLevels waiting() const { return mCounters->levelsForSource(); }
  void SetRoomHandler(std::function<void()> haveRoom) { mCounters->setRoomHandler(std::move(haveRoom)); }

 private:
  void openStreams(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) VESK_REQUIRES(mMutex);
  int32_t addSample(uint8_t* buffer, unsigned long length, uint64_t timestamp, VeskMediaType type)
      VESK_REQUIRES(mMutex);
  int32_t addH264(std::span<uint8_t> unit, uint64_t time) VESK_REQUIRES(mMutex);
  int32_t addPicture(std::span<const uint8_t> picture, uint64_t time) VESK_REQUIRES(mMutex);
  int32_t addAudio(const uint8_t* buffer, uint32_t length, uint64_t time) VESK_REQUIRES(mMutex);
  void noteTime(const CMSampleBuffer& sample, uint64_t time) VESK_REQUIRES(mMutex);
  int32_t recordAudio(const uint8_t* buffer, uint32_t length, uint64_t time) VESK_REQUIRES(mMutex);

  // Parameter sets.
  void noteSize(int32_t width, int32_t height);
  /// @return whether the movie's sets are those that the slices use
  bool look(std::span<const uint8_t> unit) VESK_REQUIRES(mMutex);
  int32_t addChanged(std::span<const uint8_t> unit, bool fits, uint64_t time) VESK_REQUIRES(mMutex);
  int32_t leaveOut(std::span<const uint8_t> unit, bool isKey, uint64_t time) VESK_REQUIRES(mMutex);
  void keepForNext(std::span<const uint8_t> bytes, uint64_t timestamp, VeskMediaType type) VESK_REQUIRES(mMutex);
  std::vector<uint8_t> withSets(std::span<const uint8_t> unit) const VESK_REQUIRES(mMutex);
  void giveUpWaiting() VESK_REQUIRES(mMutex);

  const std::string mFilePath;
  FileSystem& mFileSystem;
  const std::shared_ptr<RecordingCounters> mCounters;
  Mutex mMutex;
  _VeskVideoDescription mVideoDescription VESK_GUARDED_BY(mMutex);
  _VeskAudioDescription mAudioDescription VESK_GUARDED_BY(mMutex);
  std::unique_ptr<ISampleGenerator> mVideoGenerator VESK_GUARDED_BY(mMutex);
  std::unique_ptr<ISampleGenerator> mAudioGenerator VESK_GUARDED_BY(mMutex);
  std::unique_ptr<CountedAssetWriterAdapter> mAdapter VESK_GUARDED_BY(mMutex);  ///< null before Open and after Close
  uint64_t mFirstTimestamp VESK_GUARDED_BY(mMutex) = 0;  ///< the movie's zero; 0 before the first sample
  bool mWasOpened VESK_GUARDED_BY(mMutex) = false;
  bool mIsLateTold VESK_GUARDED_BY(mMutex) = false;

  h264::ParameterSetWatch mSets VESK_GUARDED_BY(mMutex);
  bool mHasOtherSets VESK_GUARDED_BY(mMutex) = false;  ///< the camera has, until a key picture fits again
  bool mContinues VESK_GUARDED_BY(mMutex) = false;
  WaitingSamples mForNext VESK_GUARDED_BY(mMutex);
  std::shared_ptr<VeskMovieCreator> mNextOwner VESK_GUARDED_BY(mMutex);
  std::atomic<VeskMovieCreator*> mNext{nullptr};  ///< the same, for threads that are not to wait for Close
};

/// A creator whose movie may lie elsewhere than on the machine's disks.
class MovieAssetCreatorIn final : public VeskMovieAssetCreator {
 public:
  /// @param fileSystem where the movie lives; it must outlive the creator
  MovieAssetCreatorIn(FileSystem& fileSystem, const std::string& path)
      : VeskMovieAssetCreator(path, std::make_unique<State>(path, fileSystem)) {}
};

}  // namespace vesk
