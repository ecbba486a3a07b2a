#include <vesk/h264_bitstream.h>

#include <gtest/gtest.h>

#include <random>

#include "movie/h264_units.h"
#include "tests/support/bytes.h"
#include "tests/support/captured_lines.h"

namespace vesk {
namespace {

using test::bytes;
using test::CapturedLines;
using Bytes = std::vector<uint8_t>;

uint32_t sizeOf(const Bytes& data) {
  return static_cast<uint32_t>(data.size());
}

constexpr const char* kMessage = "*** [Error] in converting to box format!!!\n";

struct Conversion {
  const char* label;
  const char* stream;
  const char* boxes;
  bool fails;
};

TEST(ConvertStream, RewritesEachStartCodeToTheLengthOfItsUnit) {
  const Conversion rows[] = {
      {"one unit", "00000001 65AABB", "00000003 65AABB", false},
      {"two units", "00000001 671122 00000001 6833", "00000003 671122 00000002 6833", false},
      {"three-byte code inside", "00000001 65 000001 AA", "00000005 65 000001 AA", false},
      {"zero before a code", "00000001 65AA00 00000001 41", "00000003 65AA00 00000001 41", false},
      {"codes back to back", "00000001 00000001 65", "00000000 00000001 65", false},
      {"no start code", "65AABBCCDD", "00000001 DD", false},
      {"first code at 4", "AABBCCDD 00000001 65", "00000000 00000001 65", false},
      {"first code at 6", "AABBCCDDEEFF 00000001 65", "00000002 EEFF 00000001 65", false},
      {"one byte before the first code", "00 00000001 65AA 00000001 41", "00000003 65AA00 00000001 41", false},
      {"three bytes before the first code", "AABBCC 00000001 65AA", "00000005 65AA000000", false},
      {"leading bytes and no unit", "AA 00000001", "00000001 00", false},
      {"only a start code", "00000001", "00000001", true},
      {"ends in a start code", "00000001 65AA 00000001", "00000002 65AA 00000001", true},
      {"three bytes", "000001", "000001", true},
      {"four bytes of no code", "AABBCCDD", "AABBCCDD", true},
      {"empty", "", "", false},
  };
  for (const Conversion& row : rows) {
    SCOPED_TRACE(row.label);
    Bytes data = bytes(row.stream);
    CapturedLines lines;
    H264ConvertStreamToBoxFormat(data.data(), sizeOf(data));
    EXPECT_EQ(data, bytes(row.boxes));
    EXPECT_EQ(lines.text(), row.fails ? kMessage : "");
  }
}

TEST(ConvertStream, SaysSoExactlyWhenTheLengthsDoNotAddUp) {
  std::mt19937 random(11);
  for (int round = 0; round < 2000; ++round) {
    Bytes data(1 + random() % 24);
    for (uint8_t& byte : data) byte = bytes("0000000001FF")[random() % 6];
    const Bytes before = data;
    CapturedLines lines;
    ConvertStreamToBoxFormat(data.data(), sizeOf(data));
    ASSERT_EQ(lines.text().empty(), IsH264BoxFormat(data.data(), sizeOf(data))) << testing::PrintToString(before);
  }
}

TEST(EnsureBoxFormat, ConvertsOnceHoweverOftenItIsCalled) {
  const char* streams[] = {"00000001 65AABB", "00000001 09F0 00000001 671122 00000001 6833 00000001 6588",
                           "00000001 0A 00000001 6588AA", "00 00000001 65AA"};
  for (const char* stream : streams) {
    SCOPED_TRACE(stream);
    Bytes once = bytes(stream);
    ConvertStreamToBoxFormat(once.data(), sizeOf(once));
    Bytes data = bytes(stream);
    EXPECT_FALSE(IsH264BoxFormat(data.data(), sizeOf(data)));
    for (int consumer = 0; consumer < 3; ++consumer) EnsureH264BoxFormat(data.data(), sizeOf(data));
    EXPECT_EQ(data, once);
  }
}

TEST(EnsureBoxFormat, TakesOnlyLengthsThatAddUpForBoxFormat) {
  EXPECT_TRUE(IsH264BoxFormat(bytes("00000002 6588 00000001 41").data(), 11));
  EXPECT_FALSE(IsH264BoxFormat(bytes("00000003 6588 00000001 41").data(), 11));
  EXPECT_FALSE(IsH264BoxFormat(bytes("00000002 6588 0000").data(), 8));
  EXPECT_FALSE(IsH264BoxFormat(bytes("FFFFFFFF 6588").data(), 6));
  EXPECT_FALSE(IsH264BoxFormat(nullptr, 0));
}

TEST(FindNALUnit, FindsTheFirstUnitOfAType) {
  Bytes data = bytes("00000003 671122 00000000 00000002 6833 00000002 6844");
  uint32_t length = 0;
  uint8_t* unit = nullptr;
  ASSERT_TRUE(FindNALUnit(8, data.data(), sizeOf(data), &length, &unit));
  EXPECT_EQ(length, 2U);
  EXPECT_EQ(unit, data.data() + 15);
  ASSERT_TRUE(FindNALUnit(7, data.data(), sizeOf(data), &length, &unit));
  EXPECT_EQ(length, 3U);
  EXPECT_EQ(unit, data.data() + 4);
}

TEST(FindNALUnit, StopsAtLengthsThatRunPastTheEnd) {
  for (const char* stream : {"", "00", "000000", "00000001", "00000002 68", "00000001 41 00000005 68", "FFFFFFFF 68",
                             "FFFFFFFC 68", "00000001 41 000000"}) {
    SCOPED_TRACE(stream);
    Bytes data = bytes(stream);
    uint32_t length = 77;
    uint8_t* unit = nullptr;
    EXPECT_FALSE(FindNALUnit(8, data.data(), sizeOf(data), &length, &unit));
    EXPECT_EQ(length, 77U);
    EXPECT_EQ(unit, nullptr);
  }
}

TEST(HeaderInfo, KeepsCopiesOfTheLastSetsSeen) {
  CH264HeaderInfo info;
  {
    const Bytes first = bytes("00000002 6833");
    info.Collect(first.data(), sizeOf(first));
    EXPECT_EQ(info.mSPS.mData, nullptr);
    EXPECT_FALSE(info.isComplete());
  }
  {
    const Bytes second = bytes("00000003 671122 00000001 41");
    info.Collect(second.data(), sizeOf(second));
  }
  EXPECT_TRUE(info.isComplete());
  EXPECT_TRUE(info.mSPS.mOwnsData);
  EXPECT_EQ(Bytes(info.mSPS.mData, info.mSPS.mData + info.mSPS.mSize), bytes("00000003 671122"));
  EXPECT_EQ(Bytes(info.mPPS.mData, info.mPPS.mData + info.mPPS.mSize), bytes("00000002 6833"));

  const Bytes third = bytes("00000004 67998877");
  info.Collect(third.data(), sizeOf(third));
  EXPECT_EQ(Bytes(info.mSPS.mData, info.mSPS.mData + info.mSPS.mSize), third);
}

TEST(Parser, LeavesTheUnitAloneWhenThereIsNone) {
  const Bytes data = bytes("00000001 41");
  CNALUnit unit(data.data(), 5);
  EXPECT_FALSE(CH264Parser(data.data(), sizeOf(data)).FindNALUnit(7, unit));
  EXPECT_EQ(unit.mData, data.data());
  ASSERT_TRUE(CH264Parser(data.data(), sizeOf(data)).FindNALUnit(1, unit));
  EXPECT_EQ(unit.mSize, 5U);
  EXPECT_FALSE(unit.mOwnsData);
}

TEST(ExtensionData, HoldsBothSetsAndTheProfile) {
  const struct {
    const char* label;
    const char* sps;
    const char* pps;
    const char* record;
  } rows[] = {
      {"both", "6742C01EAABBCCDDEEFF", "68CE3C80", "01 42C01E FF E1 000A 6742C01EAABBCCDDEEFF 01 0004 68CE3C80"},
      {"short SPS", "6742", "68", "01 420000 FF E1 0002 6742 01 0001 68"},
      {"no SPS", "", "68CE", "01 000000 FF E0 01 0002 68CE"},
      {"no PPS", "6742C01E", "", "01 42C01E FF E1 0004 6742C01E 00"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Bytes sps = bytes(row.sps);
    const Bytes pps = bytes(row.pps);
    EXPECT_EQ(CreateH264ExtensionData(sps.data(), sizeOf(sps), pps.data(), sizeOf(pps)), bytes(row.record));
  }
}

TEST(ExtensionData, RefusesSetsThatItsLengthsCannotSay) {
  const Bytes longest(65535, 0x67);
  const Bytes tooLong(65536, 0x67);
  EXPECT_EQ(CreateH264ExtensionData(longest.data(), 65535, longest.data(), 4).size(), 11U + 65535 + 4);
  EXPECT_TRUE(CreateH264ExtensionData(tooLong.data(), 65536, longest.data(), 4).empty());
  EXPECT_TRUE(CreateH264ExtensionData(longest.data(), 4, tooLong.data(), 65536).empty());
}

}  // namespace
}  // namespace vesk
