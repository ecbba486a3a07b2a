#include <fmt/core.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <vesk/resolution_info.h>
#include <vesk/xml_reader.h>
#include "apps/vesk/commands.h"
#include "apps/vesk/output.h"
#include "apps/vesk/program.h"

namespace vesk::program {
namespace {

uint32_t readProduct(const std::string& text) {
  std::string_view digits = text;
  if (digits.substr(0, 2) == "0x" || digits.substr(0, 2) == "0X") digits.remove_prefix(2);
  uint32_t product = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), product, 16);
  if (error != std::errc() || end != digits.data() + digits.size())
    throw Failure(kWrongUse, fmt::format("\"{}\" is no product.", text),
                  "Write its hexadecimal number, as \"vesk devices\" shows it after the colon.");
  return product;
}

/// Why a catalogue has no list for a product.
Failure missing(const std::string& path, uint32_t product) {
  std::error_code ignored;
  std::ifstream file;
  // Opening a pipe would wait for its other end.
  if (std::filesystem::is_regular_file(path, ignored)) file.open(path, std::ios::binary);
  if (!file.is_open()) return {kFailed, fmt::format("\"{}\" cannot be read.", path), "Name a catalogue file."};
  std::vector<char> bytes(SMXMLReader::kMostBytes + 1);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  NSError error;
  const auto count = static_cast<size_t>(file.gcount());
  const auto root = SMXMLReader::dictionaryForXMLString({bytes.data(), count}, &error);
  if (!root) return {kFailed, fmt::format("\"{}\" is no catalogue.", path), error.description};
  if (!root->retrieveForPath("Resolutions.Camera"))
    return {kFailed, fmt::format("\"{}\" lists no cameras.", path), "Name a catalogue file."};
  return {kFailed, fmt::format("\"{}\" has no resolutions of product {:04X}.", path, product),
          "\"vesk devices\" shows a camera's product after the colon."};
}

struct Row {
  std::string codec;  ///< empty: any
  int32_t width = 0;
  int32_t height = 0;
  int32_t frameRate = 0;  ///< 0: not said
  bool isInterpolated = false;
};

Row readRow(const XMLDictionary& entry) {
  const auto numberAt = [&entry](const char* path) {
    const auto node = entry.retrieveForPath(path);
    return node ? node->int32Value() : 0;
  };
  Row row;
  if (const auto codec = entry.retrieveForPath("FrameRate.FMT"); codec && codec->text()) row.codec = *codec->text();
  row.width = numberAt("SelectedWidth");
  row.height = numberAt("SelectedHeight");
  const auto frameRate = entry.retrieveForPath("FrameRate");
  row.frameRate = numberAt(frameRate && frameRate->dictionary() ? "FrameRate.FrameRate" : "FrameRate");
  const auto interpolated = entry.retrieveForPath("Interpolated");
  row.isInterpolated = interpolated && interpolated->booleanValue();
  return row;
}

void printTable(const std::vector<Row>& rows) {
  if (rows.empty()) printLine("none");
  for (const Row& row : rows)
    printLine("{:<8}  {:>5} x {:<5}  {}{}", row.codec.empty() ? "any" : row.codec, row.width, row.height,
              row.frameRate ? fmt::format("{:>3}/s", row.frameRate) : "    ?",
              row.isInterpolated ? "  interpolated" : "");
}

}  // namespace

int runResolutions(const GlobalOptions& global, const ResolutionsOptions& options) {
  const uint32_t product = readProduct(options.product);
  const auto info = SMResolutionInfo::initWithFilepath(options.file, product);
  uint32_t count = 0;
  if (info->getResolutionCount(&count) != 0) throw missing(options.file, product);

  std::vector<Row> rows;
  for (uint32_t index = 0; index < count; ++index) {
    const auto entry = info->getResolutionArrayAtIndex(index);
    if (!entry) continue;
    Row row = readRow(*entry);
    if (options.codec.empty() || row.codec.empty() || row.codec == options.codec) rows.push_back(std::move(row));
  }
  if (!global.json) {
    printTable(rows);
    return kDone;
  }
  auto list = nlohmann::ordered_json::array();
  for (const Row& row : rows)
    list.push_back({{"codec", row.codec.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(row.codec)},
                    {"width", row.width},
                    {"height", row.height},
                    {"frameRate", row.frameRate},
                    {"interpolated", row.isInterpolated}});
  printJson({{"product", product}, {"resolutions", list}});
  return kDone;
}

}  // namespace vesk::program
