#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <vesk/video_device.h>
#include "devices/property_record.h"
#include "tests/support/device_test.h"

// What each operation sends, and what it makes of the answer, against tables written by hand.

namespace vesk {
namespace {

using test::DeviceTest;
using test::FakeDevice;
using test::PropertyCall;
using Bytes = std::vector<uint8_t>;

// The property sets as they go over the wire.
const std::map<std::string, std::string> kSets = {{"eeacd05b1930487f80eaa91a94b64f51", "camera"},
                                                  {"b4a4d54f45fd48908cc83b4d807eb23a", "image"},
                                                  {"ffe52d2180304e2c82d9f587d00540bd", "motion"},
                                                  {"49e40215f43447feb1580e885023e51b", "mirror"},
                                                  {"f754499608194ec2997eaa41887964ea", "suntrim"}};

std::string hex(std::span<const uint8_t> bytes) {
  std::ostringstream text;
  text << std::hex;
  for (const uint8_t byte : bytes) text << (byte < 16 ? "0" : "") << int{byte};
  return text.str();
}

/// A call as text: "get 2 image 2 0000" (request, set, number, buffer) or "set image 2 3412".
std::string wire(const PropertyCall& call) {
  const auto set = kSets.find(hex(call.set));
  return (call.isWrite ? "set " : "get " + std::to_string(call.request) + " ") +
         (set == kSets.end() ? hex(call.set) : set->second) + " " + std::to_string(call.number) + " " + hex(call.value);
}

std::string wire(const FakeDevice& camera) {
  std::string text;
  for (const PropertyCall& call : camera.propertyCalls()) text += (text.empty() ? "" : "; ") + wire(call);
  return text;
}

template <class Number>
std::string told(const std::optional<Number>& number) {
  return number ? std::to_string(*number) : "none";
}
std::string told(bool answer) {
  return answer ? "true" : "false";
}
std::string told(const std::optional<bool>& answer) {
  return answer ? told(*answer) : "none";
}
std::string told(uint8_t byte) {
  return std::to_string(byte);
}

/// A camera that answers every read with the same bytes (or status), and takes every write.
struct OneCamera : DeviceTest {
  std::shared_ptr<FakeDevice> attach(Bytes bytes, int32_t status = 0, uint16_t product = 0x1001) {
    auto camera = source->attachCamera("/dev/c", product);
    camera->answerProperty = [bytes, status](const PropertyCall& call, std::span<uint8_t> value) {
      if (call.isWrite) return 0;
      std::copy_n(bytes.begin(), std::min(bytes.size(), value.size()), value.begin());
      return status;
    };
    camera->propertyItems = {{capture::kMirrorSet, {12, 13}}, {capture::kImageControlSet, {}}};
    device = VeskVideoDevice::initWithDeviceInfo(infoOf("/dev/c"));
    EXPECT_EQ(device->openDevice(), 0);
    return camera;
  }
  std::shared_ptr<VeskVideoDevice> device;
};

using Get = std::string (*)(VeskVideoDevice&);
using Set = void (*)(VeskVideoDevice&);

struct NumericRow {
  const char* name;
  Get minimum, maximum, current, initial;
  Set set;               ///< to a number whose bytes all differ
  const char* property;  ///< set and number
  Bytes answer;
  const char* number;  ///< what the getters make of the answer
  const char* sent;    ///< what the setter puts on the wire, the reads it makes for it included
};

#define VESK_ROW(Name, Default, argument, ...)                                                             \
  NumericRow {                                                                                             \
#Name, [](VeskVideoDevice& d) { return told(d.get##Name##Min()); },                                      \
        [](VeskVideoDevice& d) { return told(d.get##Name##Max()); },                                         \
        [](VeskVideoDevice& d) { return told(d.get##Name##Cur()); },                                         \
        [](VeskVideoDevice& d) { return told(d.get##Name##Default()); },                                     \
        [](VeskVideoDevice& d) { d.set##Name##Cur(argument); }, __VA_ARGS__ \
  }

const NumericRow kNumericRows[] = {
    VESK_ROW(Pan, Def, -2, "camera 13 8", Bytes{0xFE, 0xFF, 0xFF, 0xFF, 4, 3, 2, 1}, "-2",
             "get 0 camera 13 0000000000000000; set camera 13 feffffff04030201"),
    VESK_ROW(Tilt, Def, -3, "camera 13 8", Bytes{4, 3, 2, 1, 0xFE, 0xFF, 0xFF, 0xFF}, "-2",
             "get 0 camera 13 0000000000000000; set camera 13 04030201fdffffff"),
    VESK_ROW(PanRel, Def, -2, "motion 1 4", Bytes{0x34, 0xF2, 1, 2}, "-3532", "set motion 1 feff0000"),
    VESK_ROW(TiltRel, Def, 0x12345, "motion 1 4", Bytes{1, 2, 0x34, 0xF2}, "-3532", "set motion 1 00004523"),
    VESK_ROW(Zoom, Def, 40000, "camera 11 4", Bytes{1, 2, 3, 0x84}, "-2080177663", "set camera 11 409cffff"),
    VESK_ROW(ZoomRel, Def, -2, "camera 12 4", Bytes{1, 2, 3, 4}, "67305985", "set camera 12 feffffff"),
    VESK_ROW(Brightness, Default, 0x12345, "image 2 2", Bytes{0xFE, 0xFF}, "-2", "set image 2 4523"),
    VESK_ROW(Contrast, Default, 0x1234, "image 3 2", Bytes{0xFE, 0xFF}, "65534", "set image 3 3412"),
    VESK_ROW(Exposure, Default, 0xFEDCBA98, "camera 4 4", Bytes{1, 2, 3, 0xF4}, "4093837825", "set camera 4 98badcfe"),
    VESK_ROW(Saturation, Default, 0x1234, "image 7 2", Bytes{0xFE, 0xFF}, "65534", "set image 7 3412"),
    VESK_ROW(Hue, Default, -300, "image 6 2", Bytes{0xFE, 0xFF}, "-2", "set image 6 d4fe"),
    VESK_ROW(Sharpness, Default, 0x1234, "image 8 2", Bytes{0xFE, 0xFF}, "65534", "set image 8 3412"),
    VESK_ROW(Focus, Default, 0x1234, "camera 6 2", Bytes{0xFE, 0xFF}, "65534", "set camera 6 3412"),
    VESK_ROW(WhiteBal, Default, 0x1234, "image 10 2", Bytes{0xFE, 0xFF}, "65534", "set image 10 3412"),
};
#undef VESK_ROW

class NumericControl : public OneCamera, public testing::WithParamInterface<NumericRow> {};

TEST_P(NumericControl, GoesOverTheWireAsItsRowSays) {
  const NumericRow& row = GetParam();
  const auto camera = attach(row.answer);
  std::istringstream property(row.property);
  std::string set, number;
  size_t size = 0;
  property >> set >> number >> size;

  std::string expected;
  const std::pair<Get, const char*> getters[] = {
      {row.minimum, "2"}, {row.maximum, "3"}, {row.current, "0"}, {row.initial, "1"}};
  for (const auto& [get, request] : getters) {
    EXPECT_EQ(get(*device), row.number);
    std::ostringstream call;
    call << (expected.empty() ? "get " : "; get ") << request << ' ' << set << ' ' << number << ' '
         << std::string(size * 2, '0');
    expected += call.str();
  }
  row.set(*device);
  EXPECT_EQ(wire(*camera), expected + "; " + row.sent);
}

TEST_P(NumericControl, IsNoneWhenTheLibraryFails) {
  const auto camera = attach(GetParam().answer, 1);
  for (const Get get : {GetParam().minimum, GetParam().maximum, GetParam().current, GetParam().initial})
    EXPECT_EQ(get(*device), "none");
  device->closeDevice();
  EXPECT_EQ(GetParam().current(*device), "none");
}

INSTANTIATE_TEST_SUITE_P(All, NumericControl, testing::ValuesIn(kNumericRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct OperationRow {
  const char* name;
  std::function<std::string(VeskVideoDevice&)> run;
  Bytes answer;
  int32_t status;
  const char* expected;  ///< what it answers
  const char* sent;
};

#define VESK_GET(call) [](VeskVideoDevice& d) { return told(d.call()); }
#define VESK_SET(call)       \
  [](VeskVideoDevice& d) {   \
    d.call;                  \
    return std::string("-"); \
  }

const OperationRow kOperationRows[] = {
    {"AutoExposureByAperture", VESK_GET(isAutoExposureSet), {8}, 0, "true", "get 0 camera 2 00"},
    {"AutoExposureFully", VESK_GET(isAutoExposureSet), {2}, 0, "false", "get 0 camera 2 00"},
    {"AutoExposureUnread", VESK_GET(isAutoExposureSet), {8}, 1, "false", "get 0 camera 2 00"},
    {"AutoExposureOn", VESK_SET(setAutoExposure(1)), {}, 0, "-", "set camera 2 08"},
    {"AutoExposureOff", VESK_SET(setAutoExposure(0)), {}, 0, "-", "set camera 2 01; set camera 3 00"},
    {"AutoExposureOdd", VESK_SET(setAutoExposure(2)), {}, 0, "-", "set camera 2 01"},
    {"SunTrim", VESK_GET(isSunTrimSet), {2}, 0, "true", "get 0 suntrim 6 00"},
    {"SunTrimUnread", VESK_GET(isSunTrimSet), {1}, 14, "false", "get 0 suntrim 6 00"},
    {"SunTrimOn", VESK_SET(setSunTrim(true)), {}, 0, "-", "set suntrim 6 01"},
    {"SunTrimOff", VESK_SET(setSunTrim(false)), {}, 0, "-", "set suntrim 6 00"},
    {"AutoHue", VESK_GET(isAutoHueSet), {1}, 0, "true", "get 0 image 16 00"},
    {"AutoHueOdd", VESK_GET(isAutoHueSet), {2}, 0, "false", "get 0 image 16 00"},
    {"AutoHueUnread", VESK_GET(isAutoHueSet), {1}, 1, "false", "get 0 image 16 00"},
    {"AutoHueDefault", VESK_GET(getAutoHueDefault), {1}, 0, "true", "get 1 image 16 00"},
    {"AutoHueOn", VESK_SET(setAutoHue(true)), {}, 0, "-", "set image 16 01"},
    {"AutoFocus", VESK_GET(isAutoFocusSet), {1}, 0, "true", "get 0 camera 8 00"},
    {"AutoFocusUnread", VESK_GET(isAutoFocusSet), {1}, 1, "none", "get 0 camera 8 00"},
    {"AutoFocusDefault", VESK_GET(getAutoFocusDefault), {3}, 0, "3", "get 1 camera 8 00"},
    {"AutoFocusDefaultUnread", VESK_GET(getAutoFocusDefault), {3}, 1, "0", "get 1 camera 8 00"},
    {"AutoFocusOn", VESK_SET(setAutoFocusCur(-7)), {}, 0, "-", "set camera 8 01"},
    {"AutoFocusOff", VESK_SET(setAutoFocusCur(0)), {}, 0, "-", "set camera 8 00"},
    {"AutoWhiteBalance", VESK_GET(isAutoWhiteBalanceSet), {3}, 0, "3", "get 0 image 11 00"},
    {"AutoWhiteBalanceUnread", VESK_GET(isAutoWhiteBalanceSet), {3}, 1, "none", "get 0 image 11 00"},
    {"AutoWhiteBalanceDefault", VESK_GET(getAutoWhiteBalanceDefault), {1}, 0, "1", "get 1 image 11 00"},
    {"AutoWhiteBalanceByte", VESK_SET(setWhiteBalAuto(5)), {}, 0, "-", "set image 11 05"},
    {"AntiFlickerSupported", VESK_GET(isAntiFlickerSupported), {}, 0, "true", "get 0 image 5 00"},
    {"AntiFlickerFailing", VESK_GET(isAntiFlickerSupported), {}, 1, "true", "get 0 image 5 00"},
    {"AntiFlickerUnsupported", VESK_GET(isAntiFlickerSupported), {}, 14, "false", "get 0 image 5 00"},
    {"AntiFlicker", VESK_GET(getAntiFlickerCur), {2}, 0, "2", "get 0 image 5 00"},
    {"AntiFlickerDefaultUnread", VESK_GET(getAntiFlickerDefault), {2}, 1, "0", "get 1 image 5 00"},
    {"AntiFlickerByte", VESK_SET(setAntiFlickerCur(0x102)), {}, 0, "-", "set image 5 02"},
    {"Mirror", VESK_GET(getMirrorCur), {1}, 0, "1", "get 0 mirror 13 00"},
    {"MirrorDefault", VESK_GET(getMirrorDef), {1}, 0, "1", "get 1 mirror 13 00"},
    {"MirrorUnread", VESK_GET(getMirrorCur), {1}, 1, "0", "get 0 mirror 13 00"},
    {"MirrorByte", VESK_SET(setMirrorCur(0x1FF)), {}, 0, "-", "set mirror 13 ff"},
    // The other half of a position that cannot be read is 0.
    {"PanAlone",
     VESK_SET(setPanCur(1)),
     {9, 9, 9, 9, 9, 9, 9, 9},
     1,
     "-",
     "get 0 camera 13 0000000000000000; set camera 13 0100000000000000"},
    {"TiltAlone",
     VESK_SET(setTiltCur(1)),
     {9, 9, 9, 9, 9, 9, 9, 9},
     1,
     "-",
     "get 0 camera 13 0000000000000000; set camera 13 0000000001000000"},
};
#undef VESK_GET
#undef VESK_SET

TEST_F(OneCamera, DoesWithModesAndBytesAsTheTableSays) {
  for (const OperationRow& row : kOperationRows) {
    const auto camera = attach(row.answer, row.status);
    EXPECT_EQ(row.run(*device), row.expected) << row.name;
    EXPECT_EQ(wire(*camera), row.sent) << row.name;
    device->closeDevice();
    source->detach("/dev/c");
  }
}

TEST_F(OneCamera, KnowsTheZoomOfSomeProducts) {
  const std::pair<uint16_t, const char*> products[] = {
      {0x7A01, "300"}, {0x7A02, "319"}, {0x7A03, "3"}, {0x7A04, "3"}, {0x7A05, "none"}};
  for (const auto& [product, maximum] : products) {
    auto record = std::make_shared<VeskDeviceInfo>();
    record->setProductID(product);
    EXPECT_EQ(told(VeskVideoDevice::initWithDeviceInfo(record)->getZoomMax()), maximum) << product;
  }
  attach({200, 0, 0, 0}, 0, 0x7A04);
  EXPECT_EQ(device->getZoomMax(), 3);
  EXPECT_EQ(device->getZoomCur(), 200);
}

TEST_F(OneCamera, AsksForSetsAndTheirItems) {
  const auto camera = attach({1});
  EXPECT_TRUE(device->isPropertySupported(capture::kMirrorSet));
  EXPECT_FALSE(device->isPropertySupported(capture::kSunTrimSet));
  EXPECT_TRUE(device->isPropertyItemSupported(capture::kMirrorSet, 13));
  EXPECT_FALSE(device->isPropertyItemSupported(capture::kMirrorSet, 14));
  EXPECT_FALSE(device->isPropertyItemSupported(capture::kImageControlSet, 2));  // a set without items
  EXPECT_TRUE(device->isMirrorSupported());

  camera->propertyItems.clear();
  EXPECT_FALSE(device->isPropertySupported(capture::kMirrorSet));
  EXPECT_EQ(device->getMirrorCur(), std::nullopt);
  EXPECT_EQ(device->getMirrorDef(), std::nullopt);
  EXPECT_TRUE(camera->propertyCalls().empty());
  device->setMirrorCur(1);  // sent whether the camera has it or not
  EXPECT_EQ(wire(*camera), "set mirror 13 01");
  device->closeDevice();
  EXPECT_FALSE(device->isPropertySupported(capture::kMirrorSet));
}

TEST(PropertyRecord, IsTheIdentifierAndTwo) {
  EXPECT_EQ(test::hexOf(propertySetRecord(capture::kCameraControlSet)), "eeacd05b1930487f80eaa91a94b64f5102000000");
  EXPECT_EQ(test::hexOf(propertySetRecord(capture::kDeviceInformationSet)), "69678ee4410f40dba8507420d7d8240e02000000");
  EXPECT_EQ(test::hexOf(propertySetRecord(capture::kAlternateInformationSet)),
            "63610682507049abb8ccb3855e8d221e02000000");
}

TEST_F(OneCamera, TellsWhetherAWriteWasTaken) {
  const auto camera = attach({8});
  camera->answerProperty = [](const PropertyCall& call, std::span<uint8_t>) { return call.isWrite ? 2 : 14; };
  EXPECT_EQ(device->writeControl(*cameraControlNamed("brightness"), 7), 2);
  EXPECT_EQ(device->writeControl(*cameraControlNamed("autoExposure"), 1), 2);
  EXPECT_EQ(cameraControlNamed("loudness"), nullptr);
}

TEST_F(OneCamera, RefusesARowWhoseNumberDoesNotLieInItsValue) {
  const auto camera = attach({8});
  for (const auto& [name, size] : {std::pair{"brightness", 9U}, {"brightness", 1U}, {"brightness", 0U}, {"pan", 7U}}) {
    CameraControl row = *cameraControlNamed(name);
    row.size = size;
    EXPECT_EQ(device->readControl(row, ControlRequest::kCurrent), std::nullopt) << name << size;
    EXPECT_EQ(device->writeControl(row, 1), 2) << name << size;
    EXPECT_EQ(device->lastError().cause, Cause::kWrongUse);
  }
  EXPECT_TRUE(camera->propertyCalls().empty());
}

}  // namespace
}  // namespace vesk
