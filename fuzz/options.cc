// Command lines and configuration files. The first byte settles what the rest
// is: 'c' a command line of one argument a line, 's' the bytes of a scrambled
// file, anything else a plain file, which must read the same when scrambled.

#include <sstream>
#include <string>
#include <vector>

#include "fuzz.h"
#include "utils/parse-options.h"
#include "utils/text-utils.h"

namespace tarn::fuzz {
namespace {

// A parser with one option of each type.
class Parser {
 public:
  Parser() {
    ParseOptions group("group", &options_);
    options_.Register("bool", &bool_, "");
    options_.Register("int", &int_, "");
    options_.Register("uint", &uint_, "");
    group.Register("float", &float_, "");
    group.Register("double", &double_, "");
    group.Register("string", &string_, "");
  }

  ParseOptions& options() { return options_; }

  std::string Values() {
    std::ostringstream os;
    options_.PrintConfig(os);
    return os.str();
  }

 private:
  bool bool_ = false;
  int32_t int_ = 0;
  uint32_t uint_ = 0;
  float float_ = 0;
  double double_ = 0;
  std::string string_;
  ParseOptions options_{"usage"};
};

std::string ReadFile(const std::string& bytes, bool scrambled) {
  const MemoryFile file(bytes);
  Parser parser;
  parser.options().ReadConfigFile(file.path(), scrambled);
  return parser.Values();
}

// --help ends the process and --config reads any file there is.
bool IsHarmless(std::string argument, ParseOptions& options) {
  options.NormalizeArgName(&argument);
  return argument.rfind("--help", 0) != 0 && argument.rfind("--config", 0) != 0;
}

void ReadCommandLine(const std::string& text) {
  Parser parser;
  std::vector<std::string> arguments;
  SplitStringToVector(text, "\n", false, arguments);
  std::vector<const char*> argv = {"program"};
  for (const std::string& argument : arguments) {
    if (!IsHarmless(argument, parser.options())) return;
    argv.push_back(argument.c_str());
  }
  const int argc = static_cast<int>(argv.size());
  Require(parser.options().Read(argc, argv.data()) == argc,
          "the whole command line is read");
  for (int i = 0; i <= parser.options().NumArgs() + 1; ++i) {
    parser.options().GetArg(i);
  }
}

// The lines as scrambled records. The key comes out of the library itself, as
// what a record of zeros reads as.
std::string Scrambled(const std::string& text) {
  std::istringstream lines(text);
  std::string bytes;
  for (std::string line; std::getline(lines, line);) {
    const auto length = static_cast<int32_t>(line.size());
    const std::string prefix(reinterpret_cast<const char*>(&length), 4);
    std::istringstream zeros(prefix + std::string(line.size(), '\0'));
    std::string key;
    ParseOptions::ReadLine(zeros, key, true);
    for (size_t i = 0; i < line.size(); ++i) {
      line[i] = static_cast<char>(line[i] ^ key[i]);
    }
    bytes += prefix + line;
  }
  return bytes;
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarn::fuzz;  // NOLINT: the function cannot be inside it.
  if (size == 0) return 0;
  const std::string text = Text(data + 1, size - 1);
  if (data[0] == 'c') {
    ReadCommandLine(text);
  } else if (data[0] == 's') {
    ReadFile(text, true);
  } else {
    Require(ReadFile(text, false) == ReadFile(Scrambled(text), true),
            "a scrambled file reads as the plain one");
  }
  return 0;
}
