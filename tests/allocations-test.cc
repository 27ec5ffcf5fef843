// How often a request in a steady state asks for memory. In a program of its
// own: counting replaces malloc() and operator new.

#include <vector>

#include <gtest/gtest.h>

#include "bench/bare-model.h"
#include "bench/heap-count.h"
#include "bench/stream.h"

namespace tarn {
namespace {

constexpr int kStreams = 64;

template <typename Action>
Allocations SteadyAllocationsOf(Action action) {
  AllocationsOf(3, action);  // Tensors are made, containers have grown.
  return AllocationsOf(10, action);
}

// Each of `requests` requests that are run at once may make a few allocations
// beyond the bare run's, but none of tensor memory.
void ExpectFew(const Allocations& library, const Allocations& bare,
               int requests) {
  EXPECT_GT(bare.objects, 0) << "nothing is counted";
  EXPECT_LE(library.objects - bare.objects, 2 * requests);
  EXPECT_LE(library.blocks, bare.blocks);
}

TEST(AllocationsTest, SerialRequestMakesFew) {
  const Network network(TARN_TEST_MODELS "/accumulator-single");
  const auto model = network.Load();
  Stream stream(*model);
  BareModel bare(network.model, 1, 1);
  ExpectFew(SteadyAllocationsOf([&] { stream.Request(); }),
            SteadyAllocationsOf([&] { bare.Run(); }), 1);
}

TEST(AllocationsTest, BatchedRequestsMakeFew) {
  for (bool infer_thread : {false, true}) {
    SCOPED_TRACE(infer_thread);
    Network network(TARN_TEST_MODELS "/accumulator");
    network.options.dynamic_dims = "batch:1-64";
    network.options.infer_thread = infer_thread;
    network.options.infer_interval = 1000000;  // The batch fills at once.
    const auto model = network.Load();
    std::vector<Stream> streams = MakeStreams(*model, kStreams);
    const std::vector<Proxy*> proxies = ProxiesOf(streams);
    BareModel bare(network.model, 1, kStreams);
    ExpectFew(SteadyAllocationsOf([&] { RequestAll(streams, proxies); }),
              SteadyAllocationsOf([&] { bare.Run(); }), kStreams);
  }
}

TEST(AllocationsTest, TensorMemoryIsCounted) {
  const Allocations made = AllocationsOf(5, [] {
    const Tensor tensor({3}, Tensor::FLOAT32, Tensor::HOST);
    EXPECT_NE(tensor.Data(), nullptr);
  });
  EXPECT_EQ(made.blocks, 1);
}

}  // namespace
}  // namespace tarn
