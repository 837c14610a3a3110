#include "host/script/WordSplitter.h"

namespace Host {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

}  // namespace

bool WordSplitter::split(std::string_view line, std::vector<std::string>& words) {
  words.clear();
  std::string word;
  // A word exists as soon as any character or a pair of quotes was seen, so `""` yields an
  // empty word while a run of blanks yields none.
  bool inWord = false;
  bool inQuotes = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (inQuotes) {
      if (c == '"') {
        inQuotes = false;
      } else if (c == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) {
        word += line[++i];
      } else {
        word += c;
      }
    } else if (isBlank(c)) {
      if (inWord) {
        words.push_back(std::move(word));
        word.clear();
        inWord = false;
      }
    } else if (c == '"') {
      inQuotes = true;
      inWord = true;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inQuotes) return false;
  if (inWord) words.push_back(std::move(word));
  return true;
}

std::string WordSplitter::quote(std::string_view word) {
  const bool quoted = word.empty() || word.front() == '#' || word.find_first_of(" \t\r\"\\") != std::string_view::npos;
  if (!quoted) return std::string(word);
  std::string text = "\"";
  for (const char c : word) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  text += '"';
  return text;
}

}  // namespace Host
