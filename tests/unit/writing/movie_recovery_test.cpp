#include <vesk/movie_recovery.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <set>

#include "platform/writing/movie_atoms.h"
#include "platform/writing/movie_layout.h"
#include "platform/writing/movie_recovery_in.h"
#include "tests/support/memory_file_system.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/writing/movie_probe.h"
#include "tests/unit/writing/recording.h"

namespace vesk::test {
namespace {

constexpr char kPath[] = "movie.mov";

std::vector<uint8_t> recorded(Content content, size_t pictures, bool finished) {
  MemoryFileSystem files;
  MovieFileWriter writer(kPath, files, FragmentWriter::Thread::kNone);
  Recording recording(writer, content);
  writer.start();
  recording.recordUpTo(pictures);
  if (finished) writer.finish();
  return files.bytes(kPath);
}

struct Recovered {
  RecoveryResult result;
  std::vector<uint8_t> bytes;
};

Recovered recover(const std::vector<uint8_t>& bytes) {
  MemoryFileSystem files;
  files.put(kPath, bytes);
  Recovered recovered;
  recovered.result = recoverMovieIn(files, kPath);
  recovered.bytes = files.bytes(kPath);
  return recovered;
}

class RecoveryContentTest : public ::testing::TestWithParam<Content> {};

TEST_P(RecoveryContentTest, GivesBackEverythingThatWasWritten) {
  const auto unfinished = recorded(GetParam(), 150, false);
  const ProbedMovie before = probeMovie(unfinished);
  const Recovered recovered = recover(unfinished);
  ASSERT_EQ(recovered.result.outcome, RecoveryOutcome::kRecovered) << recovered.result.error.what;
  const ProbedMovie after = probeMovie(recovered.bytes, Probe::kDecode);
  EXPECT_EQ(after.complaints, "");
  ASSERT_EQ(after.tracks.size(), 2U);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(after.tracks[i].content, before.tracks[i].content);
    EXPECT_EQ(after.tracks[i].firstTime, before.tracks[i].firstTime);
    EXPECT_EQ(after.tracks[i].endTime, before.tracks[i].endTime);
  }
  EXPECT_EQ(after.tracks[0].times, before.tracks[0].times);
  EXPECT_EQ(after.date, before.date);
  EXPECT_EQ(after.creationTime, before.creationTime);
  EXPECT_EQ(recovered.result.frames, static_cast<uint64_t>(before.tracks[0].packets));
  EXPECT_EQ(recovered.result.bytesDropped, 0U);
  EXPECT_NEAR(recovered.result.duration,
              static_cast<double>(std::max(before.tracks[0].endTime, before.tracks[1].endTime)) / 1e6, 0.03);

