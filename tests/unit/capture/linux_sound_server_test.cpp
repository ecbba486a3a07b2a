#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include <vesk/four_char_code.h>
#include <vesk/vci.h>
#include "capture/linux/sound/pulse_connection.h"
#include "capture/linux/sound/sound_system.h"
#include "tests/support/fake_sound_server.h"
#include "tests/support/log_recorder.h"

namespace vesk::capture {
namespace {

using test::FakeSoundServer;
using Manner = FakeSoundServer::Manner;
using std::chrono::milliseconds;

constexpr PulsePatience kLong{milliseconds(60'000), milliseconds(60'000)};
constexpr PulsePatience kShort{milliseconds(50), milliseconds(600'000)};
constexpr const char* kHangs = "The sound server does not answer";

class IgnoredSound : public SoundSink {
 public:
  void sound(std::span<const uint8_t>, int64_t) override {}
  void lost(uint64_t) override {}
  void ended() override {}
};

class SoundServerTest : public testing::Test {
 protected:
  /// Connects with so much patience, or with the least that is enough for the greetings.
  std::shared_ptr<SoundSystem> connect(PulsePatience patience) {
    std::shared_ptr<SoundSystem> system;
    for (Error error; !system; ++patience.wait) system = makePulseSoundSystem(error, patience);
    mLinesBefore = mLines.items().size();
    return system;
  }
  std::vector<std::string> lines() {
    auto lines = mLines.items();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(mLinesBefore));
    return lines;
  }

  size_t mLinesBefore = 0;
  test::LogRecorder mLines;
};

TEST_F(SoundServerTest, OneThatHangsIsAskedOnceAndThenLeftAloneWithOneLine) {
  FakeSoundServer server(Manner::kHangs);
  const auto system = connect(kShort);
  uint32_t volume = 0;
  EXPECT_EQ(system->getVolume("tone", volume), kVCIFailed);
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_EQ(lines()[0].rfind(kHangs, 0), 0U) << lines()[0];
  server.waitUntilAsked();
  bool isMuted = false;
  int32_t status = kVCISuccess;
  Error error;
  EXPECT_EQ(system->getVolume("tone", volume), kVCIFailed);
  EXPECT_EQ(system->setVolume("tone", 9), kVCIFailed);
  EXPECT_EQ(system->getMute("tone", isMuted), kVCIFailed);
  EXPECT_TRUE(system->microphones().empty());
  EXPECT_TRUE(system->formats("tone").empty());
  const WaveFormat format{kWaveFormatLinearPCM, 1, 48000, 16};
  EXPECT_FALSE(system->record("tone", format, std::make_shared<IgnoredSound>(), status, error));
  EXPECT_EQ(server.questions(), 1);
  EXPECT_EQ(lines().size(), 1U);
  EXPECT_TRUE(system->isAnswering()) << "it is still connected: its changes will be heard";
}

TEST_F(SoundServerTest, OneThatHangsWhenItIsToRecordIsLeftAloneToo) {
  FakeSoundServer server(Manner::kHangs);
  const auto system = connect(kShort);
  int32_t status = kVCISuccess;
  Error error;
  const WaveFormat format{kWaveFormatLinearPCM, 1, 48000, 16};
  EXPECT_FALSE(system->record("tone", format, std::make_shared<IgnoredSound>(), status, error));
  EXPECT_EQ(status, kVCIFailed);
  EXPECT_TRUE(error);
  server.waitUntilAsked();
  EXPECT_EQ(server.questions(), 1);
  EXPECT_EQ(lines().size(), 1U);
}

TEST_F(SoundServerTest, OneThatAnswersAgainIsUsedAgain) {
  FakeSoundServer server(Manner::kHangs);
  const auto system = connect({milliseconds(20), milliseconds(1)});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(system->setMute("tone", true), kVCIFailed);
  EXPECT_EQ(lines().size(), 1U);
  server.behave(Manner::kAcknowledges);
  while (system->setMute("tone", true) != kVCISuccess) {
  }
  server.behave(Manner::kHangs);
  while (system->setMute("tone", true) == kVCISuccess) {
  }
  EXPECT_GE(lines().size(), 2U) << "that it hangs once more is news";
}

/// Where the last greeting and the end of the patience come together.
TEST_F(SoundServerTest, OneThatGreetsAtTheLastMomentIsNotTakenToHang) {
  FakeSoundServer server(Manner::kHangs);
  for (int round = 0; round < 100; ++round) {
    const auto system = connect({milliseconds(1), milliseconds(600'000)});
    EXPECT_EQ(system->setMute("tone", true), kVCIFailed);
    ASSERT_EQ(lines().size(), 1U) << "it is asked before it is said to hang";
  }
}

TEST_F(SoundServerTest, OneThatTakesConnectionsOnlyIsNone) {
  FakeSoundServer server(Manner::kHangsAtOnce);
  Error error;
  EXPECT_FALSE(makePulseSoundSystem(error, kShort));
  EXPECT_NE(error.what.find("no sound server answers"), std::string::npos) << error.what;
}

/// All threads but one meet a connection that is being made.
TEST_F(SoundServerTest, ThreadsWaitForTheConnectionThatOneOfThemMakes) {
  FakeSoundServer server(Manner::kAcknowledges);
  const auto system = connect(kLong);
  for (int round = 0; round < 20; ++round) {
    server.behave(Manner::kHangsUp);
    EXPECT_EQ(system->setMute("tone", true), kVCIFailed);
    server.behave(Manner::kAcknowledges);
    std::vector<std::thread> threads;
    threads.reserve(4);
    test::Recorder<int32_t> statuses;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&] { statuses.add(system->setMute("tone", true)); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(statuses.items(), std::vector<int32_t>(4, kVCISuccess));
  }
}

TEST_F(SoundServerTest, ThreadsMaySeeItGoWhileTheyUseIt) {
  FakeSoundServer server(Manner::kHangsUp);
  const auto system = connect(kLong);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 50; ++round) {
        uint32_t volume = 0;
        int32_t status = kVCISuccess;
        Error error;
        const WaveFormat format{kWaveFormatLinearPCM, 1, 48000, 16};
        if (i % 2 == 0) {
          system->microphones();
          EXPECT_EQ(system->getVolume("tone", volume), kVCIFailed);
        } else {
          EXPECT_FALSE(system->record("tone", format, std::make_shared<IgnoredSound>(), status, error));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(SoundServerVolume, KeepsTheBalanceOfChannelsAlsoThroughSilence) {
  pa_cvolume volume{};
  pa_cvolume known{};
  pa_cvolume_set(&volume, 2, PA_VOLUME_NORM);
  volume.values[1] = PA_VOLUME_NORM / 2;
  for (const pa_volume_t level : {PA_VOLUME_NORM / 4, PA_VOLUME_NORM, PA_VOLUME_MUTED, PA_VOLUME_NORM / 2}) {
    scaleKeepingBalance(volume, known, level);
    EXPECT_EQ(volume.values[0], level);
    EXPECT_EQ(volume.values[1], level / 2);
  }
  pa_cvolume silent{};
  pa_cvolume_set(&silent, 1, PA_VOLUME_MUTED);
  scaleKeepingBalance(silent, known, 100);  // what is known is of other channels
  EXPECT_EQ(silent.channels, 1);
  EXPECT_EQ(silent.values[0], 100U);
}

}  // namespace
}  // namespace vesk::capture
