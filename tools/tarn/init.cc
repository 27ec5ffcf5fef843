#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "command.h"
#include "config-file.h"
#include "guess.h"
#include "proof.h"
#include "safe-file.h"
#include "utils/text-utils.h"

namespace tarn::tool {

namespace {

struct Arguments {
  std::string model;
  std::string out;
  std::vector<std::string> caches;
  std::string batch;
  std::vector<std::string> dynamic;
  std::vector<std::string> names;
  bool json = false;
};

[[noreturn]] void WrongUse(const std::string& option, const std::string& text,
                           const std::string& expected) {
  throw CLI::ValidationError(option, "'" + text + "' is no " + expected);
}

using TwoParts = std::pair<std::string, std::string>;

// The parts of `text` before and behind the last `separator`, both of them not
// empty; two empty texts otherwise.
TwoParts SplitAtLast(const std::string& text, char separator) {
  const size_t at = text.rfind(separator);
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) return {};
  return {text.substr(0, at), text.substr(at + 1)};
}

void ParseRange(const std::string& option, const std::string& text,
                Ranges& ranges) {
  const auto [name, range] = SplitAtLast(text, ':');
  const auto [low, high] = SplitAtLast(range, '-');
  std::pair<int, int> bounds;
  if (name.empty() || !ConvertStringToInteger(low, bounds.first) ||
      !ConvertStringToInteger(high, bounds.second) || bounds.first < 1 ||
      bounds.first > bounds.second) {
    WrongUse(option, text, "NAME:MIN-MAX, such as time:4-64");
  }
  ranges[name] = bounds;
}

std::string LegalOrWrong(const std::string& option, const std::string& name) {
  if (LegalName(name) != name) WrongUse(option, name, "name of a dimension");
  return name;
}

// NAME, NAME:MIN-MAX or none.
void ParseBatch(const std::string& text, Overrules& overrules) {
  if (text.empty()) return;
  const bool has_range = text.find(':') != std::string::npos;
  if (has_range) ParseRange("--batch", text, overrules.ranges);
  const std::string name = text.substr(0, text.rfind(':'));
  overrules.batch = name == "none" ? "" : LegalOrWrong("--batch", name);
}

void ParseCaches(const std::vector<std::string>& texts, Overrules& overrules) {
  if (texts.empty()) return;
  overrules.caches.emplace();
  if (texts.size() == 1 && texts[0] == "none") return;
  for (const std::string& text : texts) {
    const CachePair pair = SplitAtLast(text, ':');
    if (pair.first.empty()) WrongUse("--cache", text, "OUTPUT:INPUT");
    overrules.caches->push_back(pair);
  }
}

Overrules Parse(const Arguments& arguments) {
  Overrules overrules;
  ParseCaches(arguments.caches, overrules);
  ParseBatch(arguments.batch, overrules);
  for (const std::string& text : arguments.dynamic) {
    ParseRange("--dynamic", text, overrules.ranges);
  }
  for (const std::string& text : arguments.names) {
    const auto [place, name] = SplitAtLast(text, '=');
    if (place.empty()) WrongUse("--name", text, "TENSOR.AXIS=NAME");
    overrules.names[place] = LegalOrWrong("--name", name);
  }
  return overrules;
}

using Comments = std::map<std::string, std::string>;

Comments CommentsOf(const Guess& guess) {
  Comments comments = guess.grounds;
  std::string& head = comments[""];
  head = "Written by tarn init for " +
         std::filesystem::path(guess.network.path).filename().string() +
         " from what the network tells and from guesses.";
  for (const std::string& text : guess.undecided) {
    head += "\nUndecided: " + text + ".";
  }
  comments["inputs-format"] = "What the host fills.";
  comments["outputs-format"] = "What the host reads.";
  comments["multi-threads"] =
      guess.batch.empty()
          ? "One thread calls, and computes. Set both to true for many."
          : "Many threads call; one thread of the model's own computes. It "
            "waits up to\ninfer-interval microseconds for a batch to fill.";
  comments["num-execute-threads"] =
      "Threads inside one run of the engine; more may pay for a large network.";
  return comments;
}

// What has been read from the text, as a host does it.
ModelOptions ReadBack(const std::string& text) {
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("tarn-init-" + std::to_string(getpid()) + ".conf"))
                               .string();
  WriteFile(path, text);
  std::vector<Finding> findings;
  ModelOptions options(path, false, findings);
  std::filesystem::remove(path);
  if (findings.empty()) return options;
  throw Failure("the configuration would not be read: " + findings[0].found);
}

std::string Summary(const Proof& proof) {
  double largest = 0;
  for (const auto& [name, difference] : proof.differences) {
    largest = std::max(largest, difference);
  }
  std::ostringstream os;
  os << "proved with " << proof.stream_num << " x " << proof.chunk_num
     << " chunks, each stream in the library and alone on the engine: largest "
        "relative difference "
     << largest;
  return os.str();
}

void Explain(const Guess& guess, const Proof& proof) {
  for (const auto& [option, ground] : guess.grounds) {
    std::istringstream lines(ground);
    for (std::string line; std::getline(lines, line);) {
      std::cerr << option << ": " << line << '\n';
    }
  }
  for (const std::string& text : guess.undecided) {
    std::cerr << "undecided: " << text << '\n';
  }
  std::cerr << Summary(proof) << '\n';
}

void PrintJson(const Guess& guess, const ModelOptions& options,
               const std::string& config, const Proof& proof) {
  nlohmann::json document = {{"model", guess.network.path},
                             {"config", config},
                             {"grounds", guess.grounds},
                             {"undecided", guess.undecided}};
  for (const auto& [name, value] : OptionTexts(options)) {
    document["options"][name] = value;
  }
  document["proof"] = {{"streams", proof.stream_num},
                       {"chunks", proof.chunk_num},
                       {"relative_differences", proof.differences}};
  std::cout << document.dump(2) << '\n';
}

void Init(const Arguments& arguments) {
  const Overrules overrules = Parse(arguments);
  const Guess guess = MakeGuess(ReadNetwork(arguments.model), overrules);
  const std::string text = ConfigText(OptionsOf(guess), CommentsOf(guess));
  const ModelOptions options = ReadBack(text);
  const Proof proof = Prove(options, guess.network);
  if (!arguments.out.empty()) WriteFile(arguments.out, text);
  if (arguments.json) return PrintJson(guess, options, text, proof);
  Explain(guess, proof);
  std::cout << (arguments.out.empty() ? text : "wrote " + arguments.out + "\n");
}

}  // namespace

void AddInit(CLI::App& app, Status& /*status*/) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* command =
      app.add_subcommand("init", "Writes a first configuration for a network");
  command->add_option("model", arguments->model, "ONNX file")->required();
  command->add_option("-o,--output", arguments->out,
                      "File to write instead of standard output");
  command
      ->add_option("--cache", arguments->caches,
                   "OUTPUT:INPUT, for each cache, or none")
      ->expected(1)
      ->take_all();
  command->add_option("--batch", arguments->batch,
                      "NAME, NAME:MIN-MAX or none: the first dimension");
  command
      ->add_option("--dynamic", arguments->dynamic,
                   "NAME:MIN-MAX, for each range of a dimension")
      ->expected(1)
      ->take_all();
  command
      ->add_option("--name", arguments->names,
                   "TENSOR.AXIS=NAME, for each name of a dimension")
      ->expected(1)
      ->take_all();
  command->add_flag("--json", arguments->json, "Print one JSON document");
  command->callback([arguments] { Init(*arguments); });
}

}  // namespace tarn::tool
