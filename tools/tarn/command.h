#ifndef TOOLS_TARN_COMMAND_H_
#define TOOLS_TARN_COMMAND_H_

#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

namespace tarn::tool {

// What the program exits with.
enum Status : int {
  kYes = 0,
  kNo = 1,  // The answer is no, or the input is bad.
  kWrongUse = 2,
};

// Ends the command with kNo and one sentence on standard error.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What most commands are given.
struct ModelArguments {
  std::string config;
  std::string model;
  bool scrambled = false;  // How `config` is stored.
  std::string backend = "onnx";
  std::string device = "cpu";
};

// Adds CONFIG, MODEL and the options above to a command.
void AddModelArguments(CLI::App& command, ModelArguments& arguments);

// Each adds one command, which leaves its outcome in `status` when it runs.
void AddInspect(CLI::App& app, Status& status);
void AddInit(CLI::App& app, Status& status);
void AddCheck(CLI::App& app, Status& status);
void AddVerify(CLI::App& app, Status& status);
void AddRun(CLI::App& app, Status& status);
void AddBench(CLI::App& app, Status& status);
void AddScramble(CLI::App& app, Status& status);
void AddUnscramble(CLI::App& app, Status& status);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_COMMAND_H_
