#include "guess.h"

#include <algorithm>
#include <set>

#include "command.h"
#include "output-sizes.h"
#include "utils/text-utils.h"

namespace tarn::tool {

namespace {

constexpr std::pair<int, int> kBatchRange = {1, 16};
constexpr std::pair<int, int> kDynamicRange = {1, 100};

// Words in the name of a first dimension that is no batch.
constexpr const char* kTimeWords[] = {"time", "frame",  "seq",
                                      "len",  "sample", "step"};

std::vector<Port*> PortsOf(Network& network) {
  std::vector<Port*> ports;
  for (Port& port : network.inputs) ports.push_back(&port);
  for (Port& port : network.outputs) ports.push_back(&port);
  return ports;
}

// Calls visit(port, axis) for every dimension.
template <typename Visit>
void ForEachDimension(Network& network, Visit visit) {
  for (Port* port : PortsOf(network)) {
    for (size_t axis = 0; axis < port->dimensions.size(); ++axis) {
      visit(*port, axis);
    }
  }
}

std::string Place(const Port& port, size_t axis) {
  return port.name + "." + std::to_string(axis);
}

void RefuseObstacles(Network& network) {
  if (network.inputs.empty()) throw Failure("the network has no inputs");
  std::string obstacles;
  for (const Port* port : PortsOf(network)) {
    if (port->obstacle.empty()) continue;
    obstacles +=
        (obstacles.empty() ? "" : "; ") + port->name + ": " + port->obstacle;
  }
  if (obstacles.empty()) return;
  throw Failure("no description can hold " + obstacles +
                " (tarn-prepare may rewrite the network)");
}

// Gives the network's names a form that descriptions can hold; two names stay
// two.
void LegaliseNames(Network& network) {
  std::map<std::string, std::string> legal;
  std::set<std::string> used;
  ForEachDimension(network, [&](Port& port, size_t axis) {
    std::string& name = port.dimensions[axis].name;
    if (name.empty()) return;
    if (legal.count(name) == 0) {
      std::string candidate = LegalName(name);
      while (!used.insert(candidate).second) candidate += "_";
      legal[name] = candidate;
    }
    name = legal[name];
  });
}

// Renames one place, or all that the network gives the same name.
void Rename(const std::string& place, const std::string& name,
            Network& network) {
  Dimension* found = nullptr;
  ForEachDimension(network, [&](Port& port, size_t axis) {
    if (Place(port, axis) == place) found = &port.dimensions[axis];
  });
  if (found == nullptr) throw Failure("there is no dimension " + place);
  const std::string old_name = found->name;
  found->name = name;
  if (old_name.empty()) return;
  ForEachDimension(network, [&](Port& port, size_t axis) {
    std::string& other = port.dimensions[axis].name;
    if (other == old_name) other = name;
  });
}

void NameTheRest(Network& network) {
  ForEachDimension(network, [&](Port& port, size_t axis) {
    std::string& name = port.dimensions[axis].name;
    if (name.empty()) name = LegalName(Place(port, axis));
  });
}

void SetBatch(const std::string& name, const std::string& ground,
              Guess& guess) {
  for (Port* port : PortsOf(guess.network)) port->dimensions[0].name = name;
  guess.batch = name;
  guess.grounds["batch-dim"] = name + ": " + ground + ".";
}

void SetNoBatch(const std::string& ground, Guess& guess) {
  guess.grounds["batch-dim"] = "No batch dimension: " + ground + ".";
}

void TakeBatch(const std::string& name, const Ranges& ranges, Guess& guess) {
  if (name.empty()) return SetNoBatch("--batch says so", guess);
  const Port& first = guess.network.inputs.front();
  const int size = first.dimensions[0].size;
  for (const Port* port : PortsOf(guess.network)) {
    if (port->dimensions[0].size == size) continue;
    throw Failure("--batch " + name + ": the first dimensions of " +
                  first.name + " " + ShapeText(first) + " and " + port->name +
                  " " + ShapeText(*port) + " differ");
  }
  ForEachDimension(guess.network, [&](const Port& port, size_t axis) {
    if (axis == 0 || port.dimensions[axis].name != name) return;
    throw Failure("--batch " + name + ": it is not the first dimension of " +
                  port.name + " " + ShapeText(port));
  });
  if (size != -1 && ranges.count(name) > 0) {
    throw Failure("--batch " + name + ": the network has batches of " +
                  std::to_string(size) + " only, so give no range");
  }
  SetBatch(name, "--batch says so", guess);
}

bool TellsTime(const std::string& name) {
  return name == "T" ||
         std::any_of(std::begin(kTimeWords), std::end(kTimeWords),
                     [&](const char* word) {
                       return name.find(word) != std::string::npos;
                     });
}

bool HasRows(Network& network) {
  const auto ports = PortsOf(network);
  return std::any_of(ports.begin(), ports.end(), [](const Port* port) {
    return port->dimensions.size() > 1;
  });
}

void GuessDynamicBatch(const std::set<std::string>& names, Guess& guess) {
  const std::string name = names.empty() ? "batch" : *names.begin();
  if (TellsTime(name)) {
    SetNoBatch("every tensor begins with " + name +
                   ", whose name tells of time; --batch " + name +
                   " makes it one",
               guess);
  } else {
    SetBatch(name,
             names.empty() ? "the first dimension of every tensor is dynamic "
                             "and has no name"
                           : "every tensor begins with it",
             guess);
  }
}

void GuessFixedBatch(int size, Guess& guess) {
  const std::string fixed =
      "the first dimension of every tensor is fixed at " + std::to_string(size);
  if (size == 1 || !HasRows(guess.network)) return SetNoBatch(fixed, guess);
  SetBatch("batch", fixed + "; --batch none if that is no batch", guess);
}

void GuessBatch(Guess& guess) {
  std::set<std::string> names;
  std::set<int> sizes;
  for (const Port* port : PortsOf(guess.network)) {
    const Dimension& first = port->dimensions[0];
    sizes.insert(first.size);
    if (!first.name.empty()) names.insert(first.name);
  }
  if (sizes.size() > 1 || names.size() > 1) {
    SetNoBatch("the first dimensions of the tensors differ", guess);
  } else if (*sizes.begin() == -1) {
    GuessDynamicBatch(names, guess);
  } else {
    GuessFixedBatch(*sizes.begin(), guess);
  }
}

bool Has(const std::vector<Port>& ports, const std::string& name) {
  return std::any_of(ports.begin(), ports.end(),
                     [&](const Port& port) { return port.name == name; });
}

void TakeCaches(const std::vector<CachePair>& caches, Guess& guess) {
  for (const auto& [output, input] : caches) {
    if (!Has(guess.network.outputs, output)) {
      throw Failure("--cache: the network has no output " + output);
    }
    if (!Has(guess.network.inputs, input)) {
      throw Failure("--cache: the network has no input " + input);
    }
  }
  guess.caches = caches;
  guess.grounds["caches-pair"] =
      caches.empty() ? "No caches: --cache says so." : "As --cache says.";
}

bool IsCache(const Guess& guess, const std::string& name) {
  return std::any_of(guess.caches.begin(), guess.caches.end(),
                     [&](const CachePair& cache) {
                       return cache.first == name || cache.second == name;
                     });
}

// An output that could be a state by its shape, which the host fills and reads
// nevertheless.
void NoteOtherPairs(Guess& guess) {
  const auto varies = [&](const Dimension& dimension) {
    return dimension.size == -1 && dimension.name != guess.batch;
  };
  for (const Port& output : guess.network.outputs) {
    const auto& dimensions = output.dimensions;
    if (std::any_of(dimensions.begin(), dimensions.end(), varies)) continue;
    for (const Port& input : guess.network.inputs) {
      if (IsCache(guess, output.name) || IsCache(guess, input.name)) continue;
      if (!FitsInto(output, input)) continue;
      guess.undecided.push_back(
          "output " + output.name + " has the shape and type of input " +
          input.name + "; if it is its next value, say --cache " + output.name +
          ":" + input.name);
    }
  }
}

void GuessCaches(Guess& guess) {
  guess.caches = GuessCachePairs(guess.network);
  const size_t num = guess.caches.size();
  if (num > 0 && (num == guess.network.inputs.size() ||
                  num == guess.network.outputs.size())) {
    throw Failure(
        "by their names all inputs or all outputs are caches, which leaves the "
        "host none: say --cache OUTPUT:INPUT for each, or --cache none");
  }
  std::string ground = "By name, shape and type:";
  for (const auto& [output, input] : guess.caches) {
    ground += "\n" + output + " becomes " + input;
  }
  guess.grounds["caches-pair"] =
      num > 0 ? ground
              : "No caches: no output is named as an input's next value.";
  NoteOtherPairs(guess);
}

void RefuseVaryingStreams(Guess& guess) {
  if (guess.caches.empty()) return;
  ForEachDimension(guess.network, [&](const Port& port, size_t axis) {
    const Dimension& dimension = port.dimensions[axis];
    if (dimension.size != -1 || dimension.name == guess.batch) return;
    throw Failure(
        "dimension " + dimension.name + " of " + port.name +
        " is dynamic, but in a streaming network (cache " +
        guess.caches[0].first + ":" + guess.caches[0].second +
        ") only the batch dimension may be: fix it in the network, for "
        "instance with tarn-prepare --fix " +
        dimension.name + "=SIZE, or say --cache none if there is no state");
  });
}

// Ends of the ranges, the upper ones where `max`.
Sizes EndsOf(const Ranges& ranges, bool max) {
  Sizes sizes;
  for (const auto& [name, range] : ranges) {
    sizes[name] = max ? range.second : range.first;
  }
  return sizes;
}

void AddRange(const std::string& name, const std::pair<int, int>& guessed,
              const std::string& ground, const Ranges& given, Guess& guess) {
  const auto overrule = given.find(name);
  const bool is_given = overrule != given.end();
  guess.ranges[name] = is_given ? overrule->second : guessed;
  std::string& grounds = guess.grounds["dynamic-dims"];
  grounds += (grounds.empty() ? "" : "\n") + name + ": " +
             (is_given ? "the given range" : ground) + ".";
}

// Ranges of what only outputs have follow from those of the inputs.
void GuessOutputRanges(const Ranges& given, Guess& guess) {
  Sizes low = EndsOf(guess.ranges, false);
  Sizes high = EndsOf(guess.ranges, true);
  AddOutputSizes(guess.network, low);
  AddOutputSizes(guess.network, high);
  for (const auto& [name, size] : low) {
    if (guess.ranges.count(name) > 0) continue;
    AddRange(name, std::minmax(size, high.at(name)),
             "what the network gave at the ends of the other ranges", given,
             guess);
  }
}

void GuessRanges(const Ranges& given, Guess& guess) {
  for (const Port& port : guess.network.inputs) {
    for (const auto& [size, name] : port.dimensions) {
      if (size != -1 || guess.ranges.count(name) > 0) continue;
      AddRange(name, name == guess.batch ? kBatchRange : kDynamicRange,
               "a default; the network does not tell its range", given, guess);
    }
  }
  GuessOutputRanges(given, guess);
  for (const auto& [name, range] : given) {
    if (guess.ranges.count(name) > 0) continue;
    throw Failure(name + " is no dynamic dimension; " +
                  (guess.ranges.empty()
                       ? "there is none"
                       : "there are " + RangesText(guess.ranges)));
  }
}

// One entry for each port: <name>:<text of it>.
template <typename Text>
std::string Join(const std::vector<Port>& ports, Text text) {
  std::string joined;
  for (const Port& port : ports) {
    joined += (joined.empty() ? "" : ";") + port.name + ":" + text(port);
  }
  return joined;
}

void Describe(const std::vector<Port>& ports, std::string& format,
              std::string& shape, std::string& dtype) {
  format = Join(ports, [](const Port& port) {
    std::vector<std::string> names;
    for (const Dimension& dimension : port.dimensions) {
      names.push_back(dimension.name);
    }
    return ConvertFormatToString(names);
  });
  shape = Join(ports, [](const Port& port) {
    std::vector<int> sizes;
    for (const Dimension& dimension : port.dimensions) {
      sizes.push_back(dimension.size);
    }
    return ConvertShapeToString(sizes);
  });
  dtype = Join(ports, [](const Port& port) {
    return ConvertDataTypeToString(*port.data_type);
  });
}

std::vector<Port> Select(const std::vector<Port>& ports, const Guess& guess,
                         bool caches) {
  std::vector<Port> selected;
  std::copy_if(
      ports.begin(), ports.end(), std::back_inserter(selected),
      [&](const Port& port) { return IsCache(guess, port.name) == caches; });
  return selected;
}

}  // namespace

Guess MakeGuess(const Network& network, const Overrules& overrules) {
  Guess guess;
  guess.network = network;
  RefuseObstacles(guess.network);
  LegaliseNames(guess.network);
  for (const auto& [place, name] : overrules.names) {
    Rename(place, name, guess.network);
  }
  if (overrules.batch) {
    TakeBatch(*overrules.batch, overrules.ranges, guess);
  } else {
    GuessBatch(guess);
  }
  if (overrules.caches) {
    TakeCaches(*overrules.caches, guess);
  } else {
    GuessCaches(guess);
  }
  NameTheRest(guess.network);
  RefuseVaryingStreams(guess);
  GuessRanges(overrules.ranges, guess);
  return guess;
}

ModelOptions OptionsOf(const Guess& guess) {
  const Network& network = guess.network;
  ModelOptions options;
  Describe(Select(network.inputs, guess, false), options.inputs_format,
           options.inputs_shape, options.inputs_dtype);
  Describe(Select(network.outputs, guess, false), options.outputs_format,
           options.outputs_shape, options.outputs_dtype);
  Describe(Select(network.inputs, guess, true), options.caches_format,
           options.caches_shape, options.caches_dtype);
  for (const auto& [output, input] : guess.caches) {
    options.caches_pair +=
        (options.caches_pair.empty() ? "" : ";") + output + ":" + input;
  }
  options.batch_dim = guess.batch;
  options.dynamic_dims = RangesText(guess.ranges);
  options.multi_threads = !guess.batch.empty();
  options.infer_thread = !guess.batch.empty();
  options.infer_interval = guess.batch.empty() ? 0 : 2000;
  options.num_execute_threads = 1;
  return options;
}

std::string RangesText(const Ranges& ranges) {
  std::string text;
  for (const auto& [name, range] : ranges) {
    text += (text.empty() ? "" : ";") + name + ":" +
            std::to_string(range.first) + "-" + std::to_string(range.second);
  }
  return text;
}

}  // namespace tarn::tool
