#include "base/base-model-options.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace tarn
