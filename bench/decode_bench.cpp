/// Decoding as a preview does it, against libjpeg-turbo and libavcodec by themselves, in turn.
///
///   decode_bench [--rounds N] [CLIP…]        a table: medians of CPU time and of the rounds' ratios
///   decode_bench --dump CLIP FRAMES          the frames of a clip, for decode_count_bench
///
/// Clips are Motion JPEG, or H.264 in a movie.

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/icm_decoder.h>
#include "bench/bare_jpeg.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

using Bytes = std::vector<uint8_t>;

[[noreturn]] void giveUp(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(1);
}

struct Clip {
  uint32_t codec = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<Bytes> frames;
};

void addUnit(Bytes& frame, const uint8_t* unit, size_t size) {
  frame.insert(frame.end(), {0, 0, 0, 1});
  frame.insert(frame.end(), unit, unit + size);
}

/// The first two parameter sets of an avcC record, with start codes.
Bytes parameterSets(const AVCodecParameters& parameters) {
  if (parameters.extradata_size < 8 || parameters.extradata[0] != 1) giveUp("H.264 is read from movies only");
  Bytes sets;
  const uint8_t* at = parameters.extradata + 6;
  for (int i = 0; i < 2; ++i) {
    const size_t size = size_t{at[0]} << 8 | at[1];
    addUnit(sets, at + 2, size);
    at += 2 + size + 1;
  }
  return sets;
}

/// A frame as a camera sends it.
Bytes cameraFrame(const AVPacket& packet, const Bytes& sets) {
  if (sets.empty()) return {packet.data, packet.data + packet.size};
  Bytes frame;
  if ((packet.flags & AV_PKT_FLAG_KEY) != 0) frame = sets;
  for (const uint8_t* at = packet.data; at < packet.data + packet.size;) {
    const size_t size = size_t{at[0]} << 24 | size_t{at[1]} << 16 | size_t{at[2]} << 8 | at[3];
    addUnit(frame, at + 4, size);
    at += 4 + size;
  }
  return frame;
}

Clip readClip(const std::string& path) {
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) != 0) giveUp("cannot read " + path);
  avformat_find_stream_info(input, nullptr);
  const int track = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (track < 0) giveUp("no pictures in " + path);
  const AVCodecParameters& parameters = *input->streams[track]->codecpar;
  const bool isH264 = parameters.codec_id == AV_CODEC_ID_H264;
  Clip clip{isH264 ? vesk::kCMVideoCodecType_H264 : vesk::kCMVideoCodecType_MotionJPEG,
            static_cast<uint32_t>(parameters.width),
            static_cast<uint32_t>(parameters.height),
            {}};
  const Bytes sets = isH264 ? parameterSets(parameters) : Bytes{};
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input, packet) == 0) {
    if (packet->stream_index == track) clip.frames.push_back(cameraFrame(*packet, sets));
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  avformat_close_input(&input);
  return clip;
}

struct Counter : vesk::DecoderProtocol {
  void displayData(vesk::CVImageBufferRef /*image*/) override { ++count; }
  size_t count = 0;
};

/// libavcodec by itself: one thread, low delay, the camera's frames as they are, each in a buffer of
/// its own that needs no copy.
class BareAVCodec {
 public:
  explicit BareAVCodec(const Clip& clip) {
    const AVCodec* const codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    mContext = avcodec_alloc_context3(codec);
    mContext->flags |= AV_CODEC_FLAG_LOW_DELAY;
    mContext->thread_count = 1;
    if (avcodec_open2(mContext, codec, nullptr) != 0) giveUp("no H.264 decoder");
    for (const Bytes& frame : clip.frames) {
      AVPacket* packet = av_packet_alloc();
      av_new_packet(packet, static_cast<int>(frame.size()));
      std::memcpy(packet->data, frame.data(), frame.size());
      mPackets.push_back(packet);
    }
  }
  ~BareAVCodec() {
    for (AVPacket* packet : mPackets) av_packet_free(&packet);
    av_frame_free(&mFrame);
    avcodec_free_context(&mContext);
  }
  BareAVCodec(const BareAVCodec&) = delete;
  BareAVCodec& operator=(const BareAVCodec&) = delete;

