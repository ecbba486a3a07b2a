#include <vesk/device_manager.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>
#include <type_traits>

#include <vesk/audio_device.h>
#include <vesk/bundle.h>
#include <vesk/notification_center.h>
#include <vesk/video_device.h>
#include "tests/support/device_test.h"
#include "tests/support/log_recorder.h"
#include "tests/support/meanwhile.h"
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

using capture::DeviceKind;

/// Collects the notifications as "+path" and "-path".
struct DeviceManagerTest : test::DeviceTest {
  NSNotificationObserver observe(const char* name, char sign) {
    return NSNotificationCenter::defaultCenter().addObserver(name, [this, name, sign](const NSNotification& event) {
      const auto* const info = event.value<std::shared_ptr<VeskDeviceInfo>>(name);
      ASSERT_NE(info, nullptr);
      EXPECT_EQ(event.object, nullptr);
      events.push_back(sign + (*info)->path().value_or(""));
      lastChanged = *info;
    });
  }
  std::string takeEvents() {
    std::string all;
    for (const auto& event : std::exchange(events, {})) all += event;
    return all;
  }
  static std::shared_ptr<VeskDeviceManager> manager() { return VeskDeviceManager::getSharedInstance(); }

  std::vector<std::string> events;
  std::shared_ptr<VeskDeviceInfo> lastChanged;
  NSNotificationObserver added = observe(KVXDeviceAdded, '+');
  NSNotificationObserver removed = observe(KVXDeviceRemoved, '-');
};

TEST_F(DeviceManagerTest, MakesRecordsOfWhatIsAttached) {
  source->attachCamera("/cam", 0x1001);
  source->attachMicrophone("/mic", 0x2001);
  const auto cameras = VeskVideoDevice::getVideoDeviceList();
  ASSERT_EQ(cameras->size(), 1U);
  const VeskDeviceInfo& camera = *cameras->at(0);
  EXPECT_EQ(camera.name(), "Camera /cam");
  EXPECT_EQ(camera.path(), "/cam");
  EXPECT_EQ(camera.vendorID(), 0x1234);
  EXPECT_EQ(camera.productID(), 0x1001);
  EXPECT_EQ(camera.revisionID(), 0x0102);
  EXPECT_EQ(camera.deviceType(), 0);
  const auto microphones = VeskAudioDevice::getAudioDeviceList();
  ASSERT_EQ(microphones->size(), 1U);
  EXPECT_EQ(microphones->at(0)->path(), "/mic");
  EXPECT_EQ(microphones->at(0)->revisionID(), 0);
  EXPECT_EQ(microphones->at(0)->deviceType(), 1);
}

TEST_F(DeviceManagerTest, KeepsAnEmptyListUntilAnEvent) {
  EXPECT_TRUE(manager()->getVideoDeviceList()->empty());
  const int asked = source->enumerations();
  source->attachCamera("/a");
  EXPECT_TRUE(manager()->getVideoDeviceList()->empty());
  EXPECT_EQ(source->enumerations(), asked);
  source->announce(DeviceKind::kAudio, true);
  EXPECT_TRUE(manager()->getVideoDeviceList()->empty()) << "an event of the other kind";
  source->announce(DeviceKind::kVideo, true);
  EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U);
}

TEST_F(DeviceManagerTest, TellsWhichDeviceCameOrWent) {
  const struct {
    const char* label;
    std::vector<const char*> before, after;
    const char* events;
  } rows[] = {
      {"one came", {"/a"}, {"/a", "/b"}, "+/b"},
      {"one came in front", {"/b"}, {"/a", "/b"}, "+/a"},
      {"the first of two that came", {"/a"}, {"/a", "/b", "/c"}, "+/b"},
      {"one went", {"/a", "/b"}, {"/b"}, "-/a"},
      {"the first of all that went", {"/a", "/b"}, {}, "-/a"},
      {"one exchanged for another", {"/a", "/b"}, {"/a", "/c"}, "-/b"},
      {"one for two others", {"/a"}, {"/b", "/c"}, "+/b"},
      {"nothing", {"/a"}, {"/a"}, ""},
      {"another order", {"/a", "/b"}, {"/b", "/a"}, ""},
  };
  for (const DeviceKind kind : {DeviceKind::kVideo, DeviceKind::kAudio}) {
    for (const auto& row : rows) {
      VeskDeviceManager::destroy();
      const auto list = [&] {
        return kind == DeviceKind::kVideo ? manager()->getVideoDeviceList() : manager()->getAudioDeviceList();
      };
      for (const char* path : row.before) source->attach({.kind = kind, .path = path, .name = path});
      const auto before = list();
      for (const char* path : row.before) source->detach(path);
      for (const char* path : row.after) source->attach({.kind = kind, .path = path, .name = path});
      source->announce(kind, false);
      EXPECT_EQ(takeEvents(), row.events) << row.label;
      const auto after = list();
      EXPECT_NE(after, before) << row.label;
      EXPECT_EQ(after->size(), row.after.size()) << row.label;
      if (row.events[0]) {
        EXPECT_EQ(lastChanged->deviceType(), kind == DeviceKind::kVideo ? 0 : 1) << row.label;
      }
      for (const char* path : row.after) source->detach(path);
    }
  }
}

