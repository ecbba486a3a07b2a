#include <vesk/resolution_info.h>

#include <gtest/gtest.h>

#include "tests/support/temporary_folder.h"

namespace vesk {
namespace {

const std::string kCatalogue = VESK_TEST_DATA "/../tests/unit/catalogue/resolutions.xml";

std::string resolution(const std::string& frameRate, int width, int height, const std::string& interpolated) {
  return "<Resolution>" + frameRate + "<SelectedWidth>" + std::to_string(width) + "</SelectedWidth><SelectedHeight>" +
         std::to_string(height) + "</SelectedHeight><Interpolated>" + interpolated + "</Interpolated></Resolution>";
}

/// The number of entries; 77, which no catalogue here has, without a list.
uint32_t countOf(const SMResolutionInfo& info) {
  uint32_t count = 77;
  const int16_t status = info.getResolutionCount(&count);
  EXPECT_EQ(status, count == 77 ? -1 : 0);
  return count;
}

TEST(ResolutionInfo, AnswersFromALargeCatalogue) {
  const auto info = SMResolutionInfo::initWithFilepath(kCatalogue, 0x7B27);
  EXPECT_EQ(info->productID(), 0x7B27U);
  EXPECT_EQ(countOf(*info), 13U);
  EXPECT_TRUE(info->isCodecSupported("dmb1"));
  EXPECT_FALSE(info->isCodecSupported("avc1"));
  EXPECT_TRUE(info->isResolutionPresent("dmb1", 1920, 1080, 1));
  EXPECT_FALSE(info->isResolutionPresent("dmb1", 1920, 1080, 0));
  EXPECT_FALSE(info->isResolutionPresent("dmb1", 1920, 1080, 2));  // neither 0 nor 1
  EXPECT_FALSE(info->isResolutionPresent("2vuy", 1920, 1080, 1));
  EXPECT_TRUE(info->isResolutionPresent("2vuy", 1280, 720, 0));

  const auto entry = info->getResolutionArrayAtIndex(6);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->find("SelectedWidth")->int32Value(), 640);
  EXPECT_EQ(*entry->retrieveForPath("FrameRate.FMT")->text(), "dmb1");
  EXPECT_EQ(info->getResolutionArrayAtIndex(13), nullptr);
}

TEST(ResolutionInfo, SwitchesToAnotherProductThatIsThere) {
  const auto info = SMResolutionInfo::initWithFilepath(kCatalogue, 0x7B00);
  const auto first = info->getResolutionArrayAtIndex(0);
  const auto found = info->findResolution(0x7B12, 1280, 720, 0);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->find("SelectedHeight")->int32Value(), 720);
  EXPECT_EQ(countOf(*info), 15U);
  EXPECT_EQ(info->findResolution(0x7B12, 1280, 720, 1), nullptr);

  // Not there: the number changes, the list stays.
  EXPECT_EQ(info->findResolution(0x0001, 1280, 720, 0), nullptr);
  EXPECT_EQ(info->productID(), 0x0001U);
  EXPECT_EQ(countOf(*info), 15U);
  EXPECT_EQ(info->parsePlist(0x0001), nullptr);
  info->setProductID(0x7B00);
  EXPECT_EQ(countOf(*info), 15U);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->find("SelectedWidth")->int32Value(), 160);  // outlives the list it came from
}

TEST(ResolutionInfo, HasNoListWithoutTheFileOrTheProduct) {
  const test::TemporaryFolder folder;
  const std::string empty = folder.write("empty.xml", "");
  const std::string damaged = folder.write("damaged.xml", "<Resolutions><Camera PID='1'>");
  const std::string other = folder.write("other.xml", "<List><Camera PID='1'/><Camera PID='1'/></List>");
  for (const std::string& path :
       {folder.file("missing.xml"), folder.path(), empty, damaged, other, "file://" + kCatalogue}) {
    const auto info = SMResolutionInfo::initWithFilepath(path, 1);
    EXPECT_EQ(countOf(*info), 77U) << path;
    EXPECT_EQ(info->getResolutionArrayAtIndex(0), nullptr);
    EXPECT_FALSE(info->isCodecSupported(""));
    EXPECT_FALSE(info->isResolutionPresent("", 0, 0, 0));
    EXPECT_EQ(info->findResolution(1, 0, 0, 0), nullptr);
  }
}

TEST(ResolutionInfo, TakesOneCameraOrOneResolutionForAListOfOne) {
  const test::TemporaryFolder folder;
  const auto path = folder.write("one.xml", "<Resolutions><Camera PID='7'>" +
                                                resolution("<FrameRate FMT='F1'>30</FrameRate>", 640, 480, "yes") +
                                                "</Camera></Resolutions>");
  const auto info = SMResolutionInfo::initWithFilepath(path, 7);
  EXPECT_EQ(countOf(*info), 1U);
  EXPECT_TRUE(info->isResolutionPresent("F1", 640, 480, 1));
  EXPECT_FALSE(info->isResolutionPresent("F2", 640, 480, 1));
  EXPECT_EQ(info->getResolutionArrayAtIndex(1), nullptr);
}

TEST(ResolutionInfo, LetsEntriesWithoutACodecFitAny) {
  const test::TemporaryFolder folder;
  const std::string twice = "<FrameRate FMT='F1'>30</FrameRate><FrameRate FMT='F2'>15</FrameRate>";
  const auto path = folder.write(
      "odd.xml", "<Resolutions><Camera>text</Camera><Camera><Resolution>0</Resolution></Camera><Camera PID='7'>" +
                     resolution(twice, 640, 480, "0") + resolution("<FrameRate>30</FrameRate>", 320, 240, "1") +
                     "<Resolution>text</Resolution></Camera></Resolutions>");
  const auto info = SMResolutionInfo::initWithFilepath(path, 7);
  EXPECT_EQ(countOf(*info), 3U);
  EXPECT_FALSE(info->isCodecSupported("F1"));
  EXPECT_TRUE(info->isResolutionPresent("F1", 640, 480, 0));
  EXPECT_TRUE(info->isResolutionPresent("any", 320, 240, 1));
  EXPECT_EQ(info->getResolutionArrayAtIndex(2), nullptr);                             // no entry, though it is counted
  EXPECT_EQ(SMResolutionInfo::initWithFilepath(path, 0)->parsePlist(0)->size(), 1U);  // a camera without PID is 0
}

}  // namespace
}  // namespace vesk
