#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>

#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <unistd.h>

#include <vesk/capture_host.h>
#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/linux/sound/alsa_mixer.h"
#include "capture/linux/sound/alsa_stream.h"
#include "capture/linux/sound/delivery.h"
#include "capture/linux/sound/node_watch.h"
#include "capture/linux/sound/sound_source.h"
#include "capture/linux/sound/usb_parent.h"
#include "tests/support/frame_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/meanwhile.h"
#include "tests/support/temporary_folder.h"

extern "C" {  // which this one does not say itself
#include <alsa/pcm_ioplug.h>
}

namespace vesk::capture {
namespace {

using test::Gate;
using test::LogRecorder;
using test::Recorder;
using test::TemporaryFolder;

constexpr WaveFormat kStereo{kWaveFormatLinearPCM, 2, 48000, 16};
constexpr WaveFormat kMono{kWaveFormatLinearPCM, 1, 16000, 16};

/// A sound system whose microphones say what the test says.
class FakeSoundSystem : public SoundSystem {
 public:
  explicit FakeSoundSystem(bool canShareStreams = true) : mCanShare(canShareStreams) {}

  void plug(const std::string& path) {
    MutexLock lock(mMutex);
    mMicrophones.push_back({{DeviceKind::kAudio, path, "Microphone " + path}, "", std::to_string(++mPlugs)});
    if (mHandler) mHandler();
  }
  void unplug(const std::string& path) {
    MutexLock lock(mMutex);
    std::erase_if(mMicrophones, [&](const Microphone& one) { return one.description.path == path; });
    if (mHandler) mHandler();
  }
  void report() {
    MutexLock lock(mMutex);
    if (mHandler) mHandler();
  }
  /// `frames` frames of `value` on every stream, in its own format.
  void say(int16_t value, size_t frames, int64_t time) {
    MutexLock lock(mMutex);
    for (const auto& [stream, open] : mStreams) {
      const std::vector<int16_t> samples(frames * open.format.channels, value);
      open.sink->sound({reinterpret_cast<const uint8_t*>(samples.data()), samples.size() * 2}, time);
    }
  }
  void lose(uint64_t frames) {
    MutexLock lock(mMutex);
    for (const auto& [stream, open] : mStreams) open.sink->lost(frames);
  }
  /// The server goes with its microphones; with another one it comes back, and tells nobody.
  void crash() {
    MutexLock lock(mMutex);
    mIsAnswering = false;
    mMicrophones.clear();
    if (mHandler) mHandler();
  }
  void comeBack(const std::string& path) {
    MutexLock lock(mMutex);
    mReturning = {{{DeviceKind::kAudio, path, "Microphone " + path}, "", ""}};
  }
  /// All streams end, as with a microphone that is unplugged; who has one keeps it, in vain.
  void endStreams() {
    MutexLock lock(mMutex);
    for (const auto& [stream, open] : mStreams) open.sink->ended();
    mStreams.clear();
  }
  void refuse(const WaveFormat& format) { mRefused = format; }
  void refuseAll() { mRefusesAll = true; }
  std::vector<WaveFormat> openFormats() {
    MutexLock lock(mMutex);
    std::vector<WaveFormat> formats;
    for (const auto& [stream, open] : mStreams) formats.push_back(open.format);
    return formats;
  }

