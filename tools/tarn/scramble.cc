#include <cctype>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "command.h"
#include "safe-file.h"
#include "utils/parse-options.h"

namespace tarn::tool {

namespace {

struct Arguments {
  std::string in;
  std::string out;
  bool json = false;
};

// A line as it is stored; `scrambled` as for ParseOptions::ReadLine(), which
// reads it.
std::string Encode(const std::string& line, bool scrambled) {
  if (!scrambled) return line + "\n";
  static const std::string kKey = "Qorvane-Tulp_Wexa";
  std::string record;
  for (unsigned int shift = 0; shift < 32; shift += 8) {
    record += static_cast<char>(line.size() >> shift & 0xFF);
  }
  for (size_t i = 0; i < line.size(); ++i) {
    record += static_cast<char>(line[i] ^ kKey[i % kKey.size()]);
  }
  return record;
}

// Whether no character is a control character but blanks are allowed, and
// whatever UTF-8 needs.
bool IsText(const std::string& line) {
  for (char c : line) {
    if (std::iscntrl(static_cast<unsigned char>(c)) == 0) continue;
    if (c != '\t' && c != '\r') return false;
  }
  return true;
}

std::vector<std::string> ReadLines(const std::string& path, bool scrambled) {
  const std::string content = ReadFile(path);
  std::istringstream is(content);
  std::vector<std::string> lines;
  size_t end = 0;  // Of what has been read.
  for (std::string line; end < content.size();) {
    ParseOptions::ReadLine(is, line, scrambled);
    const std::string stored = Encode(line, scrambled);
    // Only the last newline of a plain file may be missing.
    const bool whole =
        !is.fail() &&
        (!scrambled || content.compare(end, stored.size(), stored) == 0);
    if (!whole || !IsText(line)) {
      throw Failure(path + " is no " + (scrambled ? "scrambled" : "plain") +
                    " configuration file: line " +
                    std::to_string(lines.size() + 1) +
                    (whole ? " holds control characters" : " is cut off"));
    }
    lines.push_back(line);
    end += stored.size();
  }
  return lines;
}

void Convert(const Arguments& arguments, bool from_scrambled) {
  const std::vector<std::string> lines =
      ReadLines(arguments.in, from_scrambled);
  std::string converted;
  for (const std::string& line : lines) {
    converted += Encode(line, !from_scrambled);
  }
  WriteFile(arguments.out, converted);
  if (arguments.json) {
    const nlohmann::json document = {
        {"in", arguments.in}, {"out", arguments.out}, {"lines", lines.size()}};
    std::cout << document.dump(2) << '\n';
  } else {
    std::cout << "wrote " << arguments.out << ", " << lines.size()
              << " lines\n";
  }
}

void AddConversion(CLI::App& app, const std::string& name,
                   const std::string& description, bool from_scrambled) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("in", arguments->in, "File to read")->required();
  command->add_option("out", arguments->out, "File to write")->required();
  command->add_flag("--json", arguments->json, "Print one JSON document");
  command->callback(
      [arguments, from_scrambled] { Convert(*arguments, from_scrambled); });
}

}  // namespace

void AddScramble(CLI::App& app, Status& /*status*/) {
  AddConversion(app, "scramble", "Keeps casual readers out of a configuration",
                false);
}

void AddUnscramble(CLI::App& app, Status& /*status*/) {
  AddConversion(app, "unscramble", "Makes a scrambled configuration readable",
                true);
}

}  // namespace tarn::tool