  void decodeAll() {
    for (const AVPacket* packet : mPackets) {
      avcodec_send_packet(mContext, packet);
      while (avcodec_receive_frame(mContext, mFrame) == 0) av_frame_unref(mFrame);
    }
  }

 private:
  AVCodecContext* mContext = nullptr;
  AVFrame* mFrame = av_frame_alloc();
  std::vector<AVPacket*> mPackets;
};

/// Decodes the whole clip once.
using Contestant = std::function<void()>;

Contestant ours(const Clip& clip, const std::shared_ptr<Counter>& counter) {
  const std::shared_ptr<vesk::ICMDecoder> decoder =
      vesk::ICMDecoder::initWithWidth(clip.width, clip.height, clip.codec);
  decoder->setDelegate(counter.get());
  return [&clip, decoder, counter] {
    const size_t before = counter->count;
    for (const Bytes& frame : clip.frames) decoder->decompressData(frame.data(), static_cast<int32_t>(frame.size()), 0);
    if (counter->count - before != clip.frames.size()) giveUp("not every frame gave a picture");
  };
}

Contestant bare(const Clip& clip) {
  if (clip.codec == vesk::kCMVideoCodecType_H264) {
    const auto decoder = std::make_shared<BareAVCodec>(clip);
    return [decoder] { decoder->decodeAll(); };
  }
  const auto decoder = std::make_shared<BareJPEG>();
  return [&clip, decoder] {
    for (const Bytes& frame : clip.frames) decoder->decode(frame);
  };
}

double cpuSeconds(const Contestant& work) {
  const auto now = [] {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  const double before = now();
  work();
  return now() - before;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void compare(const std::string& path, int rounds) {
  const Clip clip = readClip(path);
  const auto counter = std::make_shared<Counter>();
  const Contestant contestants[] = {ours(clip, counter), bare(clip)};
  for (const auto& contestant : contestants) contestant();  // memory and caches
  std::vector<double> seconds[2];
  std::vector<double> ratios;
  for (int round = 0; round < rounds; ++round) {
    const size_t first = static_cast<size_t>(round) % 2;
    for (const size_t which : {first, 1 - first}) seconds[which].push_back(cpuSeconds(contestants[which]));
    ratios.push_back(seconds[0].back() / seconds[1].back());
  }
  const double each = 1000.0 / static_cast<double>(clip.frames.size());
  std::printf("| %s, %s %u x %u | ≤ 1.03 | %.3f | %.3f | %.3f |\n", path.substr(path.find_last_of('/') + 1).c_str(),
              vesk::fourCharString(clip.codec).c_str(), clip.width, clip.height, median(seconds[0]) * each,
              median(seconds[1]) * each, median(ratios));
  std::fflush(stdout);
}

/// Each frame is a 32-bit length in the machine's byte order, then its bytes.
int dump(const char* path, const char* to) {
  FILE* const file = std::fopen(to, "wb");
  if (!file) giveUp("cannot write");
  for (const Bytes& frame : readClip(path).frames) {
    const auto length = static_cast<uint32_t>(frame.size());
    std::fwrite(&length, sizeof length, 1, file);
    std::fwrite(frame.data(), 1, length, file);
  }
  return std::fclose(file) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 3 && arguments[0] == "--dump") return dump(argv[2], argv[3]);
  int rounds = 31;
  if (arguments.size() >= 2 && arguments[0] == "--rounds") {
    rounds = std::max(1, std::atoi(argv[2]));
    arguments.erase(arguments.begin(), arguments.begin() + 2);
  }
  if (arguments.empty()) arguments = {VESK_TEST_DATA "/street-mjpeg.avi", VESK_TEST_DATA "/town-h264-aac.mp4"};
  std::printf("| clip | goal | Vesk, CPU ms a frame | bare | ratio |\n|---|---|---|---|---|\n");
  for (const std::string& path : arguments) compare(path, rounds);
  return 0;
}
