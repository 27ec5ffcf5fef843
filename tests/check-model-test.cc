#include "base/tarn-functions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/log.h"

namespace tarn {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string PathOf(const std::string& file) {
  return TARN_TEST_MODELS "/" + file;
}

ModelOptions OptionsOf(const std::string& name) {
  return ModelOptions(PathOf(name + ".conf"), false);
}

// As "rule option severity".
std::vector<std::string> Summary(const std::vector<Finding>& findings) {
  std::vector<std::string> summary;
  for (const Finding& finding : findings) {
    summary.push_back(finding.rule + " " + finding.option + " " +
                      std::to_string(finding.severity));
    EXPECT_FALSE(finding.found.empty() || finding.hint.empty());
  }
  return summary;
}

std::vector<std::string> Check(const ModelOptions& options,
                               const std::string& model,
                               const std::string& backend = "onnx",
                               const std::string& device = "cpu") {
  std::vector<Finding> findings;
  const ScopedLogLevel level(DEBUG);
  EXPECT_EQ(LogOf([&] {
              findings = CheckModel(options, backend, device, model, "", "");
            }),
            "");
  return Summary(findings);
}

TEST(CheckModelTest, FindsNothingWrongWithWhatRuns) {
  for (const char* name : {"accumulator-single", "frames-single"}) {
    EXPECT_THAT(Check(OptionsOf(name), PathOf(name) + ".onnx"), IsEmpty());
  }
}

TEST(CheckModelTest, WarnsOfWhatIsLikelyNotMeant) {
  ModelOptions options = OptionsOf("accumulator");
  options.infer_thread = false;
  options.multi_threads = false;
  options.num_execute_threads = 1 << 20;
  options.dynamic_dims += ";unused:1-2";
  options.caches_pair.clear();
  options.caches_format.clear();
  options.caches_shape.clear();
  options.caches_dtype.clear();
  EXPECT_THAT(
      Check(options, "", "mace"),
      ElementsAre("multi-threads multi-threads 2", "mace-batch batch-dim 2",
                  "callers-wait infer-thread 2",
                  "thread-number num-execute-threads 2",
                  "range-unused dynamic-dims 2"));
  options = OptionsOf("accumulator");
  options.infer_thread = true;
  options.infer_interval = 0;
  options.num_execute_threads = -1;
  options.caches_pair += ";other-next:sum";
  options.caches_format += ";x:[batch]";
  options.caches_shape += ";x:[-1]";
  options.caches_dtype += ";x:INT8";
  EXPECT_THAT(Check(options, ""),
              ElementsAre("polling infer-interval 2",
                          "thread-number num-execute-threads 2",
                          "cache-shared caches-pair 2"));
}

TEST(CheckModelTest, FindsWhatCannotBeLoaded) {
  const ModelOptions options = OptionsOf("accumulator-single");
  const std::string model = PathOf("accumulator-single.onnx");
  EXPECT_THAT(Check(options, model, "onnx", "gpu"), ElementsAre("device  4"));
  EXPECT_THAT(Check(options, model, "onnx", "cuda"), ElementsAre("device  4"));
  EXPECT_THAT(Check(options, model, "ONNX"), ElementsAre("backend  4"));
  EXPECT_THAT(Check(options, model, "tensorrt"), ElementsAre("backend  4"));
  EXPECT_THAT(Check(options, PathOf("none")), ElementsAre("file  4"));
  EXPECT_THAT(Check(options, PathOf("accumulator.conf")),
              ElementsAre("engine  4"));
  std::ifstream is(model, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(is), {});
  const auto check = [&](const std::string& text, const char* backend) {
    return Summary(CheckModelFromMem(options, backend, "cpu", text, "", ""));
  };
  EXPECT_THAT(check(bytes, "onnx"), IsEmpty());
  EXPECT_THAT(check(bytes.substr(0, 90), "onnx"), ElementsAre("engine  4"));
  EXPECT_THAT(check("", "onnx"), ElementsAre("engine  4"));
  EXPECT_THAT(check(bytes, "mace"), ElementsAre("backend  4"));
}

// A broken description does not hide what else is wrong, nor does it make up
// what is not.
TEST(CheckModelTest, ChecksWhatIsLeftOfABrokenDescription) {
  ModelOptions options = OptionsOf("types");
  const std::string model = PathOf("types.onnx");
  const auto replace = [](std::string& text, const std::string& from,
                          const std::string& to) {
    text.replace(text.find(from), from.size(), to);
  };
  replace(options.inputs_shape, "x-int16:[", "x-int16:");
  replace(options.inputs_dtype, "x-int8:INT8", "x-int8:INT16");
  replace(options.outputs_format, "y-float:", "z-float:");
  replace(options.outputs_shape, "y-float:", "z-float:");
  replace(options.outputs_dtype, "y-float:", "z-float:");
  const std::vector<Finding> findings =
      CheckModel(options, "onnx", "cpu", model, "", "");
  EXPECT_THAT(Summary(findings),
              ElementsAre("shape-brackets inputs-shape 4",
                          "callers-wait infer-thread 2",
                          "tensor-mismatch inputs-dtype 4",
                          "tensor-undefined outputs-format 4"));
  EXPECT_THAT(findings[2].found, HasSubstr("input:x-int8"));
  EXPECT_THAT(findings[3].found, HasSubstr("undefined outputs:y-float"));
}

}  // namespace
}  // namespace tarn
