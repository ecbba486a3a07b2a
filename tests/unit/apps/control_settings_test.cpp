#include "apps/vesk/control_settings.h"

#include <gtest/gtest.h>

#include "apps/vesk/program.h"
#include "tests/support/temporary_folder.h"

namespace vesk::program {
namespace {

TEST(ControlSettings, AreReadAsTheyWereWritten) {
  const test::TemporaryFolder folder;
  const ControlSettings settings{
      "Kamera \"Ä\" & <Co>", "usb:1/2", 0x1234, 0xFFFF, {{"brightness", -64}, {"exposure", 4'000'000'000}}};
  for (const char* name : {"desk.json", "desk.plist", "desk"}) {
    saveSettings(folder.file(name), settings);
    const ControlSettings read = loadSettings(folder.file(name));
    EXPECT_EQ(read.cameraName, settings.cameraName) << name;
    EXPECT_EQ(read.cameraPath, settings.cameraPath) << name;
    EXPECT_EQ(read.vendorID, settings.vendorID) << name;
    EXPECT_EQ(read.productID, settings.productID) << name;
    EXPECT_EQ(read.values, settings.values) << name;
  }
  EXPECT_EQ(test::contentOf(folder.file("desk.plist")).substr(0, 5), "<?xml");
  EXPECT_THROW(saveSettings(folder.file("none/desk.json"), settings), Failure);
}

TEST(ControlSettings, OtherFilesAreRefused) {
  const test::TemporaryFolder folder;
  for (const char* content :
       {"", "{}", "[1]", "text", "{\"controls\": 5}", "{\"controls\": {\"zoom\": \"far\"}, \"camera\": {}}", "<plist>",
        "{\"controls\": {\"zoom\": 1e99}, \"camera\": {}}"})
    EXPECT_THROW(loadSettings(folder.write("file", content)), Failure) << content;
  EXPECT_THROW(loadSettings(folder.file("none")), Failure);
}

}  // namespace
}  // namespace vesk::program
