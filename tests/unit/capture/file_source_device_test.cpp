#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <random>

#include <vesk/vci.h>
#include "capture/files/file_source.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/unit/capture/file_source_support.h"

namespace {
std::atomic<int> gNetworkSockets{0};
}

/// Stands before the C library's: whoever in this process turns to the network is counted.
extern "C" int socket(int domain, int type, int protocol) noexcept {
  using Call = int(int, int, int);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "socket"));
  if (domain == AF_INET || domain == AF_INET6) ++gNetworkSockets;
  return real(domain, type, protocol);
}

namespace vesk::capture::test {
namespace {

using vesk::test::FrameRecorder;
using vesk::test::Gate;
using vesk::test::LogRecorder;
using vesk::test::Recorder;
using vesk::test::timesInto;

class FileDevices : public ::testing::Test {
 protected:
  std::shared_ptr<CaptureSource> open(const std::string& path, bool loop = false) {
    Error error;
    auto source = makeFileSource(path, {Pace::kFast, loop}, error, transport);
    EXPECT_TRUE(source) << error.what;
    return source;
  }
  std::unique_ptr<CaptureDevice> device(CaptureSource& source, DeviceKind kind) {
    return source.open(kind, source.devices(kind).front().path);
  }

  Transport transport;
};

TEST_F(FileDevices, OfferTheTracksOfTheFile) {
  const auto source = open(dataPath("street.mov"));
  const auto cameras = source->devices(DeviceKind::kVideo);
  const auto microphones = source->devices(DeviceKind::kAudio);
  ASSERT_EQ(cameras.size(), 1u);
  ASSERT_EQ(microphones.size(), 1u);
  EXPECT_EQ(cameras[0].name, "street.mov");
  EXPECT_NE(cameras[0].path, microphones[0].path);
  EXPECT_EQ(cameras[0].path, open(dataPath("street.mov"))->devices(DeviceKind::kVideo)[0].path);
  EXPECT_FALSE(source->open(DeviceKind::kVideo, microphones[0].path));

  const auto camera = device(*source, DeviceKind::kVideo);
  const auto formats = camera->videoFormats();
  ASSERT_EQ(formats.size(), 2u);
  EXPECT_EQ(formats[0].codec, kCMVideoCodecType_H264);
  EXPECT_EQ(formats[1].codec, kCMPixelFormat_422YpCbCr8);
  for (const VideoFormat& format : formats) {
    ASSERT_EQ(format.sizes.size(), 1u);
    EXPECT_EQ(format.sizes[0].width, 320);
    EXPECT_EQ(format.sizes[0].height, 240);
    EXPECT_EQ(format.sizes[0].intervals, std::vector<uint32_t>{666667});
  }
  const auto sound = device(*source, DeviceKind::kAudio)->waveFormats();
  EXPECT_EQ(sound, (std::vector<WaveFormat>{{kWaveFormatLinearPCM, 1, 16000, 16}}));

  const auto voice = open(dataPath("voice-48k-mono.aac"));
  EXPECT_TRUE(voice->devices(DeviceKind::kVideo).empty());
  EXPECT_EQ(device(*voice, DeviceKind::kAudio)->waveFormats(),
            (std::vector<WaveFormat>{{kWaveFormatAAC, 1, 48000, 16}, {kWaveFormatLinearPCM, 1, 48000, 16}}));
}

TEST_F(FileDevices, AcceptOnlyWhatTheyOffer) {
  const auto source = open(dataPath("street.mov"));
  const auto camera = device(*source, DeviceKind::kVideo);
  EXPECT_EQ(camera->setVideoParameters({kCMVideoCodecType_H264, 320, 240, 333333, 10000000, 512000}), kVCISuccess);
  EXPECT_EQ(camera->setVideoParameters({kCMPixelFormat_422YpCbCr8, 320, 240, 1, 5, 0}), kVCISuccess);
  EXPECT_EQ(camera->setVideoParameters({kCMVideoCodecType_H264, 640, 480, 1, 15, 0}), kVCIInvalidArgument);
  EXPECT_EQ(camera->setVideoParameters({kCMVideoCodecType_MotionJPEG, 320, 240, 1, 15, 0}), kVCIInvalidArgument);
  const auto microphone = device(*source, DeviceKind::kAudio);
  EXPECT_EQ(microphone->setWaveFormat({kWaveFormatLinearPCM, 1, 16000, 16}), kVCISuccess);
  EXPECT_EQ(microphone->setWaveFormat({kWaveFormatLinearPCM, 2, 16000, 16}), kVCIInvalidArgument);
  EXPECT_EQ(microphone->setWaveFormat({kWaveFormatAAC, 1, 16000, 16}), kVCIInvalidArgument);
}

TEST_F(FileDevices, KeepTheirOwnRateAndSaySoToWhoeverChoosesAnother) {
  const auto source = open(dataPath("street.mov"));
  const auto camera = device(*source, DeviceKind::kVideo);
  LogRecorder log;
  for (const uint32_t interval : {333333u, 666667u, 662000u})  // the usual one, its own, as good as its own
    EXPECT_EQ(camera->setVideoParameters({kCMVideoCodecType_H264, 320, 240, interval, 10000000, 0}), kVCISuccess);
  EXPECT_TRUE(log.items().empty());
  EXPECT_EQ(camera->setVideoParameters({kCMVideoCodecType_H264, 320, 240, 166667, 10000000, 0}), kVCISuccess);
  ASSERT_EQ(log.items().size(), 1u);
  EXPECT_NE(log.items()[0].find("has its own rate, 15 pictures a second, and cannot be set to 60."), std::string::npos);
}

TEST_F(FileDevices, PlayTogetherToTheEnd) {
  const auto source = open(dataPath("street.mov"));
  const auto camera = device(*source, DeviceKind::kVideo);
  const auto microphone = device(*source, DeviceKind::kAudio);
  Gate ended;
  transport.setEndHandler([&] { ended.open(); });
  transport.hold();
  Recorder<int64_t> pictures;
  Recorder<int64_t> packets;
  EXPECT_EQ(camera->start(1, timesInto(pictures)), kVCISuccess);
  EXPECT_EQ(microphone->start(0, timesInto(packets)), kVCISuccess);
  transport.release();
  ended.wait();
  ASSERT_EQ(pictures.items().size(), 90u);
  ASSERT_EQ(packets.items().size(), 190u);
  EXPECT_EQ(packets.items().front() - pictures.items().front(), 400000);
  EXPECT_EQ(pictures.items().back() - pictures.items().front(), 5933333);
}

TEST_F(FileDevices, AreInUseByOneHolderAtATime) {
  const auto source = open(dataPath("MIDR_MW_D.264"), true);
  auto first = device(*source, DeviceKind::kVideo);
  const auto second = device(*source, DeviceKind::kVideo);
  FrameRecorder frames;
  EXPECT_EQ(first->start(1, frames.callback()), kVCISuccess);
  EXPECT_EQ(first->start(1, frames.callback()), kVCISuccess) << "running already";
  EXPECT_EQ(second->start(1, frames.callback()), kVCIBusy);
  frames.waitFor(250);  // well into the loop
  first.reset();
  const size_t atStop = frames.items().size();
  EXPECT_EQ(second->start(1, frames.callback()), kVCISuccess);
  frames.waitFor(atStop + 1);
  EXPECT_EQ(second->stop(1), kVCISuccess);
  EXPECT_EQ(frames.items()[atStop].bytes, frames.items()[0].bytes) << "begins with the footage's first picture again";
}

TEST_F(FileDevices, MayBeStoppedFromInsideTheirCallback) {
  const auto source = open(dataPath("street-mjpeg.avi"), true);
  const auto camera = device(*source, DeviceKind::kVideo);
  Recorder<int> frames;
  const auto stopAtOnce = [&](uint8_t*, uint32_t, int64_t) {
    camera->stop(0);
    frames.add(0);
  };
  camera->start(0, stopAtOnce);
  frames.waitFor(1);
  camera->start(0, stopAtOnce);
  frames.waitFor(2);
  camera->stop(0);
  EXPECT_EQ(frames.items().size(), 2u);
}

TEST(FileErrors, SayInOneLineWhatIsWrong) {
  const TemporaryFolder folder;
  const std::string movie = contentOf(dataPath("town-h264-aac.mp4"));
  const struct {
    std::string path;
    const char* words;
  } rows[] = {
      {folder.file("missing.mov"), "no such file"},
      {folder.path(), "is a folder"},
      {folder.write("empty.mov", ""), "the file is empty"},
      {folder.write("notes.txt", "Shopping list\nbread\n"), "is no movie or sound file"},
      {folder.write("notes.mov", "Shopping list\nbread\n"), "is no movie or sound file"},
      {folder.write("unfinished.mp4", movie.substr(0, 5000)), "is no movie or sound file, or is damaged"},
      {folder.write("noise.264", std::string(5000, '\x5A')), "no picture in it can be read"},
      {folder.write("noise.aac", std::string(5000, '\x5A')), "no"},
      {folder.write("raw.uyvy", std::string(5000, '\x5A')), "must say their size"},
      {folder.write("raw-4x4.mjpeg", std::string(5000, '\x5A')), "no picture in it can be decoded"},
      {folder.write("raw-99999x99999.uyvy", std::string(5000, '\x5A')), "raw-99999x99999.uyvy"},
      {folder.write("list.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nnext.ts\n"), "is no movie"},
      {"http://localhost/movie.mov", "no such file"},
      {"/dev/zero", "is not a regular file"},
  };
  for (const auto& row : rows) {
    Error error;
    EXPECT_FALSE(makeFileSource(row.path, {}, error)) << row.path;
    EXPECT_NE(error.what.find(row.words), std::string::npos) << error.what;
    EXPECT_EQ(error.what.find('\n'), std::string::npos) << error.what;
    EXPECT_EQ(error.what.find(row.path), 0u) << error.what;
  }
}

TEST(FileErrors, NothingInAFileLeadsElsewhere) {
  const TemporaryFolder folder;
  const std::string clip = folder.write("clip.mov", contentOf(dataPath("town-h264-aac.mp4")));
  const std::string description =
      "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=x\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
      "m=video 5004 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
  const std::string list = "ffconcat version 1.0\nfile '" + clip + "'\n";
  const std::string playlist = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\n" + clip + "\n#EXT-X-ENDLIST\n";
  const std::string manifest =
      "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
      "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\" type=\"static\"><Period><AdaptationSet>"
      "<Representation id=\"1\" bandwidth=\"1\"><BaseURL>" +
      clip + "</BaseURL></Representation></AdaptationSet></Period></MPD>";
  mkfifo(folder.file("pipe.mov").c_str(), 0600);
  folder.write("photo1.jpg", "\xFF\xD8\xFF\xE0");
  const std::string paths[] = {folder.write("session.mov", description),
                               folder.write("list.mov", list),
                               folder.write("playlist.mov", playlist),
                               folder.write("manifest.mov", manifest),
                               folder.write("playlist.txt", "ffmetadata1\n" + playlist),
                               folder.file("photo%d.jpg"),
                               folder.file("pipe.mov"),
                               "concat:" + clip,
                               "file:" + clip,
                               "udp://127.0.0.1:5004"};
  const int before = gNetworkSockets;
  for (const std::string& path : paths) {
    Error error;
    EXPECT_FALSE(makeFileSource(path, {}, error)) << path;
    EXPECT_EQ(error.what.find(path), 0u) << error.what;
  }
  EXPECT_EQ(gNetworkSockets, before);
}

/// Plays everything that a file offers, as far as it goes.
size_t playAll(const std::string& path) {
  Error error;
  const auto footage = Footage::open(path, true, error);
  if (!footage) {
    EXPECT_TRUE(error);
    return 0;
  }
  size_t count = 0;
  if (footage->video) {
    for (const uint32_t codec : footage->video->codecs()) {
      const auto reader = videoReader(*footage, codec);
      if (reader) count += unitsFrom(*reader).size() + unitsFrom(*reader, 500000).size();
    }
  }
  if (footage->sound) {
    for (const uint16_t code : {kWaveFormatAAC, kWaveFormatLinearPCM}) {
      if (code == kWaveFormatAAC && footage->sound->coding != SoundCoding::kAAC) continue;
      const auto reader = soundReader(*footage, code);
      if (reader) count += unitsFrom(*reader).size() + unitsFrom(*reader, 500000).size();
    }
  }
  return count;
}

class BrokenClip : public ::testing::TestWithParam<const char*> {};

TEST_P(BrokenClip, EndsEarlyOrNotAtAllButNeverBadly) {
  const TemporaryFolder folder;
  const LogRecorder log;
  const std::string whole = contentOf(dataPath(GetParam()));
  const std::string suffix = std::filesystem::path(GetParam()).extension();
  std::mt19937 random(7);
  for (int round = 0; round < 4; ++round) {
    playAll(folder.write("cut" + suffix, whole.substr(0, random() % whole.size())));
    std::string spoilt = whole;
    const size_t spots = size_t{1} << round;
    for (size_t spot = 0; spot < spots; ++spot)
      spoilt[random() % spoilt.size()] ^= static_cast<char>(1 + random() % 255);
    playAll(folder.write("spoilt" + suffix, spoilt));
    // Damage where it hurts: in the head of the file, or in its index at the end.
    for (size_t spot = 0; spot < spots; ++spot) {
      spoilt[random() % std::min<size_t>(spoilt.size(), 600)] = static_cast<char>(random());
      spoilt[spoilt.size() - 1 - random() % std::min<size_t>(spoilt.size(), 3000)] = static_cast<char>(random());
    }
    playAll(folder.write("spoilt" + suffix, spoilt));
  }
}

INSTANTIATE_TEST_SUITE_P(Footage, BrokenClip,
                         ::testing::Values("town-h264-aac.mp4", "street-reordered.mp4", "street-mjpeg.avi",
                                           "SVA_Base_B.264", "test_qcif_cabac.264", "voice-48k-mono.aac"));

TEST_F(FileDevices, LogDamageOnceAndDeliverWhatIsThere) {
  const TemporaryFolder folder;
  const std::string whole = contentOf(dataPath("street-mjpeg.avi"));
  const std::string path = folder.write("cut.avi", whole.substr(0, whole.size() / 2));
  LogRecorder log;
  const auto source = open(path, true);
  const auto camera = device(*source, DeviceKind::kVideo);
  FrameRecorder frames;
  camera->start(0, frames.callback());
  frames.waitFor(20);  // several times round
  camera->stop(0);
  ASSERT_EQ(log.items().size(), 1u);
  EXPECT_NE(log.items().front().find("cut.avi"), std::string::npos);
}

}  // namespace
}  // namespace vesk::capture::test
