#ifndef TARN_UTILS_PARSE_OPTIONS_H_
#define TARN_UTILS_PARSE_OPTIONS_H_

#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "utils/export.h"

namespace tarn {

class Reporter;

// Fills registered variables from command lines (--name=value) and from
// configuration files of such lines, plain or scrambled.
//
// Option names match whatever their case, and '_' is '-'. Bad input never
// stops the program: each problem is logged as an ERROR or WARNING and parsing
// goes on. T below is one of bool, int32_t, uint32_t, float, double and
// std::string. Not for use by several threads at once.
//
// Registered variables are not owned and must outlive the parser's use of
// them; `usage` and the argument array are kept by pointer.
class TARN_EXPORT ParseOptions {
 public:
  // Registers the standard options --config, --print-args and --help, and makes
  // standard error line-buffered.
  explicit ParseOptions(const char* usage);

  // Forwards what is registered here to `other`, or to the parser that `other`
  // itself forwards to, under names that begin with `prefix` and a dot.
  ParseOptions(const std::string& prefix, ParseOptions* other);

  ParseOptions(const ParseOptions&) = delete;
  ParseOptions& operator=(const ParseOptions&) = delete;

  // Binds an option to *ptr, whose present value is printed as the default. A
  // name that is registered already is warned of and replaced.
  template <typename T>
  void Register(const std::string& name, T* ptr, const std::string& doc) {
    RegisterTmpl(name, ptr, doc);
  }

  // Forgets the option of exactly this name; to be called before Read().
  void DisableOption(const std::string& name);

  // Reads a command line: first every --config file, then the options, then
  // the positional arguments. --help prints the usage and exits with status 0.
  // Returns the number of arguments consumed, that is argc (1 for none).
  int32_t Read(int argc, const char* const* argv);

  // Reads a configuration file of one --name=value a line, '#' starting a
  // comment; `scrambled` tells that it is stored as ReadLine() says.
  void ReadConfigFile(const std::string& filename, bool scrambled);

  // The same, with every problem told to `reporter`; without printing the usage
  // when that one does not log.
  void ReadConfigFile(const std::string& filename, bool scrambled,
                      const Reporter& reporter);

  // The line of the last file read that gave each option, by normalised name.
  const std::map<std::string, int32_t>& lines() const { return lines_; }

  // How many positional arguments there are.
  int32_t NumArgs() const;

  // The positional argument `i`, counted from 1; empty, with an ERROR, where
  // there is none.
  std::string GetArg(int32_t i) const;

  // Prints usage text and options to standard error, and the command line too
  // if asked.
  void PrintUsage(bool print_command_line);

  // Prints every option with its present value.
  void PrintConfig(std::ostream& os);

  // `argument` in a form that a shell reads back as it is.
  static std::string Escape(const std::string& argument);

  // Reads one line. A scrambled line is a record of a 4-byte signed length in
  // the machine's byte order and that many bytes, each XORed with the key. A
  // record that is cut off ends with the stream's fail bit set.
  static std::istream& ReadLine(std::istream& is, std::string& line,
                                bool scrambled);

  // What an option's help line is made of.
  struct DocInfo {
    // An empty one, or one of these parts.
    DocInfo() = default;
    DocInfo(const std::string& option, const std::string& help, bool standard)
        : name(option), use_msg(help), is_standard(standard) {}

    std::string name;          // As registered.
    std::string use_msg;       // Help text with type and default.
    bool is_standard = false;  // Registered by the parser itself.
  };

  // The steps that the operations above are made of.

  // Registers an option here, or forwards it.
  template <typename T>
  void RegisterTmpl(const std::string& name, T* ptr, const std::string& doc) {
    if (other_parser_ == nullptr) {
      RegisterCommon(name, ptr, doc, false);
    } else {
      other_parser_->RegisterTmpl(prefix_ + "." + name, ptr, doc);
    }
  }

  // As RegisterTmpl(), here and not at another parser.
  template <typename T>
  void RegisterStandard(const std::string& name, T* ptr,
                        const std::string& doc) {
    RegisterCommon(name, ptr, doc, true);
  }

  // Binds an option to *ptr and makes its help line; `idx` is the normalised
  // name.
  template <typename T>
  void RegisterCommon(const std::string& name, T* ptr, const std::string& doc,
                      bool is_standard);
  template <typename T>
  void RegisterSpecific(const std::string& name, const std::string& idx, T* ptr,
                        const std::string& doc, bool is_standard);

  // Splits "--key=value". With an empty key nothing is set and an ERROR logged.
  void SplitLongArg(const std::string& in, std::string* key, std::string* value,
                    bool* has_equal_sign);
  // Makes it lower case, with '-' for '_'.
  void NormalizeArgName(std::string* name);
  // Returns false when no option is named `key`, which must be normalised.
  bool SetOption(const std::string& key, const std::string& value,
                 bool has_equal_sign);

  // The value of a text; false or 0, with an ERROR, where it has none.
  bool ToBool(std::string text);
  int32_t ToInt(const std::string& text);
  uint32_t ToUint(const std::string& text);
  float ToFloat(const std::string& text);
  double ToDouble(const std::string& text);

 private:
  template <typename T>
  using VariableMap = std::map<std::string, T*>;

  // Searched in this order.
  using VariableMaps =
      std::tuple<VariableMap<bool>, VariableMap<int32_t>, VariableMap<uint32_t>,
                 VariableMap<float>, VariableMap<double>,
                 VariableMap<std::string>>;

  // An option argument taken apart, key normalised and value trimmed.
  struct Argument {
    std::string key;
    std::string value;
    bool has_equal_sign = false;
  };
  Argument ParseArgument(const std::string& text);

  void ReadConfigFilesAndHelp();
  int32_t ReadOptions();  // Returns the index of the first argument behind.
  void ReadPositionals(int32_t first);
  void ReadConfigLine(const std::string& line, int32_t number,
                      const std::string& filename);
  void NoteLine(const std::string& key, int32_t number);
  void PrintUsageForLog();
  void PrintOptions(const char* title, bool standard);
  void PrintCommandLine();

  VariableMaps variables_;               // Keyed by normalised name.
  std::map<std::string, DocInfo> docs_;  // Likewise; in printing order.
  bool print_args_ = true;
  bool help_ = false;
  std::string config_;
  std::vector<std::string> positional_args_;
  const char* usage_ = "";
  int32_t argc_ = 0;
  const char* const* argv_ = nullptr;
  std::string prefix_;
  ParseOptions* other_parser_ = nullptr;
  std::map<std::string, int32_t> lines_;
  // Where problems of the line at hand go; the log unless a file is read for a
  // list. Never null.
  std::shared_ptr<const Reporter> reporter_;
};

}  // namespace tarn

#endif  // TARN_UTILS_PARSE_OPTIONS_H_