TEST_F(DeviceManagerTest, CountsNothingAsBeforeUntilTheFirstRequest) {
  manager();
  source->attachCamera("/a");
  source->attachCamera("/b");
  source->announce(DeviceKind::kVideo, true);
  EXPECT_EQ(takeEvents(), "+/a");
}

TEST_F(DeviceManagerTest, NamesDevicesFromTheHostsFile) {
  const test::TemporaryFolder folder;
  NSBundle::mainBundle().setResourceFolder(folder.path());
  const auto nameOf = [&](uint16_t productID) {
    return VeskDeviceManager::getDeviceFriendlyName(productID, "the library's");
  };
  EXPECT_EQ(nameOf(2048), "the library's") << "no file";
  const auto plist = [](const std::string& body) {
    return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)" + body + "</plist>";
  };
  folder.write("DeviceNames.plist", plist("<array><string>no dictionary</string></array>"));
  test::LogRecorder log;
  EXPECT_EQ(nameOf(2048), "the library's");
  EXPECT_EQ(nameOf(2049), "the library's");
  EXPECT_EQ(log.items().size(), 1U) << "said once";
  EXPECT_EQ(log.count("DeviceNames.plist: its value is no dictionary"), 1U) << log.items().at(0);
  folder.write("DeviceNames.plist", "\xEF\xBB\xBF" + plist("<dict><key>2048</key><string>Tür</string></dict>"));
  EXPECT_EQ(nameOf(2048), "Tür");
  folder.write("DeviceNames.plist", "<plist");
  EXPECT_EQ(nameOf(2048), "the library's");
  EXPECT_EQ(log.items().size(), 2U) << "another reason";
  folder.write("DeviceNames.plist", plist("<dict><key>2048</key><string>Schreibtisch é</string>"
                                          "<key>02049</key><string>leading zero</string>"
                                          "<key>2050</key><integer>5</integer></dict>"));
  EXPECT_EQ(nameOf(2048), "Schreibtisch é");
  EXPECT_EQ(nameOf(2049), "the library's");
  EXPECT_EQ(nameOf(2050), "the library's");

  source->attachCamera("/cam", 2048);
  source->attachMicrophone("/mic", 2048);
  EXPECT_EQ(manager()->getVideoDeviceList()->at(0)->name(), "Schreibtisch é");
  EXPECT_EQ(manager()->getAudioDeviceList()->at(0)->name(), "Schreibtisch é");
  NSBundle::mainBundle().setResourceFolder("");
}

TEST_F(DeviceManagerTest, StartsAndStopsWatching) {
  EXPECT_FALSE(source->isWatched());
  const auto first = manager();
  EXPECT_EQ(manager(), first);
  EXPECT_TRUE(source->isWatched());
  VeskDeviceManager::destroy();
  VeskDeviceManager::destroy();
  EXPECT_FALSE(source->isWatched());
  EXPECT_NE(manager(), first);
  EXPECT_TRUE(source->isWatched());
}

TEST_F(DeviceManagerTest, IsMadeOnceByManyThreads) {
  for (int round = 0; round < 20; ++round) {
    std::vector<std::shared_ptr<VeskDeviceManager>> made(4);
    std::vector<std::thread> threads;
    threads.reserve(made.size());
    for (auto& each : made) threads.emplace_back([&each] { each = VeskDeviceManager::getSharedInstance(); });
    for (auto& thread : threads) thread.join();
    for (const auto& each : made) EXPECT_EQ(each, made[0]);
    VeskDeviceManager::destroy();
  }
}