  std::vector<Microphone> microphones() override {
    MutexLock lock(mMutex);
    if (!mReturning.empty()) {
      mMicrophones = std::exchange(mReturning, {});
      mIsAnswering = true;
    }
    return mMicrophones;
  }
  void forgetFormats() { mHasFormats = false; }
  std::vector<WaveFormat> formats(const std::string&) override {
    return mHasFormats ? std::vector{kStereo, kMono} : std::vector<WaveFormat>();
  }
  std::unique_ptr<SoundStream> record(const std::string&, const WaveFormat& format, std::shared_ptr<SoundSink> sink,
                                      int32_t& status, Error& error) override {
    status = mRefusesAll || format == mRefused ? kVCIFailed : kVCISuccess;
    if (status != kVCISuccess) error = {Cause::kRefused, "it refuses", ""};
    if (status != kVCISuccess) return nullptr;
    auto stream = std::make_unique<Stream>(*this);
    MutexLock lock(mMutex);
    mStreams[stream.get()] = {format, std::move(sink)};
    return stream;
  }
  bool canShare() const override { return mCanShare; }
  bool isAnswering() override { return mIsAnswering; }
  int32_t getVolume(const std::string&, uint32_t& volume) override {
    volume = mVolume;
    return kVCISuccess;
  }
  int32_t setVolume(const std::string&, uint8_t volume) override {
    mVolume = volume;
    return kVCISuccess;
  }
  int32_t getMute(const std::string&, bool&) override { return kVCIFailed; }
  int32_t setMute(const std::string&, bool) override { return kVCIFailed; }
  void setChangeHandler(std::function<void()> handler) override {
    MutexLock lock(mMutex);
    mHandler = std::move(handler);
  }

 private:
  class Stream : public SoundStream {
   public:
    explicit Stream(FakeSoundSystem& system) : mSystem(system) {}
    ~Stream() override {
      MutexLock lock(mSystem.mMutex);
      mSystem.mStreams.erase(this);
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

   private:
    FakeSoundSystem& mSystem;
  };
  struct Open {
    WaveFormat format;
    std::shared_ptr<SoundSink> sink;
  };

  const bool mCanShare;
  WaveFormat mRefused;
  std::atomic<bool> mRefusesAll{false};
  std::atomic<uint8_t> mVolume{255};
  std::atomic<bool> mIsAnswering{true};
  std::atomic<bool> mHasFormats{true};
  Mutex mMutex;
  int mPlugs VESK_GUARDED_BY(mMutex) = 0;
  std::vector<Microphone> mMicrophones VESK_GUARDED_BY(mMutex);
  std::vector<Microphone> mReturning VESK_GUARDED_BY(mMutex);
  std::map<const Stream*, Open> mStreams VESK_GUARDED_BY(mMutex);
  std::function<void()> mHandler VESK_GUARDED_BY(mMutex);
};

class SoundSourceTest : public testing::Test {
 protected:
  void use(bool canShare) {
    mSystem = std::make_shared<FakeSoundSystem>(canShare);
    mSystem->plug("a");
    mSource = std::make_unique<SoundSource>(mSystem, 20);
  }
  void SetUp() override { use(true); }
  std::unique_ptr<CaptureDevice> open() { return mSource->open(DeviceKind::kAudio, "a"); }

