#include "base/base-model-info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/log.h"
#include "support/table.h"
#include "support/temp-file.h"
#include "utils/text-utils.h"

namespace tarn {
namespace {

using testing::ElementsAre;

// A streaming model. One cache's name begins with the other's, and they sort
// differently by their two sides.
constexpr char kStreaming[] = R"(
--inputs-format=feats:[b,t,d];aux:[b]
--inputs-shape=feats:[-1,20,40];aux:[-1]
--inputs-dtype=aux:INT64;feats:FLOAT32
--outputs-format=y:[b,v];probs:[b,t]
--outputs-shape=y:[-1,500];probs:[-1,20]
--outputs-dtype=y:FLOAT16;probs:INT8
--caches-pair=cache_next:cache;cache_len_next:cache_len
--caches-format=cache:[b,d];cache_len:[b]
--caches-shape=cache:[-1,40];cache_len:[-1]
--caches-dtype=cache:FLOAT64;cache_len:INT32
--batch-dim=b
--dynamic-dims=b:1-8
--multi-threads)";

constexpr char kTimeIsDynamic[] =
    " --caches-pair= --caches-format= --caches-shape= --caches-dtype="
    " --inputs-shape=feats:[-1,-1,40];aux:[-1] --dynamic-dims=b:1-8;t:4-16"
    " --outputs-shape=y:[-1,500];probs:[-1,-1]";

// The streaming model with other options: " --name=value --name=value".
ModelOptions Changed(const std::string& changes) {
  const TempFile file(kStreaming + Replaced(changes, " --", "\n--"));
  return ModelOptions(file.path(), false);
}

std::vector<Finding> FindingsOf(const ModelOptions& options) {
  std::vector<Finding> findings;
  ModelInfo info(options, findings);
  return findings;
}

std::string FirstFinding(const ModelOptions& options) {
  const std::vector<Finding> findings = FindingsOf(options);
  return findings.empty() ? "" : findings.front().found;
}

// Of a log line "function: message".
std::string MessageOf(const std::string& line) {
  return line.substr(line.find(": ") + 2);
}

TEST(ModelInfoTest, AnswersByIndexAndName) {
  const ModelInfo info(Changed(kTimeIsDynamic));
  EXPECT_EQ(info.GetInputNum() + info.GetOutputNum(), 4u);
  EXPECT_EQ(info.GetInputName(0), "aux");
  EXPECT_EQ(info.GetOutputName(1), "y");
  EXPECT_THAT(info.GetInputFormat(0), ElementsAre("b"));
  EXPECT_THAT(info.GetInputFormat("feats"), ElementsAre("b", "t", "d"));
  EXPECT_THAT(info.GetInputShape(1), ElementsAre(-1, -1, 40));
  EXPECT_THAT(info.GetInputShape("aux"), ElementsAre(-1));
  EXPECT_THAT(info.GetInputShape(1, true), ElementsAre(8, 16, 40));
  EXPECT_THAT(info.GetInputShape("feats", false), ElementsAre(1, 4, 40));
  EXPECT_EQ(info.GetInputDataType(0), Tensor::INT64);
  EXPECT_EQ(info.GetInputDataType("feats"), Tensor::FLOAT32);
  EXPECT_THAT(info.GetOutputFormat(1), ElementsAre("b", "v"));
  EXPECT_THAT(info.GetOutputFormat("probs"), ElementsAre("b", "t"));
  EXPECT_THAT(info.GetOutputShape(0), ElementsAre(-1, -1));
  EXPECT_THAT(info.GetOutputShape("y"), ElementsAre(-1, 500));
  EXPECT_THAT(info.GetOutputShape(0, false), ElementsAre(1, 4));
  EXPECT_THAT(info.GetOutputShape("y", true), ElementsAre(8, 500));
  EXPECT_EQ(info.GetOutputDataType(0), Tensor::INT8);
  EXPECT_EQ(info.GetOutputDataType("y"), Tensor::FLOAT16);
  EXPECT_EQ(info.GetCacheNum(), 0u);
  EXPECT_EQ(info.GetDimension("t"), -1);
  EXPECT_EQ(info.GetDimension("v"), 500);
  EXPECT_EQ(info.GetDimensionRange("t"), std::make_pair(4, 16));
}

TEST(ModelInfoTest, FindsCachesByEitherSideInOrderOfTheirOutputs) {
  const ModelInfo info(Changed(""));
  ASSERT_EQ(info.GetCacheNum(), 2u);
  const struct {
    std::string input, output;
    std::vector<std::string> format;
    std::vector<int> shape, largest;
    Tensor::DataType type;
  } kCaches[] = {
      {"cache_len", "cache_len_next", {"b"}, {-1}, {8}, Tensor::INT32},
      {"cache", "cache_next", {"b", "d"}, {-1, 40}, {8, 40}, Tensor::FLOAT64}};
  for (unsigned int i = 0; i < 2; ++i) {
    const auto& cache = kCaches[i];
    EXPECT_EQ(info.GetCacheName(i, false), cache.input);
    EXPECT_EQ(info.GetCacheName(i, true), cache.output);
    EXPECT_EQ(info.GetCacheFormat(i), cache.format);
    EXPECT_EQ(info.GetCacheShape(i), cache.shape);
    EXPECT_EQ(info.GetCacheShape(i, true), cache.largest);
    EXPECT_EQ(info.GetCacheDataType(i), cache.type);
    for (const std::string& name : {cache.input, cache.output}) {
      EXPECT_EQ(info.GetCacheName(name), cache.input);
      EXPECT_EQ(info.GetCacheFormat(name), cache.format);
      EXPECT_EQ(info.GetCacheShape(name, true), cache.largest);
      EXPECT_TRUE(info.CheckCache(name, cache.largest, cache.type));
      EXPECT_FALSE(info.CheckCache(name, cache.largest, Tensor::INT8));
    }
  }
}

TEST(ModelInfoTest, ChecksShapesAndTypes) {
  const ModelInfo info(Changed(kTimeIsDynamic));
  using Shapes = std::vector<std::vector<int>>;
  for (const auto& shape : Shapes{{8, 4, 40}, {1, 16, 40}}) {
    EXPECT_TRUE(info.CheckInput("feats", shape, Tensor::FLOAT32));
    EXPECT_FALSE(info.CheckInput("feats", shape, Tensor::INT32));
  }
  for (const auto& shape : Shapes{{9, 4, 40},
                                  {0, 4, 40},
                                  {8, 3, 40},
                                  {8, 17, 40},
                                  {8, 4, 41},
                                  {8, 4},
                                  {8, 4, 40, 1},
                                  {}}) {
    EXPECT_FALSE(info.CheckInput("feats", shape, Tensor::FLOAT32))
        << ConvertShapeToString(shape);
  }
  EXPECT_TRUE(info.CheckOutput("y", {3, 500}, Tensor::FLOAT16));
  EXPECT_FALSE(info.CheckOutput("y", {3, 499}, Tensor::FLOAT16));
  EXPECT_TRUE(info.CheckShape({}, {}, {}));
}

TEST(ModelInfoTest, ReportsItsStepsAndTheOneCorrection) {
  const ModelOptions options = Changed(" --multi-threads=false");
  const ScopedLogLevel level(INFO);
  EXPECT_THAT(
      LinesOf([&] { EXPECT_TRUE(ModelInfo(options).multi_threads()); }),
      ElementsAre(
          "INFO ReadInputOptions: reading options of inputs successfully.",
          "INFO ReadOutputOptions: reading options of outputs successfully.",
          "INFO ReadCacheOptions: reading options of caches successfully.",
          "INFO ReadDimensionOptions: reading options of dimensions "
          "successfully.",
          "WARNING ModelInfo: expect --multi-threads=true if there is batch "
          "dimension exists, correct it automaticly."));
}

// Changes that break the description, and what the log says.
constexpr char kFaults[] = R"(
 --inputs-format= | GetFormat: there are no formats in text
 --inputs-dtype=aux:INT8 | ReadInputOptions: the number of inputs are different in inputs-shape, inputs-format and inputs-dtype
 --inputs-shape=feats:[1,20,40];x:[1] | ReadInputOptions: missing shape of input:aux
 --inputs-dtype=aux:INT8;x:INT8 | ReadInputOptions: missing data type of input:feats
 --inputs-shape=feats:[-1,20];aux:[-1] | ReadInputOptions: the format and shape of input:feats are mismatched.
 --outputs-shape=y:[-1,500] | ReadOutputOptions: the number of outputs are different in outputs-shape, outputs-format and outputs-dtype
 --outputs-shape=y:[-1,500];x:[1] | ReadOutputOptions: missing shape of output:probs
 --outputs-dtype=probs:INT8;x:INT8 | ReadOutputOptions: missing data type of output:y
 --outputs-shape=y:[-1,500,1];probs:[-1,20] | ReadOutputOptions: the format and shape of output:y are mismatched.
 --caches-pair= | ReadCacheOptions: the number of caches are different in caches-pair, caches-format, caches-shape and caches-dtype
 --caches-pair=a:aux;b:cache | ReadCacheOptions: the input part of cache is one of model's inputs, it's name should be different with other inputs
 --caches-pair=a:cache;y:x | ReadCacheOptions: the output part of cache is one of model's outputs, it's name should be different with other outputs
 --caches-pair=a:cache;b:x | ReadCacheOptions: missing format of cache:x
 --caches-shape=cache:[-1,40];x:[1] | ReadCacheOptions: missing shape of cache:cache_len
 --caches-dtype=cache_len:INT8;x:INT8 | ReadCacheOptions: missing data type of cache:cache
 --caches-shape=cache:[-1];cache_len:[-1] | ReadCacheOptions: the format and shape of cache:cache are mismatched.
 --inputs-shape=feats:[-1,20,40];aux:[1] | ReadDimensionOptions: different size found for dimension:b
 --outputs-shape=y:[-1,500];probs:[-1,21] | ReadDimensionOptions: different size found for dimension: t
 --caches-shape=cache:[-1,41];cache_len:[-1] | ReadDimensionOptions: different size found for dimension: d
 --dynamic-dims= | ReadDimensionOptions: missing range of dimension:b
 --outputs-shape=y:[-1,-1];probs:[-1,20] | ReadDimensionOptions: missing range of dimension:v
 --batch-dim=x | ReadDimensionOptions: can't find batch dimension with name:x
 --inputs-format=feats:[d,t,b];aux:[b] --inputs-shape=feats:[40,20,-1];aux:[-1] | ReadDimensionOptions: the first dimension must be b, but got d at input:feats
 --outputs-format=y:[b,v];probs:[t,b] --outputs-shape=y:[-1,500];probs:[20,-1] | ReadDimensionOptions: the first dimension must be b, but got t at output:probs
 --caches-format=cache:[b,d];cache_len:[l] --caches-shape=cache:[-1,40];cache_len:[1] | ReadDimensionOptions: the first dimension must be b, but got l at cache:cache_len
 --infer-thread --infer-interval=-1 | ModelInfo: expect --infer-interval>=0 if there is independent inference thread.
 --dynamic-dims=b:1-8;unused:1-2 | ModelInfo: except for the batch dimension, all other dimensions should be fixed if the model is streaming.
 --batch-dim= | ModelInfo: except for the batch dimension, all other dimensions should be fixed if the model is streaming.)";

