/// Records frames that lie in memory, through our movie creator or through bare libavformat with a
/// queue and a thread, and prints what it cost: one JSON object on standard output. With none the frames are made and
/// dropped, which shows what making them costs.
///
///   record_bench --writer vesk|avformat|none --clip CLIP --minutes M OUT
///   record_bench --dump --clip CLIP OUT      writes the frames themselves, for count_bench
///
/// The pictures of CLIP (H.264) are repeated as often as needed; --raw WxH records 2vuy pictures
/// instead. 30 pictures a second and 48 kHz stereo PCM in packets of 1024 frames; time stamps as in
/// real time. --real-time waits for them. With --stamps FILE there is a picture for each line of FILE,
/// which is its stamp in microseconds from the beginning of the sound. --capture keeps these times in
/// our movie (FrameTiming::kCapture). --waits also measures how long each picture waits in the queue, with
/// --no-syncs the movie is finished without any.

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/movie_creator.h>

namespace {

std::atomic<bool> skipsSyncs{false};

int64_t nanoseconds() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

int syncUnlessSkipped(long number, int descriptor) {
  return skipsSyncs ? 0 : static_cast<int>(syscall(number, descriptor));
}

}  // namespace

// In front of the system's, to measure what is left without them.
extern "C" int fdatasync(int descriptor) {
  return syncUnlessSkipped(SYS_fdatasync, descriptor);
}
extern "C" int fsync(int descriptor) {
  return syncUnlessSkipped(SYS_fsync, descriptor);
}

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int64_t kFrameDistance = 33'333;  // microseconds
constexpr int64_t kBeginning = 1'000'000;
constexpr uint32_t kPacketFrames = 1024;
constexpr uint32_t kRate = 48'000;

struct Settings {
  std::string writer = "vesk";
  std::string clip;
  std::string out;
  double minutes = 1;
  int width = 1280;
  int height = 720;
  bool raw = false;
  bool realTime = false;
  bool dump = false;
  bool keepsTimes = false;
  bool measuresWaits = false;
  bool finishesWithoutSyncs = false;
  std::vector<int64_t> stamps;  // microseconds from the first sound; empty for one every kFrameDistance
};

struct Footage {
  std::vector<Bytes> frames;
  std::vector<bool> isKey;
  Bytes extradata;
  int width = 0;
  int height = 0;
};

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "record_bench: %s\n", what.c_str());
  std::exit(1);
}

/// The access units of the clip as Annex B with four-byte start codes, as a camera delivers them.
Footage readClip(const std::string& path) {
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) fail("cannot read " + path);
  avformat_find_stream_info(input, nullptr);
  const int stream = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (stream < 0) fail("no pictures in " + path);
  const AVCodecParameters* const parameters = input->streams[stream]->codecpar;
  AVBSFContext* filter = nullptr;
  av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &filter);
  avcodec_parameters_copy(filter->par_in, parameters);
  if (av_bsf_init(filter) < 0) fail("not H.264: " + path);
  Footage footage;
  footage.width = parameters->width;
  footage.height = parameters->height;
  footage.extradata.assign(filter->par_out->extradata, filter->par_out->extradata + filter->par_out->extradata_size);
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input, packet) >= 0) {
    if (packet->stream_index != stream) {
      av_packet_unref(packet);
      continue;
    }
    av_bsf_send_packet(filter, packet);
    while (av_bsf_receive_packet(filter, packet) >= 0) {
      Bytes frame;
      const uint8_t* const data = packet->data;
      const auto size = static_cast<size_t>(packet->size);
      for (size_t i = 0; i < size; ++i) {
        const bool isShort = i + 3 <= size && data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1;
        if (isShort && (i == 0 || data[i - 1] != 0)) frame.push_back(0);
        frame.push_back(data[i]);
      }
      footage.frames.push_back(std::move(frame));
      footage.isKey.push_back((packet->flags & AV_PKT_FLAG_KEY) != 0);
      av_packet_unref(packet);
    }
  }
  av_packet_free(&packet);
  av_bsf_free(&filter);
  avformat_close_input(&input);
  if (footage.frames.empty()) fail("no pictures in " + path);
  return footage;
}

void dump(const Footage& footage, const std::string& path) {
  FILE* const file = std::fopen(path.c_str(), "wb");
  if (!file) fail("cannot write " + path);
  for (const Bytes& frame : footage.frames) {
    const auto length = static_cast<uint32_t>(frame.size());
    std::fwrite(&length, sizeof length, 1, file);
    std::fwrite(frame.data(), 1, frame.size(), file);
  }
  std::fclose(file);
}

