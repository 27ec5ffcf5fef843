#include "safe-file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

#include <unistd.h>

#include "command.h"

namespace tarn::tool {

void WriteFile(const std::string& path, const std::string& content) {
  const std::string temporary = path + "." + std::to_string(getpid()) + ".tmp";
  std::ofstream os(temporary, std::ios::binary);
  os << content;
  os.close();
  if (!os || std::rename(temporary.c_str(), path.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    std::remove(temporary.c_str());
    throw Failure("can't write " + path + ": " + reason);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream is(path, std::ios::binary);
  std::ostringstream content;
  // What opens but cannot be read, a folder, shows only here.
  if (!is || (is.peek() != EOF && !(content << is.rdbuf())) || is.bad()) {
    throw Failure("can't read " + path + ": " + std::strerror(errno));
  }
  return content.str();
}

}  // namespace tarn::tool
