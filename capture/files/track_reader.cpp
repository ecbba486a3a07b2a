#include "capture/files/track_reader.h"

extern "C" {
#include <libavutil/intreadwrite.h>
#include <libavutil/mathematics.h>
}

#include <fmt/format.h>

#include <algorithm>

#include "capture/files/movie_index.h"

namespace vesk::capture {

namespace {

constexpr AVRational kMicroseconds = {1, 1000000};
/// So many broken reads in a row, and there is nothing left to come.
constexpr int kMaxBrokenReads = 100;
static_assert(FileBlocks::kPaddingBytes >= AV_INPUT_BUFFER_PADDING_SIZE);

/// `later` − `earlier`; what a broken index says may not fit.
int64_t difference(int64_t later, int64_t earlier) {
  return static_cast<int64_t>(static_cast<uint64_t>(later) - static_cast<uint64_t>(earlier));
}

/// Whether the demuxer gives packets of that codec as a movie's index lists them.
bool isReadByIndex(AVCodecID codec) {
  return codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_MJPEG || codec == AV_CODEC_ID_RAWVIDEO ||
         codec == AV_CODEC_ID_PCM_S16LE;
}

}  // namespace

std::unique_ptr<TrackReader> TrackReader::open(const TrackChoice& choice, std::string& error) {
  std::unique_ptr<TrackReader> reader(new TrackReader(choice));
  return reader->mPacket && reader->openContainer(error) ? std::move(reader) : nullptr;
}

std::unique_ptr<TrackReader> TrackReader::take(const TrackChoice& choice, std::unique_ptr<MediaContainer> container) {
  std::unique_ptr<TrackReader> reader(new TrackReader(choice));
  if (!reader->mPacket) return nullptr;
  reader->use(std::move(container));
  return reader;
}

bool TrackReader::openContainer(std::string& error) {
  mContainer.reset();
  auto container = MediaContainer::open(mChoice.path, mChoice.file, error);
  if (!container) return false;
  if (mChoice.index < 0 || mChoice.index >= static_cast<int>(container->context()->nb_streams)) {
    error = fmt::format("{}: the file has changed since it was opened", mChoice.path);
    return false;
  }
  use(std::move(container));
  return true;
}

void TrackReader::use(std::unique_ptr<MediaContainer> container) {
  mContainer = std::move(container);
  mContainer->readOnly(mChoice.index);
  mIsUntimed = mContainer->isUntimed();
  AVStream* track = mContainer->context()->streams[mChoice.index];
  mIsIndexed = mContainer->isMovie() && isReadByIndex(track->codecpar->codec_id) &&
               avformat_index_get_entries_count(track) > 0 && isWholeInIndex(*mChoice.file, track->id);
  mEntry = 0;
  mAtBeginning = true;
  mIsFromBeginning = true;
  mSeen = 0;
  mCount = 0;
  mTime = 0;
  forgetPackets();
}

void TrackReader::setTiming(int64_t origin, AVRational packetTime) {
  mChoice.origin = origin;
  mChoice.packetTime = packetTime;
}

bool TrackReader::read() {
  if (!mContainer) return false;
  mAtBeginning = false;
  for (int broken = 0; broken < kMaxBrokenReads;) {
    av_packet_unref(mPacket.get());
    const int status = mIsIndexed ? readFromIndex() : av_read_frame(mContainer->context(), mPacket.get());
    if (status == AVERROR_EOF) {
      if (!isWhole()) noteDamage("the file is cut off");
      return false;
    }
    if (status == AVERROR(EAGAIN)) {
      ++broken;
      continue;
    }
    if (status < 0) {
      noteDamage(avErrorText(status));
      if (status != AVERROR_INVALIDDATA) return false;
      ++broken;
      continue;
    }
    if (mPacket->stream_index != mChoice.index) continue;
    ++mSeen;
    if (mPacket->size > kMaxFrameBytes) {
      noteDamage(fmt::format("a frame of {} bytes is larger than any camera's", mPacket->size));
      av_packet_unref(mPacket.get());
      return false;
    }
    // A packet that the file does not hold to its end.
    if (mPacket->flags & AV_PKT_FLAG_CORRUPT) {
      noteDamage("a frame is cut off");
      ++broken;
      continue;
    }
    if (mPacket->size == 0) continue;
    if (!mIsIndexed && av_packet_make_writable(mPacket.get()) < 0) return false;
    mTime = packetTime();
    mDecodeTimestamp = mPacket->dts;
    ++mCount;
    return true;
  }
  return false;
}

/// What av_read_frame does, by the movie's index.
int TrackReader::readFromIndex() {
  AVStream* track = mContainer->context()->streams[mChoice.index];
  const AVIndexEntry* entry = avformat_index_get_entry(track, mEntry);
  if (entry == nullptr) return AVERROR_EOF;
  const AVIndexEntry* next = avformat_index_get_entry(track, ++mEntry);
  AVPacket& packet = *mPacket;
  packet.stream_index = mChoice.index;
  packet.pos = entry->pos;
  packet.pts = packet.dts = entry->timestamp;
  packet.duration = next != nullptr ? difference(next->timestamp, entry->timestamp) : 0;
  packet.flags = (entry->flags & AVINDEX_KEYFRAME ? AV_PKT_FLAG_KEY : 0) |
                 (entry->flags & AVINDEX_DISCARD_FRAME ? AV_PKT_FLAG_DISCARD : 0);
  packet.size = entry->size;
  if (entry->size > kMaxFrameBytes) return 0;
  if (entry->pos < mEndInFile) forgetPackets();
  auto bytes = bytesAt(entry->pos, entry->size);
  const bool isWhole = bytes.size() == static_cast<size_t>(entry->size);
  if (!isWhole) packet.flags |= AV_PKT_FLAG_CORRUPT;
  // PCM that follows on in the file and in time comes at once.
  const AVCodecParameters& parameters = *track->codecpar;
  const int frameBytes = parameters.ch_layout.nb_channels * 2;
  const bool countsFrames = isWhole && parameters.codec_id == AV_CODEC_ID_PCM_S16LE && frameBytes > 0 &&
                            av_cmp_q(track->time_base, {1, parameters.sample_rate}) == 0;
  while (countsFrames && next != nullptr && next->size > 0 && mBlock) {
    const auto size = static_cast<int64_t>(bytes.size());
    const int64_t time = difference(next->timestamp, entry->timestamp);
    if (next->pos != entry->pos + size || time != size / frameBytes) break;
    const auto more = mBlock->at(entry->pos, size + next->size);
    if (more.empty()) break;
    bytes = more;
    next = avformat_index_get_entry(track, ++mEntry);
  }
  packet.data = bytes.data();
  packet.size = static_cast<int>(bytes.size());
  mEndInFile = entry->pos + packet.size;
  return 0;
}

/// The bytes of the file as they lie in one of its blocks, else copied together; fewer where they cannot be read.
std::span<uint8_t> TrackReader::bytesAt(int64_t position, int size) {
  if (size <= 0) return {};
  if (!mBlock || mBlock->at(position, 1).empty()) mBlock = mChoice.file->block(position);
  const auto whole = mBlock ? mBlock->at(position, size) : std::span<uint8_t>();
  if (!whole.empty()) return whole;
  const size_t needed = static_cast<size_t>(size) + FileBlocks::kPaddingBytes;
  if (mBuffer.size() < needed) mBuffer.resize(needed);
  const int got = mChoice.file->read(position, mBuffer.data(), size);
  return std::span(mBuffer).first(static_cast<size_t>(std::max(got, 0)));
}

/// Packets that are read from now on come from the file: those in memory may have been rewritten.
void TrackReader::forgetPackets() {
  mBlock.reset();
  mEndInFile = 0;
  if (mIsIndexed) mChoice.file->forget();
}

/// Whether all has been read that a movie's index lists, or another file's header counts.
bool TrackReader::isWhole() const {
  AVStream* track = mContainer->context()->streams[mChoice.index];
  if (mIsIndexed) return mEntry >= avformat_index_get_entries_count(track);
  const bool countsFrames = track->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && mIsFromBeginning;
  if (!mContainer->isMovie()) return !countsFrames || mSeen >= track->nb_frames;
  const AVIndexEntry* last = avformat_index_get_entry(track, avformat_index_get_entries_count(track) - 1);
  return last == nullptr || mDecodeTimestamp >= last->timestamp;
}

int64_t TrackReader::packetTime() {
  if (mIsUntimed) return mChoice.timeOfPackets(mCount);
  if (mPacket->pts != AV_NOPTS_VALUE) return timeOf(mPacket->pts);
  if (mPacket->dts != AV_NOPTS_VALUE) return timeOf(mPacket->dts);
  return mCount == 0 ? 0 : mTime + mChoice.timeOfPackets(1);
}

int64_t TrackReader::timeOf(int64_t timestamp) const {
  return av_rescale_q(timestamp, stream().time_base, kMicroseconds) - mChoice.origin;
}

std::span<const uint8_t> TrackReader::header() const {
  const AVCodecParameters& parameters = *stream().codecpar;
  return {parameters.extradata, static_cast<size_t>(std::max(parameters.extradata_size, 0))};
}

std::span<const uint8_t> TrackReader::newHeader() const {
  size_t size = 0;
  const uint8_t* data = av_packet_get_side_data(mPacket.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
  return {data, data != nullptr ? size : 0};
}

uint32_t TrackReader::skippedFrames() const {
  size_t size = 0;
  const uint8_t* data = av_packet_get_side_data(mPacket.get(), AV_PKT_DATA_SKIP_SAMPLES, &size);
  return data != nullptr && size >= 4 ? AV_RL32(data) : 0;
}

bool TrackReader::seek(int64_t time) {
  if (time <= 0 || mIsUntimed || !mContainer) return rewind();
  const int64_t target = av_rescale_q(time + mChoice.origin, kMicroseconds, stream().time_base);
  mAtBeginning = false;
  mIsFromBeginning = false;
  if (mIsIndexed) {
    AVStream* track = mContainer->context()->streams[mChoice.index];
    mEntry = std::max(av_index_search_timestamp(track, target, AVSEEK_FLAG_BACKWARD), 0);
    return true;
  }
  return av_seek_frame(mContainer->context(), mChoice.index, target, AVSEEK_FLAG_BACKWARD) >= 0 || rewind();
}

bool TrackReader::seekToFirst() {
  if (!mContainer->isMovie()) return false;
  const AVIndexEntry* first = avformat_index_get_entry(mContainer->context()->streams[mChoice.index], 0);
  return first != nullptr && av_seek_frame(mContainer->context(), mChoice.index, first->timestamp,
                                           AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY) >= 0;
}

bool TrackReader::rewind() {
  if (mAtBeginning && mContainer) return true;
  mDamage.clear();
  // A movie has an index to go back by; for others, opening again is the one way that always works.
  if (mContainer && (mIsIndexed || seekToFirst())) {
    mEntry = 0;
    mAtBeginning = true;
    mIsFromBeginning = true;
    mSeen = 0;
    mCount = 0;
    return true;
  }
  std::string error;
  if (openContainer(error)) return true;
  noteDamage(error);
  return false;
}

void TrackReader::noteDamage(const std::string& what) {
  if (mDamage.empty()) mDamage = what;
}

}  // namespace vesk::capture
