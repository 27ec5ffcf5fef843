#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "tarn.h"

namespace tarn {
namespace {

// The types and functions that the library is to show.
constexpr char kExports[] = R"(
BaseModel BaseProxy Device InferenceObserver MaceModel MessageLogger Model
ModelInfo ModelOptions OnnxModel ParallelProxy ParseOptions Proxy Queue
Semaphore SerialProxy Tensor CheckModel CheckModelFromMem
ConvertDataTypeToString ConvertFormatToString
ConvertShapeToString ConvertStringToInteger ConvertStringToReal FreeOnDevice
Inference InferenceAsync MallocOnDevice MemoryCopy MemorySet NewModel
NewModelFromMem NewSharedModels NewSharedModelsFromMem SetActiveDevice
SetLogLevel SetObserver SplitStringToIntegers SplitStringToVector Trim Version
global_tarn_log_level)";

// What `symbol` belongs to, or the symbol where that is not tarn's. The result
// of a template comes before its name.
std::string OwnerOf(const std::string& symbol) {
  int depth = 0;  // In brackets, where arguments are.
  for (size_t i = 0; i < symbol.size(); ++i) {
    if (symbol[i] == '<' || symbol[i] == '(') ++depth;
    if (symbol[i] == '>' || symbol[i] == ')') --depth;
    if (depth > 0 || symbol.compare(i, strlen("tarn::"), "tarn::") != 0) {
      continue;
    }
    const std::string name = symbol.substr(i + strlen("tarn::"));
    return name.substr(0, name.find_first_of(":<([\n"));
  }
  return symbol;
}

TEST(ExportsTest, AreTheInterfaceAndNothingElse) {
  std::set<std::string> expected;
  std::istringstream words(kExports);
  for (std::string word; words >> word;) expected.insert(word);
#ifndef USE_BACKEND_MACE
  expected.erase("MaceModel");
#endif
#ifndef USE_BACKEND_ONNX
  expected.erase("OnnxModel");
#endif
  std::set<std::string> found;
  const std::unique_ptr<FILE, int (*)(FILE*)> symbols(
      popen("nm -D -C --defined-only --format=just-symbols " TARN_LIBRARY, "r"),
      pclose);
  for (char line[4096]; fgets(line, sizeof(line), symbols.get()) != nullptr;) {
    found.insert(OwnerOf(line));
  }
  EXPECT_EQ(found, expected);
}

#if defined(__linux__) && defined(__x86_64__)
// A pointer to a virtual operation holds 1 + 8 times its slot, from 0.
template <typename Operation>
ptrdiff_t SlotOf(Operation operation) {
  ptrdiff_t slot = 0;
  std::memcpy(&slot, &operation, sizeof(slot));
  return slot / 8;
}

// The order is part of the binary interface. A destructor takes two slots.
TEST(ExportsTest, KeepTheOrderOfVirtualOperations) {
  EXPECT_EQ(SlotOf(&Proxy::GetInputNum), 2);
  EXPECT_EQ(SlotOf(&Proxy::GetOutputName), 5);
  EXPECT_EQ(SlotOf(&Proxy::HasDimension), 18);
  EXPECT_EQ(SlotOf(&Proxy::GetDimension), 19);
  EXPECT_EQ(SlotOf(&Proxy::HasInput), 21);
  EXPECT_EQ(SlotOf(&Proxy::FixDimension), 24);
  EXPECT_EQ(SlotOf(&Proxy::SetInput), 25);
  EXPECT_EQ(SlotOf(&Proxy::GetOutput), 26);
  EXPECT_EQ(SlotOf(&Proxy::CreateInput), 27);
  EXPECT_EQ(SlotOf(&Proxy::Reset), 28);
  EXPECT_EQ(SlotOf(&Proxy::Inference), 29);
  EXPECT_EQ(SlotOf(&BaseProxy::GetCacheName), 31);
  EXPECT_EQ(SlotOf(&BaseProxy::Wait), 38);
  EXPECT_EQ(SlotOf(&BaseProxy::Notify), 39);
  EXPECT_EQ(SlotOf(&Model::NewProxy), 2);
  EXPECT_EQ(SlotOf(&Model::GetBackEnd), 3);
  EXPECT_EQ(SlotOf(&Model::Ready), 4);
  EXPECT_EQ(SlotOf(&Model::Inference), 5);
  EXPECT_EQ(SlotOf(&BaseModel::LoadModel), 6);
}
#endif

}  // namespace
}  // namespace tarn
