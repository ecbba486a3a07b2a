// Every clip of tests/data, and of the folder that VESK_MEDIA names, is delivered whole and unchanged.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include <vesk/four_char_code.h>
#include "capture/files/movie_index.h"
#include "platform/foundation/byte_reader.h"
#include "tests/unit/capture/file_source_support.h"

namespace vesk::capture::test {
namespace {

struct Clip {
  std::string path;
  std::string frames;  ///< what the folder's list says, where there is one
};

void PrintTo(const Clip& clip, std::ostream* out) {
  *out << clip.path;
}

bool isClip(const std::filesystem::path& path) {
  const std::string suffix = path.extension().string();
  return suffix != ".md" && suffix != ".tsv" && suffix != ".sh" && suffix != ".py" &&
         path.filename().string()[0] != '.';
}

std::vector<Clip> clips() {
  std::vector<Clip> found;
  for (const auto& entry : std::filesystem::directory_iterator(VESK_TEST_DATA)) {
    if (entry.is_regular_file() && isClip(entry.path())) found.push_back({entry.path().string(), ""});
  }
  const char* media = std::getenv("VESK_MEDIA");
  std::ifstream list(std::string(media ? media : "") + "/MANIFEST.tsv");
  for (std::string line; media != nullptr && std::getline(list, line);) {
    std::vector<std::string> fields;
    std::istringstream row(line);
    for (std::string field; std::getline(row, field, '\t');) fields.push_back(field);
    if (fields.size() < 7 || fields[2] != "well-formed") continue;
    found.push_back({std::string(media) + "/" + fields[0], fields[6]});
  }
  std::sort(found.begin(), found.end(), [](const Clip& a, const Clip& b) { return a.path < b.path; });
  return found;
}

void expectRisingTimes(const std::vector<Unit>& units) {
  for (size_t at = 1; at < units.size(); ++at) {
    ASSERT_GT(units[at].time, units[at - 1].time) << "unit " << at;
  }
}

void expectAccessUnits(const std::vector<Unit>& units) {
  for (size_t at = 0; at < units.size(); ++at) {
    const auto& unit = units[at].bytes;
    const auto nals = vesk::test::unitsOf(unit);
    ASSERT_FALSE(nals.empty()) << "unit " << at;
    ASSERT_EQ(readBigEndian32(unit.data()), 1U) << "unit " << at << " begins with something else";
    bool hasSequence = false;
    bool hasPicture = false;
    for (const Bytes& nal : nals) {
      ASSERT_FALSE(nal.empty()) << "unit " << at;
      ASSERT_NE(nal.back(), 0) << "unit " << at << " holds trailing zeros";
      ASSERT_FALSE(vesk::test::holdsThreeByteCode(nal)) << "unit " << at;
      hasSequence |= (nal[0] & 0x1F) == 7;
      hasPicture |= (nal[0] & 0x1F) == 8;
      if ((nal[0] & 0x1F) == 5) {
        ASSERT_TRUE(hasSequence && hasPicture) << "unit " << at;
      }
    }
  }
}

void expectAsInFile(const std::vector<Unit>& units, const std::vector<Bytes>& packets) {
  ASSERT_EQ(units.size(), packets.size());
  for (size_t at = 0; at < units.size(); ++at) ASSERT_EQ(units[at].bytes, packets[at]) << "unit " << at;
}

/// A movie's pictures come as long after each other as the file says.
void expectTimesAsInMovie(const std::vector<Unit>& units, const std::vector<double>& times) {
  ASSERT_EQ(units.size(), times.size());
  for (size_t at = 0; at < units.size(); ++at)
    ASSERT_NEAR(static_cast<double>(units[at].time - units[0].time), times[at] - times[0], 2) << "unit " << at;
}

/// Raw pictures have no container that libav could open by itself: the file is what they are.
Original rawPictures(const std::string& path, size_t frameBytes) {
  const std::string content = contentOf(path);
  Original original;
  for (size_t at = 0; at + frameBytes <= content.size(); at += frameBytes) {
    original.packets.emplace_back(content.begin() + at, content.begin() + at + frameBytes);
    original.pictures.push_back(at);
  }
  return original;
}

void checkPictures(const Clip& clip, const Footage& footage) {
  const VideoTrack& track = *footage.video;
  const bool isRaw = std::filesystem::path(clip.path).extension() == ".uyvy";
  const Original original = isRaw ? rawPictures(clip.path, size_t{2} * track.width * track.height)
                                  : readOriginal(clip.path, AVMEDIA_TYPE_VIDEO);
  for (const uint32_t codec : track.codecs()) {
    SCOPED_TRACE(fourCharString(codec));
    const auto reader = videoReader(footage, codec);
    ASSERT_TRUE(reader);
    const auto units = unitsFrom(*reader);
    EXPECT_EQ(reader->damage(), "");
    std::cout << "  " << fourCharString(codec) << " " << track.width << "x" << track.height << " interval "
              << track.interval << ": " << units.size() << " frames\n";
    expectRisingTimes(units);
    EXPECT_EQ(units.size(), original.pictures.size());
    if (!clip.frames.empty()) {
      EXPECT_EQ(std::to_string(units.size()), clip.frames);
    }
    const std::string kind = std::filesystem::path(clip.path).extension();
    if (track.coding != VideoCoding::kOther && (kind == ".mov" || kind == ".mp4"))
      expectTimesAsInMovie(units, original.times);
    if (codec == kCMVideoCodecType_H264) {
      expectAccessUnits(units);
      EXPECT_EQ(decodeUnits(units, AV_CODEC_ID_H264), original.pictures);
    } else if (codec == kCMVideoCodecType_MotionJPEG || track.coding == VideoCoding::kPacked422) {
      expectAsInFile(units, original.packets);
    } else {
      for (const Unit& unit : units) ASSERT_EQ(unit.bytes.size(), size_t{2} * track.decodedWidth() * track.height);
    }
  }
}

void checkSound(const Clip& clip, const Footage& footage) {
  const Original original = readOriginal(clip.path, AVMEDIA_TYPE_AUDIO);
  const SoundTrack& track = *footage.sound;
  const uint16_t code = track.coding == SoundCoding::kAAC ? kWaveFormatAAC : kWaveFormatLinearPCM;
  const auto reader = soundReader(footage, code);
  ASSERT_TRUE(reader);
  auto units = unitsFrom(*reader);
  EXPECT_EQ(reader->damage(), "");
  std::cout << "  " << (code == kWaveFormatAAC ? "aac " : "pcm ") << track.samplesPerSecond << " x " << track.channels
            << ": " << units.size() << " packets\n";
  expectRisingTimes(units);
  if (track.coding == SoundCoding::kPCM) {
    Bytes delivered;
    Bytes inFile;
    for (const Unit& unit : units) delivered.insert(delivered.end(), unit.bytes.begin(), unit.bytes.end());
    for (const Bytes& packet : original.packets) inFile.insert(inFile.end(), packet.begin(), packet.end());
    EXPECT_EQ(delivered, inFile);
    for (size_t at = 0; at + 1 < units.size(); ++at) {
      const size_t frames = units[at].bytes.size() / 2 / track.channels;
      ASSERT_EQ(frames, std::bit_floor(track.samplesPerSecond / 20)) << "packet " << at;
    }
  } else if (track.isBareStream) {
    ASSERT_EQ(units.size(), original.packets.size());
    for (size_t at = 0; at < units.size(); ++at) {
      const Bytes& packet = original.packets[at];
      ASSERT_EQ(units[at].bytes, Bytes(packet.begin() + 7, packet.end())) << "packet " << at;
    }
  } else if (track.coding == SoundCoding::kAAC) {
    expectAsInFile(units, original.packets);
  }
}

TEST(MovieIndex, TellsAllOnlyOfPlainTracks) {
  const auto isWhole = [](const std::string& path, int track) {
    Error error;
    const auto file = FileBlocks::open(path, error);
    return file && isWholeInIndex(*file, track);
  };
  const std::string street = dataPath("street.mov");
  EXPECT_TRUE(isWhole(street, 1));
  EXPECT_TRUE(isWhole(street, 2)) << "which begins later";
  EXPECT_FALSE(isWhole(street, 3)) << "there is none";
  EXPECT_FALSE(isWhole(dataPath("street-reordered.mp4"), 1)) << "shown in another order";
  EXPECT_FALSE(isWhole(dataPath("town-h264-aac.mp4"), 2)) << "an edit list hides the priming";
  EXPECT_FALSE(isWhole(dataPath("street-mjpeg.avi"), 1));

  // Each of these atoms makes its track one that the index does not tell all of.
  const TemporaryFolder folder;
  const std::string content = contentOf(street);
  for (const auto& [from, to] : {std::pair("stss", "ctts"), std::pair("udta", "mvex"), std::pair("dinf", "free")}) {
    std::string changed = content;
    const size_t at = changed.find(from, changed.find("moov"));
    ASSERT_NE(at, std::string::npos) << from;
    changed.replace(at, 4, to);
    EXPECT_FALSE(isWhole(folder.write("changed.mov", changed), 1)) << to;
  }
}

class EveryClip : public ::testing::TestWithParam<Clip> {};

TEST_P(EveryClip, IsDeliveredWholeAndUnchanged) {
  Error error;
  const auto footage = Footage::open(GetParam().path, false, error);
  ASSERT_TRUE(footage) << error.what;
  std::cout << std::filesystem::path(GetParam().path).filename().string() << "\n";
  if (footage->video) checkPictures(GetParam(), *footage);
  if (footage->sound) checkSound(GetParam(), *footage);
}

std::string nameOf(const ::testing::TestParamInfo<Clip>& clip) {
  std::string name = std::filesystem::path(clip.param.path).filename().string() + "_" + std::to_string(clip.index);
  for (char& character : name) {
    if (!isalnum(static_cast<unsigned char>(character))) character = '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Footage, EveryClip, ::testing::ValuesIn(clips()), nameOf);

}  // namespace
}  // namespace vesk::capture::test
