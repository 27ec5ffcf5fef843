#ifndef MACE_PORT_FILE_SYSTEM_H_
#define MACE_PORT_FILE_SYSTEM_H_

#include <cstdint>
#include <memory>

#include "mace/public/mace.h"
#include "mace/utils/macros.h"

namespace mace {
namespace port {

class ReadOnlyMemoryRegion {
 public:
  ReadOnlyMemoryRegion() = default;
  MACE_NO_COPIES(ReadOnlyMemoryRegion);
  virtual ~ReadOnlyMemoryRegion() = default;
  virtual const void* data() const = 0;
  virtual uint64_t length() const = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;
  // Leaves `result` untouched where it fails; an empty file has null data.
  virtual MaceStatus NewReadOnlyMemoryRegionFromFile(
      const char* path, std::unique_ptr<ReadOnlyMemoryRegion>* result) = 0;
};

}  // namespace port
}  // namespace mace

#endif  // MACE_PORT_FILE_SYSTEM_H_
