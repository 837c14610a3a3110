#include "host/check/CheckSession.h"

#include "BAS/FailureText.h"
#include "STR/StagedFiles.h"
#include "host/check/RegistryRemarks.h"
#include "host/common/ExitStatus.h"
#include "host/startup/HostSession.h"
#include "plugin/DataFileCheckListener.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <ostream>

namespace Host {

namespace {

using Listener = DAT::NumberPortability::DataFileCheckListener;

// Prints what the library's check reports, and keeps a progress line on a terminal.
class PrintingListener : public Listener {
public:
  PrintingListener(const HostSession& session, std::ostream& out, std::ostream& err, bool terminal)
      : sessionM(session), outM(out), errM(err), terminalM(terminal) {}

  void setting(const BAS::String& key, Weight weight, const BAS::String& text) override {
    const auto remark = RegistryRemarks::place(sessionM, key, weight, text);
    if (!remark) return;
    outM << RegistryRemarks::sentence(*remark) << '\n';
    if (weight == Weight::FINDING) findingsM = true;
  }

  void finding(std::uint64_t lineNumber, const BAS::String& text) override {
    erase();
    if (lineNumber == 0) {
      outM << fileNameM << ": " << text.view() << '\n';
    } else {
      outM << fileNameM << ':' << lineNumber << ": " << text.view() << '\n';
    }
    findingsM = true;
  }

  void begin(const BAS::String& fileName, std::uint64_t fileSize) override {
    fileNameM = fileName.str();
    fileSizeM = fileSize;
    // A check never writes, so it leaves an interrupted rewrite as it found it and says so.
    if (STR::StagedFiles::rewritePending(fileName))
      finding(0, "a rewrite of the file was interrupted while it was copied over its other hard links, so it may "
                 "hold new data in front and old data behind; nphost run and script finish the copy before they "
                 "load it. This check reads the file as it is now.");
  }

  void progress(std::uint64_t lines, std::uint64_t bytesRead) override {
    // Small files are done before anyone could read a progress line.
    if (!terminalM || fileSizeM < largeFileCM) return;
    const auto now = std::chrono::steady_clock::now();
    if (drawnM && now - lastDrawM < redrawCM) return;
    outM << std::flush;
    errM << fmt::format("\rchecking {}: {} lines, {:.0f}%", fileNameM, lines,
                        100.0 * static_cast<double>(bytesRead) / static_cast<double>(fileSizeM))
         << "\x1b[K" << std::flush;
    drawnM = true;
    lastDrawM = now;
  }

  void summary(const Summary& summary) override {
    erase();
    const std::string span =
        summary.records == 0 ? std::string("no dates")
                             : fmt::format("dates {} to {}", summary.earliest.view(), summary.latest.view());
    outM << fmt::format("checked {}: {} lines, {} records, {} numbers, {} rejected, {} suspicious, {}, {} operators\n",
                        summary.fileName.view(), summary.lines, summary.records, summary.numbers, summary.rejected,
                        summary.suspicious, span, summary.operators)
         << std::flush;
  }

  void cannotCheck(const BAS::String& reason) override {
    erase();
    outM << std::flush;
    ExitStatus::fail(errM, ExitStatus::invalidObjectCM, reason.str());
  }

  // Every key the plug-in ignores or takes otherwise than meant, every rejected or suspicious
  // line and a file without records came as a finding.
  bool findings() const { return findingsM; }
  // The data file being checked; empty before the check began reading.
  const std::string& fileName() const { return fileNameM; }

private:
  static constexpr std::uint64_t largeFileCM = std::uint64_t{4} << 20;
  static constexpr std::chrono::milliseconds redrawCM{250};

  void erase() {
    if (!drawnM) return;
    errM << "\r\x1b[K" << std::flush;
    drawnM = false;
  }

  const HostSession& sessionM;
  std::ostream& outM;
  std::ostream& errM;
  bool terminalM;
  std::string fileNameM;
  std::uint64_t fileSizeM = 0;
  bool findingsM = false;
  bool drawnM = false;
  std::chrono::steady_clock::time_point lastDrawM;
};

}  // namespace

int CheckSession::run(std::ostream& out, std::ostream& err, int errDescriptor) {
  // The registry file and the library fail a check as they fail a start, with the same status.
  if (const int status = sessionM.openLibrary(err, false); status != ExitStatus::doneCM) return status;
  void* const symbol = sessionM.library().find(Listener::entryPointNameCM);
  if (symbol == nullptr) return ExitStatus::fail(err, ExitStatus::noLibraryCM, sessionM.library().error());
  const auto check = reinterpret_cast<Listener::EntryPoint>(symbol);

  STR::StagedFiles::setProcessNeverWrites();
  PrintingListener listener(sessionM, out, err, isatty(errDescriptor) == 1);
  // Whatever the plug-in would not start on (a missing key, a data file it cannot read) leaves
  // the file unjudged, and so does a failure that ends the check part way.
  try {
    if (!check(sessionM.instanceRegistry(), BAS::String(sessionM.instanceName()), Listener::Scope::SETTINGS_AND_DATA,
               listener))
      return ExitStatus::invalidObjectCM;
  } catch (...) {
    // The check has judged only part of the file: it says why it stopped, and judges nothing.
    const std::string what = listener.fileName().empty() ? "the data file of '" + sessionM.instanceName() + "'"
                                                         : "'" + listener.fileName() + "'";
    listener.cannotCheck(BAS::String("the check of " + what + " was ended by an unexpected failure: " +
                                     BAS::failureText(std::current_exception())));
    return ExitStatus::invalidObjectCM;
  }
  return listener.findings() ? ExitStatus::findingsCM : ExitStatus::doneCM;
}

}  // namespace Host
