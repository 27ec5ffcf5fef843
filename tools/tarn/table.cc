#include "table.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace tarn::tool {

namespace {

// As a terminal shows it: one column for each UTF-8 character.
size_t WidthOf(const std::string& text) {
  return static_cast<size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

}  // namespace

Table::Table(std::vector<std::string> titles) : titles_(std::move(titles)) {}

void Table::AddRow(std::vector<std::string> cells) {
  cells.resize(titles_.size());
  rows_.push_back(std::move(cells));
}

size_t Table::Width(size_t column) const {
  size_t width = WidthOf(titles_[column]);
  for (const auto& row : rows_) width = std::max(width, WidthOf(row[column]));
  return width;
}

bool Table::IsNumeric(size_t column) const {
  return std::all_of(rows_.begin(), rows_.end(), [column](const auto& row) {
    const std::string& cell = row[column];
    return cell.empty() || cell == "-" ||
           std::isdigit(static_cast<unsigned char>(cell.front())) != 0;
  });
}

void Table::Print(std::ostream& os) const {
  std::vector<std::string> lines(rows_.size() + 1);
  for (size_t column = 0; column < titles_.size(); ++column) {
    const size_t width = Width(column);
    const bool right = IsNumeric(column);
    for (size_t i = 0; i < lines.size(); ++i) {
      const std::string& cell = i == 0 ? titles_[column] : rows_[i - 1][column];
      const std::string padding(width - WidthOf(cell), ' ');
      if (column > 0) lines[i] += "  ";
      lines[i] += right ? padding + cell : cell + padding;
    }
  }
  for (std::string& line : lines) {
    line.erase(line.find_last_not_of(' ') + 1);
    os << line << '\n';
  }
}

}  // namespace tarn::tool
