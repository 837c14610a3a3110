#include "host/check/RegistryRemarks.h"

#include "BAS/Log.h"
#include "BAS/Status.h"
#include "host/script/CommandInterpreter.h"
#include "host/startup/HostSession.h"

#include <fmt/format.h>

namespace Host {

namespace {

using Listener = DAT::NumberPortability::DataFileCheckListener;

// Logs the remarks on the table; the data file is not asked about, so nothing else comes.
class LoggingListener : public Listener {
public:
  explicit LoggingListener(HostSession& session) : sessionM(session) {}

  void setting(const BAS::String& key, Weight weight, const BAS::String& text) override {
    const auto remark = RegistryRemarks::place(sessionM, key, weight, text);
    if (!remark) return;
    const bool finding = remark->weight == Weight::FINDING;
    BAS::Status status;
    status.set(BAS::String(CommandInterpreter::reporterNameCM),
               BAS::String(finding ? RegistryRemarks::findingIdCM : RegistryRemarks::noteIdCM),
               finding ? BAS::Status::CRITICAL : BAS::Status::NORMAL,
               {BAS::String(remark->registryFile), BAS::String::decimal(remark->line), BAS::String(remark->path),
                BAS::String(remark->text)});
    sessionM.log().writeStatus(status);
  }
  void begin(const BAS::String&, std::uint64_t) override {}
  void finding(std::uint64_t, const BAS::String&) override {}
  void progress(std::uint64_t, std::uint64_t) override {}
  void summary(const Summary&) override {}
  // Only a missing table is refused in this scope, and the plug-in says that itself.
  void cannotCheck(const BAS::String&) override {}

private:
  HostSession& sessionM;
};

}  // namespace

std::optional<RegistryRemarks::Remark> RegistryRemarks::place(const HostSession& session, const BAS::String& key,
                                                               Weight weight, const BAS::String& text) {
  if (key.view() == RegistryFile::libraryKeyCM) return std::nullopt;
  Remark remark;
  remark.weight = weight;
  remark.registryFile = session.options().registryFile;
  remark.path = session.instanceName() + "." + key.str();
  remark.line = session.registryFile().lineOf(remark.path);
  remark.text = text.str();
  return remark;
}

std::string RegistryRemarks::sentence(const Remark& remark) {
  const std::string place =
      remark.line == 0 ? remark.registryFile : fmt::format("{}:{}", remark.registryFile, remark.line);
  return fmt::format("{}: {}{} {}", place, remark.weight == Weight::NOTE ? "note: " : "", remark.path, remark.text);
}

void RegistryRemarks::log(HostSession& session) {
  void* const symbol = session.library().find(Listener::entryPointNameCM);
  if (symbol == nullptr) return;
  LoggingListener listener(session);
  reinterpret_cast<Listener::EntryPoint>(symbol)(session.instanceRegistry(), BAS::String(session.instanceName()),
                                                 Listener::Scope::SETTINGS, listener);
}

}  // namespace Host
