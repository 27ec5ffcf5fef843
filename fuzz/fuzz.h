#ifndef FUZZ_FUZZ_H_
#define FUZZ_FUZZ_H_

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarn::fuzz {

// Makes a finding of a result that is wrong.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

// The bytes that a target was given.
inline std::string Text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// A file with the given bytes that never touches a disk.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& bytes)
      : descriptor_(memfd_create("fuzz", 0)) {
    Require(write(descriptor_, bytes.data(), bytes.size()) ==
                static_cast<ssize_t>(bytes.size()),
            "there is memory for a file");
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { close(descriptor_); }

  std::string path() const {
    return "/proc/self/fd/" + std::to_string(descriptor_);
  }

 private:
  int descriptor_;
};

}  // namespace tarn::fuzz

#endif  // FUZZ_FUZZ_H_
