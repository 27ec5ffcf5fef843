#include <algorithm>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "bare-stream.h"
#include "command.h"
#include "event-log.h"
#include "interrupt.h"
#include "load-model.h"
#include "progress.h"
#include "stream-inputs.h"
#include "table.h"
#include "verify-judge.h"
#include "verify-lane.h"

namespace tarn::tool {

namespace {

// Requests that a lane plays before they are compared and forgotten.
constexpr size_t kBurst = 4;

struct VerifyArguments : ModelArguments {
  size_t stream_num = 16;
  size_t chunk_num = 20;
  unsigned int seed = 1;
  double tolerance = 1e-4;
  std::vector<std::string> sizes;
  bool json = false;
};

// Whether a request waits until as many others wait as a batch holds.
bool CallersBatch(const ModelInfo& info) {
  return info.HasBatchDimension() && !info.infer_thread();
}

bool OneThreadCalls(const ModelInfo& info) {
  return !info.infer_thread() && !info.multi_threads();
}

size_t BatchSize(const ModelInfo& info) {
  const int fixed = info.GetDimension(info.batch_dim());
  return static_cast<size_t>(
      fixed == -1 ? info.GetDimensionRange(info.batch_dim()).second : fixed);
}

std::vector<Lane> MakeLanes(const VerifyArguments& arguments, Model& model,
                            const ModelInfo& info, EventLog& events) {
  std::mt19937 generator(arguments.seed);
  std::uniform_int_distribution<size_t> length(1, arguments.chunk_num);
  const size_t lane_num =
      CallersBatch(info) ? BatchSize(info) : arguments.stream_num;
  std::vector<Lane> lanes;
  for (size_t i = 0; i < lane_num; ++i) {
    // Lanes that wait for one another must have the same number of chunks.
    const bool is_longest = i == 0 || CallersBatch(info);
    lanes.emplace_back(i, arguments.seed,
                       is_longest ? arguments.chunk_num : length(generator),
                       model, info, events);
  }
  return lanes;
}

// Over all lanes.
size_t Sum(const std::vector<Lane>& lanes, size_t (Lane::*count)() const) {
  size_t sum = 0;
  for (const Lane& lane : lanes) sum += (lane.*count)();
  return sum;
}

// Sizes for the dynamic dimensions, at random but for those that are given.
Sizes RandomSizes(const Sizes& given, const ModelInfo& info,
                  std::mt19937& generator) {
  Sizes sizes = given;
  for (const std::string& name : DynamicRowDimensions(info)) {
    const auto [min, max] = info.GetDimensionRange(name);
    sizes.emplace(name,
                  std::uniform_int_distribution<int>(min, max)(generator));
  }
  return sizes;
}

// The next requests of every lane, in parallel where the mode allows it.
std::vector<std::vector<PlayedRequest>> PlayBurst(std::vector<Lane>& lanes,
                                                  const Sizes& sizes,
                                                  bool parallel) {
  const auto policy = parallel ? std::launch::async : std::launch::deferred;
  std::vector<std::future<std::vector<PlayedRequest>>> players;
  for (Lane& lane : lanes) {
    players.push_back(std::async(
        policy, [&lane, &sizes] { return lane.Play(kBurst, sizes); }));
  }
  for (const auto& player : players) player.wait();
  std::vector<std::vector<PlayedRequest>> played;
  for (auto& player : players) played.push_back(player.get());
  return played;
}

// Plays all lanes to their ends. Returns how many chunks they have played;
// Ctrl-C makes that less than there are.
size_t PlayAndJudge(std::vector<Lane>& lanes, const Sizes& given,
                    const ModelInfo& info, unsigned int seed, Judge& judge) {
  const size_t total = Sum(lanes, &Lane::remaining);
  const Interrupt interrupt;
  Progress progress(total);
  std::mt19937 generator(seed);
  size_t chunk_num = 0;
  while (chunk_num < total && !interrupt.IsRaised()) {
    const Sizes sizes = RandomSizes(given, info, generator);
    const auto played = PlayBurst(lanes, sizes, !OneThreadCalls(info));
    for (size_t lane = 0; lane < played.size(); ++lane) {
      for (const PlayedRequest& request : played[lane]) {
        judge.Take(lane, request);
        progress.Step();
        ++chunk_num;
      }
    }
  }
  return chunk_num;
}

size_t LargestBatch(const EventLog& events) {
  size_t largest = 0;
  for (const EventLog::Batch& batch : events.batches()) {
    largest = std::max(largest, batch.requests.size());
  }
  return largest;
}

nlohmann::json ToJson(const std::map<std::string, TensorReport>& reports) {
  nlohmann::json tensors;
  for (const auto& [name, report] : reports) {
    const Gap& gap = report.single;
    tensors[name] = {{"kind", report.kind},
                     {"same_bits", !report.alike.exists},
                     {"difference", gap.largest},
                     {"relative", report.Relative(gap.largest)}};
    if (gap.largest == 0) continue;
    tensors[name]["stream"] = gap.lane;
    tensors[name]["chunk"] = gap.chunk;
  }
  return tensors;
}

// Of a number that there is.
std::string Text(const nlohmann::json& object, const char* key) {
  if (!object.contains(key)) return "-";
  std::ostringstream os;
  os.precision(3);
  os << object[key].get<double>();
  return os.str();
}

void Print(const nlohmann::json& document) {
  Table table({"tensor", "kind", "same bits", "off from a batch of one",
               "relative", "stream", "chunk"});
  for (const auto& [name, tensor] : document["tensors"].items()) {
    table.AddRow({name, tensor["kind"], tensor["same_bits"] ? "yes" : "no",
                  Text(tensor, "difference"), Text(tensor, "relative"),
                  Text(tensor, "stream"), Text(tensor, "chunk")});
  }
  table.Print(std::cout);
  std::cout << '\n';
  for (const std::string note : document["notes"]) std::cout << note << '\n';
  std::cout << document["streams"] << " streams, " << document["chunks"]
            << " chunks, " << document["resets"] << " resets, "
            << document["drops"] << " drops; " << document["batches"]
            << " batches of " << Text(document, "mean_batch_size")
            << " on average, " << document["largest_batch"] << " at most\n";
  const std::string objection = document["objection"];
  std::cout << (objection.empty() ? "yes: batching changes nothing"
                                  : "no: " + objection)
            << '\n';
}

// What is done otherwise than asked for, and why.
std::vector<std::string> Notes(const ModelInfo& info, const Sizes& given) {
  std::vector<std::string> notes;
  if (CallersBatch(info)) {
    notes.push_back("without infer-thread callers fill batches of " +
                    std::to_string(BatchSize(info)) +
                    ": as many streams, of one length");
  }
  for (const std::string& name : DynamicRowDimensions(info)) {
    if (given.count(name) > 0) continue;
    notes.push_back("dimension " + name +
                    " has one random size for all streams at a time");
  }
  return notes;
}

// Sizes that the inputs tell are left open.
void CheckOutputsFixed(Sizes sizes, const ModelInfo& info) {
  for (unsigned int i = 0; i < info.GetInputNum(); ++i) {
    for (const std::string& name : info.GetInputFormat(i)) sizes[name];
  }
  CheckAllFixed(sizes, info);
}

// Why nothing is proved although nothing was found; empty when it is proved.
std::string MissingProof(bool interrupted, size_t largest_batch,
                         const ModelInfo& info) {
  if (interrupted) return "interrupted before all was verified";
  if (info.HasBatchDimension() && BatchSize(info) > 1 && largest_batch < 2) {
    return "no two requests met in a batch: try more --streams";
  }
  return "";
}

Status Verify(const VerifyArguments& arguments) {
  if (arguments.backend != "onnx") {
    throw Failure("verify compares with ONNX Runtime: expected backend onnx");
  }
  const CheckedModel checked = CheckOrFail(arguments);
  const ModelInfo& info = *checked.info;
  const Sizes given = ParseSizes(arguments.sizes, info);
  CheckOutputsFixed(given, info);
  EventLog events;
  const auto model = LoadModel(arguments, checked.options);
  SetObserver(model.get(), &events);
  std::vector<Lane> lanes = MakeLanes(arguments, *model, info, events);
  const size_t total = Sum(lanes, &Lane::remaining);
  BareEngine engine(arguments.model, info.num_execute_threads());
  Judge judge(engine, info, lanes.size());
  const size_t chunk_num =
      PlayAndJudge(lanes, given, info, arguments.seed, judge);
  std::string objection = judge.Objection(arguments.tolerance);
  if (objection.empty()) {
    objection = MissingProof(chunk_num < total, LargestBatch(events), info);
  }
  const nlohmann::json document{{"tensors", ToJson(judge.tensors())},
                                {"notes", Notes(info, given)},
                                {"streams", lanes.size()},
                                {"chunks", chunk_num},
                                {"resets", Sum(lanes, &Lane::reset_num)},
                                {"drops", Sum(lanes, &Lane::drop_num)},
                                {"batches", events.batches().size()},
                                {"mean_batch_size", events.MeanBatchSize()},
                                {"largest_batch", LargestBatch(events)},
                                {"objection", objection}};
  if (arguments.json) {
    std::cout << document.dump(2) << '\n';
  } else {
    Print(document);
  }
  return objection.empty() ? kYes : kNo;
}

}  // namespace

void AddVerify(CLI::App& app, Status& status) {
  CLI::App& command = *app.add_subcommand(
      "verify", "Prove that batching changes nothing for a model");
  const auto arguments = std::make_shared<VerifyArguments>();
  AddModelArguments(command, *arguments);
  command.add_option("--streams", arguments->stream_num, "Streams at a time")
      ->check(CLI::Range(1, 1024))
      ->capture_default_str();
  command
      .add_option("--chunks", arguments->chunk_num,
                  "Chunks of the longest stream")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  command.add_option("--seed", arguments->seed, "Seed of everything random")
      ->capture_default_str();
  command
      .add_option("--tolerance", arguments->tolerance,
                  "Largest difference from a batch of one that is allowed, "
                  "relative to the largest value of the tensor")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  command
      .add_option("--fix", arguments->sizes, "NAME=SIZE of a dynamic dimension")
      ->check(CheckAssignment)
      ->allow_extra_args(false);
  command.add_flag("--json", arguments->json, "Print a JSON document");
  command.callback([arguments, &status] { status = Verify(*arguments); });
}

}  // namespace tarn::tool
