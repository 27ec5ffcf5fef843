#include "soak/failing-new.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace tarn {

thread_local int allocations_until_failure = 0;

}  // namespace tarn

void* operator new(size_t size) {
  int& remaining = tarn::allocations_until_failure;
  if (remaining > 0) {
    --remaining;
    if (remaining == 0) throw std::bad_alloc();
  }
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void operator delete(void* block) noexcept { std::free(block); }

void operator delete(void* block, size_t /*size*/) noexcept {
  std::free(block);
}
