#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "control.h"
#include "mace/port/env.h"
#include "mace/port/file_system.h"

namespace mace {

namespace {

std::atomic<int> live_regions{0};

// Unmapped with the region, so that reading it too late is a fault.
class MappedRegion : public port::ReadOnlyMemoryRegion {
 public:
  MappedRegion(void* data, size_t length) : data_(data), length_(length) {
    ++live_regions;
  }
  ~MappedRegion() override {
    if (data_ != nullptr) munmap(data_, length_);
    --live_regions;
  }
  const void* data() const override { return data_; }
  uint64_t length() const override { return length_; }

 private:
  void* data_;
  size_t length_;
};

class PosixEnv : public port::Env, public port::FileSystem {
 public:
  port::FileSystem* GetFileSystem() override { return this; }

  MaceStatus NewReadOnlyMemoryRegionFromFile(
      const char* path,
      std::unique_ptr<port::ReadOnlyMemoryRegion>* result) override {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return MaceStatus::MACE_RUNTIME_ERROR;
    struct stat status = {};
    fstat(file, &status);
    const auto length = static_cast<size_t>(status.st_size);
    void* data = nullptr;
    if (length > 0) {
      data = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, file, 0);
    }
    close(file);
    if (data == MAP_FAILED) return MaceStatus::MACE_RUNTIME_ERROR;
    *result = std::make_unique<MappedRegion>(data, length);
    return {};
  }
};

}  // namespace

port::Env* port::Env::Default() {
  static PosixEnv env;
  return &env;
}

int control::LiveRegions() { return live_regions; }

}  // namespace mace
