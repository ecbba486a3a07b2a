#include "platform/writing/movie_file_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <vesk/version.h>
#include "platform/foundation/byte_reader.h"
#include "platform/media/aac_silence.h"
#include "platform/writing/movie_recovery_in.h"
#include "tests/support/memory_file_system.h"
#include "tests/unit/writing/movie_probe.h"
#include "tests/unit/writing/recording.h"

namespace vesk::test {
namespace {

constexpr char kPath[] = "movie.mov";

/// The types of the atoms at the top level, one after the other.
std::string layoutOf(const std::vector<uint8_t>& file) {
  std::string types;
  for (size_t at = 0; at + 8 <= file.size();) {
    uint64_t size = readBigEndian32(file.data() + at);
    if (size == 1)
      size = uint64_t{readBigEndian32(file.data() + at + 8)} << 32 | readBigEndian32(file.data() + at + 12);
    types += std::string(reinterpret_cast<const char*>(file.data() + at + 4), 4) + " ";
    if (size < 8 || size > file.size() - at) return types + "torn";
    at += size;
  }
  return types;
}

/// Replaces runs of the same word.
std::string withoutRepeats(std::string text, const std::string& word) {
  const std::string twice = word + word;
  for (size_t at; (at = text.find(twice)) != std::string::npos;) text.erase(at, word.size());
  return text;
}

/// A writer on files in memory.
class MovieFileWriterTest : public ::testing::Test {
 protected:
  size_t addVideo() { return mWriter.addTrack(TrackKind::kVideo); }
  size_t addSound() { return mWriter.addTrack(TrackKind::kSound); }
  ProbedMovie probe(Probe depth = Probe::kPackets) { return probeMovie(mFiles.bytes(kPath), depth); }
  ProbedMovie finishAndProbe(Probe depth = Probe::kPackets) {
    EXPECT_TRUE(mWriter.finish());
    ProbedMovie movie = probe(depth);
    EXPECT_EQ(movie.complaints, "");
    return movie;
  }

  /// A movie of one track, whose samples are these.
  ProbedMovie movieOf(TrackKind kind, const std::vector<CMSampleBufferRef>& samples, Probe depth = Probe::kPackets,
                      int64_t sessionStart = 0) {
    mFiles.remove(kPath);
    MovieFileWriter writer(kPath, mFiles, FragmentWriter::Thread::kNone);
    const size_t track = writer.addTrack(kind);
    EXPECT_TRUE(writer.start());
    writer.setSessionStart(microseconds(sessionStart));
    for (const CMSampleBufferRef& sample : samples) EXPECT_TRUE(writer.append(track, sample));
    EXPECT_TRUE(writer.finish());
    ProbedMovie movie = probe(depth);
    EXPECT_EQ(movie.complaints, "");
    EXPECT_EQ(movie.tracks.size(), 1U);
    movie.tracks.resize(1);
    return movie;
  }

  /// What a recovery makes of the movie as it is now.
  ProbedMovie recovered() {
    mFiles.put("recovered.mov", mFiles.bytes(kPath));
    EXPECT_EQ(recoverMovieIn(mFiles, "recovered.mov").outcome, RecoveryOutcome::kRecovered);
    ProbedMovie movie = probeMovie(mFiles.bytes("recovered.mov"));
    EXPECT_EQ(movie.complaints, "");
    return movie;
  }