TEST_F(DeviceManagerTest, ListsMayBeReadWhileEventsReplaceThem) {
  source->attachCamera("/a");
  manager();
  // The first list is filled before anything changes: one filled between a change and its event would
  // hold the change already, and the event nothing to tell.
  EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U);
  const auto read = [] {
    const auto list = manager()->getVideoDeviceList();
    for (const auto& info : *list) EXPECT_TRUE(info->path());
  };
  const test::Meanwhile readers(read, 2);
  for (int i = 0; i < 100; ++i) {
    source->attachCamera("/b");
    source->announce(DeviceKind::kVideo, true);
    source->detach("/b");
    source->announce(DeviceKind::kVideo, false);
  }
  EXPECT_EQ(events.size(), 200U);
}

TEST_F(DeviceManagerTest, AListInHandIsGivenWhileAnEventEnumerates) {
  source->attachCamera("/a");
  EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U);
  std::promise<void> enumerating;
  std::promise<void> mayGoOn;
  std::atomic<bool> hasWaited = false;
  source->whileEnumerating = [&] {
    if (hasWaited.exchange(true)) return;
    enumerating.set_value();
    mayGoOn.get_future().wait();
  };
  source->attachCamera("/b");
  std::thread event([&] { source->announce(DeviceKind::kVideo, true); });
  enumerating.get_future().wait();
  EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U);
  mayGoOn.set_value();
  event.join();
  EXPECT_EQ(manager()->getVideoDeviceList()->size(), 2U);
}

TEST_F(DeviceManagerTest, AListMayBeWalkedAsItIsAnsweredWhileEventsReplaceIt) {
  static_assert(std::is_same_v<decltype(*std::declval<VeskDeviceListPtr>()), VeskDeviceList>);
  static_assert(std::is_same_v<decltype(*std::declval<VeskDeviceListPtr&>()), const VeskDeviceList&>);
  source->attachCamera("/a");
  source->attachCamera("/b");
  std::string walked;
  for (const auto& camera : *VeskVideoDevice::getVideoDeviceList()) {  // NOLINT: a copy, which is what is tested
    source->announce(DeviceKind::kVideo, true);  // replaces the list, and nobody else holds the one walked
    walked += camera->path().value_or("");
  }
  EXPECT_EQ(walked, "/a/b");
}

TEST_F(DeviceManagerTest, StoppingWaitsForAnEventWhoseHandlerAsksForTheManager) {
  source->attachCamera("/a");
  manager();
  std::promise<void> entered;
  std::promise<void> destroying;
  std::atomic<bool> left = false;
  const auto observer = NSNotificationCenter::defaultCenter().addObserver(KVXDeviceAdded, [&](const NSNotification&) {
    entered.set_value();
    destroying.get_future().wait();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U);
    left = true;
  });
  std::thread event([&] { source->announce(DeviceKind::kVideo, true); });
  entered.get_future().wait();
  destroying.set_value();
  VeskDeviceManager::destroy();
  EXPECT_TRUE(left);
  event.join();
}

TEST_F(DeviceManagerTest, MayBeStoppedByAHandler) {
  source->attachCamera("/a");
  manager();
  const auto observer = NSNotificationCenter::defaultCenter().addObserver(
      KVXDeviceAdded, [](const NSNotification&) { VeskDeviceManager::destroy(); });
  source->announce(DeviceKind::kVideo, true);
  EXPECT_EQ(takeEvents(), "+/a");
  EXPECT_FALSE(source->isWatched());
  EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U);
}

/// What a handler may do to the manager while another thread starts it anew, which waits for the handler.
TEST_F(DeviceManagerTest, MayBeStartedAnewByAHandlerAndByAnotherThreadAtOnce) {
  const struct {
    const char* label;
    std::function<void()> act;
    bool isLeftRunning;
  } rows[] = {
      {"asks for it", [] { EXPECT_NE(manager(), nullptr); }, true},
      {"asks for its list", [] { EXPECT_EQ(manager()->getVideoDeviceList()->size(), 1U); }, true},
      {"stops it again", [] { VeskDeviceManager::destroy(); }, false},
  };
  source->attachCamera("/a");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    source->whenWatched = nullptr;
    manager();
    std::promise<void> starting;
    std::thread other;
    const auto observer = NSNotificationCenter::defaultCenter().addObserver(KVXDeviceAdded, [&](const NSNotification&) {
      VeskDeviceManager::destroy();
      source->whenWatched = [&] { starting.set_value(); };
      other = std::thread([] { manager(); });
      starting.get_future().wait();
      row.act();
    });
    source->announce(DeviceKind::kVideo, true);
    EXPECT_EQ(takeEvents(), "+/a");
    other.join();
    EXPECT_EQ(source->isWatched(), row.isLeftRunning);
    VeskDeviceManager::destroy();
    EXPECT_FALSE(source->isWatched());
  }
}

}  // namespace
}  // namespace vesk
