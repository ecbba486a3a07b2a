#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include <vesk/camera_controls.h>

namespace vesk {
namespace {

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