TEST(ModelInfoDeathTest, RefusesInconsistentDescriptions) {
  for (const auto& row : Rows(kFaults)) {
    const ModelOptions options = Changed(row[0]);
    ExpectFatalUnlessSilent([&] { ModelInfo info(options); },
                            "FATAL " + row[1]);
    EXPECT_EQ(FirstFinding(options), MessageOf(row[1])) << row[0];
  }
}

TEST(ModelInfoTest, FindsEveryFaultAndNothingThatFollowsFromOne) {
  const auto rows = Rows(R"(
 --inputs-shape=feats:[-1,x,40];aux:[-1] | shape-integers inputs-shape 15
 --outputs-dtype=y-FLOAT16;probs:INT8 | key-value outputs-dtype 15
 --caches-pair= --caches-format= --caches-shape= --caches-dtype= | nothing
 --dynamic-dims=b:0-8 --batch-dim=x | range-bounds dynamic-dims 15;batch-unknown batch-dim 16
 --inputs-dtype=aux:INT64 | entry-count inputs-format 2;entry-missing inputs-dtype 15
 --dynamic-dims= | range-missing dynamic-dims 15
 --inputs-format= --infer-thread --infer-interval=-1 | empty inputs-format 15;infer-interval infer-interval 17
 --caches-shape=cache:[-1,41];cache_len:[7] --dynamic-dims=b:1-8;u:1-2 | dimension-size caches-shape 15;dimension-size caches-shape 15;streaming-fixed dynamic-dims 16)");
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    const ModelOptions options = Changed(row[0]);
    std::string places;
    EXPECT_EQ(LogOf([&] {
                for (const Finding& finding : FindingsOf(options)) {
                  places += (places.empty() ? "" : ";") + finding.rule + " " +
                            finding.option + " " + std::to_string(finding.line);
                }
              }),
              "");
    EXPECT_EQ(places.empty() ? "nothing" : places, row[1]);
  }
}

