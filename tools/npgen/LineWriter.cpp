#include "LineWriter.h"

#include "DateText.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace NpGen {

LineWriter::LineWriter() = default;

LineWriter::LineWriter(const std::string& path) : pathM(path), fileM(std::fopen(path.c_str(), "wb")) {
  if (fileM == nullptr) {
    throw std::runtime_error("cannot create '" + path + "': " + std::strerror(errno));
  }
  bufferM.reserve(blockCM + 4096);
}

LineWriter::~LineWriter() {
  if (fileM != nullptr) {
    std::fclose(fileM);
  }
}

void LineWriter::putNumber(std::uint64_t value, unsigned width) {
  char digits[20];
  unsigned count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (; width > count; --width) {
    bufferM.push_back('0');
  }
  while (count > 0) {
    bufferM.push_back(digits[--count]);
  }
}

void LineWriter::putDate(std::int64_t seconds) {
  char text[DateText::digitsCM];
  DateText::write(seconds, text);
  bufferM.append(text, sizeof text);
}

void LineWriter::putHex(std::uint64_t value) {
  static constexpr char hexDigits[] = "0123456789abcdef";
  for (int shift = 60; shift >= 0; shift -= 4) {
    bufferM.push_back(hexDigits[(value >> shift) & 0xF]);
  }
}

void LineWriter::endLine() {
  bufferM.push_back('\n');
  ++linesM;
  if (fileM != nullptr && bufferM.size() >= blockCM) {
    flush();
  }
}

void LineWriter::flush() {
  if (!bufferM.empty() && std::fwrite(bufferM.data(), 1, bufferM.size(), fileM) != bufferM.size()) {
    failedM = true;
  }
  bufferM.clear();
}

void LineWriter::close() {
  if (fileM == nullptr) {
    return;
  }
  flush();
  const bool closed = std::fclose(fileM) == 0;
  fileM = nullptr;
  if (failedM || !closed) {
    throw std::runtime_error("cannot write '" + pathM + "': " + std::strerror(errno));
  }
}

}  // namespace NpGen
