#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include <vesk/four_char_code.h>
#include "capture/simulated/cadence.h"
#include "capture/simulated/simulated_pattern.h"
#include "capture/simulated/simulated_source.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/h264_stream.h"
#include "tests/unit/capture/packet_decoder.h"

// What simulated devices deliver, decoded as a receiver would.

namespace vesk::capture {
namespace {

using test::Gate;
using test::PacketDecoder;
using Packet = test::RecordedFrame;

/// Plays devices of a fast source together for a while of their own time.
struct Capture {
  Transport transport;
  Gate ended;
  SimulatedSource source{{.pace = Pace::kFast}, transport};
  test::FrameRecorder pictures, sounds;
  std::unique_ptr<CaptureDevice> camera, microphone;

  void open(const VideoParameters& parameters) {
    camera = source.open(DeviceKind::kVideo, SimulatedSource::kCameraPath);
    ASSERT_EQ(camera->setVideoParameters(parameters), 0);
  }
  void open(const WaveFormat& format) {
    microphone = source.open(DeviceKind::kAudio, SimulatedSource::kMicrophonePath);
    ASSERT_EQ(microphone->setWaveFormat(format), 0);
  }
  void play(double seconds) {
    transport.setEndHandler([this] { ended.open(); });
    transport.setLimit(seconds);
    transport.hold();
    EXPECT_EQ(camera ? camera->start(1, pictures.callback()) : 0, 0);
    EXPECT_EQ(microphone ? microphone->start(0, sounds.callback()) : 0, 0);
    transport.release();
    ended.wait();
    camera.reset();
    microphone.reset();
  }
};

struct Form {
  const char* label;
  uint32_t codec;
  int32_t width, height;
  uint32_t bitRate;
};
const Form kDemuxers[] = {
    {"small H.264", kCMVideoCodecType_H264, 320, 240, 512000},
    {"cropped H.264", kCMVideoCodecType_H264, 640, 360, 819200},
    {"starved H.264", kCMVideoCodecType_H264, 640, 480, 60000},
    {"large H.264", kCMVideoCodecType_H264, 1280, 720, 2048000},
    {"small JPEG", kCMVideoCodecType_MotionJPEG, 320, 240, 0},
    {"wide JPEG", kCMVideoCodecType_MotionJPEG, 864, 480, 0},
    {"small 2vuy", kCMPixelFormat_422YpCbCr8, 320, 240, 0},
    {"largest 2vuy", kCMPixelFormat_422YpCbCr8, 1920, 1080, 0},
};

TEST(SimulatedPictures, CarryTheirNumberAndFlashOnEachSecondThroughEveryCodec) {
  for (const Form& form : kDemuxers) {
    SCOPED_TRACE(form.label);
    Capture capture;
    capture.open(VideoParameters{form.codec, form.width, form.height, 333333, 10000000, form.bitRate});
    capture.play(1.1);
    const auto pictures = capture.pictures.items();
    ASSERT_EQ(pictures.size(), 33u);
    const bool isRaw = form.codec == kCMPixelFormat_422YpCbCr8;
    PacketDecoder decoder(form.codec == kCMVideoCodecType_H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_MJPEG);
    for (uint32_t i = 0; i < pictures.size(); ++i) {
      const Packet& picture = pictures[i];
      EXPECT_EQ(picture.timestamp - pictures[0].timestamp, int64_t{i} * 1'000'000 / 30);
      const uint8_t* luma = picture.bytes.data() + 1;
      auto rowBytes = static_cast<size_t>(form.width) * 2;
      if (isRaw) {
        ASSERT_EQ(picture.bytes.size(), rowBytes * static_cast<size_t>(form.height));
      } else {
        const AVFrame* const frame = decoder.decode(picture.bytes);
        ASSERT_NE(frame, nullptr) << "picture " << i;
        ASSERT_EQ(frame->width, form.width);
        ASSERT_EQ(frame->height, form.height);
        luma = frame->data[0];
        rowBytes = static_cast<size_t>(frame->linesize[0]);
      }
      const int step = isRaw ? 2 : 1;
      EXPECT_EQ(readFrameCounter(luma, rowBytes, form.width, form.height, step), i);
      const bool isFlash = i % 30 < 2;
      EXPECT_EQ(readFlash(luma, rowBytes, form.width, form.height, step), isFlash) << "picture " << i;
    }
  }
}

TEST(SimulatedPictures, AreWholeAccessUnitsWithKeyPicturesEveryTwoSeconds) {
  for (const uint32_t interval : {333333u, 666666u, 1333333u}) {
    Capture capture;
    capture.open(VideoParameters{kCMVideoCodecType_H264, 320, 240, interval, 10000000, 512000});
    capture.play(5);
    int64_t lastKey = 0;
    for (const Packet& picture : capture.pictures.items()) {
      EXPECT_EQ(test::withLongCodes(picture.bytes), picture.bytes) << "four-byte start codes";
      const auto types = test::unitTypesOf(picture.bytes);
      const auto count = [&types](int type) { return std::count(types.begin(), types.end(), type); };
      EXPECT_EQ(count(1) + count(5), 1);
      if (count(5) > 0) {
        EXPECT_TRUE(count(7) > 0 && count(8) > 0) << "parameter sets";
        lastKey = picture.timestamp;
      }
      EXPECT_LT(picture.timestamp - lastKey, 2'000'000);
    }
  }
}

TEST(SimulatedPictures, KeepToTheBitRate) {
  Capture capture;
  capture.open(VideoParameters{kCMVideoCodecType_H264, 1280, 720, 333333, 10000000, 500000});
  capture.play(4);
  size_t bytes = 0;
  for (const Packet& picture : capture.pictures.items()) bytes += picture.bytes.size();
  EXPECT_LT(bytes * 8, 4 * 500000 * 3 / 2);
}

TEST(SimulatedPictures, NumbersAreNotReadFromOtherPictures) {
  std::vector<uint8_t> luma(320 * 240);
  for (const int value : {0, 16, 100, 235}) {
    std::fill(luma.begin(), luma.end(), static_cast<uint8_t>(value));
    EXPECT_EQ(readFrameCounter(luma.data(), 320, 320, 240), std::nullopt);
  }
  EXPECT_EQ(readFrameCounter(luma.data(), 16, 16, 16), std::nullopt);
}

TEST(Cadence, TakesRoundedIntervalsForWholeRates) {
  const auto thirty = Cadence::ofFrames(333333, 10000000);
  EXPECT_EQ(thirty.timeOf(30 * 3600 * 24), int64_t{3600} * 24 * 1'000'000);
  EXPECT_EQ(Cadence::ofFrames(1333333, 10000000).timeOf(15), 2'000'000) << "7.5 a second";
  EXPECT_EQ(Cadence::ofFrames(333667, 10000000).timeOf(30000), 1'001'001'000) << "not 30";
  for (const int64_t time : {0, 1, 33333, 33334, 999'999, 1'000'000, 1'000'001}) {
    const int64_t number = thirty.firstFrom(time);
    EXPECT_GE(thirty.timeOf(number), time);
    EXPECT_TRUE(number == 0 || thirty.timeOf(number - 1) < time);
  }
}

std::vector<float> decodeSound(const std::vector<Packet>& packets, const WaveFormat& format) {
  std::vector<float> samples;  // of the first channel
  if (format.formatCode == kWaveFormatLinearPCM) {
    for (const Packet& packet : packets) {
      EXPECT_EQ(packet.bytes.size(), size_t{1024} * 2 * format.channels);
      const auto* from = reinterpret_cast<const int16_t*>(packet.bytes.data());
      for (size_t i = 0; i < 1024; ++i) samples.push_back(from[i * format.channels] / 32768.0f);
    }
    return samples;
  }
  // An AudioSpecificConfig: low complexity, the rate's index, the channels.
  const unsigned rateIndex = format.samplesPerSecond == 48000 ? 3 : format.samplesPerSecond == 44100 ? 4 : 8;
  const unsigned config = 2u << 11 | rateIndex << 7 | unsigned{format.channels} << 3;
  PacketDecoder decoder(AV_CODEC_ID_AAC, {static_cast<uint8_t>(config >> 8), static_cast<uint8_t>(config)});
  for (const Packet& packet : packets) {
    const AVFrame* const frame = decoder.decode(packet.bytes);
    if (!frame || frame->nb_samples != 1024) {
      ADD_FAILURE() << "a packet gave no 1024 samples";
      return {};
    }
    const auto* from = reinterpret_cast<const float*>(frame->extended_data[0]);
    samples.insert(samples.end(), from, from + 1024);
  }
  samples.erase(samples.begin(), samples.begin() + 1024);  // as a movie's sound track does
  return samples;
}

/// Where it first gets loud after `from`; the beep's first millisecond.
size_t onset(const std::vector<float>& samples, size_t from) {
  const auto loud = std::find_if(samples.begin() + static_cast<std::ptrdiff_t>(from), samples.end(),
                                 [](float sample) { return std::abs(sample) > 0.1f; });
  return static_cast<size_t>(loud - samples.begin());
}

TEST(SimulatedSound, BeepsAtTheInstantOfTheFlash) {
  const WaveFormat formats[] = {
      {kWaveFormatLinearPCM, 2, 48000, 16}, {kWaveFormatLinearPCM, 1, 44100, 16}, {kWaveFormatLinearPCM, 2, 16000, 16},
      {kWaveFormatAAC, 2, 48000, 16},       {kWaveFormatAAC, 1, 44100, 16},       {kWaveFormatAAC, 1, 16000, 16},
  };
  for (const WaveFormat& format : formats) {
    SCOPED_TRACE(std::to_string(format.formatCode) + " at " + std::to_string(format.samplesPerSecond));
    Capture capture;
    capture.open(VideoParameters{kCMPixelFormat_422YpCbCr8, 320, 240, 333333, 10000000, 0});
    capture.open(format);
    capture.play(2.5);

    std::vector<int64_t> flashes;
    bool wasFlash = false;
    for (const Packet& picture : capture.pictures.items()) {
      const bool isFlash = readFlash(picture.bytes.data() + 1, 640, 320, 240, 2);
      if (isFlash && !wasFlash) flashes.push_back(picture.timestamp);
      wasFlash = isFlash;
    }
    ASSERT_EQ(flashes.size(), 3u);

    const auto packets = capture.sounds.items();
    for (size_t i = 0; i < packets.size(); ++i) {
      EXPECT_EQ(packets[i].timestamp - packets[0].timestamp,
                static_cast<int64_t>(i) * 1024 * 1'000'000 / format.samplesPerSecond);
    }
    const auto samples = decodeSound(packets, format);
    const double rate = format.samplesPerSecond;
    for (size_t second = 0; second < 3; ++second) {
      const auto from = static_cast<size_t>(std::max(0.0, (static_cast<double>(second) - 0.5) * rate));
      const size_t start = onset(samples, from);
      const double beep = static_cast<double>(packets[0].timestamp) + static_cast<double>(start) / rate * 1e6;
      EXPECT_NEAR(beep, static_cast<double>(flashes[second]), 1500) << "second " << second;
      const size_t silence = start + static_cast<size_t>(0.12 * rate);
      EXPECT_GE(onset(samples, silence), std::min(samples.size(), start + static_cast<size_t>(0.9 * rate)));
    }
  }
}

TEST(SimulatedSound, AacFitsFromWhereItIsJoined) {
  const WaveFormat format = {kWaveFormatAAC, 2, 48000, 16};
  Capture capture;
  capture.open(format);
  capture.play(2.5);
  auto packets = capture.sounds.items();
  packets.erase(packets.begin(), packets.begin() + 20);  // a recording that begins later
  const auto samples = decodeSound(packets, format);
  const int64_t first = packets[0].timestamp - capture.sounds.items()[0].timestamp;
  const size_t start = onset(samples, 1024);
  EXPECT_NEAR(static_cast<double>(first) + static_cast<double>(start) / 48000 * 1e6, 1e6, 1500);
}

}  // namespace
}  // namespace vesk::capture
