// Start codes to lengths: ours beside a pass that only reads every byte (the limit) and beside a
// byte-by-byte loop (what hostile input must not fall behind). Prints the ratios after the figures.
//
//   annexb_bench [--clip FILE.264] [Google Benchmark's options]
//   annexb_bench --count N        converts a frame N times, for counting instructions under callgrind
//
// Start codes that a conversion took away are put back inside the timing, for both converters alike.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <vesk/h264_bitstream.h>
#include <vesk/log.h>
#include "platform/foundation/byte_reader.h"
#include "platform/h264/start_code_scan.h"

namespace {

using namespace vesk;
using Bytes = std::vector<uint8_t>;

constexpr size_t kFrameSize = 33'600;  // 8 Mbit/s at 30 pictures a second
constexpr size_t kCachedSize = 8 * kFrameSize;
constexpr size_t kMemorySize = 6000 * kFrameSize;  // far more than any cache

// The contestants.

/// Reads every byte, as fast as the compiler and the machine can. Frames lie at multiples of 16 here.
__attribute__((noinline)) void readPass(const uint8_t* data, size_t size) {
  using Vector __attribute__((vector_size(16))) = uint64_t;
  const auto* at = reinterpret_cast<const Vector*>(data);
  Vector sums[8] = {};
  for (size_t count = size / sizeof sums; count > 0; --count, at += 8)
    for (size_t index = 0; index < 8; ++index) sums[index] |= at[index];
  for (const Vector& sum : sums) benchmark::DoNotOptimize(sum);
}

/// The conversion as one would write it first.
__attribute__((noinline)) void convertByteByByte(uint8_t* data, uint32_t length) {
  uint8_t* const end = data + length;
  uint8_t* previous = data;
  for (uint8_t* at = data; end - at >= 4;) {
    if (at[0] != 0 || at[1] != 0 || at[2] != 0 || at[3] != 1) {
      ++at;
      continue;
    }
    if (at != data) writeBigEndian32(previous, static_cast<uint32_t>(at - previous - 4));
    previous = at;
    at += 4;
  }
  if (end - previous > 4) writeBigEndian32(previous, static_cast<uint32_t>(end - previous - 4));
}

/// Our search as on machines without SSE2; the conversion is the same otherwise.
__attribute__((noinline)) void convertPortably(uint8_t* data, uint32_t length) {
  uint8_t* const end = data + length;
  uint8_t* previous = data;
  h264::start_codes::forEachStartCode<h264::start_codes::PortableBlock>(data, end, [&](const uint8_t* found) {
    if (found != data) writeBigEndian32(previous, static_cast<uint32_t>(found - previous - 4));
    previous = data + (found - data);
  });
  if (end - previous > 4) writeBigEndian32(previous, static_cast<uint32_t>(end - previous - 4));
}

// What they work on: buffers cut into frames that begin with a start code.

struct Frames {
  Bytes bytes;
  std::vector<size_t> codes;  ///< where start codes are

  explicit Frames(Bytes content, size_t frameSize = kFrameSize) : bytes(std::move(content)), mFrameSize(frameSize) {
    for (size_t at = 0; at < bytes.size(); at += mFrameSize) {
      putCode(at);
      bytes[std::min(at + mFrameSize, bytes.size()) - 1] = 0xFF;  // no frame ends in a start code
    }
    h264::start_codes::forEachStartCode<h264::start_codes::PortableBlock>(
        bytes.data(), bytes.data() + bytes.size(),
        [this](const uint8_t* found) { codes.push_back(static_cast<size_t>(found - bytes.data())); });
  }

  template <class Work>
  void forEach(Work&& work) {
    for (size_t at = 0; at < bytes.size(); at += mFrameSize)
      work(bytes.data() + at, static_cast<uint32_t>(std::min(mFrameSize, bytes.size() - at)));
  }
  void restore() {
    for (const size_t at : codes) putCode(at);
  }

 private:
  void putCode(size_t at) { std::memcpy(&bytes[at], "\0\0\0\1", 4); }
  size_t mFrameSize;
};

Bytes randomBytes(size_t size) {
  std::mt19937_64 random(1);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

Bytes repeated(const Bytes& pattern, size_t size) {
  Bytes bytes(size);
  for (size_t at = 0; at < size; ++at) bytes[at] = pattern[at % pattern.size()];
  return bytes;
}

/// Zero bytes that only look like a pair when two vectors are taken together.
Bytes tornPairs() {
  Bytes pattern(32, 0xFF);
  for (size_t at = 0; at < 16; at += 2) pattern[at] = pattern[16 + at + 1] = 0;
  return pattern;
}

Bytes fileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  Bytes bytes{std::istreambuf_iterator<char>(file), {}};
  if (bytes.empty()) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    std::exit(1);
  }
  return bytes;
}

