#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include <vesk/doctor.h>
#include "apps/vesk/commands.h"
#include "apps/vesk/host.h"
#include "apps/vesk/output.h"

namespace vesk::program {
namespace {

const char* nameOf(Finding::Mark mark) {
  switch (mark) {
    case Finding::Mark::kOk:
      return "ok";
    case Finding::Mark::kNote:
      return "note";
    case Finding::Mark::kProblem:
      return "problem";
  }
  return "";
}

/// What to do, with what this program has for it.
std::string remedyOf(const Finding& finding) {
  if (finding.subject == "camera" && finding.cause == Cause::kNoDevice)
    return finding.remedy + " \"vesk --capture simulated\" has one for trying things out.";
  if (finding.cause == Cause::kBusy) return finding.remedy + " \"sudo vesk doctor\" knows the programs of all users.";
  return finding.remedy;
}

void print(const Finding& finding) {
  printLine("{:<8} {:<11} {}", nameOf(finding.mark), finding.subject, finding.text);
  if (const std::string remedy = remedyOf(finding); !remedy.empty()) printLine("{:<8} {:<11} -> {}", "", "", remedy);
}

}  // namespace

int runDoctor(const GlobalOptions& global) {
  setUpLogLines(global.verbose);
  const auto findings = diagnose();
  const auto problems = std::count_if(findings.begin(), findings.end(),
                                      [](const Finding& each) { return each.mark == Finding::Mark::kProblem; });
  if (global.json) {
    auto list = nlohmann::ordered_json::array();
    for (const Finding& each : findings)
      list.push_back(
          {{"mark", nameOf(each.mark)}, {"subject", each.subject}, {"text", each.text}, {"remedy", remedyOf(each)}});
    printJson({{"findings", list}, {"problems", problems}});
  } else {
    for (const Finding& each : findings) print(each);
    printLine("{}", problems == 0
                        ? "All is well."
                        : fmt::format("{} to be solved.",
                                      problems == 1 ? "1 problem is" : fmt::format("{} problems are", problems)));
  }
  return problems == 0 ? kDone : kFailed;
}

}  // namespace vesk::program
