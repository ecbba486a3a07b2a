#include "capture/source_selection.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include <vesk/aci.h>
#include <vesk/capture_host.h>
#include <vesk/vci.h>
#include "capture/linux/linux_source.h"
#include "capture/simulated/simulated_source.h"
#include "capture/sources/combined_source.h"
#include "tests/support/captured_lines.h"

namespace vesk::capture {
namespace {

using Names = std::vector<std::string>;

TEST(SourceText, SplitsAtPlusButNotInsideAPath) {
  EXPECT_EQ(splitSourceText("simulated"), Names({"simulated"}));
  EXPECT_EQ(splitSourceText("simulated+linux"), Names({"simulated", "linux"}));
  EXPECT_EQ(splitSourceText("file:/a+b.mov"), Names({"file:/a+b.mov"}));
  EXPECT_EQ(splitSourceText("file:/a+b.mov+simulated"), Names({"file:/a+b.mov", "simulated"}));
  EXPECT_EQ(splitSourceText("file:/a+file:/b+simulated.mov"), Names({"file:/a", "file:/b+simulated.mov"}));
  EXPECT_EQ(splitSourceText("simulated+nonsense"), Names({"simulated", "nonsense"}));
  EXPECT_EQ(splitSourceText("simulated+"), Names({"simulated", ""}));
}

/// Starts from no source, and catches what the library says on standard error.
class SelectionTest : public testing::Test {
 protected:
  void SetUp() override { setSource(nullptr); }
  void TearDown() override {
    unsetenv("VESK_CAPTURE");
    setSource(nullptr);
  }

  static uint32_t cameras() {
    uint32_t count = 77;
    VCI_Enum_Devices(nullptr, nullptr, &count);
    return count;
  }
  /// What VCI_Init and ACI_Init find with this in the environment.
  uint32_t camerasWith(const char* text) {
    setSource(nullptr);
    text ? setenv("VESK_CAPTURE", text, 1) : unsetenv("VESK_CAPTURE");
    VCI_Init();
    ACI_Init();
    const uint32_t count = cameras();
    VCI_Cleanup();
    ACI_Cleanup();
    return count;
  }

  test::CapturedLines mSaid{test::CapturedLines::Stream::kError};
};

TEST_F(SelectionTest, SaysWhatIsWrongAndKeepsTheSourceThatIsThere) {
  EXPECT_FALSE(selectSource("simulated", {}));
  const auto before = currentSource();
  ASSERT_NE(before, nullptr);
  for (const char* text :
       {"", "nonsense", "simulated+", "file:", "file:/no/such/footage.mov", "simulated:x", "Simulated"}) {
    EXPECT_TRUE(selectSource(text, {})) << text;
    EXPECT_EQ(currentSource(), before) << text;
  }
}

TEST_F(SelectionTest, FollowsTheEnvironmentWhenNothingWasChosen) {
  EXPECT_EQ(camerasWith("simulated"), 2u);
  EXPECT_EQ(mSaid.text(), "");
  EXPECT_EQ(camerasWith("simulated+simulated"), 4u);
  EXPECT_EQ(camerasWith("nonsense"), 0u);
  const std::string line = mSaid.text();
  EXPECT_NE(line.find("\"nonsense\""), std::string::npos);
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << "once for both halves";
}

TEST_F(SelectionTest, TakesTheMachineUnaskedWhateverItHas) {
  for (const char* unasked : {static_cast<const char*>(nullptr), ""}) {
    camerasWith(unasked);
    EXPECT_NE(std::dynamic_pointer_cast<LinuxSource>(currentSource()), nullptr);
    EXPECT_EQ(mSaid.text(), "");
  }
  EXPECT_TRUE(selectSource("auto", {}));
}

TEST_F(SelectionTest, DoesNotLookAtTheEnvironmentWhenTheHostHasChosen) {
  setenv("VESK_CAPTURE", "nonsense", 1);
  ASSERT_FALSE(selectSource("simulated", {}));
  EXPECT_EQ(VCI_Init(), 0);
  EXPECT_EQ(cameras(), 2u);
  VCI_Cleanup();
  EXPECT_EQ(mSaid.text(), "");
}

TEST(CombinedSource, ListsAndWatchesAllAndOpensTheFirstOfEqualPaths) {
  const auto first = std::make_shared<SimulatedSource>(), second = std::make_shared<SimulatedSource>();
  CombinedSource both({first, second});
  EXPECT_EQ(both.devices(DeviceKind::kVideo).size(), 4u);
  second->plugIn({DeviceKind::kVideo, "extra", "Extra", 1, 2, 3});
  second->waitForHotplug();
  EXPECT_NE(both.open(DeviceKind::kVideo, "extra"), nullptr);
  EXPECT_EQ(both.open(DeviceKind::kAudio, "extra"), nullptr);
  first->setFaults(SimulatedSource::kCameraPath, {.openFails = true});
  EXPECT_EQ(both.open(DeviceKind::kVideo, SimulatedSource::kCameraPath), nullptr);

  std::atomic<int> told = 0;
  both.setHotplugHandler([&](DeviceKind, bool) { ++told; });
  first->unplug(SimulatedSource::kCameraPath);
  second->unplug("extra");
  first->waitForHotplug();
  second->waitForHotplug();
  EXPECT_EQ(told, 2);
  both.setHotplugHandler({});
}

}  // namespace
}  // namespace vesk::capture
