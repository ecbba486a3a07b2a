#include <gtest/gtest.h>

#include <atomic>
#include <span>
#include <string>
#include <thread>

#include <vesk/aci.h>
#include <vesk/capture_host.h>
#include <vesk/vci.h>
#include "capture/interface/open_device.h"
#include "capture/interface/wide_text.h"
#include "tests/support/fake_capture_source.h"
#include "tests/support/recorder.h"

namespace vesk::capture {
namespace {

using test::FakeCaptureSource;
using test::FakeDevice;
using test::Gate;
using test::Recorder;

VCIPixelFormat pixelFormat(const char* code) {
  VCIPixelFormat format = {};
  for (int i = 0; i < 4; ++i) format.code[i] = static_cast<char16_t>(code[i]);
  return format;
}

VCICaptureParameters parameters(const char* code, int32_t width, int32_t height) {
  VCICaptureParameters record = {};
  record.isH264 = std::string(code) == "avc1";
  record.format = pixelFormat(code);
  record.width = width;
  record.height = height;
  record.intervalNumerator = 333333;
  record.intervalDenominator = 10000000;
  return record;
}

/// The interface over a source with one camera and one microphone, both open.
class InterfaceTest : public testing::Test {
 protected:
  void SetUp() override {
    source = FakeCaptureSource::install();
    camera = source->attachCamera("camera");
    microphone = source->attachMicrophone("microphone");
    ASSERT_EQ(VCI_Init(), 0);
    ASSERT_EQ(ACI_Init(), 0);
    video = VCI_Open_Device(u"camera");
    audio = ACI_Open_Device(u"microphone");
    ASSERT_TRUE(video && audio);
  }
  void TearDown() override {
    VCI_Cleanup();
    ACI_Cleanup();
    setSource(nullptr);
  }

  /// Begins to capture, and does `act` for each of the camera's frames.
  void capture(std::function<void()> act) {
    whenCalled = std::move(act);
    const auto callback = [](void*, VCI_EVENT_INFO* info) { static_cast<InterfaceTest*>(info->context)->whenCalled(); };
    EXPECT_EQ(VCI_Subscribe_Event(video, kVCIEventFrame, callback, this), 0);
    EXPECT_EQ(VCI_Start_Capture(video, 0), 0);
  }
  /// Delivers on a thread of its own, as a source does.
  std::thread deliver(int64_t timestamp) {
    return std::thread([device = camera, timestamp] {
      uint8_t bytes[] = {1, 2, 3};
      device->deliver(bytes, timestamp);
    });
  }

