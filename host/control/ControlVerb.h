// Host::ControlVerb carries out one of `nphost ctl`'s operations in one command: `reload
// [--reuse]`, `delta FILE` and `print FILE`. Each sends the synchronous registry update that
// does the work (a reload without reuse; with --reuse, once that failed, again with reuse),
// judges whether the data now serving (or the dump) is what the operator asked for, from the
// update's answer, from what the log saw while it ran and, for a print, from the file, then
// asks for `status`; it prints the verdict and the status line. ControlClient::run calls it.
// One thread.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Host {

class ControlClient;

class ControlVerb {
public:
  static bool isVerb(std::string_view word) { return word == "reload" || word == "delta" || word == "print"; }

  // `words` are the verb and its arguments. Prints "VERB ok" or "VERB failed: REASON" and the
  // status line on `out`, a usage or connection failure as one sentence on `err`. The exit
  // status: 0 only for "VERB ok" followed by a status line.
  static int run(const std::string& socket, const std::vector<std::string>& words, std::ostream& out,
                 std::ostream& err);

  // How long the update's answer may take: a reload of a very large file takes minutes, and
  // the data file or a delta file may be a FIFO that the plug-in waits for.
  static constexpr int updateTimeoutMsCM = 30 * 60'000;
  // The lines a dump begins with (the store's dump writes them before the records, even for no
  // record at all): a file that begins with them holds a dump.
  static constexpr std::string_view dumpBannerCM =
      "-----------------------------------------------------------\n"
      "                 Number Portability Data\n"
      "-----------------------------------------------------------\n";

private:
  // What the update's answer lines and the log said, as the reason of a failure; empty when
  // the update did what was asked.
  static std::string reasonOf(const std::string& verb, const std::vector<std::string>& answers);
  // Why `path`, read after the print, does not hold a dump named `name`; empty when it does.
  static std::string notADump(const std::string& path, const std::string& name);
};

}  // namespace Host
