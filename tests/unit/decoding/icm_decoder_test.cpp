#include <vesk/icm_decoder.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>

#include "decoding/jpeg_huffman_table.h"
#include "decoding/tracking_callback.h"
#include "platform/decompression/codec_info.h"
#include "platform/foundation/byte_reader.h"
#include "platform/h264/stream_conversion.h"
#include "tests/support/bytes.h"
#include "tests/support/captured_lines.h"
#include "tests/unit/decoding/footage_frames.h"
#include "tests/unit/decompression/jpeg_builder.h"

namespace vesk {
namespace {

using test::bytes;
using test::Bytes;
using test::CapturedLines;
using test::decodeConventionally;
using test::Footage;
using test::footageOf;
using test::Pictures;
using test::Samples;
using test::samplesOf;

const std::string kData = VESK_TEST_DATA "/";

struct Preview {
  Preview(uint32_t width, uint32_t height, uint32_t codec) : decoder(ICMDecoder::initWithWidth(width, height, codec)) {
    decoder->setDelegate(&pictures);
  }
  explicit Preview(const Footage& footage) : Preview(footage.width, footage.height, footage.codec) {}
  int16_t decode(const Bytes& frame, int32_t time = 0) {
    return decoder->decompressData(frame.data(), static_cast<int32_t>(frame.size()), time);
  }
  size_t count() const { return pictures.all.size(); }

