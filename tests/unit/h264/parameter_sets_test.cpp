#include "platform/h264/parameter_sets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "platform/h264/decoder_configuration.h"
#include "platform/h264/picture_geometry.h"
#include "tests/support/bytes.h"

namespace vesk::h264 {
namespace {

using test::Bytes;
using test::bytes;

// Sequence sets 0 and 1; picture sets 0 and 1 of sequence set 0, and 2 of sequence set 1; slices of each.
const char* const kSequence0 = "67 42 00 1E 80 11";
const char* const kSequence0Changed = "67 42 00 1F 80 11";
const char* const kSequence1 = "67 42 00 1E 40 11";
const char* const kPicture0 = "68 C0 22";
const char* const kPicture0Changed = "68 C0 23";
const char* const kPicture1 = "68 50 33";
const char* const kPicture2 = "68 65 44";  // 011 | 010
const char* const kIDR0 = "65 B8 44";      // 1 | 011 | 1
const char* const kIDR1 = "65 B4 55";      // 1 | 011 | 010
const char* const kIDR2 = "65 B6 55";      // 1 | 011 | 011
const char* const kSlice0 = "41 9A 66";    // 1 | 00110 | 1
const char* const kBroken = "41 00 00";

TEST(ParameterSetWatch, TellsSlicesThatNeedOtherSets) {
  const struct {
    const char* label;
    std::vector<const char*> before;
    const char* slice;
    bool fits;
  } rows[] = {
      {"the first slice, whatever it is", {kSequence0, kPicture0, kPicture1}, kIDR1, true},
      {"sets that are not known", {}, kIDR1, true},
      {"the same again", {kSequence0, kPicture0, kIDR0, kSequence0, kPicture0}, kSlice0, true},
      {"the same with zeros behind it", {kSequence0, kPicture0, kIDR0, "67 42 00 1E 80 11 00 00"}, kSlice0, true},
      {"other sets that no slice uses",
       {kSequence0, kPicture0, kIDR0, kSequence1, kPicture1, kPicture2},
       kSlice0,
       true},
      {"another picture set", {kSequence0, kPicture0, kPicture1, kIDR0}, kIDR1, false},
      {"another sequence set", {kSequence0, kPicture0, kIDR0, kSequence1, kPicture2}, kIDR2, false},
      {"the picture set changed", {kSequence0, kPicture0, kIDR0, kPicture0Changed}, kSlice0, false},
      {"the sequence set changed", {kSequence0, kPicture0, kIDR0, kSequence0Changed}, kIDR0, false},
      {"changed and changed back", {kSequence0, kPicture0, kIDR0, kSequence0Changed, kSequence0}, kIDR0, true},
      {"a slice that cannot be read", {kSequence0, kPicture0, kIDR0}, kBroken, true},
      {"what is no slice", {kSequence0, kPicture0, kIDR0}, "06 B4 55", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    ParameterSetWatch watch;
    for (const char* nal : row.before) EXPECT_TRUE(watch.look(bytes(nal))) << nal;
    EXPECT_EQ(watch.look(bytes(row.slice)), row.fits);
    if (row.fits) continue;
    watch.release();
    EXPECT_TRUE(watch.look(bytes(row.slice))) << "the new sets are held then";
  }
}

/// The numbers are read from eight bytes at once where that can be done.
TEST(ParameterSets, ReadTheHeadOfASliceWhateverStandsInIt) {
  EXPECT_EQ(ParameterSets::pictureNumberOfSlice(bytes("41 9A")), 0U);
  EXPECT_EQ(ParameterSets::pictureNumberOfSlice(bytes("41 9A 00 77 88 99 AA BB CC DD")), 0U);
  EXPECT_EQ(ParameterSets::pictureNumberOfSlice(bytes("41")), std::nullopt);
  EXPECT_EQ(ParameterSets::pictureNumberOfSlice(bytes("41 00 00 03 00 00 03 00 80 11 80 66 77 88 99")), std::nullopt)
      << "a number of more than 32 bits";
  // First macroblocks of every size, picture sets of every number: against a writer of bits.
  for (const unsigned first : {0U, 1U, 39U, 8159U, 36863U, 139263U}) {
    for (const unsigned set : {0U, 1U, 7U, 128U, 255U, 256U, 5000U}) {
      std::string bits;
      const auto put = [&bits](unsigned value) {
        unsigned length = 0;
        while (value + 1 >= 2U << length) ++length;
        bits += std::string(length, '0');
        for (unsigned bit = length + 1; bit-- > 0;) bits += (value + 1) >> bit & 1 ? '1' : '0';
      };
      put(first);
      put(7);
      put(set);
      bits += "1011011101111011";
      Bytes slice = {0x41};
      for (size_t at = 0; at + 8 <= bits.size(); at += 8) {
        if (slice.size() >= 3 && slice.back() == 0 && slice[slice.size() - 2] == 0 && bits.substr(at, 6) == "000000")
          slice.push_back(3);  // emulation prevention
        slice.push_back(static_cast<uint8_t>(std::stoul(bits.substr(at, 8), nullptr, 2)));
      }
      slice.insert(slice.end(), 10, 0xA5);
      const auto found = ParameterSets::pictureNumberOfSlice(slice);
      EXPECT_EQ(found, set < ParameterSets::kMaxPictureSets ? std::optional(set) : std::nullopt) << first;
    }
  }
}

TEST(DecoderConfiguration, IsReadOnlyAsFarAsItIsWhole) {
  Bytes record = bytes("01 42001E FF E1 0006 67 42 00 1E 80 11 02 0003 68 C0 22 0003 68 50 33");
  const Bytes sequence = bytes(kSequence0);
  for (size_t length = 0; length <= record.size(); ++length) {
    ParameterSets sets;
    const std::span<const uint8_t> cut = std::span(record).first(length);
    EXPECT_EQ(sets.learnRecord(cut), length == record.size() ? std::optional(4) : std::nullopt) << length;
    const auto first = firstSequenceParameterSet(cut);
    ASSERT_EQ(first.has_value(), length >= 14) << length;
    EXPECT_TRUE(!first || std::ranges::equal(*first, sequence));
  }
  for (const auto& [lengthByte, size] : {std::pair{0xFD, 2}, std::pair{0xFC, 1}, std::pair{0xFE, 0}}) {
    record[4] = static_cast<uint8_t>(lengthByte);
    EXPECT_EQ(ParameterSets().learnRecord(record).value_or(0), size);
  }
  EXPECT_FALSE(firstSequenceParameterSet(bytes("01 42C01E FF E0"))) << "there is none";
}

TEST(PictureGeometry, IsReadFromASequenceParameterSetThatIsWhole) {
  const struct {
    const char* label;
    const char* parameterSet;
    uint32_t width, height;
    uint32_t aspectWidth, aspectHeight;
    bool progressive;
    int primaries;  // -1: not said
  } rows[] = {{"baseline, cropped", "67420034f300f0044fca80", 1920, 1080, 1, 1, true, -1},
              {"camera", "6742c01edb0280f684000003000400000300f23c58bb80", 640, 480, 1, 1, true, -1},
              {"high, cropped, BT.709", "67640028acd940780227e5ffc000c0011a808080a000000300200000030041e30632c0", 1920,
               1080, 3, 4, true, 1},
              {"interlaced, wide pixels", "67640016acd940b424dff800800078800000030080000003010f8a14cb", 720, 576, 16,
               15, false, -1},
              {"odd size, own pixel shape", "67640016acd940a02fea6ffc0b300ef44000000300400000030083c58b6580", 638, 358,
               716, 957, true, -1},
              {"4:4:4, scaling lists", "67f4000a919b2884d87080000003008000000301078912cb", 64, 64, 4, 3, true, -1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto whole = bytes(row.parameterSet);
    const auto geometry = readPictureGeometry(whole);
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->width, row.width);
    EXPECT_EQ(geometry->height, row.height);
    EXPECT_EQ(geometry->aspectWidth, row.aspectWidth);
    EXPECT_EQ(geometry->aspectHeight, row.aspectHeight);
    EXPECT_EQ(geometry->progressive, row.progressive);
    EXPECT_EQ(geometry->colour ? geometry->colour->primaries : -1, row.primaries);
    for (size_t size = 0; size < 9; ++size) EXPECT_FALSE(readPictureGeometry(std::span(whole).first(size))) << size;
  }
}

}  // namespace
}  // namespace vesk::h264
