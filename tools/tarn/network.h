#ifndef TOOLS_TARN_NETWORK_H_
#define TOOLS_TARN_NETWORK_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/tarn-tensor.h"
#include "model-file.h"

namespace tarn::tool {

struct Dimension {
  int size = -1;     // -1: dynamic.
  std::string name;  // Empty where the network gives none.
};

// An input or output of a network.
struct Port {
  std::string name;
  std::string type;  // As ONNX calls it: uint8, string, sequence.
  // How the library calls its elements; none for those that it cannot hold.
  std::optional<Tensor::DataType> data_type;
  std::vector<Dimension> dimensions;
  std::string obstacle;  // Why it cannot be described; empty when it can.
};

struct Network {
  std::string path;
  std::vector<Port> inputs;  // In the network's order, and so the outputs.
  std::vector<Port> outputs;
  ModelFile file;
  std::string graph_name;
  std::string description;
  std::map<std::string, std::string> metadata;  // The producer's own.
};

// Loads the network and lists what it says of itself. Throws a Failure that
// names the file when the engine cannot load it.
Network ReadNetwork(const std::string& path);

// The name with '_' for what the grammar of descriptions keeps for itself.
std::string LegalName(std::string name);

// [batch, 80], with ? for what has neither size nor name.
std::string ShapeText(const Port& port);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_NETWORK_H_
