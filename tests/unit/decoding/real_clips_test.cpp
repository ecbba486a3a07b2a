// Longer footage, which does not come with the project: VESK_MEDIA names its folder. Compares every
// picture with what the ffmpeg program makes of the same clip.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <vesk/icm_decoder.h>
#include "tests/unit/decoding/footage_frames.h"

namespace vesk {
namespace {

using test::Footage;
using test::footageOf;
using test::Pictures;
using test::Samples;
using test::samplesOf;

struct RealClip {
  const char* name;
  int tolerance;  ///< levels; the inverse transform of ffmpeg is not that of libjpeg
};

std::string nameOf(const testing::TestParamInfo<RealClip>& info) {
  std::string name = info.param.name;
  for (char& character : name)
    if (isalnum(static_cast<unsigned char>(character)) == 0) character = '_';
  return name;
}

class RealClips : public testing::TestWithParam<RealClip> {};

/// Reads raw pictures from a run of ffmpeg.
struct Peer {
  explicit Peer(const std::string& path)
      : output(popen(("ffmpeg -v error -nostdin -i '" + path + "' -map 0:v -vsync passthrough -f rawvideo -").c_str(),
                     "r")) {}
  ~Peer() { pclose(output); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  Samples next(size_t size) const {
    Samples samples(size);
    samples.resize(fread(samples.data(), 1, size, output));
    return samples;
  }
  FILE* output;
};

TEST_P(RealClips, LookAsFfmpegShowsThem) {
  const std::string path = std::string(std::getenv("VESK_MEDIA")) + "/" + GetParam().name;
  const Footage footage = footageOf(path);
  const Peer peer(path);
  Pictures pictures;
  const auto decoder = ICMDecoder::initWithWidth(footage.width, footage.height, footage.codec);
  decoder->setDelegate(&pictures);
  size_t shown = 0;
  int largest = 0;
  for (const auto& frame : footage.frames) {
    EXPECT_EQ(decoder->decompressData(frame.data(), static_cast<int32_t>(frame.size()), 0), 0);
    for (const auto& picture : pictures.all) {
      const Samples ours = samplesOf(*picture);
      const Samples theirs = peer.next(ours.size());
      ASSERT_EQ(ours.size(), theirs.size()) << "picture " << shown;
      for (size_t i = 0; i < ours.size(); ++i) largest = std::max(largest, std::abs(ours[i] - theirs[i]));
      ++shown;
    }
    pictures.all.clear();
  }
  EXPECT_LE(largest, GetParam().tolerance);
  EXPECT_EQ(shown, footage.frames.size());
  RecordProperty("pictures", static_cast<int>(shown));
  RecordProperty("difference", largest);
  std::printf("%s: %zu frames, %zu pictures, largest difference %d\n", GetParam().name, footage.frames.size(), shown,
              largest);
}

std::vector<RealClip> clips() {
  if (!std::getenv("VESK_MEDIA")) return {};
  return {{"BA1_FT_C.264", 0},
          {"BAMQ1_JVC_C.264", 0},
          {"MIDR_MW_D.264", 0},
          {"MPS_MW_A.264", 0},
          {"NRF_MW_E.264", 0},
          {"SVA_Base_B.264", 0},
          {"Zhling_1280x720.264", 0},
          {"jm_1080p_allslice.264", 0},
          {"test_qcif_cabac.264", 0},
          {"street-640x480-slices.h264", 0},
          {"street.mov", 0},
          {"street-640x480-h264-pcm.mov", 0},
          {"street-640x480-h264-vfr.mp4", 0},
          {"town-1280x720-h264-aac.mp4", 0},
          {"street-640x480-mjpeg422-pcm.avi", 1},
          {"street-640x480-nodht.mjpeg", 1},
          {"town-1280x720-mjpeg420.avi", 1},
          {"town-320x180-uyvy.mov", 0}};
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(RealClips);
INSTANTIATE_TEST_SUITE_P(All, RealClips, testing::ValuesIn(clips()), nameOf);

}  // namespace
}  // namespace vesk
