#include "apps/vesk/program.h"

#include <nlohmann/json.hpp>
#include <string>

#include "apps/vesk/output.h"

namespace vesk::program {

void printJson(const nlohmann::ordered_json& document) {
  // Names of devices and files may hold bytes that are not UTF-8; they are replaced, never thrown at.
  const std::string text = document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  writeResult(text + "\n");
}

int report(const Failure& failure, const GlobalOptions& options) {
  if (!failure.isTold) sayLine("vesk: {}{}{}", failure.what(), failure.hint.empty() ? "" : " ", failure.hint);
  if (options.json) {
    printJson(
        {{"error", {{"what", failure.what()}, {"status", static_cast<int>(failure.status)}, {"hint", failure.hint}}}});
  }
  return failure.status;
}

}  // namespace vesk::program
