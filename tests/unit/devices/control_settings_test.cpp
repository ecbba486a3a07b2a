#include <vesk/control_settings.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include <vesk/camera_controls.h>
#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

TEST(ControlSettings, AreReadAsTheyWereWritten) {
  const test::TemporaryFolder folder;
  const ControlSettings settings{
      "Kamera \"Ä\" & <Co>", "usb:1/2", 0x1234, 0xFFFF, {{"brightness", -64}, {"exposure", 4'000'000'000}}};
  for (const char* name : {"desk.json", "desk.plist", "desk"}) {
    ASSERT_FALSE(saveControlSettings(folder.file(name), settings)) << name;
    const ControlSettings read = loadControlSettings(folder.file(name)).value_or(ControlSettings());
    EXPECT_EQ(read.cameraName, settings.cameraName) << name;
    EXPECT_EQ(read.cameraPath, settings.cameraPath) << name;
    EXPECT_EQ(read.vendorID, settings.vendorID) << name;
    EXPECT_EQ(read.productID, settings.productID) << name;
    EXPECT_EQ(read.values, settings.values) << name;
  }
  EXPECT_EQ(test::contentOf(folder.file("desk.plist")).substr(0, 5), "<?xml");
  EXPECT_TRUE(saveControlSettings(folder.file("none/desk.json"), settings));
}

TEST(ControlSettings, OtherFilesAreRefused) {
  const test::TemporaryFolder folder;
  Error why;
  for (const char* content :
       {"", "{}", "[1]", "text", "{\"controls\": 5}", "{\"controls\": {\"zoom\": \"far\"}, \"camera\": {}}", "<plist>",
        "{\"controls\": {\"zoom\": 1e99}, \"camera\": {}}"}) {
    EXPECT_FALSE(loadControlSettings(folder.write("file", content), &why)) << content;
    EXPECT_EQ(why.cause, Cause::kUnreadable) << content;
  }
  for (const char* name : {"none", "."}) {
    EXPECT_FALSE(loadControlSettings(folder.file(name), &why)) << name;
    EXPECT_NE(why.what.find("cannot be read: "), std::string::npos) << why.what;
  }
}

std::string quoted(std::string_view name) {
  return "`" + std::string(name) + "`";
}

TEST(ControlPage, HasTheTableOfControls) {
  std::vector<std::string> expected;
  for (const CameraControl& control : cameraControls()) {
    const std::string ruledBy = control.automatic ? quoted(cameraControl(*control.automatic).name) : "";
    expected.push_back("| " + quoted(control.name) + " | " + std::string(control.unit) + " | " + ruledBy + " | " +
                       std::string(control.meaning) + " |");
  }
  std::ifstream page(VESK_TEST_DATA "/../docs/controls.md");
  std::vector<std::string> rows;
  for (std::string line; std::getline(page, line);)
    if (line.rfind("| `", 0) == 0) rows.push_back(line);
  EXPECT_EQ(rows, expected);
}

}  // namespace
}  // namespace vesk