/// A clip without its start codes: what lies between those of a camera's frames.
Bytes payloadOf(const Bytes& clip) {
  Bytes payload;
  size_t from = 0;
  h264::start_codes::forEachStartCode<h264::start_codes::PortableBlock>(
      clip.data(), clip.data() + clip.size(), [&](const uint8_t* at) {
        const auto place = static_cast<size_t>(at - clip.data());
        payload.insert(payload.end(), clip.begin() + static_cast<ptrdiff_t>(from),
                       clip.begin() + static_cast<ptrdiff_t>(place));
        from = place + 4;
      });
  payload.insert(payload.end(), clip.begin() + static_cast<ptrdiff_t>(from), clip.end());
  return payload;
}

// The table.

/// Keeps the speed of each benchmark, named DATA/CONTESTANT, beside printing it.
class Speeds : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate && mMedian.count(run.benchmark_name()) != 0) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      const auto speed = run.counters.find("bytes_per_second");
      if (speed != run.counters.end()) mMedian[run.run_name.function_name] = speed->second;
    }
  }

  void printRatios(const std::vector<std::string>& data) const {
    std::printf(
        "\n| input | ours GB/s | portable GB/s | read pass GB/s | byte loop GB/s | ours / read | portable / read | "
        "ours / "
        "loop | portable / loop |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|\n");
    for (const std::string& name : data) {
      const double ours = of(name + "/ours");
      const double portable = of(name + "/portable");
      const double read = of(name + "/read");
      const double loop = of(name + "/loop");
      if (ours == 0) continue;
      std::printf("| %s | %.1f | %.1f | %.1f | %.2f | %.2f | %.2f | %.1f | %.1f |\n", name.c_str(), ours, portable,
                  read, loop, ours / read, portable / read, ours / loop, portable / loop);
    }
  }

 private:
  double of(const std::string& name) const {
    const auto found = mMedian.find(name);
    return found == mMedian.end() ? 0 : found->second / 1e9;
  }
  std::map<std::string, double> mMedian;
};

using Contestant = std::function<void(uint8_t*, uint32_t)>;

void add(const std::string& name, std::shared_ptr<Frames> frames, const Contestant& work) {
  benchmark::RegisterBenchmark(name.c_str(), [frames, work](benchmark::State& state) {
    frames->restore();
    for (auto _ : state) {
      frames->forEach(work);
      frames->restore();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frames->bytes.size()));
  });
}

void addAll(const std::string& name, Bytes content) {
  const auto frames = std::make_shared<Frames>(std::move(content));
  add(name + "/read", frames, readPass);
  add(name + "/ours", frames, ConvertStreamToBoxFormat);
  add(name + "/portable", frames, convertPortably);
  add(name + "/loop", frames, convertByteByByte);
}

int countInstructions(const Bytes& content, long times) {
  Frames frame(repeated(content, kFrameSize));
  for (long index = 0; index < times; ++index) {
    frame.forEach(ConvertStreamToBoxFormat);
    frame.restore();
  }
  std::printf("%ld conversions of %zu bytes\n", times, kFrameSize);
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  std::string path = VESK_TEST_DATA "/MIDR_MW_D.264";
  long times = 0;
  for (int index = 1; index + 1 < count; ++index) {
    if (std::string(arguments[index]) == "--clip") path = arguments[index + 1];
    if (std::string(arguments[index]) == "--count") times = std::atol(arguments[index + 1]);
  }
  const Bytes clip = fileBytes(path);
  const Bytes payload = payloadOf(clip);
  if (times > 0) return countInstructions(payload, times);

  const std::vector<std::pair<std::string, Bytes>> inputs = {
      {"frames of 33.6 kB, in cache", repeated(payload, kCachedSize)},
      {"frames of 33.6 kB, from memory", repeated(payload, kMemorySize)},
      {"units of some 500 bytes", repeated(clip, kCachedSize)},
      {"random, in cache", randomBytes(kCachedSize)},
      {"zeros", Bytes(kCachedSize, 0)},
      {"00 00 00 02", repeated({0, 0, 0, 2}, kCachedSize)},
      {"00 00 01", repeated({0, 0, 1}, kCachedSize)},
      {"00 00 FF FF FF", repeated({0, 0, 0xFF, 0xFF, 0xFF}, kCachedSize)},
      {"one pair in 64", repeated(
                             [] {
                               Bytes p(64, 0xFF);
                               p[10] = p[11] = 0;
                               return p;
                             }(),
                             kCachedSize)},
      {"torn pairs", repeated(tornPairs(), kCachedSize)},
      {"start codes only", repeated({0, 0, 0, 1}, kCachedSize)},
      {"units of one byte", repeated({0, 0, 0, 1, 0x41}, kCachedSize)},
  };
  std::vector<std::string> names;
  for (const auto& [name, bytes] : inputs) {
    names.push_back(name);
    addAll(name, bytes);
  }
  benchmark::Initialize(&count, arguments);
  Speeds speeds;
  benchmark::RunSpecifiedBenchmarks(&speeds);
  speeds.printRatios(names);
  return 0;
}