  const Recovered again = recover(recovered.bytes);
  EXPECT_EQ(again.result.outcome, RecoveryOutcome::kAlreadyPlain);
  EXPECT_EQ(again.result.frames, recovered.result.frames);
  EXPECT_EQ(again.bytes, recovered.bytes);
}

/// Cuts a small movie at every byte when its sound is small, else at every byte of its ends.
TEST_P(RecoveryContentTest, SavesAMovieThatIsCutAnywhere) {
  for (const bool finished : {false, true}) {
    const auto whole = recorded(GetParam(), 75, finished);
    const ProbedMovie all = probeMovie(whole);
    uint64_t framesBefore = 0;
    const size_t step = GetParam() == Content::kH264AndAAC ? 1 : GetParam() == Content::kH264AndPCM ? 389 : 1999;
    for (size_t size = 0; size < whole.size(); size += size < 1300 || size + 150 > whole.size() ? 1 : step) {
      const std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
      const Recovered recovered = recover(cut);
      if (recovered.result.outcome == RecoveryOutcome::kEmpty) {
        ASSERT_EQ(framesBefore, 0U) << size;
        ASSERT_EQ(recovered.bytes, cut) << size;
        continue;
      }
      ASSERT_EQ(recovered.result.outcome, RecoveryOutcome::kRecovered) << size << recovered.result.error.what;
      ASSERT_GE(recovered.result.frames, framesBefore) << size;
      framesBefore = recovered.result.frames;
      if (size % 101 != 0) continue;  // reading each with the other reader takes long
      const ProbedMovie movie = probeMovie(recovered.bytes);
      ASSERT_EQ(movie.complaints, "") << size;
      expectBeginningOf(movie, all);
      const ProbedTrack* video = movie.find(all.tracks[0].codec);
      ASSERT_EQ(video ? video->packets : 0, static_cast<int>(recovered.result.frames)) << size;
    }
    EXPECT_GE(framesBefore, 67U);
  }
}

/// Stops the program before each of its operations, at the end of a recording and during recovery.
TEST_P(RecoveryContentTest, TakesOverFromEveryState) {
  const ProbedMovie all = probeMovie(recorded(GetParam(), 75, true));
  std::set<std::vector<uint8_t>> states;
  {
    MemoryFileSystem files;
    MovieFileWriter writer(kPath, files, FragmentWriter::Thread::kNone);
    Recording recording(writer, GetParam());
    ASSERT_TRUE(writer.start());
    files.setObserver([&](const std::vector<uint8_t>& bytes) { states.insert(bytes); });
    recording.recordUpTo(75);
    writer.finish();
  }
  std::set<std::vector<uint8_t>> statesOfRecovery;
  const auto check = [&](const std::vector<uint8_t>& state, bool collect) {
    MemoryFileSystem files;
    files.put(kPath, state);
    if (collect) files.setObserver([&](const std::vector<uint8_t>& bytes) { statesOfRecovery.insert(bytes); });
    const int frames = probeMovie(state).tracks.empty() ? 0 : probeMovie(state).tracks[0].packets;
    const RecoveryResult result = recoverMovieIn(files, kPath);
    if (frames > 0) {
      EXPECT_TRUE(result.outcome == RecoveryOutcome::kRecovered || result.outcome == RecoveryOutcome::kAlreadyPlain);
    }
    EXPECT_GE(result.frames, static_cast<uint64_t>(frames));
    const ProbedMovie movie = probeMovie(files.bytes(kPath));
    if (result.frames > 0) {
      EXPECT_EQ(movie.complaints, "");
    }
    expectBeginningOf(movie, all);
  };
  for (const auto& state : states) check(state, true);
  EXPECT_GT(statesOfRecovery.size(), 6U);
  for (const auto& state : statesOfRecovery) check(state, false);
}

INSTANTIATE_TEST_SUITE_P(All, RecoveryContentTest,
                         ::testing::Values(Content::kH264AndPCM, Content::kPackedAndPCM, Content::kH264AndAAC),
                         [](const auto& row) { return std::to_string(static_cast<int>(row.param)); });

TEST(MovieRecovery, UsesATornFragmentUpToItsLastCompleteSample) {
  const auto whole = recorded(Content::kPackedAndPCM, 75, false);
  const uint64_t all = recover(whole).result.frames;
  // The last run of pictures ends before the last run of sound; a picture takes 6144 bytes.
  const Recovered cut = recover({whole.begin(), whole.end() - 100'000});
  EXPECT_EQ(cut.result.outcome, RecoveryOutcome::kRecovered);
  EXPECT_LT(cut.result.frames, all);
  EXPECT_GT(cut.result.frames + 18, all);
  EXPECT_LT(cut.result.bytesDropped, 6144U);
}

TEST(MovieRecovery, LeavesAloneWhatItShould) {
  const std::string text = "Some other file that is not a movie at all.";
  const auto finished = recorded(Content::kH264AndPCM, 40, true);
  const auto ours = recorded(Content::kH264AndPCM, 10, false);
  auto other = finished;  // of another program: another file type
  other[8] = 'm';
  auto otherFragmented = recorded(Content::kH264AndPCM, 60, false);
  otherFragmented[8] = 'm';
  auto damaged = recorded(Content::kLargeAndPCM, 90, false);  // there is film behind the header
  damaged[kReservedOffset + kReservedSize + 8] = 0xFF;
  const struct {
    const char* label;
    std::vector<uint8_t> bytes;
    RecoveryOutcome outcome;
  } rows[] = {{"text", {text.begin(), text.end()}, RecoveryOutcome::kNotAMovie},
              {"empty", {}, RecoveryOutcome::kEmpty},
              {"no sample yet", ours, RecoveryOutcome::kEmpty},
              {"finished", finished, RecoveryOutcome::kAlreadyPlain},
              {"damaged where it begins", damaged, RecoveryOutcome::kFailed},
              {"another program's", other, RecoveryOutcome::kAlreadyPlain},
              {"another program's, unfinished", otherFragmented, RecoveryOutcome::kNothingToRecover},
              {"zeros", std::vector<uint8_t>(5000), RecoveryOutcome::kNotAMovie}};
  for (const auto& row : rows) {
    const Recovered recovered = recover(row.bytes);
    EXPECT_EQ(recovered.result.outcome, row.outcome) << row.label << ": " << recovered.result.error.what;
    EXPECT_EQ(recovered.bytes, row.bytes) << row.label;
    EXPECT_EQ(static_cast<bool>(recovered.result.error), row.outcome != RecoveryOutcome::kAlreadyPlain) << row.label;
  }
  EXPECT_EQ(recover(finished).result.frames, 40U);
  EXPECT_NEAR(recover(finished).result.duration, 1.2, 0.03);
}

/// A hole in a file costs nothing, so zeros must not be worth samples.
TEST(MovieRecovery, TakesNoSamplesWithoutBytes) {
  auto bytes = recorded(Content::kH264AndPCM, 10, false);  // its header alone
  AtomWriter writer(bytes);
  {
    const auto fragment = writer.atom(fourCharCode("moof"));
    writeAtom(writer, FragmentHeaderAtom{1});
    const auto track = writer.atom(fourCharCode("traf"));
    writeAtom(writer, TrackFragmentHeaderAtom{.track = 1});
    writeAtom(writer, TrackFragmentTimeAtom{0});
    TrackRunAtom run;
    run.dataOffset = 0;
    run.samples.resize(1'000'000);
    writeAtom(writer, run);
  }
  {
    const auto data = writer.atom(fourCharCode("mdat"));
    writer.zeros(8);
  }
  const Recovered recovered = recover(bytes);
  EXPECT_EQ(recovered.result.outcome, RecoveryOutcome::kEmpty) << recovered.result.error.what;
  EXPECT_EQ(recovered.bytes, bytes);
}

TEST(MovieRecovery, ChangesNothingWithoutRoomForTheEnd) {
  const auto whole = recorded(Content::kH264AndPCM, 75, false);
  const std::vector<uint8_t> torn(whole.begin(), whole.end() - 5000);
  MemoryFileSystem files;
  files.put(kPath, torn);
  files.setFaults([](auto operation, size_t, uint64_t, size_t) {
    return MemoryFileSystem::Fault{operation == MemoryFileSystem::Operation::kPreallocate ? ENOSPC : 0};
  });
  EXPECT_EQ(recoverMovieIn(files, kPath).outcome, RecoveryOutcome::kFailed);
  EXPECT_EQ(files.bytes(kPath), torn);
}

TEST(MovieRecovery, FollowsNoLink) {
  TemporaryFolder folder;
  const auto unfinished = recorded(Content::kH264AndPCM, 75, false);
  const std::string victim = folder.write("victim.mov", {unfinished.begin(), unfinished.end()});
  ASSERT_EQ(symlink(victim.c_str(), folder.file("movie.mov").c_str()), 0);
  EXPECT_EQ(recoverMovie(folder.file("movie.mov")).outcome, RecoveryOutcome::kFailed);
  EXPECT_EQ(readFile(victim), unfinished);
}

TEST(MovieRecovery, RefusesAMovieThatIsBeingRecorded) {
  TemporaryFolder folder;
  const std::string path = folder.file("movie.mov");
  MovieFileWriter writer(path, FileSystem::posix());
  Recording recording(writer, Content::kH264AndPCM);
  ASSERT_TRUE(writer.start());
  ASSERT_TRUE(recording.recordUpTo(60));
  EXPECT_EQ(recoverMovie(path).outcome, RecoveryOutcome::kLocked);
  ASSERT_TRUE(writer.finish());
  EXPECT_EQ(recoverMovie(path).outcome, RecoveryOutcome::kAlreadyPlain);
  EXPECT_EQ(recoverMovie(folder.file("none.mov")).outcome, RecoveryOutcome::kFailed);
}

/// Each operation fails in turn; afterwards the movie is as readable as it was.
TEST(MovieRecovery, LosesNothingWhenItFails) {
  const auto whole = recorded(Content::kH264AndPCM, 75, false);
  for (const size_t cut : {size_t{0}, size_t{3}, size_t{5000}}) {
    const std::vector<uint8_t> state(whole.begin(), whole.end() - static_cast<ptrdiff_t>(cut));
    const uint64_t frames = recover(state).result.frames;
    for (size_t victim = 0; victim < 12; ++victim) {
      MemoryFileSystem files;
      files.put(kPath, state);
      size_t changes = 0;
      files.setFaults([&](auto operation, size_t, uint64_t, size_t bytes) {
        if (operation == MemoryFileSystem::Operation::kTruncate || changes++ < victim) return MemoryFileSystem::Fault{};
        return MemoryFileSystem::Fault{ENOSPC, bytes > 16 ? bytes / 2 : 0};
      });
      const RecoveryResult first = recoverMovieIn(files, kPath);
      files.setFaults({});
      const RecoveryResult second = recoverMovieIn(files, kPath);
      EXPECT_EQ(second.frames, frames) << "cut " << cut << ", operation " << victim << ": " << first.error.what;
      EXPECT_EQ(probeMovie(files.bytes(kPath)).complaints, "");
    }
  }
}

/// Bytes changed at random: whatever comes out, nothing breaks, and a second run changes nothing.
TEST(MovieRecovery, ToleratesAnyBytes) {
  std::mt19937 random(7);
  for (const bool finished : {false, true}) {
    const auto whole = recorded(Content::kH264AndAAC, 70, finished);
    for (int round = 0; round < 1500; ++round) {
      auto bytes = whole;
      for (int i = 0; i < 1 + round % 4; ++i) {
        const size_t at = round % 2 == 0 ? random() % std::min<size_t>(2500, bytes.size()) : random() % bytes.size();
        bytes[at] = random() % 3 == 0 ? 0xFF : static_cast<uint8_t>(random());
      }
      const Recovered first = recover(bytes);
      if (first.result.outcome != RecoveryOutcome::kRecovered) {
        ASSERT_EQ(first.bytes, bytes);
        continue;
      }
      const Recovered second = recover(first.bytes);
      ASSERT_EQ(second.result.outcome, RecoveryOutcome::kAlreadyPlain) << round;
      ASSERT_EQ(second.bytes, first.bytes);
    }
  }
}

}  // namespace
}  // namespace vesk::test