  LogRecorder mLines;
  std::shared_ptr<FakeSoundSystem> mSystem;
  std::unique_ptr<SoundSource> mSource;
};

TEST_F(SoundSourceTest, DeliversUntilStoppedAlsoFromInsideTheCallback) {
  const auto device = open();
  ASSERT_TRUE(device);
  Recorder<int64_t> times;
  ASSERT_EQ(device->start(0,
                          [&](const uint8_t*, uint32_t length, int64_t timestamp) {
                            EXPECT_EQ(length, 960U * 4);
                            EXPECT_EQ(device->setVolume(9), kVCISuccess);
                            device->stop(0);
                            times.add(timestamp);
                          }),
            kVCISuccess);
  mSystem->say(1, 960 * 10, 5'000'000);
  EXPECT_EQ(times.waitFor(1).front(), 5'000'000);
  ASSERT_EQ(device->start(0, test::timesInto(times)), kVCISuccess);
  mSystem->say(1, 1000, 9'000'000);  // some are held back
  EXPECT_EQ(times.waitFor(2), (std::vector<int64_t>{5'000'000, 9'000'000}));
  device->stop(0);
  EXPECT_TRUE(mSystem->openFormats().empty());
}

TEST_F(SoundSourceTest, StartsAndStopsWhileSoundComes) {
  const test::Meanwhile speaker([&, time = int64_t{1}]() mutable {
    mSystem->say(1, 480, time);
    if (time % 7 == 0) mSystem->lose(time % 2 == 0 ? 480 : 0);
    time += 10'000;
  });
  for (int round = 0; round < 60; ++round) {
    Recorder<int64_t> times;  // outlives the device, which half of the rounds end
    const auto device = open();
    ASSERT_EQ(device->start(0, test::timesInto(times)), kVCISuccess);
    times.waitFor(1);
    if (round % 2 == 0) device->stop(0);
  }
  EXPECT_TRUE(mSystem->openFormats().empty());
}

TEST_F(SoundSourceTest, ASlowReceiverLosesSoundWhichTheStampsAndOneLineTell) {
  const auto device = open();
  Gate gate;
  Recorder<int64_t> times;
  device->start(0, [&](const uint8_t*, uint32_t, int64_t timestamp) {
    times.add(timestamp);
    gate.wait();
  });
  int64_t time = 1'000'000;
  const auto say = [&](int seconds) {
    for (int i = 0; i < seconds * 100; ++i, time += 10'000) mSystem->say(1, 480, time);
  };
  say(1);
  times.waitFor(1);
  say(14);  // ten seconds of it fit
  gate.open();
  times.waitFor(2 * 50);
  const int64_t resumed = time;
  while (times.items().back() < resumed - 100'000) {
    say(1);
    std::this_thread::yield();
  }
  device->stop(0);
  const auto stamps = times.items();
  int jumps = 0;
  for (size_t i = 1; i < stamps.size(); ++i) {
    EXPECT_GT(stamps[i], stamps[i - 1]);
    if (stamps[i] - stamps[i - 1] > 1'000'000) ++jumps;
  }
  EXPECT_GE(jumps, 1);
  const auto lines = mLines.waitFor(1);
  EXPECT_LT(lines.size(), 5U);
  EXPECT_NE(lines.front().find("Microphone a: sound was lost"), std::string::npos);
}

TEST(SoundDeliveryTest, TellsWhenNoSoundComesAndWhenItComesAgain) {
  using std::chrono::milliseconds;
  LogRecorder lines;
  const auto delivery = std::make_shared<SoundDelivery>(
      "Mike", kMono, [](uint8_t*, uint32_t, int64_t) {}, milliseconds(5));
  const std::vector<uint8_t> silence(320);
  delivery->begin();
  size_t count = lines.waitFor(2).size();
  EXPECT_EQ(lines.count("The microphone \"Mike\" has sent no sound for "), lines.items().size());
  delivery->sound(silence, 0);
  while (lines.count("sends sound again, after ") == 0) lines.waitFor(++count);
  delivery->ended();
  EXPECT_EQ(lines.count("no more sound comes from it"), 1U);
  delivery->end();
}

TEST(SoundDeliveryTest, KeepsABoundedNumberOfLossesAndTinyPortionsForASlowReceiver) {
  Gate gate;
  Recorder<int64_t> times;
  const auto delivery = std::make_shared<SoundDelivery>("Mike", kMono, [&](uint8_t*, uint32_t, int64_t timestamp) {
    times.add(timestamp);
    gate.wait();
  });
  const LogRecorder lines;
  const std::vector<uint8_t> tone(2 * 640, 1);
  delivery->begin();
  delivery->sound(tone, 1'000'000);
  times.waitFor(1);
  for (int i = 0; i < 100'000; ++i) delivery->lost(i == 0 ? 16'000 : 0);
  EXPECT_EQ(delivery->waiting(), 1U);
  delivery->sound(tone, 5'000'000);
  EXPECT_EQ(delivery->waiting(), 2U);
  for (int64_t i = 0; i < 100'000; ++i) {
    delivery->lost(1);
    delivery->sound(std::span(tone).first(2), 5'040'000 + 125 * i);
  }
  EXPECT_LT(delivery->waiting(), 20'000U);
  gate.open();
  EXPECT_NEAR(static_cast<double>(times.waitFor(3)[2]), 5'000'000, 20'000) << "all that was lost is in the stamps";
  delivery->end();
}

TEST_F(SoundSourceTest, ManyLossesAreCountedInFewLines) {
  const auto device = open();
  Recorder<int64_t> times;
  device->start(0, test::timesInto(times));
  int64_t time = 1'000'000;
  for (int i = 0; i < 100; ++i, time += 20'000) {
    mSystem->say(1, 480, time);
    mSystem->lose(480);
  }
  mSystem->say(1, 4800, time);
  times.waitFor(50);
  device->stop(0);
  const auto lines = mLines.items();
  ASSERT_GE(lines.size(), 1U);
  EXPECT_LT(lines.size(), 10U);  // one at once, one for the rest at the end, and if the machine stalls
  int told = 0;
  for (const auto& line : lines) told += std::stoi(line.substr(line.find("lost ") + 5));
  EXPECT_EQ(told, 100);
}

TEST_F(SoundSourceTest, MetersListenBesideACaptureWhereMicrophonesCannotBeShared) {
  use(false);
  const auto meter = mSource->openForMetering("a");
  Recorder<int64_t> heard;
  std::atomic<uint32_t> packetBytes{0};
  ASSERT_EQ(meter->start(0,
                         [&](const uint8_t* bytes, uint32_t length, int64_t timestamp) {
                           EXPECT_TRUE(std::all_of(bytes, bytes + length, [](uint8_t byte) { return byte == 0x11; }));
                           packetBytes = length;
                           heard.add(timestamp);
                         }),
            kVCISuccess);
  EXPECT_EQ(mSystem->openFormats(), std::vector{kStereo});
  // A capture takes the stream over in its own format; the meter goes on.
  const auto device = open();
  ASSERT_EQ(device->setWaveFormat(kMono), kVCISuccess);
  Recorder<int64_t> times;
  mSystem->refuse(kMono);
  ASSERT_EQ(device->start(0, test::timesInto(times)), kVCIFailed);
  EXPECT_EQ(mSystem->openFormats(), std::vector{kStereo});
  mSystem->refuse({});
  ASSERT_EQ(device->start(0, test::timesInto(times)), kVCISuccess);
  EXPECT_EQ(mSystem->openFormats(), std::vector{kMono});
  EXPECT_EQ(open()->start(0, test::timesInto(times)), kVCIBusy);
  mSystem->say(0x1111, 330, 1'000'000);
  EXPECT_EQ(heard.waitFor(1).front(), 1'000'000);
  EXPECT_EQ(packetBytes, 960U * 4);  // 48 kHz stereo made of 16 kHz mono
  EXPECT_EQ(times.waitFor(1).front(), 1'000'000);
  // Ending either leaves the other its sound.
  meter->stop(0);
  mSystem->say(0x1111, 330, 1'020'625);
  times.waitFor(2);
  ASSERT_EQ(meter->start(0, test::timesInto(heard)), kVCISuccess);
  device->stop(0);
  mSystem->say(0x1111, 330, 3'000'000);
  heard.waitFor(2);
  meter->stop(0);
  EXPECT_TRUE(mSystem->openFormats().empty());
}

TEST_F(SoundSourceTest, AMeterThatLosesItsStreamToACaptureThatFailsSaysSo) {
  use(false);
  const auto meter = mSource->openForMetering("a");
  const auto device = open();
  Recorder<int64_t> times;
  ASSERT_EQ(meter->start(0, test::timesInto(times)), kVCISuccess);
  mSystem->refuseAll();
  EXPECT_EQ(device->start(0, test::timesInto(times)), kVCIFailed);
  EXPECT_EQ(mLines.count("no more sound comes from it"), 1U);
}

/// Its stream is not the one that ended with the microphone, which who listened before may have still.
TEST_F(SoundSourceTest, AMeterHearsAMicrophoneThatIsBackWhereItCannotBeShared) {
  use(false);
  Recorder<int64_t> before, captured, after;
  const auto oldMeter = mSource->openForMetering("a"), newMeter = mSource->openForMetering("a");
  const auto device = open();
  ASSERT_EQ(oldMeter->start(0, test::timesInto(before)), kVCISuccess);
  ASSERT_EQ(device->setWaveFormat(kMono), kVCISuccess);
  ASSERT_EQ(device->start(0, test::timesInto(captured)), kVCISuccess);
  mSystem->endStreams();
  ASSERT_EQ(newMeter->start(0, test::timesInto(after)), kVCISuccess);
  ASSERT_EQ(mSystem->openFormats(), std::vector{kMono}) << "that of the capture, which nobody has stopped";
  mSystem->say(0x1111, 330, 1'000'000);
  for (auto* const times : {&before, &captured, &after}) EXPECT_EQ(times->waitFor(1).front(), 1'000'000);
}

TEST_F(SoundSourceTest, AMicrophoneThatDoesNotSayItsFormatsIsNotOpened) {
  mSystem->forgetFormats();
  EXPECT_FALSE(open());
  EXPECT_EQ(lastError().cause, Cause::kNoFormat);
}

TEST_F(SoundSourceTest, TellsOfEachMicrophoneThatComesOrGoesOnce) {
  Recorder<bool> events;
  mSource->setHotplugHandler([&](DeviceKind kind, bool arrived) {
    EXPECT_EQ(kind, DeviceKind::kAudio);
    events.add(arrived);
  });
  mSystem->plug("b");
  for (int i = 0; i < 5; ++i) mSystem->report();
  EXPECT_EQ(events.waitFor(1), std::vector{true});
  mSystem->unplug("a");
  mSystem->report();
  EXPECT_EQ(events.waitFor(2), (std::vector{true, false}));
  mSystem->unplug("b");
  mSystem->plug("b");
  EXPECT_EQ(events.waitFor(4), (std::vector{true, false, false, true})) << "away for less than the quiet time";
  mSource->setHotplugHandler({});
  mSystem->plug("c");
  mSource.reset();
  EXPECT_EQ(events.items().size(), 4U);
}

TEST_F(SoundSourceTest, TellsOfTwoThatComeAtOnceOneAfterTheOther) {
  Recorder<size_t> lists;  // how many are listed at each event
  mSource->setHotplugHandler([&](DeviceKind, bool) { lists.add(mSource->devices(DeviceKind::kAudio).size()); });
  mSystem->plug("b");
  mSystem->plug("c");
  EXPECT_EQ(lists.waitFor(2), (std::vector<size_t>{2, 3}));
  mSystem->crash();
  EXPECT_EQ(lists.waitFor(5), (std::vector<size_t>{2, 3, 2, 1, 0}));
}

TEST_F(SoundSourceTest, TellsOfArrivalsWhileTheServerReportsChangesAllTheTime) {
  Recorder<bool> events;
  mSource->setHotplugHandler([&](DeviceKind, bool arrived) { events.add(arrived); });
  const test::Meanwhile server([&] { mSystem->report(); });
  mSystem->plug("b");
  EXPECT_EQ(events.waitFor(1), std::vector{true});
}

TEST_F(SoundSourceTest, FindsTheMicrophonesOfAServerThatComesBack) {
  mSource = std::make_unique<SoundSource>(mSystem, 1);
  Recorder<bool> events;
  mSource->setHotplugHandler([&](DeviceKind, bool arrived) { events.add(arrived); });
  mSystem->crash();
  EXPECT_EQ(events.waitFor(1), std::vector{false});
  mSystem->comeBack("a");
  EXPECT_EQ(events.waitFor(2), (std::vector{false, true}));
}

TEST(UsbParent, IsTheDeviceAboveTheCardsInterface) {
  const TemporaryFolder folder;
  namespace fs = std::filesystem;
  const fs::path sysfs = folder.path();
  const fs::path hub = "devices/usb1/1-3";
  fs::create_directories(sysfs / hub / "1-3.2/1-3.2:1.2");
  fs::create_directories(sysfs / "devices/pci/sound");
  for (const char* card : {"card0", "card1"}) fs::create_directories(sysfs / "class/sound" / card);
  fs::create_symlink(sysfs / hub / "1-3.2/1-3.2:1.2", sysfs / "class/sound/card1/device");
  fs::create_symlink(sysfs / "devices/pci", sysfs / "class/sound/card0/device");
  folder.write(hub / "idVendor", "1d6b\n");
  folder.write(hub / "1-3.2/idVendor", "0a12\n");
  folder.write(hub / "1-3.2/idProduct", "fffe\n");
  folder.write(hub / "1-3.2/bcdDevice", "0103\n");
  folder.write(hub / "1-3.2/devnum", "12\n");
  const UsbParent parent = usbParentOfCard(1, sysfs);
  EXPECT_EQ(parent.folder, fs::canonical(sysfs / hub / "1-3.2").string());
  EXPECT_EQ(parent.vendorID, 0x0a12);
  EXPECT_EQ(parent.productID, 0xfffe);
  EXPECT_EQ(parent.revisionID, 0x0103);
  EXPECT_EQ(parent.number, "12");
  EXPECT_TRUE(usbParentOfCard(0, sysfs).folder.empty());
  EXPECT_TRUE(usbParentOfCard(7, sysfs).folder.empty());
}

TEST(SoundNodeWatchTest, FollowsAFolderThatComesLaterAndSaysWhatCannotBeWatched) {
  LogRecorder lines;
  const TemporaryFolder folder;
  Recorder<int> changes;
  {
    const SoundNodeWatch watch(folder.path(), "snd", [&] { changes.add(0); });
    std::filesystem::create_directory(folder.file("snd"));
    changes.waitFor(1);
    folder.write("snd/pcmC0D0c", "");
    changes.waitFor(2);
  }
  EXPECT_EQ(lines.items(), std::vector<std::string>());
  const SoundNodeWatch watch(folder.file("none"), "snd", [] {});
  EXPECT_EQ(lines.count("Microphones that come and go will not be noticed"), 1U);
}

/// A PCM of ALSA's whose sound never comes, and whose descriptor is in error: nobody reads from the pipe.
class BrokenPcm {
 public:
  BrokenPcm() {
    static constexpr auto kNothing = [](snd_pcm_ioplug_t*) { return 0; };
    mCallbacks.start = mCallbacks.stop = kNothing;
    mCallbacks.pointer = [](snd_pcm_ioplug_t*) { return snd_pcm_sframes_t{0}; };
    int ends[2] = {};
    if (pipe2(ends, O_CLOEXEC) == 0) close(ends[0]);
    mDescriptor = ends[1];
    mPlugin.version = SND_PCM_IOPLUG_VERSION;
    mPlugin.name = "broken";
    mPlugin.callback = &mCallbacks;
    mPlugin.poll_fd = mDescriptor;
    mPlugin.poll_events = POLLIN;
    mPlugin.mmap_rw = 0;
  }
  ~BrokenPcm() { close(mDescriptor); }
  BrokenPcm(const BrokenPcm&) = delete;
  BrokenPcm& operator=(const BrokenPcm&) = delete;

  AlsaPcm open() {
    const bool isMade = snd_pcm_ioplug_create(&mPlugin, "broken", SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK) >= 0;
    return AlsaPcm(isMade ? mPlugin.pcm : nullptr);
  }

 private:
  snd_pcm_ioplug_callback_t mCallbacks{};
  snd_pcm_ioplug_t mPlugin{};
  int mDescriptor = -1;
};

class EndRecorder : public SoundSink {
 public:
  void sound(std::span<const uint8_t>, int64_t) override {}
  void lost(uint64_t) override { ++losses; }
  void ended() override { ends.add(0); }
  std::atomic<int> losses{0};
  Recorder<int> ends;
};

TEST(AlsaMixer, RoundsToTheNearestAndKeepsTheBalance) {
  for (const auto& [least, most] : {std::pair(0L, 255L), std::pair(-10L, 990L), std::pair(0L, 65536L)}) {
    for (int volume = 0; volume <= 255; ++volume) {
      const long level = alsaLevelOfVolume(static_cast<uint8_t>(volume), least, most);
      EXPECT_EQ(volumeOfAlsaLevel(level, least, most), static_cast<uint32_t>(volume)) << most;
    }
  }
  // A card with few steps.
  const std::pair<int, long> kNearest[] = {{0, 0}, {8, 0}, {9, 1}, {25, 1}, {26, 2}, {128, 8}, {246, 14}, {247, 15}};
  for (const auto& [volume, level] : kNearest)
    EXPECT_EQ(alsaLevelOfVolume(static_cast<uint8_t>(volume), 0, 15), level) << volume;
  EXPECT_EQ(volumeOfAlsaLevel(7, 0, 15), 119U);
  EXPECT_EQ(volumeOfAlsaLevel(99, 0, 31), 255U) << "beyond its own range";

  using Levels = std::vector<long>;
  EXPECT_EQ(scaledAlsaLevels({20, 10}, 0, 30), Levels({30, 15}));
  EXPECT_EQ(scaledAlsaLevels({10, 20, 0}, -20, 0), Levels({-5, 0, -10}));
  EXPECT_EQ(scaledAlsaLevels({5, 5}, 5, 9), Levels({9, 9})) << "none is above the least";
  EXPECT_EQ(scaledAlsaLevels({3}, 0, 0), Levels({0}));
}

TEST(AlsaStreamTest, GivesUpAMicrophoneWhoseDescriptorStaysInError) {
  BrokenPcm pcm;
  const auto sink = std::make_shared<EndRecorder>();
  AlsaStream stream(kMono, sink);
  Error error;
  ASSERT_EQ(stream.begin(pcm.open(), error), kVCISuccess) << error.what;
  sink->ends.waitFor(1);
  EXPECT_LT(sink->losses, 10) << "it tries a few times, and does not spin";
}

TEST(SoundSystems, SayThatNoServerAnswersAndStartNone) {
  const TemporaryFolder folder;
  setenv("PULSE_SERVER", ("unix:" + folder.file("none")).c_str(), 1);
  Error error;
  EXPECT_FALSE(makePulseSoundSystem(error));
  EXPECT_NE(error.what.find("no sound server answers"), std::string::npos);
  unsetenv("PULSE_SERVER");
}

/// The real code on a PCM of ALSA's that plays a file: it needs no sound card.
TEST(SoundSystems, RecordFromTheDriversOwnInterface) {
  const TemporaryFolder folder;
  folder.write("sound.raw", std::string(size_t{48000} * 4, '\x11'));
  folder.write("asound.conf", "pcm.played { type file slave.pcm { type null } file \"/dev/null\" infile \"" +
                                  folder.file("sound.raw") + "\" format raw }\n");
  setenv("ALSA_CONFIG_PATH", folder.file("asound.conf").c_str(), 1);
  Error error;
  SoundSource source(makeAlsaSoundSystem({"played"}, error));
  ASSERT_FALSE(error);
  const auto known = source.devices(DeviceKind::kAudio);
  const auto found =
      std::find_if(known.begin(), known.end(), [](const auto& one) { return one.path == "alsa:played"; });
  ASSERT_NE(found, known.end());
  const auto device = source.open(DeviceKind::kAudio, "alsa:played");
  ASSERT_TRUE(device);
  const auto formats = device->waveFormats();
  ASSERT_NE(std::find(formats.begin(), formats.end(), kStereo), formats.end());
  ASSERT_EQ(device->setWaveFormat(kStereo), kVCISuccess);
  test::FrameRecorder packets;
  ASSERT_EQ(device->start(0, packets.callback()), kVCISuccess);
  EXPECT_EQ(packets.waitFor(3).front().bytes.front(), 0x11);
  device->stop(0);
  unsetenv("ALSA_CONFIG_PATH");
}

}  // namespace
}  // namespace vesk::capture
