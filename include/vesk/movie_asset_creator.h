#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <vesk/export.h>
#include <vesk/movie_creator.h>

namespace vesk {

/// The movie creator over an asset writer: a sample generator for each stream, and the adapter that
/// queues their samples.
class VESK_EXPORT VeskMovieAssetCreator : public VeskMovieCreator {
 public:
  /// @param path where the movie goes, UTF-8
  explicit VeskMovieAssetCreator(std::string path);
  /// Finishes the movie if nobody has closed it.
  ~VeskMovieAssetCreator() override;

  int32_t Open(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) override;
  int32_t AddSampleToMovie(void* buffer, unsigned long length, unsigned long long timestamp,
                           VeskMediaType type) override;
  void SetContinues(bool continues) override;
  void ContinueIn(std::shared_ptr<VeskMovieCreator> next) override;
  int32_t Close() override;
  RecordingStatistics statistics() const override;
  QueueLevels waiting() const override;
  void SetRoomHandler(std::function<void()> haveRoom) override;

 protected:
  class VESK_LOCAL State;
  VESK_LOCAL VeskMovieAssetCreator(std::string path, std::unique_ptr<State> state);

 private:
  const std::unique_ptr<State> mState;
};

}  // namespace vesk
