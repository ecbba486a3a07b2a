#include "apps/vesk/recording_report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <vesk/four_char_code.h>
#include "tests/support/temporary_folder.h"

namespace vesk::program {
namespace {

TEST(RecordingReport, ErrorsHaveTheirStatusAndTheProgramsOwnRemedy) {
  VeskDeviceInfo camera;
  VeskDeviceInfo microphone;
  microphone.setDeviceType(kVeskDeviceTypeAudio);
  struct Row {
    Cause cause;
    const VeskDeviceInfo* device;
    int status;
    const char* words;
  };
  for (const Row& row :
       {Row{Cause::kNoDevice, nullptr, 3, "vesk devices"}, Row{Cause::kWrongUse, nullptr, 2, ""},
        Row{Cause::kBusy, nullptr, 4, ""}, Row{Cause::kFileExists, nullptr, 1, "--force"},
        Row{Cause::kNoPermission, nullptr, 1, ""}, Row{Cause::kNoPermission, &camera, 4, "vesk doctor"},
        Row{Cause::kBusy, &microphone, 4, "--no-audio"}, Row{Cause::kNoFormat, &camera, 1, "vesk formats"},
        Row{Cause::kUnplugged, &camera, 1, ""}, Row{Cause::kDiskFull, nullptr, 1, ""}}) {
    const Failure failure = failureOf(Error{row.cause, "what", "Do it."}, row.device);
    EXPECT_EQ(failure.status, row.status) << causeName(row.cause);
    EXPECT_STREQ(failure.what(), "what.");
    EXPECT_EQ(failure.hint.substr(0, 6), "Do it.");
    EXPECT_NE(failure.hint.find(row.words), std::string::npos) << failure.hint;
    EXPECT_EQ(failure.cause, row.cause);
  }
}

TEST(RecordingReport, MoviesThatAreNotWholeSayWhatBecameOfThem) {
  RecordedMovie movie;
  movie.error = {Cause::kDiskFull, "the disk is full", "Make room."};
  movie.statistics.status = -199;
  EXPECT_EQ(failureOf(movie, "a.mov").hint, "Make room. Nothing was recorded before that.");
  movie.file = "left.mov";
  EXPECT_EQ(failureOf(movie, "a.mov").hint, "Make room. What was recorded until then is at \"left.mov\".");
  RecordedMovie unplaced;
  unplaced.isLeft = true;
  unplaced.error = {Cause::kFolderGone, "it could not be placed", "Attach the disk."};
  EXPECT_EQ(failureOf(unplaced, "a.mov").hint, "Attach the disk. \"vesk recover a.mov\" finishes it.");
  unplaced.file = ".a.mov.recording-AAAAAA/a.mov";
  unplaced.error = {Cause::kFileExists, "it could not be placed", "Move it."};
  EXPECT_EQ(failureOf(unplaced, "a.mov").hint, "Move it.") << "and not --force, which is for the beginning";
}

TEST(RecordingReport, AMovieIsToldInWordsAndAsADocument) {
  const test::TemporaryFolder folder;
  RecordedMovie movie;
  movie.file = folder.write("a.mov", std::string(1'234'000, 'x'));
  movie.statistics = {.videoFrames = 60,
                      .videoDropped = 2,
                      .videoWidth = 640,
                      .videoHeight = 480,
                      .audioPackets = 94,
                      .audioSilence = 3,
                      .duration = 2'004'000};
  movie.videoFormat = CMVideoFormatDescription::create(kCMVideoCodecType_H264, 1280, 720);
  EXPECT_EQ(summaryOf(movie), movie.file + ": 2.00 s, 1.2 MB, h264 640x480, 60 pictures, 2 DROPPED, no sound");
  EXPECT_TRUE(documentOf(movie)["sound"].is_null());
  movie.soundFormat =
      CMAudioFormatDescription::create({.mSampleRate = 48000, .mFormatID = 0x636D, .mChannelsPerFrame = 1});
  movie.isSilent = true;
  EXPECT_NE(summaryOf(movie).find("sound pcm 48000 Hz 1 channel, NOTHING ABOVE -60 dB, 3 packets of silence"),
            std::string::npos);
  const auto document = documentOf(movie);
  EXPECT_EQ(document["bytes"], 1'234'000);
  EXPECT_EQ(document["video"].dump(), R"({"codec":"avc1","width":640,"height":480,"frames":60,"dropped":2})");
  EXPECT_EQ(document["sound"].dump(), R"({"codec":"pcm","sampleRate":48000,"channels":1,"packets":94,"silence":3})");
}

TEST(RecordingReport, NumbersReadWell) {
  EXPECT_EQ(humanTime(3'725'900'000), "1:02:05");
  EXPECT_EQ(humanSize(999'400), "999 kB");
  EXPECT_EQ(humanSize(2'500'000'000), "2.50 GB");
  EXPECT_EQ(timeLeftOnDisk(754.9), "0:12:34 left on disk");
  EXPECT_EQ(timeLeftOnDisk(1e9), "weeks left on disk");
  EXPECT_EQ(levelBar(-30, 10), "[#####     ] -30.0 dB");
  EXPECT_EQ(levelBar(-INFINITY, 4), "[    ] silence");
  const test::TemporaryFolder folder;
  folder.write("a.mov", "");
  folder.write("a-2.mov", "");
  EXPECT_EQ(freeName(folder.file("a"), ".mov"), folder.file("a-3"));
}

}  // namespace
}  // namespace vesk::program