Footage makeRaw(int width, int height) {
  Footage footage;
  footage.width = width;
  footage.height = height;
  for (int picture = 0; picture < 4; ++picture) {
    Bytes frame(static_cast<size_t>(width) * static_cast<size_t>(height) * 2);
    uint32_t value = 12345U + static_cast<uint32_t>(picture);
    for (uint8_t& byte : frame) byte = static_cast<uint8_t>((value = value * 1664525U + 1013904223U) >> 24);
    footage.frames.push_back(std::move(frame));
    footage.isKey.push_back(true);
  }
  return footage;
}

class Recorder {
 public:
  virtual ~Recorder() = default;
  virtual void video(uint8_t* bytes, size_t length, int64_t time, bool isKey) = 0;
  virtual void sound(uint8_t* bytes, size_t length, int64_t time) = 0;
  /// Whether the writer has enough waiting.
  virtual bool isBusy() const = 0;
  /// How many pictures wait.
  virtual size_t waiting() const = 0;
  /// Waits until nothing is waiting any more.
  virtual void drain() = 0;
  virtual void finish() = 0;
};

class VeskWriter : public Recorder {
 public:
  VeskWriter(const Settings& settings, const Footage& footage)
      : mCreator(vesk::CreateMovieCreator(settings.out.c_str())) {
    vesk::_VeskVideoDescription video{};
    video.width = footage.width;
    video.height = footage.height;
    video.codec = settings.raw ? vesk::kCMPixelFormat_422YpCbCr8 : vesk::kCMVideoCodecType_H264;
    video.frameRate = 30;
    video.reserved =
        static_cast<int32_t>(settings.keepsTimes ? vesk::FrameTiming::kCapture : vesk::FrameTiming::kSteady);
    vesk::_VeskAudioDescription audio{};
    audio.format = vesk::kWaveFormatLinearPCM;
    audio.channels = 2;
    audio.sampleRate = kRate;
    audio.bitsPerChannel = 16;
    mCreator->Open(&video, &audio);
  }
  void video(uint8_t* bytes, size_t length, int64_t time, bool) override {
    mCreator->AddSampleToMovie(bytes, length, static_cast<uint64_t>(time), vesk::VeskMovieCreator::VeskMediaTypeVideo);
  }
  void sound(uint8_t* bytes, size_t length, int64_t time) override {
    mCreator->AddSampleToMovie(bytes, length, static_cast<uint64_t>(time), vesk::VeskMovieCreator::VeskMediaTypeAudio);
  }
  bool isBusy() const override { return mCreator->waiting().isBusy(); }
  size_t waiting() const override { return mCreator->waiting().videoWaiting; }
  void drain() override {
    for (auto waiting = mCreator->waiting(); waiting.videoWaiting + waiting.audioWaiting != 0;
         waiting = mCreator->waiting())
      usleep(1000);
  }
  void finish() override { mCreator->Close(); }

 private:
  std::unique_ptr<vesk::VeskMovieCreator> mCreator;
};