TEST(ModelInfoDeathTest, ReportsTheFirstOfSeveralFaults) {
  std::string changes;
  const auto rows = Rows(R"(
 --dynamic-dims=b:1-8;unused:1-2 | except for the batch dimension
 --infer-thread --infer-interval=-1 | expect --infer-interval>=0
 --batch-dim=x | can't find batch dimension
 --inputs-shape=aux:[-1];feats:[-1,20,-1] | missing range of dimension:d
 --caches-dtype= | the number of caches are different
 --caches-pair=c:c | wrong format: c:c, <value>
 --outputs-shape=y:1 | GetShape: wrong format: y:1
 --inputs-dtype= | there are no data types in text)");
  for (const auto& row : rows) {
    changes += row[0];  // Each comes before the ones above.
    const ModelOptions options = Changed(changes);
    ExpectFatal([&] { ModelInfo info(options); }, row[1]);
  }
}

TEST(ModelInfoDeathTest, RefusesQueriesForWhatItDoesNotHave) {
  const ModelInfo info(Changed(""));
  const auto expect = [](const char* function, const std::string& message,
                         const Action& query) {
    ExpectFatal(query, message, function, "src/base/base-model");
    const ScopedLogLevel level(kSilent);
    EXPECT_THROW(query(), std::out_of_range);
  };
  const std::string beyond = "index is beyond the number of ";
  expect("GetInputName", beyond + "inputs.", [&] { info.GetInputName(2); });
  expect("GetOutputShape", beyond + "outputs.",
         [&] { info.GetOutputShape(2, true); });
  expect("GetCacheName", beyond + "caches.",
         [&] { info.GetCacheName(2, true); });
  expect("GetInputFormat", "y is't an input of model.",
         [&] { info.GetInputFormat("y"); });
  expect("CheckOutput", "aux is't an output of model.",
         [&] { info.CheckOutput("aux", {}, Tensor::INT8); });
  expect("GetCacheName", "cache_le is't a cache of model.",
         [&] { info.GetCacheName("cache_le"); });
  expect("GetDimension", "no dimension named x exists.",
         [&] { info.GetDimension("x"); });
  expect("GetDimensionRange", "no dynamic dimension named t exists.",
         [&] { info.CheckShape({4}, {-1}, {"t"}); });
}

}  // namespace
}  // namespace tarn
