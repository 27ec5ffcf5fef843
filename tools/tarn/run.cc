#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <future>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "command.h"
#include "event-log.h"
#include "interrupt.h"
#include "load-model.h"
#include "npy.h"
#include "progress.h"
#include "safe-file.h"
#include "stream-inputs.h"
#include "table.h"

namespace tarn::tool {

namespace {

// What is no UTF-8, such as odd file names, spoils no document.
constexpr auto kReplace = nlohmann::json::error_handler_t::replace;

// How long an inference thread that was not described waits; microseconds.
constexpr int32_t kInterval = 200;

struct RunArguments : ModelArguments {
  std::vector<std::string> inputs;
  std::vector<std::string> audio;
  std::vector<std::string> sizes;
  std::string output_dir;
  std::string trace;
  bool json = false;
};

// What came of a stream.
struct StreamResult {
  std::map<std::string, NpyArray> outputs;  // By name; a chunk per index.
  size_t chunk_num = 0;
  bool failed = false;
};

struct Summary {
  std::vector<StreamInputs> streams;
  std::vector<StreamResult> results;
  std::vector<std::string> warnings;
  double seconds = 0;  // From the first request to the last result.
  double mean_batch_size = 0;
  bool interrupted = false;
};

// Streams in threads of their own need a mode in which none of them waits for
// company that never comes. Returns what had to be changed.
std::vector<std::string> FitScheduling(const ModelInfo& info, size_t stream_num,
                                       ModelOptions& options) {
  if (info.infer_thread()) return {};
  if (info.HasBatchDimension()) {
    options.infer_thread = true;
    options.infer_interval = std::max(options.infer_interval, kInterval);
    return {
        "without infer-thread a request waits for a full batch: running with "
        "infer-thread=true and infer-interval=" +
        std::to_string(options.infer_interval)};
  }
  if (info.multi_threads() || stream_num < 2) return {};
  options.multi_threads = true;
  return {"parallel streams: running with multi-threads=true"};
}

std::vector<StreamInputs> ReadStreams(const RunArguments& arguments,
                                      const ModelInfo& info) {
  const Sizes sizes = ParseSizes(arguments.sizes, info);
  if (arguments.inputs.empty()) {
    return ReadAudioStreams(arguments.audio, sizes, info);
  }
  return ReadNpyStreams(arguments.inputs, sizes, info);
}

std::string StreamFolder(const std::string& output_dir, size_t stream) {
  return output_dir + '/' + std::to_string(stream);
}

// A name is no path.
std::string OutputPath(const std::string& folder, std::string output) {
  std::replace(output.begin(), output.end(), '/', '_');
  return folder + '/' + output + ".npy";
}

// Before anything is computed in vain.
void MakeFolders(const std::string& output_dir, size_t stream_num) {
  for (size_t i = 0; i < stream_num; ++i) {
    std::error_code error;
    const std::string folder = StreamFolder(output_dir, i);
    std::filesystem::create_directories(folder, error);
    if (error) {
      throw Failure("can't make folder " + folder + ": " + error.message());
    }
    if (access(folder.c_str(), W_OK) != 0) {
      throw Failure("can't write to folder " + folder + ": " +
                    std::strerror(errno));
    }
  }
}

// No chunks yet, in the shapes of the proxy's outputs.
StreamResult EmptyResult(const Proxy& proxy) {
  StreamResult result;
  for (unsigned int i = 0; i < proxy.GetOutputNum(); ++i) {
    NpyArray& array = result.outputs[proxy.GetOutputName(i)];
    array.type = proxy.GetOutputDataType(i);
    const std::vector<int> shape = proxy.GetOutputShape(i);
    array.shape.assign(shape.begin(), shape.end());
    array.shape.insert(array.shape.begin(), 0);
  }
  return result;
}

void AppendChunk(const Proxy& proxy, StreamResult& result) {
  for (auto& [name, array] : result.outputs) {
    const Tensor& tensor = proxy.GetOutput(name);
    array.elements.append(tensor.Data<char>(), size_t{tensor.GetElementNum()} *
                                                   tensor.GetElementSize());
    ++array.shape[0];
  }
}

StreamResult PlayStream(const StreamInputs& inputs, bool keep_outputs,
                        const Interrupt& interrupt, Progress& progress,
                        Proxy& proxy) {
  FixSizes(inputs.sizes, proxy);
  StreamResult result = EmptyResult(proxy);
  while (result.chunk_num < inputs.chunk_num && !interrupt.IsRaised()) {
    SetChunk(inputs, result.chunk_num, proxy);
    result.failed = !proxy.Inference();
    if (result.failed) break;
    if (keep_outputs) AppendChunk(proxy, result);
    ++result.chunk_num;
    progress.Step();
  }
  return result;
}

// Plays all streams at once, each in a thread of its own.
void PlayStreams(bool keep_outputs, Model& model, Summary& summary) {
  size_t chunk_num = 0;
  std::vector<std::unique_ptr<Proxy>> proxies;
  for (const StreamInputs& inputs : summary.streams) {
    proxies.emplace_back(model.NewProxy());
    chunk_num += inputs.chunk_num;
  }
  const Interrupt interrupt;
  Progress progress(chunk_num);
  std::vector<std::future<StreamResult>> players;
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < proxies.size(); ++i) {
    players.push_back(std::async(std::launch::async, [&, i] {
      return PlayStream(summary.streams[i], keep_outputs, interrupt, progress,
                        *proxies[i]);
    }));
  }
  for (auto& player : players) player.wait();
  summary.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
          .count();
  for (auto& player : players) summary.results.push_back(player.get());
  summary.interrupted = interrupt.IsRaised();
}

void WriteOutputs(const std::string& output_dir, const Summary& summary) {
  for (size_t i = 0; i < summary.results.size(); ++i) {
    const std::string folder = StreamFolder(output_dir, i);
    for (const auto& [name, array] : summary.results[i].outputs) {
      WriteFile(OutputPath(folder, name), FormatNpy(array));
    }
  }
}

// The facts that both kinds of report tell.
nlohmann::json ToJson(const Summary& summary, const std::string& output_dir) {
  nlohmann::json streams = nlohmann::json::array();
  size_t chunk_num = 0;
  double sound = 0;  // Seconds, in the chunks that were computed.
  for (size_t i = 0; i < summary.results.size(); ++i) {
    const StreamInputs& inputs = summary.streams[i];
    const size_t done = summary.results[i].chunk_num;
    nlohmann::json stream{{"chunks", done}};
    if (!inputs.audio.empty()) {
      stream["audio"] = inputs.audio;
      stream["sample_rate"] = inputs.sample_rate;
      stream["audio_seconds"] = inputs.seconds;
    }
    if (!output_dir.empty()) stream["outputs"] = StreamFolder(output_dir, i);
    streams.push_back(stream);
    chunk_num += done;
    if (done > 0) {
      sound += inputs.seconds * static_cast<double>(done) /
               static_cast<double>(inputs.chunk_num);
    }
  }
  nlohmann::json document{{"streams", streams},
                          {"chunks", chunk_num},
                          {"seconds", summary.seconds},
                          {"mean_batch_size", summary.mean_batch_size},
                          {"interrupted", summary.interrupted},
                          {"warnings", summary.warnings}};
  if (sound > 0) document["real_time_factor"] = summary.seconds / sound;
  return document;
}

std::string Fixed(double number, int decimals) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(decimals) << number;
  return os.str();
}

