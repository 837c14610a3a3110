// Host::WordSplitter cuts one command line into words: blanks separate, double quotes group
// (so a word may be empty or hold blanks). The script reader and, later, the control socket
// share it. Stateless and free of I/O, so it can be fuzzed; callable from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Host {

class WordSplitter {
public:
  // Replaces `words` with the words of `line`. Blank, tabulator and carriage return separate
  // words. Inside double quotes `\"` stands for a quote and `\\` for a backslash; any other
  // backslash is kept as written, and outside quotes a backslash is an ordinary character so
  // that file names need no escaping. Quoted and unquoted parts that touch form one word.
  // False (and `words` unspecified) when a quote is not closed.
  static bool split(std::string_view line, std::vector<std::string>& words);

  // `word` as split() reads it back: quoted when it is empty, holds a blank, a quote or a
  // backslash, or starts with '#'; as it is otherwise.
  static std::string quote(std::string_view word);
};

}  // namespace Host