  MemoryFileSystem mFiles;
  MovieFileWriter mWriter{kPath, mFiles, FragmentWriter::Thread::kNone};
};

class MovieContentTest : public MovieFileWriterTest, public ::testing::WithParamInterface<Content> {};

TEST_P(MovieContentTest, IsReadableWhileItGrowsAndPlainAtTheEnd) {
  const bool isAAC = GetParam() == Content::kH264AndAAC;
  const bool isPacked = GetParam() == Content::kPackedAndPCM || GetParam() == Content::kArenas;
  Recording recording(mWriter, GetParam());
  ASSERT_TRUE(mWriter.start());

  // After every single write a reader finds all but the last two seconds and has nothing to say.
  size_t writes = 0;
  bool finishing = false;
  mFiles.setObserver([&](const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return;
    ++writes;
    ProbedMovie movie = probeMovie(bytes);
    if (finishing) {  // two headers for a moment, of which readers take the first
      const size_t at = movie.complaints.find("Found duplicated MOOV Atom. Skipped it\n");
      if (at != std::string::npos) movie.complaints.erase(at, strlen("Found duplicated MOOV Atom. Skipped it\n"));
    }
    ASSERT_EQ(movie.tracks.size(), 2U);
    if (movie.tracks[0].packets == 0) return;  // the reader misses a first picture
    EXPECT_EQ(movie.complaints, "") << "after write " << writes;
    constexpr int64_t kLag = 2'000'000 - 250'000;  // a quarter of a second waits in the queues
    const int64_t wanted = static_cast<int64_t>(recording.pictures()) * Recording::kPictureDuration - kLag;
    for (const ProbedTrack& track : movie.tracks) EXPECT_GE(track.endTime, wanted) << "after write " << writes;
  });
  for (size_t count = 1; count <= 150; ++count) {
    const uint64_t before = mWriter.bytesWritten();
    ASSERT_TRUE(recording.recordUpTo(count));
    ASSERT_GT(mWriter.bytesWritten(), before) << "what waits for its fragment counts";
  }
  EXPECT_EQ(withoutRepeats(layoutOf(mFiles.bytes(kPath)), "moof free mdat "), "ftyp free moov free moof free mdat ");
  finishing = true;
  const ProbedMovie movie = finishAndProbe(Probe::kDecode);
  EXPECT_GT(writes, 10U);
  EXPECT_EQ(layoutOf(mFiles.bytes(kPath)), "ftyp mdat moov ");
  EXPECT_EQ(mWriter.bytesWritten(), mFiles.bytes(kPath).size());

  ASSERT_EQ(movie.tracks.size(), 2U);
  const ProbedTrack& video = movie.tracks[0];
  EXPECT_EQ(video.codec, isPacked ? "2vuy" : "h264");
  EXPECT_EQ(video.width, isPacked ? 64 : 176);
  EXPECT_EQ(video.packets, 150);
  EXPECT_EQ(video.keyPackets, isPacked ? 150 : 9);
  EXPECT_EQ(video.endTime, 4'500'000);
  if (!isPacked) {
    EXPECT_EQ(video.decoded, 150);
  } else {
    constexpr size_t kPicture = 64 * 48 * 2;
    ASSERT_EQ(video.content.size(), 150 * kPicture);
    for (size_t i = 0; i < video.content.size(); i += 2) {
      ASSERT_EQ(video.content[i] | video.content[i + 1] << 8, 128 | static_cast<int>(i / kPicture + 1) << 8);
    }
  }
  const ProbedTrack& sound = movie.tracks[1];
  EXPECT_EQ(sound.codec, isAAC ? "aac" : "pcm_s16le");
  EXPECT_EQ(sound.sampleRate, 48000);
  EXPECT_EQ(sound.channels, 2);
  if (isAAC) {
    EXPECT_EQ(sound.packets, recording.frames() / 1024);
    EXPECT_EQ(sound.firstTime, -21'333) << "the first packet is trimmed";
  } else {
    EXPECT_EQ(sound.decoded, recording.frames());
    for (size_t i = 0; i < sound.content.size() / 4; ++i) {
      ASSERT_EQ(sound.content[i * 4] | sound.content[i * 4 + 1] << 8, static_cast<int>(i & 0xFFFF));
    }
  }
  EXPECT_EQ(movie.software, "Vesk " VESK_VERSION_STRING);
  EXPECT_EQ(movie.date.size(), strlen("2026-01-01T00:00:00+0000"));
  EXPECT_EQ(movie.creationTime.size(), strlen("2026-01-01T00:00:00.000000Z"));
}

INSTANTIATE_TEST_SUITE_P(All, MovieContentTest,
                         ::testing::Values(Content::kH264AndPCM, Content::kPackedAndPCM, Content::kH264AndAAC,
                                           Content::kArenas),
                         [](const auto& row) { return std::to_string(static_cast<int>(row.param)); });

TEST_F(MovieFileWriterTest, AlternatesPicturesAndSoundInHalfSeconds) {
  Recording recording(mWriter, Content::kH264AndPCM);
  ASSERT_TRUE(mWriter.start());
  ASSERT_TRUE(recording.recordUpTo(300));
  const ProbedMovie movie = finishAndProbe();
  for (const ProbedTrack& track : movie.tracks) {
    EXPECT_GE(track.chunks, 18) << track.codec;
    EXPECT_LE(track.chunks, 36) << track.codec;
  }
}

struct SoundFormat {
  const char* label;
  double rate;
  uint32_t channels;
  uint32_t bits;
  const char* codec;
};
class SoundFormatTest : public MovieFileWriterTest, public ::testing::WithParamInterface<SoundFormat> {};

TEST_P(SoundFormatTest, IsReadAsItWasWritten) {
  const SoundFormat& format = GetParam();
  const size_t sound = addSound();
  const bool isAAC = format.bits == 0;
  ASSERT_TRUE(mWriter.start());
  for (uint32_t i = 0; i < 200; ++i) {
    const auto time = static_cast<int64_t>(i * 1024 * 1e6 / format.rate);
    const auto sample = isAAC ? aacSample(aacFormat(format.rate, format.channels), 1, i * 1024, i == 0)
                              : pcmSample(pcmFormat(format.rate, format.channels, format.bits), 1024, time);
    ASSERT_TRUE(mWriter.append(sound, sample));
  }
  for (const ProbedMovie& movie : {probe(), finishAndProbe()}) {
    EXPECT_EQ(movie.complaints, "");
    ASSERT_EQ(movie.tracks.size(), 1U);
    EXPECT_EQ(movie.tracks[0].codec, format.codec);
    EXPECT_EQ(movie.tracks[0].sampleRate, static_cast<int>(format.rate));
    EXPECT_EQ(movie.tracks[0].channels, static_cast<int>(format.channels));
    EXPECT_TRUE(movie.tracks[0].knowsLayout);
  }
  if (!isAAC) {
    EXPECT_EQ(probe().tracks[0].bytes, int64_t{200} * 1024 * format.channels * format.bits / 8);
  }
}

INSTANTIATE_TEST_SUITE_P(All, SoundFormatTest,
                         ::testing::Values(SoundFormat{"telephone", 8000, 1, 16, "pcm_s16le"},
                                           SoundFormat{"disc", 44100, 2, 16, "pcm_s16le"},
                                           SoundFormat{"above 16 bits of rate", 96000, 2, 16, "pcm_s16le"},
                                           SoundFormat{"wide", 48000, 2, 24, "pcm_s24le"},
                                           SoundFormat{"mono AAC", 16000, 1, 0, "aac"},
                                           SoundFormat{"fast AAC", 96000, 2, 0, "aac"},
                                           SoundFormat{"slow AAC", 22050, 6, 0, "aac"}),
                         [](const auto& row) { return std::to_string(row.index); });

TEST_F(MovieFileWriterTest, AddsATrackWhoseFirstSampleComesLate) {
  const size_t video = addVideo();
  const size_t sound = addSound();
  const auto format = pcmFormat(48000, 1);
  ASSERT_TRUE(mWriter.start());
  bool soundIsThere = false;
  mFiles.setObserver([&](const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return;
    ProbedMovie movie = probeMovie(bytes);
    const size_t at = movie.complaints.find("Found duplicated MOOV Atom. Skipped it\n");
    if (at != std::string::npos) movie.complaints.clear();
    EXPECT_EQ(movie.tracks.empty() || movie.tracks[0].packets == 0 ? "" : movie.complaints, "");
    EXPECT_TRUE(movie.find(soundIsThere ? "pcm_s16le" : "h264"));
  });
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(mWriter.append(video, h264Sample(static_cast<size_t>(i), i * 30'000)));
  for (int i = 100; i < 200; ++i) {
    ASSERT_TRUE(mWriter.append(video, h264Sample(static_cast<size_t>(i), i * 30'000)));
    ASSERT_TRUE(mWriter.append(sound, pcmSample(format, 1440, i * 30'000)));
    soundIsThere = true;
  }
  mFiles.setObserver({});
  const ProbedMovie growing = probe();
  ASSERT_TRUE(growing.find("pcm_s16le"));
  EXPECT_EQ(growing.find("pcm_s16le")->firstTime, 3'000'000);
  EXPECT_EQ(layoutOf(mFiles.bytes(kPath)).substr(0, 30), "ftyp free free free moov moof ");
  EXPECT_EQ(recovered().find("pcm_s16le")->firstTime, 3'000'000);

  const ProbedMovie movie = finishAndProbe();
  ASSERT_EQ(movie.tracks.size(), 2U);
  EXPECT_EQ(movie.find("pcm_s16le")->firstTime, 3'000'000);
  EXPECT_EQ(movie.find("pcm_s16le")->bytes, 100 * 1440 * 2);
  EXPECT_EQ(movie.find("h264")->packets, 200);
}

TEST_F(MovieFileWriterTest, GoesOnWithoutALateTrackThatHasNoRoom) {
  const size_t sound = addSound();
  const size_t video = addVideo();
  const auto format = pcmFormat(48000, 1);
  ASSERT_TRUE(mWriter.start());
  for (int i = 0; i < 60; ++i) ASSERT_TRUE(mWriter.append(sound, pcmSample(format, 1440, i * 30'000)));
  VideoFormatExtensions extensions;
  for (const char* type : {"avcC", "aaaa", "bbbb"}) extensions.sampleDescriptionExtensionAtoms[type].resize(4000);
  const auto large = CMVideoFormatDescription::create(kCMVideoCodecType_H264, 64, 48, extensions);
  const auto block = CMBlockBuffer::create(100);
  EXPECT_FALSE(mWriter.append(video, CMSampleBuffer::create(block, large, {{}, microseconds(1'800'000), {}}, 100)));
  for (int i = 60; i < 120; ++i) ASSERT_TRUE(mWriter.append(sound, pcmSample(format, 1440, i * 30'000)));
  const ProbedMovie movie = finishAndProbe();
  ASSERT_EQ(movie.tracks.size(), 1U);
  EXPECT_EQ(movie.tracks[0].bytes, 120 * 1440 * 2);
}

TEST_F(MovieFileWriterTest, LeavesOutATrackWithoutSamples) {
  const size_t video = addVideo();
  const size_t sound = addSound();
  ASSERT_TRUE(mWriter.start());
  for (int i = 0; i < 70; ++i) ASSERT_TRUE(mWriter.append(video, h264Sample(static_cast<size_t>(i), i * 30'000)));
  EXPECT_GE(probe().find("h264")->packets, 33) << "the silent track does not hold up the other's fragments";
  mWriter.finishTrack(sound);
  EXPECT_EQ(finishAndProbe().tracks.size(), 1U);
}

TEST_F(MovieFileWriterTest, RemovesAMovieWithoutSamples) {
  addVideo();
  ASSERT_TRUE(mWriter.start());
  EXPECT_TRUE(mFiles.exists(kPath));
  EXPECT_TRUE(mWriter.finish());
  EXPECT_EQ(mWriter.status(), AVAssetWriterStatus::Completed);
  EXPECT_FALSE(mFiles.exists(kPath));
}

TEST_F(MovieFileWriterTest, GivesEachPictureTheTimeToTheNextOne) {
  struct Row {
    const char* label;
    int64_t sessionStart;
    std::vector<int64_t> stamps, times;
    int64_t end;  ///< of the last one, which lasts as long as it says; 0: not looked at
  };
  const std::vector<int64_t> uneven{0, 30'000, 90'000, 3'000'000, 3'030'000, 4'100'000};
  const Row rows[] = {
      {"uneven", 0, uneven, uneven, 4'130'000},
      {"stamps out of order",
       0,
       {100'000, 130'000, 130'000, 50'000, 190'000},
       {100'000, 130'000, 130'001, 130'002, 190'000},
       0},
      {"a session that starts later", 5'000'000, {5'500'000, 5'530'000}, {500'000, 530'000}, 560'000},
      {"too long for 32 bits", 0, {0, 3'500'000'000, 7'000'000'000}, {0, 3'500'000'000, 7'000'000'000}, 7'000'030'000},
  };
  const auto has = [&](const char* type) {
    const auto bytes = mFiles.bytes(kPath);
    return std::search(bytes.begin(), bytes.end(), type, type + 4) != bytes.end();
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    std::vector<CMSampleBufferRef> pictures;
    for (const int64_t stamp : row.stamps) pictures.push_back(packedSample(packedFormat(16, 16), 0, stamp));
    const ProbedMovie movie = movieOf(TrackKind::kVideo, pictures, Probe::kPackets, row.sessionStart);
    EXPECT_EQ(movie.tracks[0].times, row.times);
    EXPECT_EQ(row.end == 0 ? 0 : movie.tracks[0].endTime, row.end);
    EXPECT_TRUE(has("stco") && !has("co64")) << "wide offsets only where they are needed";
  }
}

TEST_F(MovieFileWriterTest, PlacesPCMByItsStampsAndFillsGapsWithSilence) {
  struct Packet {
    int64_t time;
    uint32_t first;  ///< of 480 frames that count up
    uint32_t silence = 0;
  };
  struct Run {
    uint16_t first;  ///< 0: silence
    size_t frames;
  };
  const struct {
    const char* label;
    std::vector<Packet> packets;
    std::vector<Run> runs;
  } rows[] = {
      {"a gap", {{0, 1000}, {30'000, 2000}}, {{1000, 480}, {0, 960}, {2000, 480}}},
      {"small jitter is continuous",
       {{0, 1000}, {11'900, 2000}, {18'000, 3000}},
       {{1000, 480}, {2000, 480}, {3000, 480}}},
      // 360 frames of the first silence, and all of the second, lie over sound that is there.
      {"inserted silence over sound",
       {{0, 1000}, {10'000, 2000}, {12'500, 3000, 480}, {25'000, 4000, 240}},
       {{1000, 480}, {2000, 480}, {0, 120}, {3000, 480}, {4000, 480}}},
  };
  const auto format = pcmFormat(48000, 1);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::vector<CMSampleBufferRef> samples;
    for (const Packet& packet : row.packets)
      samples.push_back(pcmSample(format, 480, packet.time, packet.first, packet.silence));
    const ProbedMovie movie = movieOf(TrackKind::kSound, samples);
    std::vector<uint16_t> expected;
    for (const Run& run : row.runs)
      for (size_t i = 0; i < run.frames; ++i)
        expected.push_back(static_cast<uint16_t>(run.first == 0 ? 0 : run.first + i));
    std::vector<uint16_t> values(movie.tracks[0].content.size() / 2);
    memcpy(values.data(), movie.tracks[0].content.data(), values.size() * 2);
    EXPECT_EQ(values, expected);
  }
}

TEST_F(MovieFileWriterTest, KeepsLongPCMInStep) {
  const auto format = pcmFormat(48000, 1);
  std::vector<CMSampleBufferRef> samples;
  // What the source does: every packet is placed where the one before ended, in whole microseconds,
  // and a packet of silence is put in when the stamps have fallen a packet behind the clock. Small
  // packets make of five minutes what takes hours with large ones.
  constexpr uint32_t kFrames = 64;
  constexpr int64_t kDuration = int64_t{kFrames} * 1'000'000 / 48000;
  constexpr int64_t kPackets = int64_t{300} * 48000 / kFrames;
  int64_t next = 0;
  int64_t inserted = 0;
  for (int64_t packet = 0; packet < kPackets; ++packet) {
    const int64_t clock = packet * kFrames * 1'000'000 / 48000;
    const auto silence = static_cast<uint32_t>((clock - next) / kDuration * kFrames);
    inserted += silence;
    samples.push_back(pcmSample(format, kFrames, next, static_cast<uint32_t>(packet), silence));
    next += (kFrames + int64_t{silence}) * 1'000'000 / 48000;
  }
  EXPECT_GT(inserted, 3000) << "the source did insert silence";
  const ProbedMovie movie = movieOf(TrackKind::kSound, samples);
  EXPECT_NEAR(static_cast<double>(movie.tracks[0].bytes) / 2, static_cast<double>(kPackets * kFrames), 48.0)
      << "a millisecond";
}

/// A pause in a movie whose pictures and packets of sound (8 kHz) are 128 ms apart.
struct Pause {
  const char* label;
  bool isAAC;
  int64_t seconds;  ///< a multiple of 16: of whole packets
  bool isInPictures;
  bool isInSound;
  bool isPutIn = false;  ///< a count of silence comes with the sound behind it
  int64_t left = 0;      ///< steps of it that are in the movie; 0: all
};
void PrintTo(const Pause& pause, std::ostream* out) {
  *out << pause.label;
}
class PauseTest : public MovieFileWriterTest, public ::testing::WithParamInterface<Pause> {
 protected:
  static constexpr int64_t kStep = 128'000;  // microseconds
  static constexpr int64_t kAround = 24;     // steps before it and behind it

  static int64_t steps() { return GetParam().seconds * 1'000'000 / kStep; }

  void SetUp() override {
    mVideo = addVideo();
    mSound = addSound();
    ASSERT_TRUE(mWriter.start());
    const Pause& pause = GetParam();
    int64_t step = 0;
    while (step < kAround) append(step++, true, true, 1);
    if (pause.isInPictures && pause.isInSound) step += steps();
    while (step < kAround + steps()) append(step++, !pause.isInPictures, !pause.isInSound, 1);
    append(step++, true, true, 2, pause.isPutIn ? steps() : 0);
    while (step < 2 * kAround + steps()) append(step++, true, true, 2);
  }

  void append(int64_t step, bool hasPicture, bool hasSound, uint32_t value, int64_t silence = 0) {
    ASSERT_TRUE(!hasPicture || mWriter.append(mVideo, packedSample(mPacked, 1, step * kStep)));
    if (!hasSound) return;
    const bool isAAC = GetParam().isAAC;
    const auto sample = isAAC ? aacSample(mAAC, 1, (step - silence) * 1024, false)
                              : pcmSample(mPCM, 1024, (step - silence) * kStep, value << 12);
    sample->attachments().insertedSilence = static_cast<uint64_t>(silence * (isAAC ? 1 : 1024));
    sample->attachments().isSilenceLeftOut = silence > 0;
    ASSERT_TRUE(mWriter.append(mSound, sample));
  }

  /// Steps after which the sound behind the pause begins, by counting what comes before it.
  static double soundBehind(const ProbedTrack& sound) {
    if (GetParam().isAAC) return static_cast<double>(sound.packets - kAround);
    size_t frame = 0;
    while (frame * 2 < sound.content.size() && (sound.content[frame * 2 + 1] & 0xF0) != 0x20) ++frame;
    return static_cast<double>(frame) / 1024;
  }

  size_t mVideo = 0;
  size_t mSound = 0;
  const CMVideoFormatDescriptionRef mPacked = packedFormat(16, 16);
  const CMAudioFormatDescriptionRef mPCM = pcmFormat(8000, 1);
  const CMAudioFormatDescriptionRef mAAC = aacFormat(8000, 1);
};

TEST_P(PauseTest, KeepsSoundAndPictureTogetherAtTheCostOfNoBytes) {
  const Pause& pause = GetParam();
  const int64_t behind = kAround + (pause.left != 0 ? pause.left : steps());
  const ProbedMovie afterRecovery = recovered();
  const ProbedMovie growing = probe();
  EXPECT_EQ(growing.complaints, "");
  EXPECT_GE(growing.tracks[0].times.back(), behind * kStep);
  EXPECT_GE(growing.tracks[1].endTime, behind * kStep + 1'000'000);

  const ProbedMovie movie = finishAndProbe();
  const auto count = static_cast<size_t>(steps());
  // Where sound goes on, each second of it is a fragment and fills up a block.
  const size_t media = movie.tracks[0].times.size() * 1200 + (pause.isInSound ? 0 : count * (2100 + 4096 / 7));
  EXPECT_LT(mFiles.bytes(kPath).size(), media + (pause.isAAC ? count * 4 : count / 4) + 250'000);
  if (pause.isInPictures && pause.isInSound) {
    EXPECT_LT(mWriter.indexMemory(), 90'000U);
  }

  for (const ProbedMovie* one : {&movie, &afterRecovery}) {
    const auto& times = one->tracks[0].times;
    EXPECT_NE(std::find(times.begin(), times.end(), behind * kStep), times.end());
    if (one == &movie || !pause.isAAC) {
      EXPECT_EQ(soundBehind(one->tracks[1]), static_cast<double>(behind));
    }
  }
  EXPECT_EQ(movie.tracks[1].endTime, (behind + kAround) * kStep);
}

constexpr int64_t kHour = 3600;
constexpr int64_t kLongestPause = 12 * kHour * 1000 / 128 - 1;  // between the beginnings of samples
INSTANTIATE_TEST_SUITE_P(
    All, PauseTest,
    ::testing::Values(Pause{"PCM, all", false, 1808, true, true}, Pause{"AAC, all", true, 1808, true, true},
                      Pause{"PCM, put in", false, 5408, true, true, true},
                      Pause{"AAC, put in", true, 5408, true, true, true}, Pause{"PCM, sound", false, 1504, false, true},
                      Pause{"AAC, sound put in", true, 1504, false, true, true},
                      Pause{"PCM, pictures", false, 2400, true, false}, Pause{"AAC, pictures", true, 4496, true, false},
                      Pause{"AAC, written out", true, 480, true, true},
                      Pause{"AAC, written out, put in", true, 480, false, true, true},
                      Pause{"AAC, half a day", true, 12 * kHour - 16, true, true},
                      Pause{"AAC, a clock that jumps", true, 30 * kHour, true, true, false, kLongestPause},
                      Pause{"AAC, one that jumps years", true, 50'000 * kHour, true, true, true, kLongestPause}),
    [](const auto& row) { return std::to_string(row.index); });

/// GStreamer takes a track of less than a fifth of the movie for a preview.
TEST_F(MovieFileWriterTest, LetsATrackThatEndsEarlyLastAsLongAsTheMovie) {
  for (const bool isSoundShort : {false, true}) {
    MovieFileWriter writer(kPath, mFiles, FragmentWriter::Thread::kNone);
    const size_t video = writer.addTrack(TrackKind::kVideo);
    const size_t sound = writer.addTrack(TrackKind::kSound);
    ASSERT_TRUE(writer.start());
    for (int i = 0; i < 80; ++i) {
      const bool isBoth = i < 10;
      const auto picture = packedSample(packedFormat(16, 16), 1, i * 500'000);
      ASSERT_TRUE((!isBoth && !isSoundShort) || writer.append(video, picture));
      const auto packet = pcmSample(pcmFormat(8000, 1), 4000, i * 500'000);
      ASSERT_TRUE((!isBoth && isSoundShort) || writer.append(sound, packet));
    }
    const ProbedMovie afterRecovery = recovered();
    ASSERT_TRUE(writer.finish());
    for (const ProbedMovie& movie : {afterRecovery, probe()}) {
      EXPECT_EQ(movie.complaints, "");
      ASSERT_EQ(movie.tracks.size(), 2U);
      EXPECT_NEAR(static_cast<double>(movie.tracks[0].endTime), static_cast<double>(movie.tracks[1].endTime), 200);
    }
    mFiles.remove(kPath);
  }
}

TEST_F(MovieFileWriterTest, StretchesThePacketBeforeAGapInAAC) {
  const size_t sound = addSound();
  const auto format = aacFormat(48000, 2);
  ASSERT_TRUE(mWriter.start());
  // One gap within a fragment and one behind it, each of 47 packets.
  int64_t time = 0;
  std::vector<int64_t> times;
  for (int i = 0; i < 150; ++i) {
    if (i == 20 || i == 47) time += int64_t{47} * 1024;
    ASSERT_TRUE(mWriter.append(sound, aacSample(format, 1, time, false)));
    times.push_back(time * 1'000'000 / 48000);
    time += 1024;
  }
  const ProbedMovie growing = probe();
  EXPECT_EQ(growing.complaints, "");
  const ProbedMovie movie = finishAndProbe();
  ASSERT_EQ(movie.tracks[0].times.size(), times.size());
  for (size_t i = 0; i < times.size(); ++i) ASSERT_NEAR(movie.tracks[0].times[i], times[i], 1) << i;
}

TEST_F(MovieFileWriterTest, PutsSilenceOfAllItsChannelsIntoATrackOfAAC) {
  for (const uint32_t channels : {1U, 2U, 3U, 4U, 5U, 6U, 8U}) {
    SCOPED_TRACE(channels);
    const auto sample = aacSample(aacFormat(48000, channels), 40, 0, true);
    sample->attachments().insertedSilence = 40;
    // A packet of other channels is complained about.
    const ProbedMovie movie = movieOf(TrackKind::kSound, {sample}, Probe::kDecode);
    EXPECT_EQ(movie.tracks[0].packets, 40);
    EXPECT_GE(movie.tracks[0].decoded, 39 * 1024);
  }
  for (const uint32_t other : {0U, 7U, 9U}) EXPECT_TRUE(std::ranges::equal(silentAACPacket(other), silentAACPacket(1)));
}

TEST_F(MovieFileWriterTest, TakesSeveralPacketsInOneSample) {
  const auto format = aacFormat(44100, 1);
  const auto movie = movieOf(TrackKind::kSound, {aacSample(format, 5, 0, true), aacSample(format, 3, 5 * 1024, false)});
  EXPECT_EQ(movie.tracks[0].packets, 8);
}

TEST_F(MovieFileWriterTest, RefusesSamplesThatDoNotFit) {
  const size_t video = addVideo();
  const size_t sound = addSound();
  EXPECT_FALSE(mWriter.append(video, h264Sample(0, 0))) << "not started";
  ASSERT_TRUE(mWriter.start());
  EXPECT_FALSE(mWriter.append(video, nullptr));
  EXPECT_FALSE(mWriter.append(7, h264Sample(0, 0)));
  EXPECT_FALSE(mWriter.append(sound, h264Sample(0, 0))) << "a picture for the sound";
  EXPECT_FALSE(mWriter.append(video, h264Sample(0, INT64_MAX)));
  ASSERT_TRUE(mWriter.append(video, h264Sample(0, 0)));
  EXPECT_FALSE(mWriter.append(video, packedSample(packedFormat(64, 48), 0, 30'000))) << "another format";
  mWriter.finishTrack(video);
  EXPECT_FALSE(mWriter.append(video, h264Sample(1, 30'000))) << "finished";
  EXPECT_EQ(finishAndProbe().tracks[0].packets, 1);
}

// Failures.

/// Lets one write after the other fail, each with nothing and with part of its bytes written.
TEST(MovieFileWriter, LeavesAPlayableMovieAndSaysWhyWhenTheDiskIsFull) {
  for (const size_t part : {size_t{0}, size_t{5}, size_t{700}}) {
    bool failed = true;
    for (size_t victim = 0; failed && victim < 200; ++victim) {
      MemoryFileSystem files;
      MovieFileWriter writer(kPath, files, FragmentWriter::Thread::kNone);
      Recording recording(writer, Content::kH264AndPCM);
      ASSERT_TRUE(writer.start());
      size_t writes = 0;
      failed = false;
      files.setFaults([&](MemoryFileSystem::Operation operation, size_t, uint64_t, size_t bytes) {
        MemoryFileSystem::Fault fault;
        if (operation != MemoryFileSystem::Operation::kWrite || writes++ < victim) return fault;
        // From here on every write of more than a few bytes fails: the disk stays full.
        if (failed && bytes <= 16) return fault;
        failed = true;
        fault.error = ENOSPC;
        fault.mostBytes = std::min(part, bytes);
        return fault;
      });
      recording.recordUpTo(120);
      const uint64_t good = writer.bytesWritten();
      const bool finished = writer.finish();
      EXPECT_EQ(finished, !failed);
      if (!failed) break;
      EXPECT_EQ(writer.status(), AVAssetWriterStatus::Failed);
      EXPECT_EQ(writer.error().code, AVErrorDiskFull);
      EXPECT_NE(writer.error().description.find(kPath), std::string::npos);
      if (!files.exists(kPath) || files.bytes(kPath).empty()) continue;  // nothing was written yet
      const ProbedMovie movie = probeMovie(files.bytes(kPath));
      ASSERT_TRUE(movie.opened) << "write " << victim << ", good up to " << good;
      if (movie.tracks[0].packets > 0) {
        EXPECT_EQ(movie.complaints, "") << "write " << victim;
      }
    }
  }
}

TEST_F(MovieFileWriterTest, FinishesAMovieWhenTheDiskHasRoomAgain) {
  Recording recording(mWriter, Content::kH264AndPCM);
  ASSERT_TRUE(mWriter.start());
  ASSERT_TRUE(recording.recordUpTo(100));
  mFiles.setFaults([](auto operation, size_t, uint64_t, size_t) {
    return MemoryFileSystem::Fault{operation == MemoryFileSystem::Operation::kWrite ? ENOSPC : 0, 4096};
  });
  EXPECT_FALSE(recording.recordUpTo(200));
  mFiles.setFaults({});
  EXPECT_FALSE(mWriter.finish());
  EXPECT_EQ(layoutOf(mFiles.bytes(kPath)), "ftyp mdat moov ");
  EXPECT_GE(probe().find("h264")->packets, 67);
}

TEST_F(MovieFileWriterTest, LeavesNothingWhenItFailsBeforeItsFirstFragment) {
  Recording recording(mWriter, Content::kH264AndPCM);
  ASSERT_TRUE(mWriter.start());
  size_t writes = 0;
  mFiles.setFaults([&](auto operation, size_t, uint64_t, size_t) {
    const bool fails = operation == MemoryFileSystem::Operation::kWrite && ++writes > 1;  // the header fits
    return MemoryFileSystem::Fault{fails ? ENOSPC : 0};
  });
  EXPECT_FALSE(recording.recordUpTo(100));
  EXPECT_GT(mFiles.bytes(kPath).size(), 0U);
  EXPECT_FALSE(mWriter.finish());
  EXPECT_FALSE(mFiles.exists(kPath)) << "a file without a picture";
  EXPECT_EQ(mWriter.error().code, AVErrorDiskFull);
}

TEST_F(MovieFileWriterTest, GetsByOnShortAndInterruptedWrites) {
  Recording recording(mWriter, Content::kH264AndAAC);
  ASSERT_TRUE(mWriter.start());
  size_t turn = 0;
  mFiles.setFaults([&](auto operation, size_t, uint64_t, size_t) {
    MemoryFileSystem::Fault fault;
    if (operation != MemoryFileSystem::Operation::kWrite) return fault;
    if (++turn % 3 == 0) return MemoryFileSystem::Fault{EINTR, SIZE_MAX};
    fault.mostBytes = turn % 3 == 1 ? 1 : 777;
    return fault;
  });
  ASSERT_TRUE(recording.recordUpTo(100));
  const ProbedMovie movie = finishAndProbe(Probe::kDecode);
  EXPECT_EQ(movie.tracks[0].decoded, 100);
}

TEST(MovieFileWriter, FailsWhenTheFolderVanishesAlsoJustBeforeTheEnd) {
  for (const char* const when : {"recording", "before the last fragment", "behind it"}) {
    SCOPED_TRACE(when);
    MemoryFileSystem files;
    MovieFileWriter writer(kPath, files, FragmentWriter::Thread::kNone);
    Recording recording(writer, Content::kH264AndPCM);
    const size_t longer = writer.addTrack(TrackKind::kVideo);
    ASSERT_TRUE(writer.start());
    ASSERT_TRUE(recording.recordUpTo(50));
    if (when == std::string("behind it")) {  // a picture that long ends its fragment
      ASSERT_TRUE(writer.append(longer, packedSample(packedFormat(16, 16), 1, 1'500'000, 2'000'000)));
    }
    files.removeFolder();
    if (when == std::string("recording")) {
      EXPECT_FALSE(recording.recordUpTo(400)) << "it is looked for after each sync";
      EXPECT_EQ(writer.status(), AVAssetWriterStatus::Failed);
    }
    EXPECT_FALSE(writer.finish());
    EXPECT_EQ(writer.error().code, AVErrorFileFailedToWrite);
  }
}

}  // namespace
}  // namespace vesk::test
