#include <vesk/movie_asset_creator.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/sample_generators.h>
#include "movie/movie_asset_creator_state.h"
#include "platform/foundation/errors.h"
#include "platform/h264/nal_unit.h"
#include "platform/h264/picture_geometry.h"
#include "platform/h264/stream_conversion.h"

namespace vesk {
namespace {

constexpr uint64_t kMostLate = 1'000'000;  // microseconds that a frame is shown late without a word

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

/// Samples that wait are handed on in portions, which the next movie's queues hold.
constexpr size_t kSamplesAtOnce = 100;
constexpr std::chrono::milliseconds kMoment{1};
constexpr int kMostMoments = 2000;  // for a writer that hangs

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

VeskMovieAssetCreator::VeskMovieAssetCreator(std::string path)
    : VeskMovieCreator(std::move(path)), mState(std::make_unique<State>(mFilePath, FileSystem::posix())) {}

VeskMovieAssetCreator::VeskMovieAssetCreator(std::string path, std::unique_ptr<State> state)
    : VeskMovieCreator(std::move(path)), mState(std::move(state)) {}

VeskMovieAssetCreator::~VeskMovieAssetCreator() = default;

int32_t VeskMovieAssetCreator::Open(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) {
  return mState->Open(video, audio);
}

int32_t VeskMovieAssetCreator::AddSampleToMovie(void* buffer, unsigned long length, unsigned long long timestamp,
                                                VeskMediaType type) {
  return mState->AddSampleToMovie(buffer, length, timestamp, type);
}

void VeskMovieAssetCreator::SetContinues(bool continues) {
  mState->SetContinues(continues);
}

void VeskMovieAssetCreator::ContinueIn(std::shared_ptr<VeskMovieCreator> next) {
  mState->ContinueIn(std::move(next));
}

int32_t VeskMovieAssetCreator::Close() {
  return mState->Close();
}

RecordingStatistics VeskMovieAssetCreator::statistics() const {
  return mState->statistics();
}

QueueLevels VeskMovieAssetCreator::waiting() const {
  return mState->waiting();
}

void VeskMovieAssetCreator::SetRoomHandler(std::function<void()> haveRoom) {
  mState->SetRoomHandler(std::move(haveRoom));
}

VeskMovieAssetCreator::State::State(std::string path, FileSystem& fileSystem)
    : mFilePath(std::move(path)), mFileSystem(fileSystem), mCounters(std::make_shared<RecordingCounters>()) {}

int32_t VeskMovieAssetCreator::State::Open(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) {
  MutexLock lock(mMutex);
  if (std::exchange(mWasOpened, true)) return kMovieAlreadyOpen;
  try {
    openStreams(video, audio);
  } catch (const std::exception& error) {
    mCounters->writerMissing = true;
    mCounters->noteFailure(0, errorOf("the movie \"" + mFilePath + "\" could not be opened", error, mFilePath));
  }
  return 0;
}

void VeskMovieAssetCreator::State::openStreams(const _VeskVideoDescription* video, const _VeskAudioDescription* audio) {
  const FrameTiming timing = timingOf(video);
  if (audio) {
    mAudioDescription = *audio;
    mAudioGenerator = makeAudioGenerator(*audio, timing);
  }
  if (video) {
    mVideoDescription = *video;
    mVideoGenerator = makeVideoGenerator(*video, timing);
    noteSize(video->width, video->height);
  }
  mFirstTimestamp = 0;
  mAdapter = std::make_unique<CountedAssetWriterAdapter>(mFilePath, video != nullptr, audio != nullptr, mCounters,
                                                         mFileSystem);
}

int32_t VeskMovieAssetCreator::State::AddSampleToMovie(void* buffer, unsigned long length, unsigned long long timestamp,
                                                       VeskMediaType type) {
  if (auto* const next = mNext.load()) return next->AddSampleToMovie(buffer, length, timestamp, type);
  MutexLock lock(mMutex);
  if (mNextOwner) return mNextOwner->AddSampleToMovie(buffer, length, timestamp, type);
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
    NSLog(LogLevel::kError, std::string("A sample could not be recorded: ") + error.what());
    return 0;
  }
}

int32_t VeskMovieAssetCreator::State::addSample(uint8_t* buffer, unsigned long length, uint64_t time,
                                                VeskMediaType type) {
  const bool isUsable = buffer && length <= std::numeric_limits<uint32_t>::max();
  switch (type) {
    case VeskMediaTypeVideo:
      if (!mVideoGenerator || !isUsable) return 0;
      return mVideoDescription.codec == kCMVideoCodecType_H264 ? addH264({buffer, length}, time)
                                                               : addPicture({buffer, length}, time);
    case VeskMediaTypeAudio:
      return mAudioGenerator && isUsable ? addAudio(buffer, static_cast<uint32_t>(length), time) : 0;
  }
  printToOutput(LogLevel::kWarning, "*** Unsupported media type [%d] -- ignoring data\n", static_cast<int>(type));
  return kMovieUnsupportedMediaType;
}

int32_t VeskMovieAssetCreator::State::addPicture(std::span<const uint8_t> picture, uint64_t time) {
  const auto sample = mVideoGenerator->CreateSample(picture.data(), static_cast<uint32_t>(picture.size()), time);
  if (!sample) {
    RecordingCounters::add(mCounters->video.heldBack);
    return 0;
  }
  noteTime(*sample, time);
  return mAdapter->addVideoSample(sample);
}

/// Frames that come too fast for a steady movie leave their sound further and further behind.
void VeskMovieAssetCreator::State::noteTime(const CMSampleBuffer& sample, uint64_t time) {
  const auto shown = static_cast<uint64_t>(sample.presentationTimeStamp().value);
  if (mCounters->noteFrame(time, shown) < kMostLate || std::exchange(mIsLateTold, true)) return;
  NSLog(
      LogLevel::kWarning,
      "Pictures come faster than the movie \"" + mFilePath +
          "\" shows them, one in 30 ms, and fall behind their sound. Record at most 33 pictures a second, or keep the "
          "camera's times.");
}

/// A movie's track holds one sequence and one picture parameter set: those of the picture that it begins with.
int32_t VeskMovieAssetCreator::State::addH264(std::span<uint8_t> unit, uint64_t time) {
  h264::ensureLengths(unit);
  const bool wasHolding = mSets.isHolding();
  bool fits = look(unit);
  bool isFirst = !wasHolding && mSets.isHolding();
  if (!fits && mCounters->video.queued == 0) {  // nothing is in the movie yet: it can begin with these
    mSets.release();
    isFirst = fits = look(unit);
  }
  if (!fits || mHasOtherSets) return addChanged(unit, fits, time);
  if (!isFirst) return addPicture(unit, time);
  // The generator keeps the first sets that it is shown, which need not be those in use.
  mVideoGenerator = makeVideoGenerator(mVideoDescription, timingOf(&mVideoDescription));
  if (const auto held = mSets.held()) {
    const auto geometry = h264::readPictureGeometry(mSets.sets().sequenceSet(held->sequence));
    if (geometry) noteSize(static_cast<int32_t>(geometry->width), static_cast<int32_t>(geometry->height));
  }
  return addPicture(withSets(unit), time);
}

void VeskMovieAssetCreator::State::noteSize(int32_t width, int32_t height) {
  mCounters->width = static_cast<uint32_t>(std::max(width, 0));
  mCounters->height = static_cast<uint32_t>(std::max(height, 0));
}

bool VeskMovieAssetCreator::State::look(std::span<const uint8_t> unit) {
  bool fits = true;
  h264::NALUnitWalk walk(unit);
  while (const auto nal = walk.next()) fits &= mSets.look(*nal);
  return fits;
}

/// Once the camera has changed its sets: the unit goes into this movie again from a key picture on that fits, if
/// no other movie is to go on.
int32_t VeskMovieAssetCreator::State::addChanged(std::span<const uint8_t> unit, bool fits, uint64_t time) {
  bool isKey = false;
  bool hasSlices = false;
  h264::NALUnitWalk walk(unit);
  while (const auto nal = walk.next()) {
    if (nal->empty()) continue;
    const uint8_t type = h264::unitType(nal->front());
    hasSlices |= type <= h264::kIDRSlice;
    isKey |= type == h264::kIDRSlice;
  }
  if (!fits) mHasOtherSets = true;
  if (fits && isKey && !mContinues) mHasOtherSets = false;
  const bool isForNext = mHasOtherSets && (hasSlices || mForNext.hasBegun());
  return isForNext ? leaveOut(unit, isKey, time) : addPicture(unit, time);
}

/// The access unit after the parameter sets that its first slice uses, wherever those came from.
std::vector<uint8_t> VeskMovieAssetCreator::State::withSets(std::span<const uint8_t> unit) const {
  const auto inUse = mSets.sets().usedIn(unit);
  return inUse ? mSets.sets().prependedTo(unit, *inUse) : std::vector<uint8_t>(unit.begin(), unit.end());
}

int32_t VeskMovieAssetCreator::State::leaveOut(std::span<const uint8_t> unit, bool isKey, uint64_t time) {
  const bool isFirst = !mCounters->formatChanged.exchange(true);
  if (isFirst && !mContinues) {
    NSLog(LogLevel::kWarning, "The camera has changed its pictures on the way, which \"" + mFilePath +
                                  "\" cannot hold: they are left out. Start another recording.");
  }
  const uint64_t timestamp = mFirstTimestamp + time;
  if (!mContinues || (!mForNext.hasBegun() && !isKey)) {
    RecordingCounters::add(mCounters->unfit);
    return kMovieFormatChanged;
  }
  if (mForNext.hasBegun())
    keepForNext(unit, timestamp, VeskMediaTypeVideo);
  else
    keepForNext(withSets(unit), timestamp, VeskMediaTypeVideo);
  return kMovieFormatChanged;
}

void VeskMovieAssetCreator::State::keepForNext(std::span<const uint8_t> bytes, uint64_t timestamp, VeskMediaType type) {
  if (!mForNext.hasRoom(bytes.size())) {
    // Rather a movie that begins later than one with a hole, behind which nothing can be decoded.
    for (const auto& lost : mForNext.giveUp())
      RecordingCounters::add(lost.type == VeskMediaTypeVideo ? mCounters->video.dropped : mCounters->audio.dropped);
    RecordingCounters::add(type == VeskMediaTypeVideo ? mCounters->video.dropped : mCounters->audio.dropped);
  } else {
    mForNext.add(bytes, timestamp, type);
  }
  mCounters->forNext = mForNext.pictures();
}

int32_t VeskMovieAssetCreator::State::addAudio(const uint8_t* buffer, uint32_t length, uint64_t time) {
  if (mForNext.isFrom(mFirstTimestamp + time)) {
    keepForNext({buffer, length}, mFirstTimestamp + time, VeskMediaTypeAudio);
    return 0;
  }
  return recordAudio(buffer, length, time);
}

int32_t VeskMovieAssetCreator::State::recordAudio(const uint8_t* buffer, uint32_t length, uint64_t time) {
  const auto sample = mAudioGenerator->CreateSample(buffer, length, time);
  if (!sample) {
    RecordingCounters::add(mCounters->audio.dropped);
    return 0;
  }
  RecordingCounters::add(mCounters->silence, silencePackets(*sample));
  return mAdapter->addAudioSample(sample);
}

void VeskMovieAssetCreator::State::SetContinues(bool continues) {
  MutexLock lock(mMutex);
  mContinues = continues;
  if (!continues) giveUpWaiting();
}

void VeskMovieAssetCreator::State::ContinueIn(std::shared_ptr<VeskMovieCreator> next) {
  if (!next) return;
  const auto add = [&next](std::vector<WaitingSamples::Sample> samples) {
    for (auto& sample : samples)
      next->AddSampleToMovie(sample.bytes.data(), sample.bytes.size(), sample.timestamp, sample.type);
  };
  // More than the queues to the writer hold may wait, after a host that was held up.
  for (;;) {
    std::vector<WaitingSamples::Sample> samples;
    {
      MutexLock lock(mMutex);
      if (mNextOwner) return;
      samples = mForNext.take(kSamplesAtOnce);
      mCounters->forNext = mForNext.pictures();
      if (samples.size() < kSamplesAtOnce) {
        add(std::move(samples));
        mNextOwner = std::move(next);
        mNext = mNextOwner.get();
        return;
      }
    }
    add(std::move(samples));
    for (int moments = 0; moments < kMostMoments && next->waiting().areQueuesFull(); ++moments)
      std::this_thread::sleep_for(kMoment);
  }
}

/// No other movie comes: sound that waited belongs into this one after all.
void VeskMovieAssetCreator::State::giveUpWaiting() {
  try {
    for (const auto& sample : mForNext.giveUp()) {
      if (sample.type == VeskMediaTypeVideo)
        RecordingCounters::add(mCounters->unfit);
      else if (mAdapter && mAudioGenerator)
        recordAudio(sample.bytes.data(), static_cast<uint32_t>(sample.bytes.size()),
                    sample.timestamp - mFirstTimestamp);
    }
  } catch (const std::exception& error) {
    NSLog(LogLevel::kError, std::string("Sound could not be recorded: ") + error.what());
  }
  mCounters->forNext = 0;
}

int32_t VeskMovieAssetCreator::State::Close() {
  MutexLock lock(mMutex);
  giveUpWaiting();
  mAdapter.reset();
  mAudioGenerator.reset();
  mVideoGenerator.reset();
  return 0;
}

}  // namespace vesk
