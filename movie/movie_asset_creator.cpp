#include "movie/movie_asset_creator.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <utility>

#include "movie/aac_audio_sample_generator.h"
#include "movie/h264_bitstream.h"
#include "movie/h264_sample_generator.h"
#include "movie/pcm_audio_sample_generator.h"
#include "movie/uncompressed_sample_generator.h"
#include "platform/foundation/log.h"
#include "platform/media/four_char_code.h"

namespace vesk {
namespace {

FrameTiming timingOf(const _VeskVideoDescription* video) {
  const bool isCapture = video && video->reserved == static_cast<int32_t>(FrameTiming::kCapture);
  return isCapture ? FrameTiming::kCapture : FrameTiming::kSteady;
}

/// Null for a codec that is not recorded.
std::unique_ptr<ISampleGenerator> makeVideoGenerator(const _VeskVideoDescription& video, FrameTiming timing) {
  switch (video.codec) {
    case kCMPixelFormat_422YpCbCr8:
      return std::make_unique<UncompressedSampleGenerator>(video.width, video.height, video.frameRate, timing);
    case kCMVideoCodecType_H264:
      return std::make_unique<H264SampleGenerator>(video.width, video.height, video.frameRate, timing);
    default:
      return nullptr;
  }
}

/// Null for a format that is not recorded.
std::unique_ptr<ISampleGenerator> makeAudioGenerator(const _VeskAudioDescription& audio, FrameTiming timing) {
  switch (audio.format) {
    case kWaveFormatAAC:
      return std::make_unique<AACAudioSampleGenerator>(audio.sampleRate, audio.channels);
    case kWaveFormatLinearPCM:
      return std::make_unique<PCMAudioSampleGenerator>(audio.sampleRate, audio.channels, audio.bitsPerChannel, timing);
    default:
      return nullptr;
  }
}

/// How many packets of silence a sample holds, of the size of the packet behind it.
uint64_t silencePackets(const CMSampleBuffer& sample) {
  const uint64_t silence = sample.attachments().insertedSilence;
  const uint64_t inBuffer = sample.attachments().isSilenceLeftOut ? 0 : silence;
  const uint64_t packet = std::max<uint64_t>(sample.numSamples() - inBuffer, 1);
  return (silence + packet / 2) / packet;
}

}  // namespace

std::unique_ptr<VeskMovieCreator> CreateMovieCreator(const char* path) {
  if (!path) return nullptr;
  try {
    return std::make_unique<VeskMovieAssetCreator>(path);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

VeskMovieAssetCreator::VeskMovieAssetCreator(std::string path, FileSystem* fileSystem)
    : VeskMovieCreator(std::move(path)), mFileSystem(fileSystem), mCounters(std::make_shared<RecordingCounters>()) {}

int32_t VeskMovieAssetCreator::Open(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) {
  MutexLock lock(mMutex);
  if (std::exchange(mWasOpened, true)) return kMovieAlreadyOpen;
  try {
    openStreams(video, audio);
  } catch (const std::exception& error) {
    NSLog("The movie \"" + mFilePath + "\" could not be opened: " + error.what());
    mCounters->writerMissing = true;
  }
  return 0;
}

void VeskMovieAssetCreator::openStreams(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) {
  const FrameTiming timing = timingOf(video);
  if (audio) {
    mAudioDescription = *audio;
    mAudioGenerator = makeAudioGenerator(*audio, timing);
  }
  if (video) {
    mVideoDescription = *video;
    mVideoGenerator = makeVideoGenerator(*video, timing);
  }
  mFirstTimestamp = 0;
  mAdapter =
      std::make_unique<AVAssetWriterAdapter>(mFilePath, video != nullptr, audio != nullptr, mCounters, mFileSystem);
}

int32_t VeskMovieAssetCreator::AddSampleToMovie(void* buffer, unsigned long length, unsigned long long timestamp,
                                                VeskMediaType type) {
  MutexLock lock(mMutex);
  if (!mAdapter) return 0;
  if (timestamp < mFirstTimestamp) {
    if (type == VeskMediaTypeVideo) RecordingCounters::add(mCounters->video.heldBack);
    if (type == VeskMediaTypeAudio) RecordingCounters::add(mCounters->audio.heldBack);
    return 0;
  }
  if (mFirstTimestamp == 0) mFirstTimestamp = timestamp;
  try {
    return addSample(static_cast<uint8_t*>(buffer), length, timestamp - mFirstTimestamp, type);
  } catch (const std::exception& error) {
    NSLog(std::string("A sample could not be recorded: ") + error.what());
    return 0;
  }
}

int32_t VeskMovieAssetCreator::addSample(uint8_t* buffer, unsigned long length, uint64_t time, VeskMediaType type) {
  const bool isUsable = buffer && length <= std::numeric_limits<uint32_t>::max();
  switch (type) {
    case VeskMediaTypeVideo:
      return mVideoGenerator && isUsable ? addVideo(buffer, static_cast<uint32_t>(length), time) : 0;
    case VeskMediaTypeAudio:
      return mAudioGenerator && isUsable ? addAudio(buffer, static_cast<uint32_t>(length), time) : 0;
  }
  printToOutput("*** Unsupported media type [%d] -- ignoring data\n", static_cast<int>(type));
  return kMovieUnsupportedMediaType;
}

int32_t VeskMovieAssetCreator::addVideo(uint8_t* buffer, uint32_t length, uint64_t time) {
  if (mVideoDescription.codec == kCMVideoCodecType_H264) EnsureH264BoxFormat(buffer, length);
  const auto sample = mVideoGenerator->CreateSample(buffer, length, time);
  if (sample) return mAdapter->addVideoSample(sample);
  RecordingCounters::add(mCounters->video.heldBack);
  return 0;
}

int32_t VeskMovieAssetCreator::addAudio(const uint8_t* buffer, uint32_t length, uint64_t time) {
  const auto sample = mAudioGenerator->CreateSample(buffer, length, time);
  if (!sample) {
    RecordingCounters::add(mCounters->audio.dropped);
    return 0;
  }
  RecordingCounters::add(mCounters->silence, silencePackets(*sample));
  return mAdapter->addAudioSample(sample);
}

int32_t VeskMovieAssetCreator::Close() {
  MutexLock lock(mMutex);
  mAdapter.reset();
  mAudioGenerator.reset();
  mVideoGenerator.reset();
  return 0;
}

RecordingStatistics VeskMovieAssetCreator::statistics() const {
  return mCounters->statistics();
}

QueueLevels VeskMovieAssetCreator::waiting() const {
  return mCounters->levels();
}

}  // namespace vesk
