#include "apps/vesk/program.h"

#include <fmt/core.h>

#include <cstdio>
#include <nlohmann/json.hpp>

namespace vesk::program {

void printJson(const nlohmann::ordered_json& document) {
  // Names of devices and files may hold bytes that are not UTF-8; they are replaced, never thrown at.
  const std::string text = document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  fmt::print("{}\n", text);
  std::fflush(stdout);
}

int report(const Failure& failure, const GlobalOptions& options) {
  const std::string line = failure.hint.empty() ? fmt::format("vesk: {}", failure.what())
                                                : fmt::format("vesk: {} {}", failure.what(), failure.hint);
  fmt::print(stderr, "{}\n", line);
  if (options.json) {
    printJson(
        {{"error", {{"what", failure.what()}, {"status", static_cast<int>(failure.status)}, {"hint", failure.hint}}}});
  }
  return failure.status;
}

}  // namespace vesk::program
