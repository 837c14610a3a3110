#include "bench/TextTable.h"

#include <algorithm>

namespace Bench {

TextTable::TextTable(std::string title, std::vector<std::string> header)
    : titleM(std::move(title)), headerM(std::move(header)) {}

void TextTable::addRow(std::vector<std::string> cells) {
  cells.resize(std::max(cells.size(), headerM.size()));
  rowsM.push_back(std::move(cells));
}

void TextTable::print(std::ostream& out) const {
  std::vector<std::size_t> widths(headerM.size(), 0);
  auto widen = [&widths](const std::vector<std::string>& cells) {
    if (widths.size() < cells.size()) widths.resize(cells.size(), 0);
    for (std::size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], cells[i].size());
  };
  widen(headerM);
  for (const auto& row : rowsM) widen(row);

  auto printRow = [&](const std::vector<std::string>& cells) {
    out << "  ";
    for (std::size_t i = 0; i < widths.size(); ++i) {
      const std::string& cell = i < cells.size() ? cells[i] : std::string();
      const std::string pad(widths[i] - cell.size(), ' ');
      if (i == 0) {
        out << cell << pad;
      } else {
        out << "  " << pad << cell;
      }
    }
    out << '\n';
  };
  std::size_t total = 0;
  for (const std::size_t w : widths) total += w + 2;

  out << '\n' << titleM << '\n';
  printRow(headerM);
  out << "  " << std::string(total > 2 ? total - 2 : 0, '-') << '\n';
  for (const auto& row : rowsM) printRow(row);
  out.flush();
}

}  // namespace Bench
