#include "platform/h264/byte_stream.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/h264/start_code_scan.h"
#include "tests/support/bytes.h"

namespace vesk::h264 {
namespace {

using test::Bytes;
using test::bytes;

/// Where codes of 01 after so many zeros are, one byte at a time.
std::vector<size_t> codesByteByByte(const Bytes& data, size_t from, size_t zeros) {
  std::vector<size_t> found;
  for (size_t at = from; at + zeros < data.size(); ++at) {
    const auto begin = data.begin() + static_cast<ptrdiff_t>(at);
    const auto end = begin + static_cast<ptrdiff_t>(zeros);
    if (std::all_of(begin, end, [](uint8_t byte) { return byte == 0; }) && *end == 1) found.push_back(at);
  }
  return found;
}

template <class Block>
std::vector<size_t> longCodes(const Bytes& data, size_t from) {
  std::vector<size_t> found;
  start_codes::forEachStartCode<Block>(data.data() + from, data.data() + data.size(), [&](const uint8_t* at) {
    found.push_back(static_cast<size_t>(at - data.data()));
  });
  return found;
}

std::vector<size_t> shortCodes(const Bytes& data, size_t from) {
  std::vector<size_t> found;
  for (size_t at = findStartCode(data, from); at < data.size(); at = findStartCode(data, at + 1)) found.push_back(at);
  return found;
}

void expectWhatAPlainSearchFinds(const Bytes& data, size_t from) {
  const auto longOnes = codesByteByByte(data, from, 3);
  ASSERT_EQ(longCodes<start_codes::FastestBlock>(data, from), longOnes) << data.size() << " from " << from;
  ASSERT_EQ(longCodes<start_codes::PortableBlock>(data, from), longOnes) << data.size() << " from " << from;
  ASSERT_EQ(shortCodes(data, from), codesByteByByte(data, from, 2)) << data.size() << " from " << from;
}

TEST(StartCodes, AreFoundWhereAByteByByteSearchFindsThem) {
  std::mt19937 random(7);
  for (const auto& alphabet :
       {bytes("00"), bytes("0001"), bytes("00000001"), bytes("00000000000103FF"), bytes("FF0100")}) {
    for (int round = 0; round < 400; ++round) {
      Bytes data(random() % 700);
      for (uint8_t& byte : data) byte = alphabet[random() % alphabet.size()];
      data.shrink_to_fit();
      const size_t from = random() % 40;
      if (from <= data.size()) expectWhatAPlainSearchFinds(data, from);
    }
  }
  // A single one at every place and alignment.
  for (const size_t size : {4U, 21U, 150U, 300U}) {
    for (size_t from = 0; from < 17; ++from) {
      for (size_t at = from; at + 4 <= size; ++at) {
        Bytes data(size, 0xFF);
        data[at] = data[at + 1] = data[at + 2] = 0;
        data[at + 3] = 1;
        expectWhatAPlainSearchFinds(data, from);
      }
    }
  }
}

}  // namespace
}  // namespace vesk::h264
