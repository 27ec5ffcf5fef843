#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>

#include "command.h"
#include "network.h"
#include "table.h"
#include "utils/text-utils.h"

namespace tarn::tool {

namespace {

using nlohmann::json;

// Bytes of one item: all dynamic dimensions counted as 1.
uint64_t BytesPerItem(const Port& port) {
  uint64_t bytes = Tensor().GetElementSize(*port.data_type);
  for (const Dimension& dimension : port.dimensions) {
    if (dimension.size > 0) bytes *= static_cast<uint64_t>(dimension.size);
  }
  return bytes;
}

std::string OpsetText(const ModelFile& file) {
  std::string text;
  for (const auto& [domain, version] : file.opsets) {
    text += (text.empty() ? "" : ", ") + domain + " " + std::to_string(version);
  }
  return text;
}

void PrintFacts(const Network& network) {
  const ModelFile& file = network.file;
  Table facts({"network", network.path});
  facts.AddRow({"IR version", std::to_string(file.ir_version)});
  facts.AddRow({"opset", OpsetText(file)});
  const auto add = [&](const std::string& name, const std::string& text) {
    if (!text.empty()) facts.AddRow({name, text});
  };
  add("producer", file.producer_name);
  add("producer version", file.producer_version);
  add("domain", file.domain);
  add("graph", network.graph_name);
  add("description", network.description);
  if (file.version != 0) add("version", std::to_string(file.version));
  for (const auto& [key, value] : network.metadata) add(key, value);
  facts.Print(std::cout);
}

void AddPorts(const char* noun, const std::vector<Port>& ports, Table& table) {
  for (const Port& port : ports) {
    const bool describable = port.obstacle.empty();
    table.AddRow(
        {noun, port.name, port.type,
         port.dimensions.empty() ? "-" : ShapeText(port),
         describable ? std::to_string(BytesPerItem(port)) : "-",
         describable ? ConvertDataTypeToString(*port.data_type) : "-"});
  }
}

void PrintObstacles(const char* noun, const std::vector<Port>& ports) {
  for (const Port& port : ports) {
    if (port.obstacle.empty()) continue;
    std::cout << "No description can hold " << noun << " " << port.name << ": "
              << port.obstacle << ".\n";
  }
}

void PrintNetwork(const Network& network) {
  PrintFacts(network);
  Table ports({"", "name", "type", "shape", "bytes per item", "described as"});
  AddPorts("input", network.inputs, ports);
  AddPorts("output", network.outputs, ports);
  std::cout << '\n';
  ports.Print(std::cout);
  std::cout << "\nAn item has size 1 in every dynamic dimension.\n";
  PrintObstacles("input", network.inputs);
  PrintObstacles("output", network.outputs);
}

// A fixed dimension is its size, a dynamic one its name, null without one.
json JsonOf(const Dimension& dimension) {
  if (dimension.size >= 0) return dimension.size;
  return dimension.name.empty() ? json() : json(dimension.name);
}

json JsonOf(const std::vector<Port>& ports) {
  json list = json::array();
  for (const Port& port : ports) {
    json entry = {{"name", port.name}, {"type", port.type}};
    entry["shape"] = json::array();
    for (const Dimension& dimension : port.dimensions) {
      entry["shape"].push_back(JsonOf(dimension));
    }
    if (port.obstacle.empty()) {
      entry["bytes_per_item"] = BytesPerItem(port);
      entry["dtype"] = ConvertDataTypeToString(*port.data_type);
    } else {
      entry["obstacle"] = port.obstacle;
    }
    list.push_back(entry);
  }
  return list;
}

json JsonOf(const Network& network) {
  const ModelFile& file = network.file;
  return {{"model", network.path},
          {"ir_version", file.ir_version},
          {"opsets", file.opsets},
          {"producer", file.producer_name},
          {"producer_version", file.producer_version},
          {"domain", file.domain},
          {"graph", network.graph_name},
          {"description", network.description},
          {"version", file.version},
          {"metadata", network.metadata},
          {"inputs", JsonOf(network.inputs)},
          {"outputs", JsonOf(network.outputs)}};
}

struct Arguments {
  std::string model;
  bool json = false;
};

void Inspect(const Arguments& arguments) {
  const Network network = ReadNetwork(arguments.model);
  if (arguments.json) {
    std::cout << JsonOf(network).dump(2) << '\n';
  } else {
    PrintNetwork(network);
  }
}

}  // namespace

void AddInspect(CLI::App& app, Status& /*status*/) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* command =
      app.add_subcommand("inspect", "Tells what is in an ONNX file");
  command->add_option("model", arguments->model, "ONNX file")->required();
  command->add_flag("--json", arguments->json, "Print one JSON document");
  command->callback([arguments] { Inspect(*arguments); });
}

}  // namespace tarn::tool
