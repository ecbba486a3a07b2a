#include "apps/vesk/log_lines.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace vesk::program {
namespace {

constexpr std::chrono::minutes kQuiet{1};
constexpr size_t kMostKinds = 100;

struct Translation {
  std::string_view start;
  std::string_view words;  ///< empty: not shown
};
constexpr std::array kTranslations = {
    // The ordinary course of things.
    Translation{"Starting writing [", ""}, Translation{"Finished writing [", ""}, Translation{"Dealloc AVDevice ", ""},
    Translation{"Samples are being discarded!!!", ""}, Translation{"item ", ""}, Translation{"panRelative", ""},
    Translation{"tiltRelative", ""}, Translation{"resetPanTiltRel Result 0", ""}, Translation{"IsRunning ", ""},
    Translation{"Accepts First ", ""}, Translation{"(", ""},  // a meter's inputs
    // What commands say themselves, once and with what to do; dropped pictures and silence are counted there.
    Translation{"The camera at ", ""}, Translation{"Asset writer failed [", ""}, Translation{"[FATAL]", ""},
    Translation{"[WARNING]: Inserting ", ""}, Translation{" VCI_Enum_Property_Items is failed", ""},
    // For engineers as they stand.
    Translation{"[WARNING]: Dropping out of order audio packet", "sound came out of order and was left out"},
    Translation{"*** [Error] in converting to box format", "a damaged picture came from the camera"},
    Translation{"*** Unsupported media type", "something that is neither picture nor sound was left out"},
    Translation{"StringTexture -genTexture", "the text in the preview cannot be drawn"}};
constexpr std::string_view kWarning = "[WARNING]: ";
constexpr std::string_view kProgram = "vesk: ";

std::string withoutNumbers(const std::string& line) {
  std::string kind;
  for (const char character : line) {
    if (!std::isdigit(static_cast<unsigned char>(character)))
      kind += character;
    else if (kind.empty() || kind.back() != '0')
      kind += '0';
  }
  return kind;
}

std::string inWords(std::string_view line) {
  for (const Translation& translation : kTranslations)
    if (line.starts_with(translation.start)) return std::string(translation.words);
  if (line.starts_with(kWarning)) line.remove_prefix(kWarning.size());
  if (line.starts_with(kProgram)) line.remove_prefix(kProgram.size());
  return std::string(line);
}

}  // namespace

bool LogLines::isForPeople(std::string_view line) {
  return !inWords(line).empty();
}

std::optional<std::string> LogLines::take(std::string_view line, Clock::time_point now) {
  std::string words = inWords(line);
  if (words.empty()) return std::nullopt;
  if (mKinds.size() >= kMostKinds) mKinds.clear();
  const auto [found, isNew] = mKinds.try_emplace(withoutNumbers(words));
  Kind& kind = found->second;
  if (!isNew && now - kind.shown < kQuiet) {
    ++kind.unshown;
    return std::nullopt;
  }
  std::string shown = fmt::format("{}{}", kProgram, words);
  if (kind.unshown != 0) shown += fmt::format(" ({} times since it was last said)", kind.unshown + 1);
  kind = {std::move(words), now, 0};
  return shown;
}

std::vector<std::string> LogLines::counts() {
  std::vector<std::string> lines;
  for (const auto& [key, kind] : std::exchange(mKinds, {}))
    if (kind.unshown != 0) lines.push_back(fmt::format("{}{} more like this: {}", kProgram, kind.unshown, kind.line));
  return lines;
}

}  // namespace vesk::program
