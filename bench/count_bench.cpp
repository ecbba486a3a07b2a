/// Records frames from a file that `record_bench --dump` made, for counting instructions: this
/// program links nothing that valgrind cannot run.
///
///   count_bench FRAMES PICTURES OUT [capture]
///
/// With the last word the movie keeps the pictures' own times (FrameTiming::kCapture).

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/log.h>
#include <vesk/movie_creator.h>
#include "bench/frame_file.h"

namespace {

using Bytes = std::vector<uint8_t>;

/// The camera's own copy, in pieces: of one large copy valgrind counts every byte as an instruction, and every word of
/// one whose size the compiler knows.
void fill(Bytes& buffer, const Bytes& frame) {
  static const volatile size_t kSize = 2000;
  const size_t kPiece = kSize;
  for (size_t at = 0; at < frame.size(); at += kPiece)
    std::memcpy(buffer.data() + at, frame.data() + at, std::min(kPiece, frame.size() - at));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const bool keepsTimes = argc > 4 && std::strcmp(argv[4], "capture") == 0;
  const auto frames = readFrames(argv[1]);
  const int pictures = std::atoi(argv[2]);
  if (frames.empty() || pictures <= 0) return 2;
  vesk::setStandardOutput(stderr);
  vesk::_VeskVideoDescription video{1280, 720, vesk::kCMVideoCodecType_H264, 30, 0};
  if (keepsTimes) video.reserved = static_cast<int32_t>(vesk::FrameTiming::kCapture);
  vesk::_VeskAudioDescription audio{vesk::kWaveFormatLinearPCM, 2, 48'000, 16};
  const auto creator = vesk::CreateMovieCreator(argv[3]);
  creator->Open(&video, &audio);
  size_t largest = 0;
  for (const Bytes& frame : frames) largest = std::max(largest, frame.size());
  Bytes buffer(largest);
  Bytes packet(4096, 1);
  uint64_t soundTime = 1'000'000;
  for (int number = 0; number < pictures; ++number) {
    const uint64_t time = 1'000'000 + static_cast<uint64_t>(number) * 33'333;
    for (; soundTime <= time; soundTime += 21'333)
      creator->AddSampleToMovie(packet.data(), packet.size(), soundTime, vesk::VeskMovieCreator::VeskMediaTypeAudio);
    const Bytes& frame = frames[static_cast<size_t>(number) % frames.size()];
    fill(buffer, frame);
    creator->AddSampleToMovie(buffer.data(), frame.size(), time, vesk::VeskMovieCreator::VeskMediaTypeVideo);
    while (creator->waiting().videoWaiting > 100) {
      timespec moment{0, 1'000'000};
      nanosleep(&moment, nullptr);
    }
  }
  creator->Close();
  return 0;
}
