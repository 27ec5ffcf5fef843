#ifndef TOOLS_TARN_TABLE_H_
#define TOOLS_TARN_TABLE_H_

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::tool {

// A table whose columns align in a terminal: texts to the left, what looks like
// a number to the right.
class Table {
 public:
  explicit Table(std::vector<std::string> titles);

  // One text per title.
  void AddRow(std::vector<std::string> cells);

  // Two blanks between columns, none at the ends of lines.
  void Print(std::ostream& os) const;

 private:
  size_t Width(size_t column) const;
  bool IsNumeric(size_t column) const;

  std::vector<std::string> titles_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace tarn::tool

#endif  // TOOLS_TARN_TABLE_H_
