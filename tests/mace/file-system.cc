#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

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

class PosixFileSystem : public port::FileSystem {
 public:
  MaceStatus NewReadOnlyMemoryRegionFromFile(
      const char* path,
      std::unique_ptr<port::ReadOnlyMemoryRegion>* result) override {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    void* data = nullptr;
    if (file >= 0 && fstat(file, &status) == 0 && status.st_size > 0) {
      data = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ,
                  MAP_PRIVATE, file, 0);
    }
    if (file >= 0) close(file);
    if (file < 0 || data == MAP_FAILED) {
      return {MaceStatus::MACE_RUNTIME_ERROR,
              std::string("cannot map ") + path};
    }
    *result = std::make_unique<MappedRegion>(
        data, static_cast<size_t>(status.st_size));
    return {};
  }
};

class PosixEnv : public port::Env {
 public:
  port::FileSystem* GetFileSystem() override { return &file_system_; }

 private:
  PosixFileSystem file_system_;
};

}  // namespace

port::Env* port::Env::Default() {
  static PosixEnv env;
  return &env;
}

int control::LiveRegions() { return live_regions; }

}  // namespace mace