void PrintStreams(const nlohmann::json& streams) {
  const bool have_audio = streams[0].contains("audio");
  std::vector<std::string> titles{"stream", "chunks"};
  if (have_audio) titles.insert(titles.end(), {"seconds", "Hz", "audio"});
  Table table(titles);
  for (size_t i = 0; i < streams.size(); ++i) {
    const nlohmann::json& stream = streams[i];
    std::vector<std::string> row{std::to_string(i), stream["chunks"].dump()};
    if (have_audio) {
      row.insert(row.end(), {Fixed(stream["audio_seconds"], 2),
                             stream["sample_rate"].dump(), stream["audio"]});
    }
    table.AddRow(row);
  }
  table.Print(std::cout);
}

void Print(const nlohmann::json& document) {
  PrintStreams(document["streams"]);
  std::cout << '\n'
            << document["chunks"] << " chunks in "
            << Fixed(document["seconds"], 3) << " s, mean batch size "
            << Fixed(document["mean_batch_size"], 2) << '\n';
  if (document.contains("real_time_factor")) {
    std::cout << "real-time factor " << Fixed(document["real_time_factor"], 4)
              << '\n';
  }
  if (document["interrupted"]) std::cout << "interrupted\n";
}

void FailIfStreamFailed(const std::vector<StreamResult>& results) {
  for (size_t i = 0; i < results.size(); ++i) {
    if (!results[i].failed) continue;
    throw Failure("stream " + std::to_string(i) + " failed at chunk " +
                  std::to_string(results[i].chunk_num) +
                  ": the log says why, what came before is kept");
  }
}

