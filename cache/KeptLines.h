// DAT::NumberPortability::KeptLines holds the lines that a reload or delta load processed, in
// file order, for the second pass into the other tree. The lines sit back to back in one
// buffer instead of one heap string each, since a national data set has tens of millions.
// Used by one operation at a time; not synchronised.
#pragma once

#include "BAS/String.h"

#include <cstddef>
#include <filesystem>
#include <system_error>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class KeptLines {
public:
  // Makes room for the lines of the named file at once, so that the buffer is not copied over
  // and over while it grows to the file's size. A file whose size cannot be had reserves nothing.
  void reserveFor(const BAS::String& fileName) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(fileName.str(), error);
    if (!error && size <= textM.max_size()) textM.reserve(static_cast<std::size_t>(size));
  }
  void append(std::string_view line) {
    textM.append(line);
    endsM.push_back(textM.size());
  }
  std::size_t size() const { return endsM.size(); }
  std::string_view operator[](std::size_t index) const {
    const std::size_t begin = index == 0 ? 0 : endsM[index - 1];
    return std::string_view(textM).substr(begin, endsM[index] - begin);
  }
  // Drops the lines and returns their memory.
  void release() {
    std::string().swap(textM);
    std::vector<std::size_t>().swap(endsM);
  }

private:
  std::string textM;
  std::vector<std::size_t> endsM;  // end offset of each line in textM
};

}  // namespace DAT::NumberPortability
