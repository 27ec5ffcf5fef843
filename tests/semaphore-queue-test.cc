#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "base/base-queue.h"
#include "utils/semaphore.h"

namespace tarn {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Longer than a test may take: a wait that nothing ends fails it.
constexpr unsigned int kForever = 600 * 1000 * 1000;
constexpr size_t kRounds = 500;

TEST(SemaphoreTest, CountsSignals) {
  Semaphore semaphore;
  EXPECT_FALSE(semaphore.TryWait());
  semaphore.Signal();
  semaphore.Signal();
  semaphore.Wait();
  EXPECT_TRUE(semaphore.TryWait());
  EXPECT_FALSE(semaphore.TryWait());
}

TEST(SemaphoreTest, HandsOverToAWaiterThatDestroysIt) {
  size_t result = 0;
  std::unique_ptr<Semaphore> computed;
  Semaphore submitted;
  std::thread worker([&] {
    for (size_t i = 0; i < kRounds; ++i) {
      submitted.Wait();
      result = i;
      computed->Signal();
    }
  });
  for (size_t i = 0; i < kRounds; ++i) {
    computed = std::make_unique<Semaphore>();
    submitted.Signal();
    computed->Wait();
    EXPECT_EQ(result, i);
  }
  worker.join();
}

TEST(QueueTest, PopsFullBatchesOrWhatIsThere) {
  Queue<int> queue;
  queue.Push(1, kWakeNobody);
  queue.Push(2, 1);
  EXPECT_THAT(queue.Pop(3), IsEmpty());
  EXPECT_THAT(queue.Pop(0), IsEmpty());
  EXPECT_THAT(queue.Pop(0, kForever), IsEmpty());
  for (const int item : {3, 4, 5, 6, 7}) queue.Push(item, 0);
  EXPECT_THAT(queue.Pop(3), ElementsAre(1, 2, 3));
  EXPECT_THAT(queue.Pop(2, kForever), ElementsAre(4, 5));
  EXPECT_THAT(queue.Pop(3, 0), ElementsAre(6, 7));
  EXPECT_THAT(queue.Pop(3, 0), IsEmpty());
  queue.Push(8, 1);
  EXPECT_THAT(queue.Pop(3, 1000), ElementsAre(8));  // After the time-out.
  EXPECT_TRUE(queue.Empty());
  queue.Push(9, 1);  // Destroyed in the queue.
}

TEST(QueueTest, PushThatReachesTheThresholdWakesAConsumer) {
  for (const unsigned int size : {1u, 4u}) {
    Queue<unsigned int> queue;
    Semaphore consumed;
    std::thread consumer([&] {
      for (size_t i = 0; i < kRounds; ++i) {
        EXPECT_EQ(queue.Pop(size, kForever).size(), size);
        consumed.Signal();
      }
    });
    for (size_t i = 0; i < kRounds; ++i) {
      for (unsigned int item = 0; item < size; ++item) queue.Push(item, size);
      consumed.Wait();
    }
    consumer.join();
  }
}

TEST(QueueTest, GivesEachItemOnceToOneOfManyConsumers) {
  Queue<size_t> queue;
  std::atomic<size_t> missing{3 * kRounds};
  std::vector<std::atomic<int>> times(missing);
  std::vector<std::thread> threads;
  for (const size_t first : {0, 1, 2}) {
    threads.emplace_back([&, first] {
      for (size_t i = first; i < times.size(); i += 3) queue.Push(i, 8);
    });
    threads.emplace_back([&] {
      while (missing > 0) {
        std::vector<size_t> batch = queue.Pop(8);
        EXPECT_TRUE(batch.empty() || batch.size() == 8);
        if (batch.empty()) batch = queue.Pop(8, 100);
        for (const size_t item : batch) ++times[item];
        missing -= batch.size();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(std::all_of(times.begin(), times.end(),
                          [](const auto& count) { return count == 1; }));
}

}  // namespace
}  // namespace tarn
