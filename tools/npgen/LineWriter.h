// NpGen::LineWriter collects generated text lines in a buffer and, when it writes a file, hands
// the buffer to the file in large blocks. Without a file it keeps all text in memory, which is
// how the tests look at what the generator wrote. One thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace NpGen {

class LineWriter {
public:
  // Keeps everything in memory; see text().
  LineWriter();
  // Creates or truncates the file; throws std::runtime_error if it cannot.
  explicit LineWriter(const std::string& path);
  ~LineWriter();

  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  void put(char c) { bufferM.push_back(c); }
  void put(std::string_view text) { bufferM.append(text); }
  // Decimal digits of value, padded with leading zeros to at least width digits.
  void putNumber(std::uint64_t value, unsigned width = 1);
  void putDate(std::int64_t seconds);
  void putHex(std::uint64_t value);

  // Ends the line (the last line of a file too) and passes full blocks on to the file.
  void endLine();

  // Writes what is left and closes the file; throws std::runtime_error when the data did not
  // reach the file. Nothing happens in memory mode or when already closed.
  void close();

  std::uint64_t lines() const { return linesM; }
  // All text of a writer in memory mode.
  const std::string& text() const { return bufferM; }

private:
  void flush();

  static constexpr std::size_t blockCM = std::size_t{1} << 20;

  std::string bufferM;
  std::string pathM;
  std::FILE* fileM = nullptr;
  bool failedM = false;
  std::uint64_t linesM = 0;
};

}  // namespace NpGen
