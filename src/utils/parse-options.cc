#include "utils/parse-options.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <locale>
#include <sstream>
#include <type_traits>

#include "utils/logging.h"
#include "utils/reporter.h"
#include "utils/text-utils.h"

namespace tarn {

namespace {

constexpr char kDashes[] = "--";
constexpr size_t kDashesLength = 2;
// Keeps casual readers out of configuration files; no protection.
constexpr char kScrambleKey[] = "Qorvane-Tulp_Wexa";
constexpr int32_t kScrambleKeyLength = sizeof(kScrambleKey) - 1;

bool BeginsWithDashes(const std::string& text) {
  return text.compare(0, kDashesLength, kDashes) == 0;
}

template <typename T>
void PrintValue(std::ostream& os, const T& value) {
  if constexpr (std::is_same<T, bool>::value) {
    os << (value ? "true" : "false");
  } else {
    os << value;
  }
}

template <typename T>
const char* TypeName() {
  if constexpr (std::is_same<T, bool>::value) return "bool";
  if constexpr (std::is_same<T, int32_t>::value) return "int";
  if constexpr (std::is_same<T, uint32_t>::value) return "uint";
  if constexpr (std::is_same<T, float>::value) return "float";
  if constexpr (std::is_same<T, double>::value) return "double";
  return "string";
}

// "(int, default = 5)" and the like, as the help of an option ends.
template <typename T>
std::string TypeAndDefault(const T& value) {
  const char* quote = std::is_same<T, std::string>::value ? "\"" : "";
  std::ostringstream os;
  os.imbue(std::locale::classic());
  os << "(" << TypeName<T>() << ", default = " << quote;
  PrintValue(os, value);
  os << quote << ")";
  return os.str();
}

// Prints the variable named `key` if `variables` holds it.
template <typename T>
bool PrintFrom(const std::map<std::string, T*>& variables,
               const std::string& key, std::ostream& os) {
  const auto found = variables.find(key);
  if (found == variables.end()) return false;
  const char* quote = std::is_same<T, std::string>::value ? "'" : "";
  os << quote;
  PrintValue(os, *found->second);
  os << quote;
  return true;
}

bool NeedsQuoting(const std::string& text) {
  return text.empty() || std::any_of(text.begin(), text.end(), [](char c) {
           return !std::isalnum(static_cast<unsigned char>(c)) &&
                  std::strchr("[]~#^_-+=:.,/", c) == nullptr;
         });
}

template <typename T>
T ToNumber(const std::string& text, bool (*convert)(const std::string&, T&),
           const char* kind, const Reporter& reporter) {
  T value = 0;
  if (!convert(text, value)) {
    reporter.Report(ERROR, {"number", "write a number that fits 32 bits"})
        << "Invalid " << kind << " option \"" << text << "\"";
  }
  return value;
}

// Sets the variable named `key` if `variables` holds it.
template <typename T>
bool SetIn(const std::map<std::string, T*>& variables, ParseOptions& parser,
           const std::string& key, const std::string& value,
           bool has_equal_sign, const Reporter& reporter) {
  const auto found = variables.find(key);
  if (found == variables.end()) return false;
  T& variable = *found->second;
  if constexpr (std::is_same<T, bool>::value) {
    if (has_equal_sign && value.empty()) {
      reporter.Report(ERROR, {"value-missing", "write true or false"})
          << "Invalid option --" << key << "=";
    }
    variable = parser.ToBool(value);
  } else if constexpr (std::is_same<T, int32_t>::value) {
    variable = parser.ToInt(value);
  } else if constexpr (std::is_same<T, uint32_t>::value) {
    variable = parser.ToUint(value);
  } else if constexpr (std::is_same<T, float>::value) {
    variable = parser.ToFloat(value);
  } else if constexpr (std::is_same<T, double>::value) {
    variable = parser.ToDouble(value);
  } else {
    if (!has_equal_sign) {
      reporter.Report(ERROR, {"value-missing", "write a value behind ="})
          << "Invalid option --" << key << " (option format is --x=y).";
    }
    variable = value;
  }
  return true;
}

}  // namespace

ParseOptions::ParseOptions(const char* usage)
    : usage_(usage), reporter_(std::make_shared<Reporter>()) {
  setlinebuf(stderr);
  RegisterStandard("config", &config_,
                   "Configuration file to read (this option may be repeated)");
  RegisterStandard("print-args", &print_args_,
                   "Print the command line arguments (to stderr)");
  RegisterStandard("help", &help_, "Print out usage message");
}

ParseOptions::ParseOptions(const std::string& prefix, ParseOptions* other)
    : print_args_(false),
      prefix_(prefix),
      other_parser_(other),
      reporter_(std::make_shared<Reporter>()) {
  if (other == nullptr) return;
  if (other->other_parser_ != nullptr) other_parser_ = other->other_parser_;
  if (!other->prefix_.empty()) prefix_ = other->prefix_ + "." + prefix;
}

template <typename T>
void ParseOptions::RegisterCommon(const std::string& name, T* ptr,
                                  const std::string& doc, bool is_standard) {
  std::string idx = name;
  NormalizeArgName(&idx);
  if (docs_.count(idx) > 0) {
    TARN_LOG(WARNING) << "Registering option twice, ignoring second time: "
                      << name;
  }
  RegisterSpecific(name, idx, ptr, doc, is_standard);
}

template <typename T>
void ParseOptions::RegisterSpecific(const std::string& name,
                                    const std::string& idx, T* ptr,
                                    const std::string& doc, bool is_standard) {
  std::get<VariableMap<T>>(variables_)[idx] = ptr;
  docs_[idx] = DocInfo(name, doc + " " + TypeAndDefault(*ptr), is_standard);
}

template void ParseOptions::RegisterCommon(const std::string&, bool*,
                                           const std::string&, bool);
template void ParseOptions::RegisterCommon(const std::string&, int32_t*,
                                           const std::string&, bool);
template void ParseOptions::RegisterCommon(const std::string&, uint32_t*,
                                           const std::string&, bool);
template void ParseOptions::RegisterCommon(const std::string&, float*,
                                           const std::string&, bool);
template void ParseOptions::RegisterCommon(const std::string&, double*,
                                           const std::string&, bool);
template void ParseOptions::RegisterCommon(const std::string&, std::string*,
                                           const std::string&, bool);

template void ParseOptions::RegisterSpecific(const std::string&,
                                             const std::string&, bool*,
                                             const std::string&, bool);
template void ParseOptions::RegisterSpecific(const std::string&,
                                             const std::string&, int32_t*,
                                             const std::string&, bool);
template void ParseOptions::RegisterSpecific(const std::string&,
                                             const std::string&, uint32_t*,
                                             const std::string&, bool);
template void ParseOptions::RegisterSpecific(const std::string&,
                                             const std::string&, float*,
                                             const std::string&, bool);
template void ParseOptions::RegisterSpecific(const std::string&,
                                             const std::string&, double*,
                                             const std::string&, bool);
template void ParseOptions::RegisterSpecific(const std::string&,
                                             const std::string&, std::string*,
                                             const std::string&, bool);

void ParseOptions::DisableOption(const std::string& name) {
  if (argv_ != nullptr) {
    TARN_LOG(ERROR) << "DisableOption must not be called after calling Read().";
  }
  if (docs_.erase(name) == 0) {
    TARN_LOG(ERROR) << "Option " << name
                    << " was not registered so cannot be disabled: ";
  }
  std::apply([&name](auto&... maps) { (maps.erase(name), ...); }, variables_);
}

int32_t ParseOptions::Read(int argc, const char* const* argv) {
  argc_ = argc;
  argv_ = argv;
  if (argc < 2) return 1;
  ReadConfigFilesAndHelp();
  ReadPositionals(ReadOptions());
  if (print_args_) PrintCommandLine();
  return argc;
}

// Files come first, so that the command line overrides them.
void ParseOptions::ReadConfigFilesAndHelp() {
  for (int32_t i = 1; i < argc_; ++i) {
    const std::string text = argv_[i];
    if (!BeginsWithDashes(text)) continue;
    if (text == kDashes) return;
    const Argument argument = ParseArgument(text);
    if (argument.key == "config") ReadConfigFile(argument.value, false);
    if (argument.key == "help") {
      PrintUsage(false);
      std::exit(0);
    }
  }
}

int32_t ParseOptions::ReadOptions() {
  int32_t i = 1;
  for (; i < argc_ && BeginsWithDashes(argv_[i]); ++i) {
    const std::string text = argv_[i];
    if (text == kDashes) break;
    const Argument argument = ParseArgument(text);
    if (!SetOption(argument.key, argument.value, argument.has_equal_sign)) {
      PrintUsage(true);
      TARN_LOG_AS(ERROR, "Read") << "Invalid option " << text;
    }
  }
  return i;
}

// The first "--" only ends the options; any later one is an argument.
void ParseOptions::ReadPositionals(int32_t first) {
  bool dashes_seen = false;
  for (int32_t i = first; i < argc_; ++i) {
    if (!dashes_seen && std::strcmp(argv_[i], kDashes) == 0) {
      dashes_seen = true;
    } else {
      positional_args_.push_back(argv_[i]);
    }
  }
}

void ParseOptions::ReadConfigFile(const std::string& filename, bool scrambled) {
  ReadConfigFile(filename, scrambled, Reporter());
}

void ParseOptions::ReadConfigFile(const std::string& filename, bool scrambled,
                                  const Reporter& reporter) {
  std::ifstream is(filename);
  is.peek();  // What opens but cannot be read, a folder, shows only now.
  if (!is.is_open() || is.bad()) {
    reporter.As(__func__).Report(ERROR, {"file", "name a readable file"})
        << "Cannot open config file: " << filename;
    return;
  }
  const std::shared_ptr<const Reporter> before = reporter_;
  std::string line;
  for (int32_t number = 1; ReadLine(is, line, scrambled); ++number) {
    line.erase(std::min(line.find('#'), line.size()));
    Trim(line);
    if (line.empty()) continue;
    reporter_ = std::make_shared<Reporter>(reporter.About("", number));
    ReadConfigLine(line, number, filename);
  }
  reporter_ = before;
}

void ParseOptions::ReadConfigLine(const std::string& line, int32_t number,
                                  const std::string& filename) {
  const Reporter reporter = reporter_->As("ReadConfigFile");
  if (!BeginsWithDashes(line)) {
    reporter.Report(ERROR, {"dashes", "begin the line with --"})
        << "Reading config file " << filename << ": line " << number
        << " does not look like a line "
        << "from a Kaldi command-line program's config file: should "
        << "be of the form --x=y.  Note: config files intended to "
        << "be sourced by shell scripts lack the '--'.";
  }
  const Argument argument = ParseArgument(line);
  reporter_ = std::make_shared<Reporter>(reporter.About(argument.key, number));
  if (!SetOption(argument.key, argument.value, argument.has_equal_sign)) {
    PrintUsageForLog();
    reporter.Report(ERROR, {"option", "remove the line, or mend the name"})
        << "Invalid option " << line << " in config file " << filename;
    return;
  }
  NoteLine(argument.key, number);
}

// Remembers where an option is set, and warns of a second time unless that is
// for the log, where the last one quietly wins.
void ParseOptions::NoteLine(const std::string& key, int32_t number) {
  const auto inserted = lines_.emplace(key, number);
  if (inserted.second) return;
  if (!reporter_->Logs()) {
    reporter_->Report(WARNING, {"option-repeated", "keep one of the lines"})
        << "--" << key << " is set again, after line " << inserted.first->second
        << ".";
  }
  inserted.first->second = number;
}

// Usage goes with problems that are logged.
void ParseOptions::PrintUsageForLog() {
  if (reporter_->Logs()) PrintUsage(true);
}

int32_t ParseOptions::NumArgs() const {
  return static_cast<int32_t>(positional_args_.size());
}

std::string ParseOptions::GetArg(int32_t i) const {
  if (i < 1 || i > NumArgs()) {
    TARN_LOG(ERROR) << "ParseOptions::GetArg, invalid index " << i;
    return "";
  }
  return positional_args_[static_cast<size_t>(i) - 1];
}

void ParseOptions::PrintUsage(bool print_command_line) {
  std::cerr << '\n' << usage_ << '\n';
  const bool any = std::any_of(docs_.begin(), docs_.end(), [](const auto& doc) {
    return !doc.second.is_standard;
  });
  if (any) PrintOptions("Options:", false);
  PrintOptions("Standard options:", true);
  if (!print_command_line) return;
  std::cerr << "Command line was: ";
  PrintCommandLine();
}

void ParseOptions::PrintOptions(const char* title, bool standard) {
  std::ostringstream os;  // The format flags of std::cerr are the host's.
  os << title << '\n' << std::left;
  for (const auto& doc : docs_) {
    const DocInfo& info = doc.second;
    if (info.is_standard != standard) continue;
    os << "  --" << std::setw(25) << info.name << " : " << info.use_msg << '\n';
  }
  std::cerr << os.str() << '\n';
}

void ParseOptions::PrintCommandLine() {
  std::string line;
  for (int32_t i = 0; i < argc_; ++i) line += Escape(argv_[i]) + " ";
  std::cerr << line << std::endl;
}

void ParseOptions::PrintConfig(std::ostream& os) {
  os << "\n[[ Configuration of UI-Registered options ]]\n";
  for (const auto& doc : docs_) {
    const std::string& key = doc.first;
    os << doc.second.name << " = ";
    const bool printed = std::apply(
        [&](const auto&... maps) { return (PrintFrom(maps, key, os) || ...); },
        variables_);
    if (!printed) {
      TARN_LOG(ERROR) << "PrintConfig: unrecognized option " << key
                      << "[code error]";
    }
    os << '\n';
  }
  os << '\n';
}

std::string ParseOptions::Escape(const std::string& argument) {
  if (!NeedsQuoting(argument)) return argument;
  const bool in_double_quotes =
      argument.find('\'') != std::string::npos &&
      argument.find_first_of("\"`$\\") == std::string::npos;
  if (in_double_quotes) return "\"" + argument + "\"";
  std::string quoted = "'";
  for (char c : argument) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::istream& ParseOptions::ReadLine(std::istream& is, std::string& line,
                                     bool scrambled) {
  if (!scrambled) return std::getline(is, line);
  line.clear();
  int32_t length = 0;
  if (!is.read(reinterpret_cast<char*>(&length), sizeof(length))) return is;
  // Byte by byte: the announced length may be nonsense.
  char c = 0;
  for (int32_t i = 0; i < length && is.get(c); ++i) {
    line += static_cast<char>(c ^ kScrambleKey[i % kScrambleKeyLength]);
  }
  return is;
}

void ParseOptions::SplitLongArg(const std::string& in, std::string* key,
                                std::string* value, bool* has_equal_sign) {
  const size_t equal = in.find('=');
  if (equal == kDashesLength) {
    PrintUsageForLog();
    reporter_->As(__func__).Report(ERROR, {"key", "write a name before ="})
        << "Invalid option (no key): " << in;
    return;
  }
  *has_equal_sign = equal != std::string::npos;
  *value = *has_equal_sign ? in.substr(equal + 1) : "";
  // A configuration line without dashes may be shorter than they are.
  const std::string option = in.substr(0, equal);
  *key = option.substr(std::min(kDashesLength, option.size()));
}

void ParseOptions::NormalizeArgName(std::string* name) {
  for (char& c : *name) {
    const int lower = std::tolower(static_cast<unsigned char>(c));
    c = c == '_' ? '-' : static_cast<char>(lower);
  }
}

ParseOptions::Argument ParseOptions::ParseArgument(const std::string& text) {
  Argument argument;
  SplitLongArg(text, &argument.key, &argument.value, &argument.has_equal_sign);
  NormalizeArgName(&argument.key);
  Trim(argument.value);
  return argument;
}

bool ParseOptions::SetOption(const std::string& key, const std::string& value,
                             bool has_equal_sign) {
  const Reporter reporter = reporter_->As(__func__);
  return std::apply(
      [&](const auto&... maps) {
        return (SetIn(maps, *this, key, value, has_equal_sign, reporter) ||
                ...);
      },
      variables_);
}

bool ParseOptions::ToBool(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (text == "true" || text == "t" || text == "1" || text.empty()) return true;
  if (text == "false" || text == "f" || text == "0") return false;
  PrintUsageForLog();
  reporter_->As(__func__).Report(ERROR, {"boolean", "write true or false"})
      << "Invalid format for boolean argument [expected true or false]: "
      << text;
  return false;
}

int32_t ParseOptions::ToInt(const std::string& text) {
  return ToNumber<int32_t>(text, ConvertStringToInteger, "integer",
                           reporter_->As(__func__));
}

uint32_t ParseOptions::ToUint(const std::string& text) {
  return ToNumber<uint32_t>(text, ConvertStringToInteger, "integer",
                            reporter_->As(__func__));
}

float ParseOptions::ToFloat(const std::string& text) {
  return ToNumber<float>(text, ConvertStringToReal, "floating-point",
                         reporter_->As(__func__));
}

double ParseOptions::ToDouble(const std::string& text) {
  return ToNumber<double>(text, ConvertStringToReal, "floating-point",
                          reporter_->As(__func__));
}

}  // namespace tarn
