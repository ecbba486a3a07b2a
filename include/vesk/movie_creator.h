#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <vesk/export.h>
#include <vesk/frame_timing.h>
#include <vesk/queue_levels.h>
#include <vesk/recording_statistics.h>

namespace vesk {

/// The pictures of a recording.
struct _VeskVideoDescription {
  int32_t width = 0;      ///< pixels
  int32_t height = 0;     ///< pixels
  uint32_t codec = 0;     ///< "avc1" (H.264, as a byte stream) or "2vuy" (packed 4:2:2); others are not recorded
  int32_t frameRate = 0;  ///< pictures a second; not used for timing
  /// A FrameTiming; a value that is none counts as kSteady.
  int32_t reserved = static_cast<int32_t>(FrameTiming::kSteady);
};

/// The sound of a recording.
struct _VeskAudioDescription {
  uint16_t format = 0;  ///< 0x6320 AAC or 0x636D linear PCM; others are not recorded
  uint16_t channels = 0;
  uint32_t sampleRate = 0;      ///< frames a second
  uint16_t bitsPerChannel = 0;  ///< linear PCM only
};

/// Makes a movie file from captured buffers: opened once, fed by the capture threads, closed.
///
/// Threads: every operation from any thread.
class VESK_EXPORT VeskMovieCreator {
 public:
  enum VeskMediaType : int32_t {
    VeskMediaTypeAudio = 0,
    VeskMediaTypeVideo = 1,
  };

  /// @param path where the movie goes, UTF-8
  explicit VeskMovieCreator(std::string path) : mFilePath(std::move(path)) {}
  virtual ~VeskMovieCreator() = default;
  VeskMovieCreator(const VeskMovieCreator&) = delete;
  VeskMovieCreator& operator=(const VeskMovieCreator&) = delete;

  /// Deletes the file at the path and prepares the movie. Null leaves out that stream. Once only.
  /// @return 0, also where nothing can be recorded (statistics: writerMissing); a creator that has
  ///         been opened before answers kMovieAlreadyOpen and goes on as it was.
  virtual int32_t Open(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) = 0;

  /// Adds one captured buffer. H.264 is rewritten in place from start codes to lengths, unless it is
  /// so already. Nothing is recorded before Open, after Close and for a stream that was left out.
  /// @param timestamp microseconds from any origin; the first one becomes the movie's zero
  /// @return 0; -195 for a picture that the movie cannot hold: the camera has changed its parameter sets;
  ///         -197 for another media type; -198, -199 or -200 when the file's writer has failed
  ///         (asset_writer_adapter.h). The recording goes on as far as it can: stopping is up to the caller.
  virtual int32_t AddSampleToMovie(void* buffer, unsigned long length, unsigned long long timestamp,
                                   VeskMediaType type) = 0;

  /// Whether the host goes on in another movie when the camera has changed its parameter sets: from the
  /// next key picture on, everything then waits for ContinueIn (statistics: videoForNext). Otherwise such
  /// pictures are left out, until the camera returns to the sets that the movie holds. False at first.
  virtual void SetContinues(bool continues) = 0;
  /// Ends this movie where the camera changed: what waits, and everything that is still added here, goes
  /// into `next`, which is open. Close comes next.
  virtual void ContinueIn(std::shared_ptr<VeskMovieCreator> next) = 0;

  /// Finishes the movie: the file is complete when this returns. @return 0
  virtual int32_t Close() = 0;

  /// What the recording has done so far; also after Close. Takes no lock.
  virtual RecordingStatistics statistics() const = 0;
  /// How full the queues to the writer are, for holding back a source that can wait. Takes no lock.
  virtual QueueLevels waiting() const = 0;
  /// `haveRoom` is called on the writer's thread, each time that the queues have room again (QueueLevels::haveRoom)
  /// after `waiting` has answered that they are busy. Must not block. Set before Open.
  virtual void SetRoomHandler(std::function<void()> haveRoom) = 0;

  const std::string& filePath() const { return mFilePath; }

 protected:
  const std::string mFilePath;
};

constexpr int32_t kMovieFormatChanged = -195;
constexpr int32_t kMovieUnsupportedMediaType = -197;
constexpr int32_t kMovieAlreadyOpen = -196;

/// A creator for a movie at `path` (UTF-8), which is not touched before Open. Null when `path` is or
/// memory runs out.
VESK_EXPORT std::unique_ptr<VeskMovieCreator> CreateMovieCreator(const char* path);

}  // namespace vesk
