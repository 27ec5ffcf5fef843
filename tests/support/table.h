#ifndef TARN_TESTS_SUPPORT_TABLE_H_
#define TARN_TESTS_SUPPORT_TABLE_H_

#include <sstream>
#include <string>
#include <vector>

namespace tarn {

// The rows of a table of texts: one on each line but the first, which is
// empty; " | " is between cells.
inline std::vector<std::vector<std::string>> Rows(const std::string& table) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(table.substr(1));
  for (std::string line; std::getline(lines, line);) {
    rows.emplace_back();
    size_t start = 0;
    for (size_t bar; (bar = line.find(" | ", start)) != std::string::npos;
         start = bar + 3) {
      rows.back().push_back(line.substr(start, bar - start));
    }
    rows.back().push_back(line.substr(start));
  }
  return rows;
}

// `text` with every `from` in it replaced by `to`.
inline std::string Replaced(std::string text, const std::string& from,
                            const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos;
       at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace tarn

#endif  // TARN_TESTS_SUPPORT_TABLE_H_