  std::shared_ptr<FakeCaptureSource> source;
  std::shared_ptr<FakeDevice> camera, microphone;
  VCI_HANDLE video = nullptr;
  ACI_HANDLE audio = nullptr;
  std::function<void()> whenCalled;
};

/// An enumeration of records, which come in two calls: of the count, and of the records.
struct Enumeration {
  const char* label;
  std::function<int32_t(void* to, uint32_t* count)> enumerate;
  size_t recordSize;
  uint32_t expected;
};
/// `call(to, count)` fills records of the type.
template <class Record, class Call>
Enumeration enumeration(const char* label, uint32_t expected, const Call& call) {
  return {label, [call](void* to, uint32_t* count) { return call(static_cast<Record*>(to), count); }, sizeof(Record),
          expected};
}

TEST_F(InterfaceTest, EnumeratesInTwoCalls) {
  const auto avc1 = pixelFormat("avc1");
  const VCIFrameSize small = {640, 480};
  const Enumeration rows[] = {
      enumeration<CaptureDeviceRecord>("cameras", 1,
                                       [](auto* to, auto* n) { return VCI_Enum_Devices(to, nullptr, n); }),
      enumeration<CaptureDeviceRecord>("microphones", 1,
                                       [](auto* to, auto* n) { return ACI_Enum_Devices(to, nullptr, n); }),
      enumeration<VCIPixelFormat>("pixel formats", 2,
                                  [&](auto* to, auto* n) { return VCI_Enum_Pixel_Formats(video, to, nullptr, n); }),
      enumeration<VCIFrameSize>("frame sizes", 2,
                                [&](auto* to, auto* n) { return VCI_Enum_Frame_Sizes(video, &avc1, to, nullptr, n); }),
      enumeration<VCIFrameInterval>(
          "intervals", 2,
          [&](auto* to, auto* n) { return VCI_Enum_Frame_Intervals(video, &avc1, &small, to, nullptr, n); }),
      enumeration<VCIPropertySet>("property sets", 0,
                                  [&](auto* to, auto* n) { return VCI_Enum_Property_Sets(video, to, nullptr, n); }),
      enumeration<ACIWaveFormat>("wave formats", 2,
                                 [&](auto* to, auto* n) { return ACI_Enum_Wave_Formats(audio, to, nullptr, n); }),
  };
  for (const Enumeration& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(row.enumerate(nullptr, nullptr), kVCIInvalidArgument);
    uint32_t count = 0;
    EXPECT_EQ(row.enumerate(nullptr, &count), row.expected > 0 ? kVCIMoreData : kVCISuccess);
    EXPECT_EQ(count, row.expected);
    // Each array is exactly as long as it is said to be: an address sanitizer sees more.
    for (const uint32_t given : {0u, 1u, 2u, 1000u}) {
      std::vector<uint8_t> records(row.recordSize * given);
      count = given;
      EXPECT_EQ(row.enumerate(records.data() ? records.data() : reinterpret_cast<uint8_t*>(&count), &count), 0);
      EXPECT_EQ(count, std::min(given, row.expected));
    }
  }
}

TEST_F(InterfaceTest, CutsLongTextsBeforeACharacterThatDoesNotFitAndOpensByTheCutPath) {
  const std::string path(1022, 'p');  // then a character of two units at the last place
  source->attachCamera(path + "\xF0\x9F\x8E\xA5" + "tail");
  uint32_t count = 2;
  CaptureDeviceRecord records[2];
  ASSERT_EQ(VCI_Enum_Devices(records, nullptr, &count), 0);
  EXPECT_EQ(std::u16string(records[1].path), std::u16string(1022, u'p'));
  const VCI_HANDLE handle = VCI_Open_Device(records[1].path);
  EXPECT_NE(handle, nullptr);
  EXPECT_EQ(VCI_Close_Device(handle), 0);
}

TEST(WideText, ReplacesWhatIsNoUtf8) {
  const struct {
    const char* label;
    std::string text;
    std::u16string expected;
  } rows[] = {
      {"plain", "caf\xC3\xA9", u"caf\u00E9"},
      {"two units", "\xF0\x9F\x8E\xA5", u"\U0001F3A5"},
      {"lone continuation", "a\x80z", u"a\uFFFDz"},
      {"cut off", "a\xE2\x82", u"a\uFFFD\uFFFD"},
      {"overlong", "\xC0\xAF", u"\uFFFD\uFFFD"},
      {"surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"beyond the last", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
  };
  for (const auto& row : rows) EXPECT_EQ(toUtf16(row.text), row.expected) << row.label;
}

TEST_F(InterfaceTest, TellsPathsApartThatAreNotUtf8AndOpensThem) {
  const std::string raw[] = {"desk\xE8", "desk\xE9", "half\xED\xA0\x80"};
  std::vector<std::shared_ptr<FakeDevice>> cameras;
  for (const std::string& path : raw) cameras.push_back(source->attachCamera(path));
  uint32_t count = 4;
  CaptureDeviceRecord records[4];
  ASSERT_EQ(VCI_Enum_Devices(records, nullptr, &count), 0);
  ASSERT_EQ(count, 4u);
  for (size_t i = 0; i < cameras.size(); ++i) {
    EXPECT_EQ(recordPath(raw[i]), records[i + 1].path);
    EXPECT_NE(VCI_Open_Device(records[i + 1].path), nullptr);
    EXPECT_EQ(cameras[i]->opened, 1) << i;
  }
  EXPECT_EQ(shownPath(raw[1]), "desk\uFFFD");
  EXPECT_EQ(shownPath(std::string(1022, 'p') + "\U0001F3A5"), std::string(1022, 'p'));
}

TEST_F(InterfaceTest, RefusesBadArguments) {
  const auto avc1 = pixelFormat("avc1"), unknown = pixelFormat("none");
  const VCIFrameSize size = {640, 480}, oddSize = {641, 480};
  const auto good = parameters("avc1", 640, 480);
  const auto callback = [](void*, VCI_EVENT_INFO*) {};
  const auto audioCallback = [](void*, ACI_EVENT_INFO*) {};
  const VCIPropertySet set = {};
  const uint32_t property = 2;
  uint32_t count = 0, value = 0, valueSize = 4;
  uint8_t mute = 0;
  const auto changed = [&](auto change) {
    auto record = good;
    change(record);
    return VCI_Set_Capture_Parameters(video, &record);
  };
  char16_t endless[1024];
  std::fill(std::begin(endless), std::end(endless), u'a');

  EXPECT_EQ(VCI_Open_Device(nullptr), nullptr);
  EXPECT_EQ(VCI_Open_Device(endless), nullptr);
  EXPECT_EQ(VCI_Open_Device(u""), nullptr);
  EXPECT_EQ(VCI_Open_Device(u"microphone"), nullptr);
  EXPECT_EQ(ACI_Open_Device(u"camera"), nullptr);
  camera->refusesToOpen = true;
  EXPECT_EQ(VCI_Open_Device(u"camera"), nullptr);

  const struct {
    const char* label;
    int32_t answer;
    int32_t expected;
  } rows[] = {
      {"sizes of no format", VCI_Enum_Frame_Sizes(video, nullptr, nullptr, nullptr, &count), kVCIInvalidArgument},
      {"sizes of an unknown format", VCI_Enum_Frame_Sizes(video, &unknown, nullptr, nullptr, &count),
       kVCIInvalidArgument},
      {"intervals of no size", VCI_Enum_Frame_Intervals(video, &avc1, nullptr, nullptr, nullptr, &count),
       kVCIInvalidArgument},
      {"intervals of an unknown size", VCI_Enum_Frame_Intervals(video, &avc1, &oddSize, nullptr, nullptr, &count),
       kVCIInvalidArgument},
      {"no callback", VCI_Subscribe_Event(video, kVCIEventFrame, nullptr, nullptr), kVCIInvalidArgument},
      {"frames of no device", VCI_Subscribe_Event(nullptr, kVCIEventFrame, callback, nullptr), kVCIInvalidArgument},
      {"arrivals of a device", VCI_Subscribe_Event(video, kVCIEventDeviceArrived, callback, nullptr),
       kVCIInvalidArgument},
      {"sound events of a camera", ACI_Subscribe_Event(video, kACIEventPacket, audioCallback, nullptr),
       kVCIInvalidHandle},
      {"camera events for microphones", ACI_Subscribe_Event(nullptr, kVCIEventDeviceArrived, audioCallback, nullptr),
       kVCIInvalidArgument},
      {"no parameters", VCI_Set_Capture_Parameters(video, nullptr), kVCIInvalidArgument},
      {"good parameters", VCI_Set_Capture_Parameters(video, &good), kVCISuccess},
      {"no width", changed([](auto& record) { record.width = 0; }), kVCIInvalidArgument},
      {"negative height", changed([](auto& record) { record.height = -480; }), kVCIInvalidArgument},
      {"huge width", changed([](auto& record) { record.width = INT32_MAX; }), kVCIInvalidArgument},
      {"no interval", changed([](auto& record) { record.intervalDenominator = 0; }), kVCIInvalidArgument},
      {"not H.264", changed([](auto& record) { record.isH264 = 0; }), kVCIInvalidArgument},
      {"a code of other letters", changed([](auto& record) { record.format.code[2] = 0x4E00; }), kVCIInvalidArgument},
      {"a short code", changed([](auto& record) { record.format.code[3] = 0; }), kVCIInvalidArgument},
      {"property of no set", VCI_Get_Property(video, 0, nullptr, &property, &value, &valueSize, 0, 0),
       kVCIInvalidArgument},
      {"no property", VCI_Get_Property(video, 0, &set, nullptr, &value, &valueSize, 0, 0), kVCIInvalidArgument},
      {"no value", VCI_Get_Property(video, 0, &set, &property, nullptr, &valueSize, 0, 0), kVCIInvalidArgument},
      {"no value size", VCI_Set_Property(video, &set, &property, &value, nullptr, 0, 0), kVCIInvalidArgument},
      {"unknown request", VCI_Get_Property(video, 4, &set, &property, &value, &valueSize, 0, 0), kVCIInvalidArgument},
      {"a property it lacks", VCI_Get_Property(video, 0, &set, &property, &value, &valueSize, 0, 0),
       kVCIPropertyNotSupported},
      {"setting one it lacks", VCI_Set_Property(video, &set, &property, &value, &valueSize, 0, 0),
       kVCIPropertyNotSupported},
      {"items of no set", VCI_Enum_Property_Items(video, nullptr, nullptr, nullptr, &count), kVCIInvalidArgument},
      {"no sound parameters", ACI_Set_Capture_Parameters(audio, nullptr), kVCIInvalidArgument},
      {"mute into nothing", ACI_Get_Mic_Mute(audio, nullptr), kVCIInvalidArgument},
      {"volume into nothing", ACI_Get_Mic_Volume(audio, nullptr), kVCIInvalidArgument},
      {"a camera's mute", ACI_Get_Mic_Mute(video, &mute), kVCIInvalidHandle},
      {"starting a microphone as a camera", VCI_Start_Capture(audio, 0), kVCIInvalidHandle},
      {"starting a camera as a microphone", ACI_Start_Capture(video), kVCIInvalidHandle},
      {"an address as a handle", VCI_Close_Device(&count), kVCIInvalidHandle},
      {"closing nothing", VCI_Close_Device(nullptr), kVCIInvalidHandle},
      {"intervals of a size", VCI_Enum_Frame_Intervals(video, &avc1, &size, nullptr, nullptr, &count), kVCIMoreData},
  };
  for (const auto& row : rows) EXPECT_EQ(row.answer, row.expected) << row.label;

  camera->parametersStatus = 5;
  EXPECT_EQ(VCI_Set_Capture_Parameters(video, &good), 5) << "what the source answers is passed on";
}

TEST_F(InterfaceTest, RefusesStaleHandlesAndNeverGivesOneTwice) {
  for (int i = 0; i < 100; ++i) {
    const VCI_HANDLE next = VCI_Open_Device(u"camera");
    EXPECT_NE(next, video);
    EXPECT_EQ(VCI_Close_Device(next), 0);
    EXPECT_EQ(VCI_Close_Device(next), kVCIInvalidHandle);
    EXPECT_EQ(VCI_Start_Capture(next, 0), kVCIInvalidHandle);
    EXPECT_EQ(VCI_UnSubscribe_Event(next, kVCIEventFrame), kVCIInvalidHandle);
  }
  EXPECT_EQ(VCI_Close_Device(audio), 0) << "closes microphones as well";
  EXPECT_EQ(microphone->closed, 1);
  EXPECT_EQ(ACI_Start_Capture(audio), kVCIInvalidHandle);
}

TEST_F(InterfaceTest, PassesFramesToTheSubscriberWithItsContext) {
  struct Seen {
    VCI_EVENT_INFO info;
    uint8_t first;
  };
  Recorder<Seen> seen;
  const auto callback = [](void* unused, VCI_EVENT_INFO* info) {
    EXPECT_EQ(unused, nullptr);
    auto* const bytes = static_cast<uint8_t*>(info->frame);
    static_cast<Recorder<Seen>*>(info->context)->add({*info, bytes[0]});
    bytes[0] = 99;  // allowed
  };
  ASSERT_EQ(VCI_Subscribe_Event(video, kVCIEventFrame, callback, &seen), 0);
  deliver(1).join();
  EXPECT_TRUE(seen.items().empty()) << "before the start";
  ASSERT_EQ(VCI_Start_Capture(video, 1), 0);
  EXPECT_EQ(VCI_Start_Capture(video, 1), 0) << "a second start changes nothing";
  deliver(12345).join();
  Recorder<Seen> second;
  ASSERT_EQ(VCI_Subscribe_Event(video, kVCIEventFrame, callback, &second), 0);
  deliver(2).join();
  ASSERT_EQ(VCI_Stop_Capture(video, 1), 0);
  deliver(3).join();

  ASSERT_EQ(seen.items().size(), 1u);
  EXPECT_EQ(second.items().size(), 1u);
  const Seen frame = seen.items().front();
  EXPECT_EQ(frame.info.event, uint32_t{kVCIEventFrame});
  EXPECT_EQ(frame.info.length, 3u);
  EXPECT_EQ(int64_t{frame.info.timestamp}, 12345);  // a copy: the field is not aligned
  EXPECT_EQ(frame.first, 1);
  EXPECT_EQ(camera->started, 1);
  EXPECT_EQ(camera->substreams.front(), 1u);
}

TEST_F(InterfaceTest, PassesOnWhatStartsAndStopsAnswer) {
  camera->startStatus = kVCIBusy;
  EXPECT_EQ(VCI_Start_Capture(video, 0), kVCIBusy);
  camera->startStatus = 0;
  EXPECT_EQ(VCI_Start_Capture(video, 0), 0);
  camera->stopStatus = 4;
  EXPECT_EQ(VCI_Stop_Capture(video, 0), 4);
  camera->stopStatus = 0;
  EXPECT_EQ(VCI_Stop_Capture(video, 0), 0) << "a failed stop can be tried again";
  EXPECT_EQ(camera->stopped, 2);
}

/// The ways in which a host ends its callbacks.
struct Ending {
  const char* label;
  std::function<void(VCI_HANDLE)> end;
};

const Ending kEndings[] = {
    {"unsubscribe", [](VCI_HANDLE handle) { VCI_UnSubscribe_Event(handle, kVCIEventFrame); }},
    {"stop", [](VCI_HANDLE handle) { VCI_Stop_Capture(handle, 0); }},
    {"close", [](VCI_HANDLE handle) { VCI_Close_Device(handle); }},
    {"clean up", [](VCI_HANDLE) { VCI_Cleanup(); }},
    {"subscribe another",
     [](VCI_HANDLE handle) {
       VCI_Subscribe_Event(
           handle, kVCIEventFrame, [](void*, VCI_EVENT_INFO*) {}, nullptr);
     }},
};

class EndingTest : public InterfaceTest, public testing::WithParamInterface<size_t> {
 protected:
  /// Ends the callbacks while one is held up on another thread, and expects that to take until it has returned.
  void expectToWait(bool stopsItself, bool isClosedElsewhere) {
    Gate inside, goOn;
    std::atomic<bool> hasReturned = false;
    std::atomic<int> calls = 0;
    capture([&] {
      ++calls;
      if (stopsItself) VCI_Stop_Capture(video, 0);
      inside.open();
      goOn.wait();
      hasReturned = true;
    });
    std::thread delivery = deliver(1);
    inside.wait();
    std::thread closer([&] {
      if (isClosedElsewhere) VCI_Close_Device(video);
    });
    while (isClosedElsewhere && camera->stopped == 0) std::this_thread::yield();
    std::thread opener([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));  // may show a fault, never makes one
      goOn.open();
    });
    kEndings[GetParam()].end(video);
    EXPECT_TRUE(hasReturned);
    for (std::thread* thread : {&opener, &closer, &delivery}) thread->join();
    deliver(2).join();
    EXPECT_EQ(calls, 1);
  }
};

TEST_P(EndingTest, WaitsForTheCallbackOnAnotherThread) {
  expectToWait(false, false);
}
TEST_P(EndingTest, WaitsForTheCallbackThatHasStoppedTheDeviceItself) {
  expectToWait(true, false);
}
TEST_P(EndingTest, WaitsWhileAnotherThreadClosesTheDevice) {
  expectToWait(false, true);
}

TEST_P(EndingTest, DoesNotWaitForTheCallbackThatItComesFrom) {
  std::atomic<int> calls = 0;
  capture([&] {
    ++calls;
    kEndings[GetParam()].end(video);
    kEndings[GetParam()].end(video);
  });
  deliver(1).join();
  deliver(2).join();
  EXPECT_EQ(calls, 1);
}

// The callback ends what another thread is ending at the same moment, and asks the device.
TEST_P(EndingTest, CanMeetItself) {
  Gate inside;
  capture([&] {
    inside.open();
    for (int i = 0; i < 20; ++i) {
      uint32_t count = 0;
      VCI_Enum_Pixel_Formats(video, nullptr, nullptr, &count);
      std::this_thread::yield();
    }
    kEndings[GetParam()].end(video);
  });
  std::thread delivery = deliver(1);
  inside.wait();
  kEndings[GetParam()].end(video);
  delivery.join();
}

std::string endingName(const testing::TestParamInfo<size_t>& ending) {
  std::string name = kEndings[ending.param].label;
  std::erase(name, ' ');
  return name;
}
INSTANTIATE_TEST_SUITE_P(All, EndingTest, testing::Range(size_t{0}, std::size(kEndings)), endingName);

TEST_F(InterfaceTest, KeepsADeviceThatItsOwnCallbackClosesUntilTheCallbackHasReturned) {
  capture([&] {
    VCI_Close_Device(video);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // may show a fault, never makes one
    EXPECT_EQ(camera->closed, 0);
  });
  deliver(1).join();
  VCI_Cleanup();
  EXPECT_EQ(camera->closed, 1);
}

TEST_F(InterfaceTest, AnswersForPropertiesAndFormatsWhileTheDeviceIsSlowToStart) {
  Gate videoStarts, audioStarts, goOn;
  camera->whileStarting = [&] {
    videoStarts.open();
    goOn.wait();
  };
  microphone->whileStarting = [&] {
    audioStarts.open();
    goOn.wait();
  };
  std::vector<uint8_t> written;
  camera->answerProperty = [&](const test::PropertyCall& call, std::span<uint8_t>) {
    if (call.isWrite) written = call.value;
    return 0;
  };
  std::thread videoStart([&] { EXPECT_EQ(VCI_Start_Capture(video, 0), 0); });
  std::thread audioStart([&] { EXPECT_EQ(ACI_Start_Capture(audio), 0); });
  videoStarts.wait();
  audioStarts.wait();
  const VCIPropertySet set = {};
  const uint32_t property = 14;
  const uint8_t stop[] = {0, 0, 0, 0};
  uint32_t size = sizeof(stop), count = 0;
  EXPECT_EQ(VCI_Set_Property(video, &set, &property, stop, &size, 0, 0), 0);
  EXPECT_EQ(written, std::vector<uint8_t>(4));
  EXPECT_EQ(VCI_Enum_Pixel_Formats(video, nullptr, nullptr, &count), kVCIMoreData);
  EXPECT_EQ(ACI_Set_Mic_Volume(audio, 7), 0);
  goOn.open();
  videoStart.join();
  audioStart.join();
  EXPECT_TRUE(camera->isCapturing() && microphone->isCapturing());
}

/// It waits for that callback itself.
TEST(OpenDevice, IsStoppedFromInsideACallbackWhileAStartFails) {
  struct Hasty : CaptureDevice {
    int32_t start(uint32_t, FrameCallback callback) override {
      frames = std::thread(std::move(callback), nullptr, 0, 0);
      delivers.wait();
      return kVCIFailed;
    }
    int32_t stop(uint32_t) override { return kVCISuccess; }
    ~Hasty() override { frames.join(); }
    Gate delivers;
    std::thread frames;
  };
  auto hasty = std::make_unique<Hasty>();
  Gate& delivers = hasty->delivers;
  OpenDevice device(DeviceKind::kVideo, "hasty", nullptr, std::move(hasty));
  device.frames().set([&](const Event&) {
    delivers.open();
    device.stop();
  });
  EXPECT_EQ(device.start(0), kVCIFailed);
}

TEST_F(InterfaceTest, SubscribesAnewWhileACallbackThatEndedItselfIsStillRunning) {
  Gate hasEnded, goOn;
  capture([&] {
    VCI_UnSubscribe_Event(video, kVCIEventFrame);
    hasEnded.open();
    goOn.wait();
  });
  std::thread delivery = deliver(1);
  hasEnded.wait();
  Recorder<int64_t> next;
  const auto record = [](void*, VCI_EVENT_INFO* info) {
    static_cast<Recorder<int64_t>*>(info->context)->add(info->timestamp);
  };
  EXPECT_EQ(VCI_Subscribe_Event(video, kVCIEventFrame, record, &next), 0) << "the host of the first may wait for this";
  deliver(2).join();
  EXPECT_EQ(next.items(), std::vector<int64_t>{2});
  goOn.open();
  delivery.join();
}

TEST_F(InterfaceTest, TellsLibraryWideSubscribersOfArrivalsAndDepartures) {
  using Events = Recorder<uint32_t>;
  Events events;
  const auto videoEvent = [](void*, VCI_EVENT_INFO* info) { static_cast<Events*>(info->context)->add(info->event); };
  const auto audioEvent = [](void*, ACI_EVENT_INFO* info) { static_cast<Events*>(info->context)->add(info->event); };
  for (const uint32_t event : {kVCIEventDeviceLeft, kVCIEventDeviceArrived}) {
    EXPECT_EQ(VCI_Subscribe_Event(nullptr, event, videoEvent, &events), 0);
  }
  for (const uint32_t event : {kACIEventDeviceLeft, kACIEventDeviceArrived}) {
    EXPECT_EQ(ACI_Subscribe_Event(nullptr, event, audioEvent, &events), 0);
  }
  source->announce(DeviceKind::kVideo, true);
  source->announce(DeviceKind::kVideo, false);
  source->announce(DeviceKind::kAudio, true);
  source->announce(DeviceKind::kAudio, false);
  EXPECT_EQ(events.items(), (std::vector<uint32_t>{7, 8, 72, 73}));
  VCI_UnSubscribe_Event(nullptr, kVCIEventDeviceArrived);
  source->announce(DeviceKind::kVideo, true);
  EXPECT_EQ(events.items().size(), 4u);
}

TEST_F(InterfaceTest, LivesUntilTheLastUserCleansUp) {
  VCI_Init();
  VCI_Cleanup();
  EXPECT_EQ(VCI_Start_Capture(video, 0), 0);
  EXPECT_TRUE(source->isWatched());
  VCI_Cleanup();
  EXPECT_EQ(camera->stopped, 1);
  EXPECT_EQ(camera->closed, 1);
  EXPECT_EQ(VCI_Start_Capture(video, 0), kVCIInvalidHandle);
  EXPECT_TRUE(source->isWatched()) << "by the sound half";
  EXPECT_EQ(ACI_Start_Capture(audio), 0);
  ACI_Cleanup();
  EXPECT_FALSE(source->isWatched());
  ACI_Cleanup();  // one too many
  EXPECT_EQ(VCI_Init(), 0);
  EXPECT_TRUE(source->isWatched());
}

TEST_F(InterfaceTest, LetsNothingThrownOut) {
  class ThrowingSource : public CaptureSource {
    void setHotplugHandler(HotplugHandler) override { throw std::runtime_error("no watch"); }
    std::vector<DeviceDescription> devices(DeviceKind) override { throw 1; }
    std::unique_ptr<CaptureDevice> open(DeviceKind, const std::string&) override { throw 1; }
  };
  setSource(std::make_shared<ThrowingSource>());
  uint32_t count = 0;
  EXPECT_EQ(VCI_Enum_Devices(nullptr, nullptr, &count), kVCIFailed);
  EXPECT_EQ(VCI_Open_Device(u"camera"), nullptr);
  VCI_Subscribe_Event(
      video, kVCIEventFrame, [](void*, VCI_EVENT_INFO*) { throw 1; }, nullptr);
  VCI_Start_Capture(video, 0);
  deliver(1).join();

  // What a source throws whose devices come and go ends the watch of that one only.
  class Thrower : public FakeCaptureSource {
    void setHotplugHandler(HotplugHandler) override { throw 1; }
  };
  setSource(std::make_shared<Thrower>());
  setSource(source);
  EXPECT_TRUE(source->isWatched());
}

}  // namespace
}  // namespace vesk::capture
