// The command-line tool `tarn`.

#include <cstdio>
#include <exception>
#include <iostream>

#include "command.h"
#include "tarn.h"

namespace tarn::tool {

void AddModelArguments(CLI::App& command, ModelArguments& arguments) {
  command.add_option("config", arguments.config, "Configuration file")
      ->required();
  command.add_option("model", arguments.model, "Model file")->required();
  command.add_flag("--scrambled", arguments.scrambled,
                   "The configuration file is stored scrambled");
  command.add_option("--backend", arguments.backend, "Engine: onnx or mace")
      ->capture_default_str();
  command.add_option("--device", arguments.device, "Device, such as cpu")
      ->capture_default_str();
}

namespace {

int Main(int argc, char** argv) {
  CLI::App app("Describes, checks, runs and measures speech models for Tarn.",
               "tarn");
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("tarn ") + Version());
  app.footer("Exit status: 0 all is well, 1 the answer is no, 2 wrong use.");
  Status status = kYes;
  AddInspect(app, status);
  AddInit(app, status);
  AddCheck(app, status);
  AddVerify(app, status);
  AddRun(app, status);
  AddBench(app, status);
  AddScramble(app, status);
  AddUnscramble(app, status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kYes : kWrongUse;
  }
  return status;
}

}  // namespace
}  // namespace tarn::tool

int main(int argc, char** argv) {
  // What a FATAL line says must be seen, wherever standard output goes.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  tarn::SetLogLevel(tarn::ERROR);
  try {
    return tarn::tool::Main(argc, argv);
  } catch (const std::exception& exception) {
    std::cerr << "tarn: " << exception.what() << '\n';
    return tarn::tool::kNo;
  }
}
