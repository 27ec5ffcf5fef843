#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "command.h"
#include "tarn.h"

namespace tarn::tool {

namespace {

using nlohmann::json;
using Findings = std::vector<Finding>;

struct Arguments : ModelArguments {
  bool json = false;
};

Findings Check(const ModelArguments& arguments) {
  Findings findings;
  const ModelOptions options(arguments.config, arguments.scrambled, findings);
  for (const Finding& finding :
       CheckModel(options, arguments.backend, arguments.device, arguments.model,
                  "", "")) {
    findings.push_back(finding);
  }
  return findings;
}

size_t CountErrors(const Findings& findings) {
  return static_cast<size_t>(std::count_if(
      findings.begin(), findings.end(),
      [](const Finding& finding) { return finding.severity >= ERROR; }));
}

std::string NameOf(Severity severity) {
  if (severity == FATAL) return "fatal";
  return severity == ERROR ? "error" : "warning";
}

// Red, or yellow for warnings, on a terminal.
std::string Coloured(const std::string& text, Severity severity) {
  if (isatty(STDOUT_FILENO) == 0 || std::getenv("NO_COLOR") != nullptr) {
    return text;
  }
  return (severity >= ERROR ? "\033[31m" : "\033[33m") + text + "\033[0m";
}

std::string Counted(size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void Print(const Findings& findings, const ModelArguments& arguments) {
  for (const Finding& finding : findings) {
    std::cout << arguments.config;
    if (finding.line > 0) std::cout << ":" << finding.line;
    std::cout << ": " << Coloured(NameOf(finding.severity), finding.severity)
              << " " << finding.rule << ": " << finding.found << '\n';
    if (!finding.hint.empty()) std::cout << "    " << finding.hint << '\n';
  }
  const size_t error_num = CountErrors(findings);
  std::cout << arguments.config
            << (arguments.model.empty() ? "" : " for " + arguments.model)
            << ": " << Counted(error_num, "error") << ", "
            << Counted(findings.size() - error_num, "warning") << '\n';
}

json JsonOf(const Finding& finding) {
  return {{"severity", NameOf(finding.severity)},
          {"option", finding.option},
          {"line", finding.line},
          {"rule", finding.rule},
          {"found", finding.found},
          {"hint", finding.hint}};
}

void PrintJson(const Findings& findings, const ModelArguments& arguments) {
  json document = {{"config", arguments.config},
                   {"model", arguments.model},
                   {"accepted", CountErrors(findings) == 0},
                   {"findings", json::array()}};
  for (const Finding& finding : findings) {
    document["findings"].push_back(JsonOf(finding));
  }
  std::cout << document.dump(2) << '\n';
}

}  // namespace

void AddCheck(CLI::App& app, Status& status) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand(
      "check", "Lists every problem of a configuration at once");
  AddModelArguments(*command, *arguments);
  command->get_option("model")->required(false);
  command->add_flag("--json", arguments->json, "Print one JSON document");
  command->callback([arguments, &status] {
    const Findings findings = Check(*arguments);
    (arguments->json ? PrintJson : Print)(findings, *arguments);
    status = CountErrors(findings) == 0 ? kYes : kNo;
  });
}

}  // namespace tarn::tool
