// Bench::TextTable prints a titled table in aligned columns: the first column left-aligned
// (labels), the others right-aligned (figures). Rows are kept as text; the caller formats.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace Bench {

class TextTable {
public:
  TextTable(std::string title, std::vector<std::string> header);

  void addRow(std::vector<std::string> cells);
  void print(std::ostream& out) const;

private:
  std::string titleM;
  std::vector<std::string> headerM;
  std::vector<std::vector<std::string>> rowsM;
};

}  // namespace Bench