/// What one would write with libavformat alone: a bounded queue and a thread that muxes.
class AvformatWriter : public Recorder {
 public:
  AvformatWriter(const Settings& settings, const Footage& footage) {
    avformat_alloc_output_context2(&mOutput, nullptr, "mov", settings.out.c_str());
    AVStream* const video = avformat_new_stream(mOutput, nullptr);
    video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    video->codecpar->codec_id = settings.raw ? AV_CODEC_ID_RAWVIDEO : AV_CODEC_ID_H264;
    video->codecpar->format = settings.raw ? AV_PIX_FMT_UYVY422 : AV_PIX_FMT_YUV420P;
    if (settings.raw) {
      video->codecpar->codec_tag = MKTAG('2', 'v', 'u', 'y');
      video->codecpar->bits_per_coded_sample = 16;
    }
    video->codecpar->width = footage.width;
    video->codecpar->height = footage.height;
    video->codecpar->extradata =
        static_cast<uint8_t*>(av_mallocz(footage.extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::memcpy(video->codecpar->extradata, footage.extradata.data(), footage.extradata.size());
    video->codecpar->extradata_size = static_cast<int>(footage.extradata.size());
    video->time_base = {1, 1'000'000};
    AVStream* const sound = avformat_new_stream(mOutput, nullptr);
    sound->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    sound->codecpar->codec_id = AV_CODEC_ID_PCM_S16LE;
    sound->codecpar->format = AV_SAMPLE_FMT_S16;
    sound->codecpar->sample_rate = kRate;
    av_channel_layout_default(&sound->codecpar->ch_layout, 2);
    sound->codecpar->bits_per_coded_sample = 16;
    sound->codecpar->block_align = 4;
    sound->time_base = {1, kRate};
    if (avio_open(&mOutput->pb, settings.out.c_str(), AVIO_FLAG_WRITE) < 0) fail("cannot write " + settings.out);
    if (avformat_write_header(mOutput, nullptr) < 0) fail("cannot begin " + settings.out);
    mThread = std::thread([this] { run(); });
  }
  ~AvformatWriter() override { avformat_free_context(mOutput); }
  void video(uint8_t* bytes, size_t length, int64_t time, bool isKey) override { add(0, bytes, length, time, isKey); }
  void sound(uint8_t* bytes, size_t length, int64_t time) override { add(1, bytes, length, time, true); }
  bool isBusy() const override {
    const std::lock_guard lock(mMutex);
    return mWaiting.size() > 150;
  }
  size_t waiting() const override {
    const std::lock_guard lock(mMutex);
    return static_cast<size_t>(std::count_if(mWaiting.begin(), mWaiting.end(),
                                             [](const AVPacket* packet) { return packet->stream_index == 0; }));
  }
  void drain() override {
    for (;;) {
      {
        const std::lock_guard lock(mMutex);
        if (mWaiting.empty()) return;
      }
      usleep(1000);
    }
  }
  void finish() override {
    {
      const std::lock_guard lock(mMutex);
      mIsEnding = true;
    }
    mMore.notify_one();
    mThread.join();
    av_write_trailer(mOutput);
    avio_closep(&mOutput->pb);
  }

 private:
  void add(int stream, const uint8_t* bytes, size_t length, int64_t time, bool isKey) {
    AVPacket* const packet = av_packet_alloc();
    if (av_new_packet(packet, static_cast<int>(length)) < 0) fail("no memory");
    std::memcpy(packet->data, bytes, length);
    packet->stream_index = stream;
    packet->pts = packet->dts = av_rescale_q(time, {1, 1'000'000}, mOutput->streams[stream]->time_base);
    if (isKey) packet->flags |= AV_PKT_FLAG_KEY;
    {
      const std::lock_guard lock(mMutex);
      mWaiting.push_back(packet);
    }
    mMore.notify_one();
  }
  void run() {
    std::unique_lock lock(mMutex);
    for (;;) {
      mMore.wait(lock, [this] { return mIsEnding || !mWaiting.empty(); });
      if (mWaiting.empty()) return;
      AVPacket* packet = mWaiting.front();
      mWaiting.pop_front();
      lock.unlock();
      av_interleaved_write_frame(mOutput, packet);
      av_packet_free(&packet);
      lock.lock();
    }
  }

  AVFormatContext* mOutput = nullptr;
  std::thread mThread;
  mutable std::mutex mMutex;
  std::condition_variable mMore;
  std::deque<AVPacket*> mWaiting;
  bool mIsEnding = false;
};

/// How long pictures wait in the queue, which they leave in order. Looks every quarter of a millisecond.
class WaitMeter {
 public:
  explicit WaitMeter(const Recorder& recorder) : mThread([this, &recorder] { run(recorder); }) {}
  ~WaitMeter() {
    mIsEnding = true;
    mThread.join();
  }
  void queued() {
    const std::lock_guard lock(mMutex);
    mQueued.push_back(nanoseconds());
  }
  /// Milliseconds that so large a part of the pictures waited at most.
  double percentile(double part) {
    const std::lock_guard lock(mMutex);
    std::sort(mWaits.begin(), mWaits.end());
    if (mWaits.empty()) return 0;
    return static_cast<double>(mWaits[static_cast<size_t>(part * static_cast<double>(mWaits.size() - 1))]) / 1e6;
  }

 private:
  void run(const Recorder& recorder) {
    while (!mIsEnding) {
      {
        const std::lock_guard lock(mMutex);
        const size_t waiting = recorder.waiting();
        for (; mQueued.size() > waiting; mQueued.pop_front()) mWaits.push_back(nanoseconds() - mQueued.front());
      }
      usleep(250);
    }
  }

  std::mutex mMutex;
  std::deque<int64_t> mQueued;
  std::vector<int64_t> mWaits;
  std::atomic<bool> mIsEnding{false};
  std::thread mThread;
};

class NoWriter : public Recorder {
 public:
  void video(uint8_t*, size_t, int64_t, bool) override {}
  void sound(uint8_t*, size_t, int64_t) override {}
  bool isBusy() const override { return false; }
  size_t waiting() const override { return 0; }
  void drain() override {}
  void finish() override {}
};

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int64_t residentBytes() {
  long pages = 0;
  if (FILE* const file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%*d %ld", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return int64_t{pages} * sysconf(_SC_PAGESIZE);
}

std::vector<int64_t> readStamps(const std::string& path) {
  std::ifstream file(path);
  std::vector<int64_t> stamps;
  for (int64_t stamp = 0; file >> stamp;) stamps.push_back(stamp);
  if (stamps.empty()) fail("no stamps in " + path);
  return stamps;
}

Settings readSettings(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const auto next = [&]() -> std::string {
      if (++i >= argc) fail(word + " wants a value");
      return argv[i];
    };
    if (word == "--writer")
      settings.writer = next();
    else if (word == "--clip")
      settings.clip = next();
    else if (word == "--minutes")
      settings.minutes = std::atof(next().c_str());
    else if (word == "--stamps")
      settings.stamps = readStamps(next());
    else if (word == "--capture")
      settings.keepsTimes = true;
    else if (word == "--dump")
      settings.dump = true;
    else if (word == "--waits")
      settings.measuresWaits = true;
    else if (word == "--no-syncs")
      settings.finishesWithoutSyncs = true;
    else if (word == "--real-time")
      settings.realTime = true;
    else if (word == "--raw") {
      settings.raw = true;
      if (std::sscanf(next().c_str(), "%dx%d", &settings.width, &settings.height) != 2) fail("--raw wants WxH");
    } else
      settings.out = word;
  }
  if (settings.out.empty() || (settings.clip.empty() && !settings.raw)) fail("see the head of record_bench.cpp");
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = readSettings(argc, argv);
  vesk::setStandardOutput(stderr);  // the result stands alone on standard output
  const Footage footage = settings.raw ? makeRaw(settings.width, settings.height) : readClip(settings.clip);
  if (settings.dump) {
    dump(footage, settings.out);
    return 0;
  }
  size_t largest = 0;
  for (const Bytes& frame : footage.frames) largest = std::max(largest, frame.size());
  Bytes buffer(largest);
  Bytes packet(kPacketFrames * 4, 1);

  std::unique_ptr<Recorder> recorder;
  if (settings.writer == "vesk")
    recorder = std::make_unique<VeskWriter>(settings, footage);
  else if (settings.writer == "none")
    recorder = std::make_unique<NoWriter>();
  else
    recorder = std::make_unique<AvformatWriter>(settings, footage);

  std::unique_ptr<WaitMeter> meter;
  if (settings.measuresWaits) meter = std::make_unique<WaitMeter>(*recorder);
  const auto frames = settings.stamps.empty() ? static_cast<int64_t>(settings.minutes * 60 * 1e6 / kFrameDistance)
                                              : static_cast<int64_t>(settings.stamps.size());
  const int64_t warm = frames / 10;
  int64_t residentWhenWarm = 0;
  int64_t packets = 0;
  const auto begun = std::chrono::steady_clock::now();
  const double cpuAtStart = cpuSeconds();
  for (int64_t number = 0; number < frames; ++number) {
    const int64_t since =
        settings.stamps.empty() ? number * kFrameDistance : settings.stamps[static_cast<size_t>(number)];
    if (settings.realTime) std::this_thread::sleep_until(begun + std::chrono::microseconds(since));
    for (; packets * kPacketFrames * 1'000'000 / kRate <= since; ++packets)
      recorder->sound(packet.data(), packet.size(), kBeginning + packets * kPacketFrames * 1'000'000 / kRate);
    const size_t index = static_cast<size_t>(number) % footage.frames.size();
    const Bytes& frame = footage.frames[index];
    std::memcpy(buffer.data(), frame.data(), frame.size());
    while (recorder->isBusy()) usleep(1000);
    recorder->video(buffer.data(), frame.size(), kBeginning + since, footage.isKey[index]);
    if (meter) meter->queued();
    if (number == warm) residentWhenWarm = residentBytes();
  }
  recorder->drain();
  const int64_t residentAtEnd = residentBytes();
  const double waits[] = {meter ? meter->percentile(0.5) : 0, meter ? meter->percentile(0.999) : 0};
  meter.reset();
  skipsSyncs = settings.finishesWithoutSyncs;
  const auto finishing = std::chrono::steady_clock::now();
  recorder->finish();
  const double finishMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - finishing).count();
  const double cpu = cpuSeconds() - cpuAtStart;
  struct stat file {};
  stat(settings.out.c_str(), &file);
  const double hours = settings.minutes / 60;
  std::printf(
      "{\"writer\":\"%s\",\"frames\":%lld,\"bytes\":%lld,\"cpu\":%.4f,\"cpu_per_hour\":%.3f,"
      "\"growth_mb_per_hour\":%.3f,\"finish_ms\":%.2f,\"wait_ms\":%.3f,\"wait_p999_ms\":%.3f}"
      "\n",
      settings.writer.c_str(), static_cast<long long>(frames), static_cast<long long>(file.st_size), cpu, cpu / hours,
      static_cast<double>(residentAtEnd - residentWhenWarm) / 1e6 / (hours * 0.9), finishMs, waits[0], waits[1]);
}
