#ifndef TARN_TESTS_SUPPORT_TEMP_FILE_H_
#define TARN_TESTS_SUPPORT_TEMP_FILE_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace tarn {

// A file with the given bytes, removed with the object.
class TempFile {
 public:
  explicit TempFile(const std::string& bytes)
      : path_(testing::TempDir() + "tarn-XXXXXX") {
    close(mkstemp(path_.data()));
    std::ofstream(path_, std::ios::binary) << bytes;
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() { unlink(path_.c_str()); }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace tarn

#endif  // TARN_TESTS_SUPPORT_TEMP_FILE_H_
