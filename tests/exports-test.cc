#include "tarn.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <cstring>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace tarn {
namespace {

// The symbols that the library shows.
std::vector<std::string> Exports() {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(
      popen("nm -D -C --defined-only --format=just-symbols " TARN_LIBRARY, "r"),
      pclose);
  std::vector<std::string> symbols;
  char line[4096];
  while (fgets(line, sizeof(line), pipe.get()) != nullptr) {
    symbols.emplace_back(line, std::strlen(line) - 1);
  }
  return symbols;
}

TEST(ExportsTest, AreTheInterfaceAndNothingElse) {
  // Types, functions, and templates with the number of their instances.
  const std::map<std::string, int> expected = {{"BaseModel", 0},
                                               {"BaseProxy", 0},
                                               {"ConvertDataTypeToString", 0},
                                               {"ConvertFormatToString", 0},
                                               {"ConvertShapeToString", 0},
                                               {"ConvertStringToInteger", 8},
                                               {"ConvertStringToReal", 2},
                                               {"Device", 0},
                                               {"FreeOnDevice", 0},
                                               {"InferenceObserver", 0},
                                         #ifdef USE_BACKEND_MACE
      {"MaceModel", 0},
#endif
      {"MallocOnDevice", 0},
                                               {"MemoryCopy", 0},
                                               {"MemorySet", 0},
                                               {"MessageLogger", 0},
                                               {"Model", 0},
                                               {"ModelInfo", 0},
                                               {"ModelOptions", 0},
                                               {"NewModel", 0},
                                               {"NewModelFromMem", 0},
                                               {"NewSharedModels", 0},
                                               {"NewSharedModelsFromMem", 0},
#ifdef USE_BACKEND_ONNX
                                               {"OnnxModel", 0},
#endif
                                               {"ParallelProxy", 0},
                                               {"ParseOptions", 0},
                                               {"Proxy", 0},
                                               {"Queue", 0},
                                               {"Semaphore", 0},
                                               {"SerialProxy", 0},
                                               {"SetActiveDevice", 0},
                                               {"SetLogLevel", 0},
                                               {"SetObserver", 0},
                                               {"SplitStringToIntegers", 1},
                                               {"SplitStringToVector", 0},
                                               {"Tensor", 0},
                                               {"Tensor::Fill", 10},
                                               {"Tensor::Item", 10},
                                               {"Trim", 0},
                                               {"global_tarn_log_level", 0}};
  // The name, or that of the class; templates show their result first.
  const std::regex pattern(
      R"((?:(?:vtable|typeinfo|typeinfo name) for |[\w ]+ )?)"
      R"(tarn::((?:Tensor::(?:Fill|Item)\b)?\w*).*)");
  std::map<std::string, int> found;
  for (const std::string& symbol : Exports()) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(symbol, match, pattern)) << symbol;
    const bool counts = expected.count(match[1]) && expected.at(match[1]) > 0;
    found[match[1]] += counts ? 1 : 0;
  }
  EXPECT_EQ(found, expected);
}

#if defined(__linux__) && defined(__x86_64__)
// A pointer to a virtual operation holds 1 + 8 times its slot, counted from 0.
template <typename Pointer>
ptrdiff_t SlotOf(Pointer operation) {
  ptrdiff_t words[2];
  static_assert(sizeof(operation) == sizeof(words));
  std::memcpy(words, &operation, sizeof(words));
  return words[0] / 8;
}

// The overload for an index or for a name.
template <typename Class, typename Result>
ptrdiff_t ByIndex(Result (Class::*operation)(unsigned int) const) {
  return SlotOf(operation);
}
template <typename Class, typename Result>
ptrdiff_t ByName(Result (Class::*operation)(const std::string&) const) {
  return SlotOf(operation);
}

// The order is part of the binary interface. Destructors take two slots.
TEST(ExportsTest, KeepTheOrderOfVirtualOperations) {
  const std::vector<ptrdiff_t> proxy_slots = {
      SlotOf(&Proxy::GetInputNum),
      SlotOf(&Proxy::GetOutputNum),
      SlotOf(&Proxy::GetInputName),
      SlotOf(&Proxy::GetOutputName),
      ByIndex(&Proxy::GetInputDataType),
      ByIndex(&Proxy::GetOutputDataType),
      ByName(&Proxy::GetInputDataType),
      ByName(&Proxy::GetOutputDataType),
      ByIndex(&Proxy::GetInputShape),
      ByIndex(&Proxy::GetOutputShape),
      ByName(&Proxy::GetInputShape),
      ByName(&Proxy::GetOutputShape),
      ByIndex(&Proxy::GetInputFormat),
      ByIndex(&Proxy::GetOutputFormat),
      ByName(&Proxy::GetInputFormat),
      ByName(&Proxy::GetOutputFormat),
      SlotOf(&Proxy::HasDimension),
      SlotOf(&Proxy::GetDimension),
      SlotOf(&Proxy::GetDimensionRange),
      SlotOf(&Proxy::HasInput),
      SlotOf(&Proxy::HasOutput),
      SlotOf(&Proxy::HasCache),
      SlotOf(&Proxy::FixDimension),
      SlotOf(&Proxy::SetInput),
      SlotOf(&Proxy::GetOutput),
      SlotOf(&Proxy::CreateInput),
      SlotOf(&Proxy::Reset),
      SlotOf(&Proxy::Inference),
      SlotOf(&BaseProxy::GetCacheNum),
      SlotOf(&BaseProxy::GetCacheName),
      ByIndex(&BaseProxy::GetCacheDataType),
      ByName(&BaseProxy::GetCacheDataType),
      ByIndex(&BaseProxy::GetCacheShape),
      ByName(&BaseProxy::GetCacheShape),
      ByIndex(&BaseProxy::GetCacheFormat),
      ByName(&BaseProxy::GetCacheFormat),
      SlotOf(&BaseProxy::Wait),
      SlotOf(&BaseProxy::Notify)};
  void (BaseModel::*const compute_one)(BaseProxy*) = &BaseModel::Compute;
  void (BaseModel::*const compute_batch)(const std::vector<BaseProxy*>&) =
      &BaseModel::Compute;
  const std::vector<ptrdiff_t> model_slots = {
      SlotOf(&Model::NewProxy),      SlotOf(&Model::GetBackEnd),
      SlotOf(&Model::Ready),         SlotOf(&Model::Inference),
      SlotOf(&BaseModel::LoadModel), SlotOf(compute_one),
      SlotOf(compute_batch)};
  for (const auto& slots : {proxy_slots, model_slots}) {
    for (size_t i = 0; i < slots.size(); ++i) {
      EXPECT_EQ(slots[i], static_cast<ptrdiff_t>(i + 2));
    }
  }
}
#endif

}  // namespace
}  // namespace tarn
