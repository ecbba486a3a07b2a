#include "apps/vesk/log_lines.h"

#include <fmt/core.h>

#include <cctype>
#include <utility>

namespace vesk::program {
namespace {

constexpr std::chrono::minutes kQuiet{1};
constexpr size_t kMostKinds = 100;

constexpr std::string_view kProgram = "vesk: ";

std::string withoutNumbers(std::string_view line) {
  std::string kind;
  for (const char character : line) {
    if (!std::isdigit(static_cast<unsigned char>(character)))
      kind += character;
    else if (kind.empty() || kind.back() != '0')
      kind += '0';
  }
  return kind;
}

}  // namespace

std::optional<std::string> LogLines::take(std::string_view line, Clock::time_point now) {
  if (mKinds.size() >= kMostKinds) mKinds.clear();
  const auto [found, isNew] = mKinds.try_emplace(withoutNumbers(line));
  Kind& kind = found->second;
  if (!isNew && now - kind.shown < kQuiet) {
    ++kind.unshown;
    return std::nullopt;
  }
  std::string shown = fmt::format("{}{}", kProgram, line);
  if (kind.unshown != 0) shown += fmt::format(" ({} times since it was last said)", kind.unshown + 1);
  kind = {std::string(line), now, 0};
  return shown;
}

std::vector<std::string> LogLines::counts() {
  std::vector<std::string> lines;
  for (const auto& [key, kind] : std::exchange(mKinds, {}))
    if (kind.unshown != 0) lines.push_back(fmt::format("{}{} more like this: {}", kProgram, kind.unshown, kind.line));
  return lines;
}

}  // namespace vesk::program
