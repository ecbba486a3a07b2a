// A camera that changes its parameter sets while it is recorded.

#include <gtest/gtest.h>

#include <vesk/four_char_code.h>
#include <vesk/movie_creator.h>
#include "tests/support/captured_lines.h"
#include "tests/support/h264_stream.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/movie/movie_reader.h"

namespace vesk {
namespace {

using test::AccessUnit;
using test::Bytes;

constexpr auto kAudio = VeskMovieCreator::VeskMediaTypeAudio;
constexpr auto kVideo = VeskMovieCreator::VeskMediaTypeVideo;
constexpr uint64_t kStart = 7'000'000'000;
constexpr uint64_t kInterval = 64'000;  ///< three packets of sound

/// The first `count` pictures of a clip.
std::vector<AccessUnit> some(const char* clip, size_t count) {
  auto pictures = test::accessUnitsOf(clip);
  EXPECT_GE(pictures.size(), count);
  pictures.resize(count);
  return pictures;
}

std::vector<AccessUnit> operator+(std::vector<AccessUnit> first, const std::vector<AccessUnit>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

/// The picture without its parameter sets.
AccessUnit bare(AccessUnit picture) {
  Bytes stream;
  for (const Bytes& unit : test::unitsOf(picture.stream)) {
    if ((unit[0] & 0x1F) > 5) continue;
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), unit.begin(), unit.end());
  }
  picture.stream = stream;
  return picture;
}

/// The parameter sets of a picture, alone.
Bytes setsOf(const AccessUnit& picture) {
  const size_t slices = bare(picture).stream.size();
  return {picture.stream.begin(), picture.stream.end() - static_cast<ptrdiff_t>(slices)};
}

class MovieChanges : public testing::Test {
 protected:
  std::shared_ptr<VeskMovieCreator> open(const std::string& path) {
    constexpr _VeskVideoDescription kCaptured{176, 144, kCMVideoCodecType_H264, 30,
                                              static_cast<int32_t>(FrameTiming::kCapture)};
    constexpr _VeskAudioDescription kPCM{kWaveFormatLinearPCM, 2, 48'000, 16};
    std::shared_ptr<VeskMovieCreator> creator = CreateMovieCreator(path.c_str());
    EXPECT_EQ(creator->Open(&kCaptured, &kPCM), 0);
    return creator;
  }

  /// Adds the next picture, and the sound beside it.
  int32_t add(VeskMovieCreator& creator, Bytes picture) {
    const uint64_t time = kStart + mAdded * kInterval;
    const int32_t status = creator.AddSampleToMovie(picture.data(), picture.size(), time, kVideo);
    Bytes sound = test::soundPacket(static_cast<uint32_t>(mAdded), 3072);
    creator.AddSampleToMovie(sound.data(), sound.size(), time, kAudio);
    mSound.insert(mSound.end(), sound.begin(), sound.end());
    ++mAdded;
    return status;
  }

  const test::TemporaryFolder mFolder;
  const std::string mPath = mFolder.file("a.mov");
  const std::string mNextPath = mFolder.file("b.mov");
  test::LogRecorder mLog;
  test::CapturedLines mLines;
  test::CapturedLines mErrors{test::CapturedLines::Stream::kError};
  size_t mAdded = 0;
  Bytes mSound;
};

void expectPictures(const std::string& path, const std::vector<AccessUnit>& wanted) {
  const auto movie = test::readMovie(path);
  ASSERT_EQ(movie.video.samples.size(), wanted.size());
  for (size_t number = 0; number < wanted.size(); ++number) {
    ASSERT_EQ(movie.video.samples[number].data, wanted[number].slices) << number;
    ASSERT_EQ(movie.video.samples[number].isKey, wanted[number].isKey) << number;
  }
}

TEST_F(MovieChanges, LeavesOutWhatItCannotHoldUntilTheCameraReturns) {
  const auto first = some("MIDR_MW_D.264", 30);
  const auto other = some("SVA_Base_B.264", 17);
  const auto creator = open(mPath);
  for (const AccessUnit& picture : first) EXPECT_EQ(add(*creator, picture.stream), 0);
  for (const AccessUnit& picture : other) EXPECT_EQ(add(*creator, picture.stream), kMovieFormatChanged);
  // Back again, at first with a picture that needs those that were left out.
  EXPECT_EQ(add(*creator, setsOf(first[0])), 0);
  EXPECT_EQ(add(*creator, first[1].stream), kMovieFormatChanged);
  for (const AccessUnit& picture : first) EXPECT_EQ(add(*creator, picture.stream), 0);
  creator->Close();
  expectPictures(mPath, first + first);
  EXPECT_EQ(test::readMovie(mPath).audio.allBytes(), mSound) << "the sound goes on";
  const RecordingStatistics statistics = creator->statistics();
  EXPECT_TRUE(statistics.formatChanged);
  EXPECT_EQ(mLog.count("has changed its pictures"), 1U);
  EXPECT_EQ(statistics.videoUnfit, 18U);
  EXPECT_EQ(statistics.videoFrames, 60U);
}

TEST_F(MovieChanges, SetsThatOnlyComeAgainOrAreNotUsedChangeNothing) {
  const auto pictures = some("MIDR_MW_D.264", 40);
  const Bytes unused = setsOf(some("test_qcif_cabac.264", 1)[0]);  // of other numbers
  const auto creator = open(mPath);
  for (const AccessUnit& picture : pictures) {
    Bytes stream = unused;  // before those in use, where they would be taken for the movie's
    const Bytes sets = setsOf(pictures[0]);
    stream.insert(stream.end(), sets.begin(), sets.end());
    const Bytes slices = bare(picture).stream;
    stream.insert(stream.end(), slices.begin(), slices.end());
    EXPECT_EQ(add(*creator, stream), 0);
  }
  creator->Close();
  EXPECT_FALSE(creator->statistics().formatChanged);
  expectPictures(mPath, pictures);

  const std::string content = test::contentOf(mPath);
  const auto holds = [&](const Bytes& unit) {
    return content.find(std::string(unit.begin(), unit.end())) != std::string::npos;
  };
  for (const Bytes& set : test::unitsOf(setsOf(pictures[0]))) EXPECT_TRUE(holds(set));
  for (const Bytes& set : test::unitsOf(unused)) EXPECT_FALSE(holds(set));
}

TEST_F(MovieChanges, BeginsWithTheSetsOfItsFirstKeyPicture) {
  const auto first = some("MIDR_MW_D.264", 3);
  const auto other = some("SVA_Base_B.264", 17);
  const auto creator = open(mPath);
  EXPECT_EQ(add(*creator, setsOf(first[0])), 0);
  EXPECT_EQ(add(*creator, first[1].stream), 0) << "held back";
  for (const AccessUnit& picture : other) EXPECT_EQ(add(*creator, picture.stream), 0);
  creator->Close();
  expectPictures(mPath, other);
  EXPECT_FALSE(creator->statistics().formatChanged);
}

TEST_F(MovieChanges, GoesOnInTheNextMovieWithoutALoss) {
  const struct {
    const char* label;
    const char* other;
    bool hasSetsApart;  // long before the picture that needs them
    size_t keyless;     // pictures of the new sets before the first key picture
    size_t beforeNext;  // pictures until the host goes on
  } rows[] = {
      {"other content of the same numbers", "SVA_Base_B.264", false, 0, 5},
      {"other numbers", "test_qcif_cabac.264", false, 0, 1},
      {"sets that came before", "test_qcif_cabac.264", true, 0, 5},
      {"a key picture that comes late", "SVA_Base_B.264", false, 4, 8},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    mAdded = 0;
    mSound.clear();
    const auto first = some("MIDR_MW_D.264", 30);
    const auto other = some(row.other, 17);
    const auto creator = open(mPath);
    creator->SetContinues(true);
    if (row.hasSetsApart) add(*creator, setsOf(other[0]));
    for (const AccessUnit& picture : first) EXPECT_EQ(add(*creator, picture.stream), 0);
    std::vector<Bytes> changed;
    if (row.keyless != 0) changed.push_back(setsOf(other[0]));
    for (size_t number = 1; number < row.keyless; ++number) changed.push_back(other[number].stream);
    for (const AccessUnit& picture : other) changed.push_back((row.hasSetsApart ? bare(picture) : picture).stream);

    const auto next = open(mNextPath);
    for (size_t number = 0; number < row.beforeNext; ++number) add(*creator, changed[number]);
    EXPECT_EQ(creator->statistics().videoForNext, row.beforeNext - row.keyless);
    EXPECT_TRUE(creator->waiting().isBusy()) << "a source that can wait should";
    const auto later = open(mFolder.file("c.mov"));
    creator->ContinueIn(next);
    creator->ContinueIn(later);  // once only
    EXPECT_EQ(creator->statistics().videoForNext, 0U);
    for (size_t number = row.beforeNext; number < changed.size(); ++number) {
      // From a thread that has not heard of it yet, and from others.
      EXPECT_EQ(add(number % 2 == 0 ? *creator : *next, changed[number]), 0);
    }
    creator->Close();
    next->Close();

    expectPictures(mPath, first);
    expectPictures(mNextPath, other);
    const auto before = test::readMovie(mPath);
    const auto after = test::readMovie(mNextPath);
    Bytes sound = before.audio.allBytes();
    EXPECT_EQ(sound.size(), (mAdded - 17) * 3072 * 4) << "up to the picture that the next begins with";
    EXPECT_EQ(after.video.samples.front().time, 0);
    EXPECT_EQ(after.audio.samples.front().time, 0);
    const Bytes rest = after.audio.allBytes();
    sound.insert(sound.end(), rest.begin(), rest.end());
    EXPECT_EQ(sound, mSound);
    EXPECT_TRUE(creator->statistics().formatChanged);
    EXPECT_EQ(creator->statistics().videoUnfit, row.keyless == 0 ? 0 : row.keyless - 1);
    EXPECT_FALSE(next->statistics().formatChanged);
    EXPECT_EQ(next->statistics().videoHeldBack, 0U);
  }
}

TEST_F(MovieChanges, KeepsTheSoundWhereNobodyGoesOn) {
  const auto first = some("MIDR_MW_D.264", 10);
  const auto other = some("SVA_Base_B.264", 10);
  for (const bool givesUp : {true, false}) {
    mAdded = 0;
    mSound.clear();
    const auto creator = open(mPath);
    creator->SetContinues(true);
    for (const AccessUnit& picture : first + other) add(*creator, picture.stream);
    EXPECT_EQ(creator->statistics().videoForNext, 10U);
    if (givesUp) {
      creator->SetContinues(false);
      EXPECT_EQ(creator->statistics().videoForNext, 0U);
      EXPECT_FALSE(creator->waiting().isBusy());
      add(*creator, other[1].stream);
    }
    creator->Close();
    expectPictures(mPath, first);
    EXPECT_EQ(test::readMovie(mPath).audio.allBytes(), mSound);
    EXPECT_EQ(creator->statistics().videoUnfit, givesUp ? 11U : 10U);
  }
}

TEST_F(MovieChanges, WaitingTakesBoundedMemoryAndEndsWithAWholeMovie) {
  const auto first = some("MIDR_MW_D.264", 2);
  const auto other = some("SVA_Base_B.264", 17);
  const auto creator = open(mPath);
  creator->SetContinues(true);
  for (const AccessUnit& picture : first) add(*creator, picture.stream);
  size_t waiting = 0;
  bool hasBegunAnew = false;
  for (size_t number = 0; number < 6000 || creator->statistics().videoForNext < 20; ++number) {
    AccessUnit picture = other[number % 17];
    picture.stream.insert(picture.stream.end(), {0, 0, 0, 1, 6});  // as large as a camera's
    picture.stream.insert(picture.stream.end(), 20'000, 0x55);
    const uint64_t time = kStart + (number + 2) * kInterval;
    creator->AddSampleToMovie(picture.stream.data(), picture.stream.size(), time, kVideo);
    const size_t now = creator->statistics().videoForNext;
    hasBegunAnew |= now < waiting;
    waiting = now;
    ASSERT_LT(now * 20'000, size_t{65} << 20);
  }
  EXPECT_TRUE(hasBegunAnew);
  EXPECT_GT(creator->statistics().videoDropped, 0U);
  const auto next = open(mNextPath);
  creator->ContinueIn(next);
  creator->Close();
  next->Close();
  const auto movie = test::readMovie(mNextPath);
  ASSERT_EQ(movie.video.samples.size(), waiting);
  for (size_t number = 0; number < waiting; ++number)
    ASSERT_EQ(movie.video.samples[number].data, other[number % 17].slices) << number;
}

}  // namespace
}  // namespace vesk
