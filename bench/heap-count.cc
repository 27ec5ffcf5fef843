#include "heap-count.h"

#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <new>

// The functions of the C library that those below stand in front of.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace tarn {

HeapCount heap_count;

namespace {

void Grow(long bytes) {
  const long now = heap_count.bytes += bytes;
  long peak = heap_count.peak;
  while (peak < now && !heap_count.peak.compare_exchange_weak(peak, now)) {
  }
}

void* Count(void* block, std::atomic<long>& counter) {
  if (block == nullptr) return nullptr;
  ++counter;
  Grow(static_cast<long>(malloc_usable_size(block)));
  return block;
}

void* CountBlock(void* block) { return Count(block, heap_count.blocks); }

}  // namespace
}  // namespace tarn

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

void* malloc(size_t size) noexcept {
  return tarn::CountBlock(__libc_malloc(size));
}

void* calloc(size_t count, size_t size) noexcept {
  return tarn::CountBlock(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size) noexcept {
  const auto old_size = static_cast<long>(malloc_usable_size(block));
  void* moved = __libc_realloc(block, size);
  if (moved != nullptr || size == 0) tarn::heap_count.bytes -= old_size;
  return tarn::CountBlock(moved);
}

void* memalign(size_t alignment, size_t size) noexcept {
  return tarn::CountBlock(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
  return memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
  *block = memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) noexcept {
  tarn::heap_count.bytes -= static_cast<long>(malloc_usable_size(block));
  __libc_free(block);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

void* operator new(size_t size) {
  void* object = tarn::Count(__libc_malloc(size), tarn::heap_count.objects);
  if (object == nullptr) throw std::bad_alloc();
  return object;
}

void operator delete(void* object) noexcept { std::free(object); }

void operator delete(void* object, size_t /*size*/) noexcept {
  std::free(object);
}