  Pictures pictures;
  std::shared_ptr<ICMDecoder> decoder;
};

// Descriptions.

Bytes descriptionOf(const ICMDecoder& decoder) {
  return decoder.createImageDescription();
}

/// The record that all descriptions begin with, for 640 × 480 pixels, and then `extension`.
Bytes expectedDescription(const char* code, uint8_t depth, const Bytes& extension) {
  CodecInfo info;
  GetCodecInfo(&info, readBigEndian32(reinterpret_cast<const uint8_t*>(code)));
  Bytes expected(86);
  const auto put = [&expected](size_t at, const Bytes& part) {
    std::copy(part.begin(), part.end(), expected.begin() + static_cast<ptrdiff_t>(at));
  };
  writeBigEndian32(expected.data(), static_cast<uint32_t>(86 + extension.size()));
  put(4, Bytes(code, code + 4));
  put(16, bytes(info.version == 0 ? "0000 0000" : "0001 0001"));
  writeBigEndian32(&expected[20], info.vendor);
  put(32, bytes("0280 01E0 00480000 00480000"));
  put(50, Bytes(info.typeName.begin(), info.typeName.end()));
  put(82, {0, depth, 0xFF, 0xFF});
  expected.insert(expected.end(), extension.begin(), extension.end());
  return expected;
}

Bytes atom(const char* type, const Bytes& body) {
  Bytes all(8 + body.size());
  writeBigEndian32(all.data(), static_cast<uint32_t>(all.size()));
  std::copy(type, type + 4, all.begin() + 4);
  std::copy(body.begin(), body.end(), all.begin() + 8);
  return all;
}

TEST(ICMDecoderDescription, IsRightByteForByte) {
  const struct {
    const char* code;
    uint8_t depth;
    Bytes extension;
  } rows[] = {
      {"dmb1", 24, atom("mjht", {JPEGHuffmanTable.begin(), JPEGHuffmanTable.end()})},
      {"2vuy", 16, atom("colr", bytes("6E636C63 0006 0001 0006"))},
      {"mp4v", 24, {}},
      {"zzzz", 24, {}},
      {"avc1", 24, atom("avcC", bytes("01 000000 FF E0 00"))},
  };
  for (const auto& row : rows) {
    const auto decoder =
        ICMDecoder::initWithWidth(640, 480, readBigEndian32(reinterpret_cast<const uint8_t*>(row.code)));
    EXPECT_EQ(descriptionOf(*decoder), expectedDescription(row.code, row.depth, row.extension)) << row.code;
  }
}

TEST(ICMDecoderDescription, HoldsTheFirstParameterSetsOfSeveralFrames) {
  const auto decoder = ICMDecoder::initWithWidth(640, 480, kCMVideoCodecType_H264);
  const auto config = [&decoder](const char* frame) {
    const Bytes data = bytes(frame);
    return decoder->configH264DecoderWithData(data.data(), static_cast<uint32_t>(data.size()));
  };
  EXPECT_FALSE(config(""));
  EXPECT_FALSE(config("00000002 4100"));
  EXPECT_FALSE(config("00000009 6742C01E")) << "runs past the end";
  EXPECT_FALSE(config("00000002 0910 00000005 68CE3C8000"));
  EXPECT_FALSE(config("00000003 68FFFF")) << "a second picture parameter set";
  EXPECT_TRUE(config("00000006 6742C01EAABB 00000002 6500"));
  EXPECT_TRUE(config("00000006 674D401FCCDD 00000003 68EEEE"));
  EXPECT_EQ(
      descriptionOf(*decoder),
      expectedDescription("avc1", 24, atom("avcC", bytes("01 42C01E FF E1 0006 6742C01EAABB 01 0005 68CE3C8000"))));
}

// H.264.

TEST(ICMDecoderH264, IsBitExactAndHoldsNoPictureBack) {
  for (const char* const name :
       {"MIDR_MW_D.264", "SVA_Base_B.264", "test_qcif_cabac.264", "street-640x480-slices.h264", "town-h264-aac.mp4"}) {
    SCOPED_TRACE(name);
    const Footage footage = footageOf(kData + name);
    const auto expected = decodeConventionally(kData + name);
    ASSERT_EQ(expected.size(), footage.frames.size());
    Preview preview(footage);
    int32_t time = std::numeric_limits<int32_t>::max() - 333'333;
    for (size_t i = 0; i < footage.frames.size(); ++i) {
      ASSERT_EQ(preview.decode(footage.frames[i], time), 0) << i;
      ASSERT_EQ(preview.count(), i + 1);
      ASSERT_EQ(preview.decoder->frameCount(), i + 1);
      ASSERT_EQ(samplesOf(*preview.pictures.all[i]), expected[i]) << "picture " << i;
      time = static_cast<int32_t>(static_cast<uint32_t>(time) + 333'333U);
    }
    EXPECT_EQ(preview.decoder->timeScale(), 10'000'000);
  }
}

TEST(ICMDecoderH264, ShowsReorderedPicturesInTheirOrder) {
  const std::string path = kData + "street-reordered.mp4";
  const Footage footage = footageOf(path);
  const auto expected = decodeConventionally(path);
  Preview preview(footage);
  for (const Bytes& frame : footage.frames) EXPECT_EQ(preview.decode(frame), 0);
  ASSERT_GT(preview.count() + 4, expected.size());
  for (size_t i = 0; i < preview.count(); ++i)
    EXPECT_EQ(samplesOf(*preview.pictures.all[i]), expected[i]) << "picture " << i;
}

TEST(ICMDecoderH264, DropsFramesUntilBothParameterSetsHaveCome) {
  const Footage footage = footageOf(kData + "MIDR_MW_D.264");
  const Bytes& whole = footage.frames[0];
  const Bytes code = {0, 0, 0, 1};
  const auto second = std::search(whole.begin() + 4, whole.end(), code.begin(), code.end());
  const auto third = std::search(second + 4, whole.end(), code.begin(), code.end());
  Preview preview(footage);
  EXPECT_EQ(preview.decode(footage.frames[1]), 0);
  EXPECT_EQ(preview.decode({}), 0) << "an empty one as well";
  EXPECT_EQ(preview.decode(Bytes(whole.begin(), second)), 0) << "the sequence parameter set";
  EXPECT_EQ(preview.decode(footage.frames[2]), 0);
  EXPECT_EQ(preview.decoder->frameCount(), 0U);
  EXPECT_EQ(preview.decoder->timeScale(), 0);
  EXPECT_EQ(preview.count(), 0U);
  EXPECT_EQ(preview.decode(Bytes(second, whole.end())), 0) << "the picture parameter set and a key picture";
  EXPECT_EQ(preview.decoder->frameCount(), 1U);
  EXPECT_EQ(preview.count(), 1U);
  EXPECT_EQ(preview.decode(Bytes(whole.begin(), third)), 0) << "parameter sets alone are no damage";
  EXPECT_EQ(preview.decode(footage.frames[1]), 0);
  EXPECT_EQ(preview.count(), 2U);
}

TEST(ICMDecoderH264, TakesFramesThatWereRewrittenBefore) {
  const Footage footage = footageOf(kData + "MIDR_MW_D.264");
  const auto expected = decodeConventionally(kData + "MIDR_MW_D.264");
  Preview preview(footage);
  CapturedLines lines;
  for (size_t i = 0; i < 5; ++i) {
    Bytes frame = footage.frames[i];
    if (i % 2 == 0) h264::convertToLengths(frame);
    const Bytes before = frame;
    EXPECT_EQ(preview.decode(frame), 0);
    EXPECT_EQ(frame, before) << "the capture buffer is left as it is";
    EXPECT_EQ(samplesOf(*preview.pictures.all.at(i)), expected[i]);
  }
  EXPECT_EQ(lines.text(), "");
}

TEST(ICMDecoderH264, SaysWhenAFrameDoesNotAddUpAndDecodesIt) {
  const Footage footage = footageOf(kData + "MIDR_MW_D.264");
  Preview preview(footage);
  CapturedLines lines;
  Bytes frame = footage.frames[0];
  frame.insert(frame.end(), {0, 0, 0, 1});
  preview.decode(frame);
  EXPECT_EQ(lines.text(), "*** [Error] in converting to box format!!!\n");
  EXPECT_EQ(preview.decoder->frameCount(), 1U);
  EXPECT_EQ(preview.count(), 1U);
}

TEST(ICMDecoderH264, RecoversFromDamageAtTheNextKeyPicture) {
  const std::string path = kData + "MIDR_MW_D.264";
  const Footage footage = footageOf(path);
  const auto expected = decodeConventionally(path);
  std::mt19937 random(1);
  using Damage = std::function<void(Bytes & frame)>;
  const std::pair<const char*, Damage> kinds[] = {
      {"bits turned over",
       [&random](Bytes& frame) {
         for (size_t at = 8; at < frame.size(); at += 7)
           frame[at] = static_cast<uint8_t>(frame[at] ^ (random() & 0xFF));
       }},
      {"cut off", [](Bytes& frame) { frame.resize(frame.size() / 2); }},
      {"empty unit", [](Bytes& frame) { frame.resize(5); }},
      {"zeros", [](Bytes& frame) { std::fill(frame.begin(), frame.end(), 0); }},
      {"noise",
       [&random](Bytes& frame) {
         for (uint8_t& byte : frame) byte = static_cast<uint8_t>(random());
       }},
  };
  for (const auto& [label, damage] : kinds) {
    SCOPED_TRACE(label);
    Preview preview(footage);
    CapturedLines lines;
    for (size_t i = 0; i < 10; ++i) {
      Bytes frame = footage.frames[i];
      if (i >= 3) damage(frame);
      preview.decode(frame);
    }
    size_t next = 10;
    while (!test::holdsKeyPicture(footage.frames.at(next))) preview.decode(footage.frames[next++]);
    for (; next < footage.frames.size(); ++next) {
      const size_t before = preview.count();
      ASSERT_EQ(preview.decode(footage.frames[next]), 0) << next;
      ASSERT_EQ(preview.count(), before + 1);
      ASSERT_EQ(samplesOf(*preview.pictures.all.back()), expected[next]) << next;
    }
  }
}

TEST(ICMDecoderH264, RecoversFromDamageInTheFirstParameterSet) {
  const Footage footage = footageOf(kData + "MIDR_MW_D.264");
  const auto expected = decodeConventionally(kData + "MIDR_MW_D.264");
  Bytes damaged = footage.frames[0];
  ASSERT_EQ(damaged[4] & 0x1F, 7);
  std::fill(damaged.begin() + 5, damaged.begin() + 12, 0xFF);
  Preview preview(footage);
  CapturedLines lines;
  preview.decode(damaged);
  for (size_t i = 1; i < 4; ++i) preview.decode(footage.frames[i]);
  preview.pictures.all.clear();
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(preview.decode(footage.frames[i]), 0);
  ASSERT_EQ(preview.count(), 4U);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(samplesOf(*preview.pictures.all[i]), expected[i]);
}

// Motion JPEG and packed pictures.

TEST(ICMDecoderMotionJPEG, DecodesFramesWithAndWithoutTables) {
  const Bytes whole = test::makeJPEG({64, 48, 2, 1});
  const auto parts = test::stripTables(whole);
  EXPECT_EQ(parts.tables.size(), JPEGHuffmanTable.size());
  Preview preview(64, 48, kCMVideoCodecType_MotionJPEG);
  EXPECT_EQ(preview.decode(whole), 0);
  EXPECT_EQ(preview.decode(parts.frame), 0);
  ASSERT_EQ(preview.count(), 2U);
  EXPECT_EQ(samplesOf(*preview.pictures.all[0]), samplesOf(*preview.pictures.all[1]));
}

TEST(ICMDecoderMotionJPEG, ShowsNothingForAFrameThatIsCutOff) {
  const Footage footage = footageOf(kData + "street-mjpeg.avi");
  Preview preview(footage);
  Bytes cut = footage.frames[0];
  cut.resize(cut.size() / 3);
  EXPECT_LT(preview.decode(cut), 0);
  EXPECT_EQ(preview.count(), 0U);
  for (const Bytes& frame : footage.frames) EXPECT_EQ(preview.decode(frame), 0);
  EXPECT_EQ(preview.count(), footage.frames.size());
  EXPECT_EQ(preview.decoder->frameCount(), footage.frames.size() + 1);
}

TEST(ICMDecoderMotionJPEG, TakesFramesLongerThanTheirPictureWithinReason) {
  const Bytes small = test::makeJPEG({16, 16, 2, 1});
  const auto withComments = [&small](size_t length) {
    Bytes frame(small.begin(), small.begin() + 2);
    while (frame.size() + small.size() < length) {
      frame.insert(frame.end(), {0xFF, 0xFE, 0xFF, 0xFF});
      frame.resize(frame.size() + 0xFFFD);
    }
    frame.insert(frame.end(), small.begin() + 2, small.end());
    return frame;
  };
  Preview preview(16, 16, kCMVideoCodecType_MotionJPEG);
  CapturedLines lines(CapturedLines::Stream::kError);
  EXPECT_EQ(preview.decode(withComments(16'000'000)), 0);
  EXPECT_EQ(preview.count(), 1U);
  EXPECT_EQ(lines.text(), "");
  EXPECT_LT(preview.decode(withComments(17'000'000)), 0);
  EXPECT_EQ(preview.count(), 1U);
  EXPECT_NE(lines.text(), "");
  EXPECT_EQ(preview.decode(small), 0);
  EXPECT_EQ(preview.count(), 2U);
}

TEST(ICMDecoderPacked, HandsOnTheBytes) {
  Preview preview(6, 4, kCMPixelFormat_422YpCbCr8);
  Bytes frame(6 * 4 * 2);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 5);
  EXPECT_EQ(preview.decode(frame), 0);
  ASSERT_EQ(preview.count(), 1U);
  EXPECT_EQ(samplesOf(*preview.pictures.all[0]), frame);
  EXPECT_EQ(preview.pictures.all[0]->colour(), YCbCrColour{});
  for (const size_t size : {size_t{1}, frame.size() - 1, frame.size() + 1, frame.size() * 2})
    EXPECT_LT(preview.decode(Bytes(size)), 0) << size;
  EXPECT_EQ(preview.count(), 1U);
}

// Hostile arguments.

TEST(ICMDecoderArguments, AreRefusedSafely) {
  const Bytes frame(16);
  for (const uint32_t codec : {kCMVideoCodecType_H264, kCMVideoCodecType_MotionJPEG, kCMPixelFormat_422YpCbCr8}) {
    Preview preview(4, 2, codec);
    EXPECT_LT(preview.decoder->decompressData(nullptr, 16, 0), 0);
    for (const int32_t size : {-1, std::numeric_limits<int32_t>::min()})
      EXPECT_LT(preview.decoder->decompressData(frame.data(), size, 0), 0) << size;
    const int16_t empty = preview.decoder->decompressData(frame.data(), 0, 0);
    EXPECT_EQ(empty == 0, codec == kCMVideoCodecType_H264) << "dropped before the parameter sets; else damage";
    EXPECT_EQ(preview.decoder->frameCount(), 0U);
  }
  struct Size {
    uint32_t width;
    uint32_t height;
  };
  for (const Size& size : {Size{0, 0}, Size{0, 480}, Size{65536 + 4, 2}, Size{20000, 2},
                           Size{std::numeric_limits<uint32_t>::max(), std::numeric_limits<uint32_t>::max()}}) {
    Preview preview(size.width, size.height, kCMPixelFormat_422YpCbCr8);
    EXPECT_EQ(preview.decode(frame), 0);
    EXPECT_EQ(preview.count(), 0U);
    EXPECT_EQ(preview.decoder->frameCount(), 0U);
  }
  const auto withoutReceiver = ICMDecoder::initWithWidth(4, 2, kCMPixelFormat_422YpCbCr8);
  EXPECT_EQ(withoutReceiver->decompressData(frame.data(), 16, 0), 0);
}

TEST(TrackingCallback, HandsOnOnlyPicturesThatAreEmitted) {
  const CVImageBufferRef picture = CVPixelBuffer::create(2, 2, kCMPixelFormat_422YpCbCr8);
  constexpr auto kEmitting = kICMDecompressionTracking_EmittingFrame;
  const struct {
    OSStatus result;
    ICMDecompressionTrackingFlags flags;
    CVImageBufferRef image;
    size_t shown;
  } rows[] = {
      {0, kEmitting, picture, 1},  {0, kEmitting | 16 | 2, picture, 1}, {0, 0xFFFFFFFBU, picture, 0},
      {-1, kEmitting, picture, 0}, {0, kEmitting, nullptr, 0},
  };
  for (const auto& row : rows) {
    Pictures pictures;
    DecoderProtocol* const receiver = &pictures;
    SGVideoDecompTrackingCallback(receiver, row.result, row.flags, row.image, 0, 0, 0, nullptr, nullptr);
    EXPECT_EQ(pictures.all.size(), row.shown);
  }
}

// Longer footage, which does not come with the project: VESK_MEDIA names its folder. Compares every picture with what
// the ffmpeg program makes of the same clip.

TEST(ICMDecoder, ShowsRealClipsAsFfmpegDoes) {
  const char* const media = std::getenv("VESK_MEDIA");
  if (!media) GTEST_SKIP();
  for (const std::string name :
       {"BA1_FT_C.264", "BAMQ1_JVC_C.264", "MIDR_MW_D.264", "MPS_MW_A.264", "NRF_MW_E.264", "SVA_Base_B.264",
        "Zhling_1280x720.264", "jm_1080p_allslice.264", "test_qcif_cabac.264", "street-640x480-slices.h264",
        "street-640x480-h264-pcm.mov", "street-640x480-h264-vfr.mp4", "town-1280x720-h264-aac.mp4",
        "street-640x480-mjpeg422-pcm.avi", "street-640x480-nodht.mjpeg", "town-1280x720-mjpeg420.avi",
        "town-320x180-uyvy.mov"}) {
    SCOPED_TRACE(name);
    const std::string path = std::string(media) + "/" + name;
    const Footage footage = footageOf(path);
    const std::string command = "ffmpeg -v error -nostdin -i '" + path + "' -map 0:v -vsync passthrough -f rawvideo -";
    const std::unique_ptr<FILE, int (*)(FILE*)> peer(popen(command.c_str(), "r"), pclose);
    Preview preview(footage);
    size_t shown = 0;
    int largest = 0;
    for (const auto& frame : footage.frames) {
      EXPECT_EQ(preview.decode(frame), 0);
      for (const auto& picture : preview.pictures.all) {
        const Samples ours = samplesOf(*picture);
        Samples theirs(ours.size());
        ASSERT_EQ(fread(theirs.data(), 1, theirs.size(), peer.get()), ours.size()) << "picture " << shown;
        for (size_t i = 0; i < ours.size(); ++i) largest = std::max(largest, std::abs(ours[i] - theirs[i]));
        ++shown;
      }
      preview.pictures.all.clear();
    }
    const bool isJPEG = footage.codec == kCMVideoCodecType_MotionJPEG;
    EXPECT_LE(largest, isJPEG ? 1 : 0) << "the inverse transform of ffmpeg is not that of libjpeg";
    EXPECT_EQ(shown, footage.frames.size());
    std::printf("%s: %zu pictures, largest difference %d\n", name.c_str(), shown, largest);
  }
}

}  // namespace
}  // namespace vesk
