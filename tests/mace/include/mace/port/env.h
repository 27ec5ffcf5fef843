#ifndef MACE_PORT_ENV_H_
#define MACE_PORT_ENV_H_

#include "mace/public/mace.h"

namespace mace {
namespace port {

class FileSystem;

// Not marked as visible: a library with hidden symbols does not export it.
class Env {
 public:
  virtual ~Env() = default;
  virtual FileSystem* GetFileSystem() = 0;
  static Env* Default();
};

}  // namespace port
}  // namespace mace

#endif  // MACE_PORT_ENV_H_