Status Run(const RunArguments& arguments) {
  CheckedModel checked = CheckOrFail(arguments);
  const ModelInfo& info = *checked.info;
  Summary summary;
  summary.streams = ReadStreams(arguments, info);
  CheckSizesAgree(summary.streams, info);
  summary.warnings =
      FitScheduling(info, summary.streams.size(), checked.options);
  for (const std::string& warning : summary.warnings) {
    std::cerr << "tarn: " << warning << '\n';
  }
  const bool keep_outputs = !arguments.output_dir.empty();
  if (keep_outputs) MakeFolders(arguments.output_dir, summary.streams.size());
  EventLog events;
  const auto model = LoadModel(arguments, checked.options);
  SetObserver(model.get(), &events);
  PlayStreams(keep_outputs, *model, summary);
  summary.mean_batch_size = events.MeanBatchSize();
  if (keep_outputs) WriteOutputs(arguments.output_dir, summary);
  if (!arguments.trace.empty()) events.WriteTrace(arguments.trace);
  const nlohmann::json document = ToJson(summary, arguments.output_dir);
  if (arguments.json) {
    std::cout << document.dump(2, ' ', false, kReplace) << '\n';
  } else {
    Print(document);
  }
  FailIfStreamFailed(summary.results);
  return summary.interrupted ? kNo : kYes;
}

}  // namespace

void AddRun(CLI::App& app, Status& status) {
  CLI::App& command =
      *app.add_subcommand("run", "Run streams through the library");
  const auto arguments = std::make_shared<RunArguments>();
  AddModelArguments(command, *arguments);
  CLI::Option_group& source = *command.add_option_group("Streams");
  source
      .add_option("--input", arguments->inputs,
                  "NAME=FILE.npy, the chunks of an input; once per input and "
                  "stream")
      ->check(CheckAssignment)
      ->allow_extra_args(false);
  source
      .add_option("--wav", arguments->audio,
                  "Audio file for a model with one input; once per stream")
      ->allow_extra_args(false);
  source.require_option(1);
  command
      .add_option("--fix", arguments->sizes,
                  "NAME=SIZE of a dynamic dimension that no input tells")
      ->check(CheckAssignment)
      ->allow_extra_args(false);
  command.add_option("--output-dir", arguments->output_dir,
                     "Folder for the outputs, DIR/STREAM/OUTPUT.npy");
  command.add_option("--trace", arguments->trace,
                     "File for a Chrome trace of all requests");
  command.add_flag("--json", arguments->json, "Print a JSON document");
  command.callback([arguments, &status] { status = Run(*arguments); });
}

}  // namespace tarn::tool
