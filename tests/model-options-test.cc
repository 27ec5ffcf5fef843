#include "base/base-model-options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/log.h"
#include "support/temp-file.h"

namespace tarn {
namespace {

// All fields in the order of their declaration.
std::string Fields(const ModelOptions& o) {
  std::string fields;
  for (const std::string& text :
       {o.inputs_shape, o.inputs_format, o.inputs_dtype, o.outputs_shape,
        o.outputs_format, o.outputs_dtype, o.caches_pair, o.caches_shape,
        o.caches_format, o.caches_dtype, o.batch_dim, o.dynamic_dims}) {
    fields += text + "|";
  }
  for (const int number : {int{o.multi_threads}, int{o.infer_thread},
                           o.infer_interval, o.num_execute_threads}) {
    fields += std::to_string(number) + "|";
  }
  return fields;
}

TEST(ModelOptionsTest, ReadsEveryKeyIntoItsFieldAndKeepsOtherDefaults) {
  const TempFile file(
      "--inputs-shape=a1\n--inputs-format=a2\n--inputs-dtype=a3\n"
      "--Outputs_Shape=b1\n--outputs_format=b2\n--OUTPUTS-DTYPE=b3\n"
      "--caches-pair=c1\n--caches-shape=c2\n--caches-format=c3\n"
      "--caches-dtype=c4\n--batch-dim=old\n--batch-dim=d1\n"
      "--dynamic-dims=d2\n--multi-threads\n--infer-thread=t\n"
      "--Infer_Interval=15\n--num-execute-threads=16\n");
  EXPECT_EQ(Fields(ModelOptions(file.path(), false)),
            "a1|a2|a3|b1|b2|b3|c1|c2|c3|c4|d1|d2|1|1|15|16|");
  const TempFile short_file("--batch-dim=b\n");
  EXPECT_EQ(Fields(ModelOptions(short_file.path(), false)),
            "||||||||||b||0|0|0|0|");
  EXPECT_EQ(Fields(ModelOptions()), "||||||||||||0|0|0|0|");
}

TEST(ModelOptionsTest, CollectsProblemsOfTheFileWithoutLoggingThem) {
  const TempFile file(
      "--batch-dim=a\n\nbatch-dim=b\n--=5\n--no-such=1\n"
      "--infer-interval=x  # text\n--multi-threads=\n--infer-thread=perhaps\n"
      "--inputs-shape\n--batch_dim=b\n");
  std::vector<Finding> findings;
  std::string output;
  output = StderrOf([&] {
    output += LogOf([&] { ModelOptions(file.path(), false, findings); });
  });
  EXPECT_EQ(output, "");
  std::string found;
  for (const Finding& finding : findings) {
    found += std::to_string(finding.line) + " " + finding.option + " " +
             finding.rule + " " + std::to_string(finding.severity) + "\n";
    EXPECT_FALSE(finding.found.empty() || finding.hint.empty());
  }
  EXPECT_EQ(found,
            "3  dashes 3\n"
            "3  option 3\n"
            "4  key 3\n"
            "4  option 3\n"
            "5  option 3\n"
            "6 infer-interval number 3\n"
            "7 multi-threads value-missing 3\n"
            "8 infer-thread boolean 3\n"
            "9 inputs-shape value-missing 3\n"
            "10 batch-dim option-repeated 2\n");
  findings.clear();
  const ModelOptions none("no/such/file", false, findings);
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].found, "Cannot open config file: no/such/file");
}

}  // namespace
}  // namespace tarn
