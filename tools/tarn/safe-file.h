#ifndef TOOLS_TARN_SAFE_FILE_H_
#define TOOLS_TARN_SAFE_FILE_H_

#include <string>

namespace tarn::tool {

// Writes a file whole or not at all: under a temporary name beside it, then
// renamed. Throws a Failure that names the file when it cannot be written.
void WriteFile(const std::string& path, const std::string& content);

// The whole file. Throws a Failure that names it when it cannot be read.
std::string ReadFile(const std::string& path);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_SAFE_FILE_H_
