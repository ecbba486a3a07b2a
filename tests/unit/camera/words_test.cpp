#include <gtest/gtest.h>
#include <libintl.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>

#include <vesk/four_char_code.h>
#include "apps/camera/finding_words.h"
#include "apps/camera/text.h"

// What the library reports, in the words of the desktop program and in each of its languages.

namespace vesk::camera {
namespace {

using Kind = Finding::Kind;

/// Reads the translations that were built along.
class WordsTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string language = GetParam();
    const std::string locales = VESK_TEST_LOCALES;
    if (language != "en" && !std::filesystem::exists(locales + "/" + language + "/LC_MESSAGES/vesk-camera.mo"))
      GTEST_SKIP() << "the desktop program is not built here";
    std::setlocale(LC_MESSAGES, "C.UTF-8");
    setenv("LANGUAGE", language.c_str(), 1);
    bindtextdomain("vesk-camera", locales.c_str());
    bind_textdomain_codeset("vesk-camera", "UTF-8");
    textdomain("vesk-camera");
  }
  ~WordsTest() override {
    unsetenv("LANGUAGE");
    std::setlocale(LC_MESSAGES, "C");
    textdomain("messages");
  }
  static bool isEnglish() { return std::string(GetParam()) == "en"; }
};

bool has(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

TEST_P(WordsTest, EveryFindingHasWordsWithItsDetails) {
  Finding finding;
  finding.text = "the library's line";
  finding.remedy = "The library's remedy.";
  EXPECT_EQ(wordsOf(finding).text, "The library's line") << "of a kind without words";
  EXPECT_EQ(wordsOf(finding).remedy, finding.remedy);
  finding.details = {.device = "Desk {} Camera",
                     .others = {"Other"},
                     .files = {"/dev/video0", "/dev/video2"},
                     .users = {{42, "viewer"}, {43, ""}},
                     .group = "video",
                     .user = "ann",
                     .formats = {{kCMVideoCodecType_MotionJPEG, 1920, 1080}},
                     .number = 12};
  std::string all;
  for (int kind = 1; kind <= static_cast<int>(Kind::kFolderNotWritable); ++kind) {
    finding.kind = static_cast<Kind>(kind);
    const FindingWords words = wordsOf(finding);
    EXPECT_FALSE(words.text.empty() || has(words.text, "library")) << kind;
    EXPECT_FALSE(has(words.remedy, "library")) << kind;
    all += words.text + " " + words.remedy + "\n";
  }
  for (const char* detail : {"Desk {} Camera", "Other", "/dev/video0, /dev/video2", "(viewer, 43)", "-aG video ann",
                             "1920 × 1080", "12 Mbit/s"})
    EXPECT_TRUE(has(all, detail)) << detail << "\n" << all;
  EXPECT_EQ(has(all, "camera"), isEnglish()) << all;
  EXPECT_EQ(has(all, "Kamera"), !isEnglish()) << all;
}

TEST_P(WordsTest, AnErrorIsAboutItsSubjectAndNamesWhoUsesIt) {
  const Error busy{Cause::kBusy,
                   "the camera \"Desk\" could not be opened: another program (viewer, pid 42) is using it",
                   "Close that program.",
                   "Desk",
                   {{42, "viewer"}}};
  EXPECT_EQ(sentences(busy),
            isEnglish() ? "The camera \"Desk\" could not be opened: another program (viewer, pid 42) is using it. "
                          "Close that program."
                        : "„Desk“: Ein anderes Programm benutzt das Gerät (viewer). Schließen Sie dieses Programm.");
  const Error full{Cause::kDiskFull, "the disk of \"/films/a.mov\" is full", "Make room.", "/films/a.mov"};
  EXPECT_TRUE(has(sentences(full), isEnglish() ? "/films/a.mov" : "„a.mov“: Die Platte ist voll.")) << sentences(full);
  EXPECT_EQ(sentences({}), "");
}

INSTANTIATE_TEST_SUITE_P(Languages, WordsTest, testing::Values("en", "de"));

}  // namespace
}  // namespace vesk::camera
