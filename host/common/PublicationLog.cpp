#include "host/common/PublicationLog.h"

#include "BAS/Log.h"
#include "BAS/LogRecord.h"
#include "BAS/MutexLocker.h"
#include "STR/FileDigests.h"
#include "host/common/GenerationText.h"
#include "host/common/NphostMessages.h"
#include "plugin/PortabilityLookup.h"

#include <sys/stat.h>

#include <utility>

namespace Host {

namespace {

// The operation whose end `record` reports, or null for any other entry. A failure is named
// too: a reload or delta load may publish and fail afterwards (closing its file); whether it
// published, the generation tells.
const char* operationEndedBy(const BAS::LogRecord& record) {
  const std::string_view id = record.id.view();
  if (record.kind == BAS::LogRecord::Kind::STATUS) return id == "INF_NUM_NPORT_LOADED" ? "load" : nullptr;
  if (id == "EVT::RELOAD_SUCCESSFUL" || id == "EVT::RELOAD_FAILED") return "reload";
  if (id == "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL" || id == "EVT::ADD_NUM_PORT_DATA_FAILED") return "delta";
  return nullptr;
}

// Size, modification time and digest of what the framework saw of a file, or, without a
// record, the size and time the file has now and no digest.
void addFile(std::vector<std::string>& arguments, const std::string& name, bool known, const STR::FileDigests::Record& record) {
  if (known) {
    arguments.push_back(std::to_string(record.size));
    arguments.push_back(GenerationText::isoTime(record.modified));
    arguments.push_back(record.digest.hex());
    return;
  }
  struct stat status {};
  const bool exists = ::stat(name.c_str(), &status) == 0;
  arguments.push_back(exists ? std::to_string(status.st_size) : std::string());
  arguments.push_back(exists ? GenerationText::isoTime(status.st_mtim) : std::string());
  arguments.emplace_back();
}

}  // namespace

PublicationLog::PublicationLog(DAT::NumberPortability::PortabilityLookup& lookup, BAS::Log& log)
    : lookupM(lookup), logM(log), dataFileM(lookup.dataFileName()) {}

PublicationLog::~PublicationLog() { close(); }

bool PublicationLog::start() {
  try {
    threadM = std::thread([this] { writeLoop(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void PublicationLog::write(const BAS::LogRecord& record, const std::string& /*line*/) {
  const bool opened = record.kind == BAS::LogRecord::Kind::STATUS && record.id.view() == "INF_FILE_OPENED";
  const char* operation = opened ? nullptr : operationEndedBy(record);
  if (!opened && operation == nullptr) return;
  const std::thread::id thread = std::this_thread::get_id();
  BAS::MutexLocker locker(queueM);
  if (closedM) return;
  if (opened) {
    if (!record.args.empty()) openedM[thread] = record.args.front().str();
    return;
  }
  const auto openedHere = openedM.extract(thread);
  // Read while the operation still holds the plug-in's operation lock: no other publication
  // can come between.
  const auto generation = lookupM.generation();
  if (generation.publication <= queuedPublicationM) return;
  queuedPublicationM = generation.publication;
  Arguments arguments = describe(operation, openedHere.empty() ? std::string() : openedHere.mapped());
  arguments.insert(arguments.begin(), GenerationText::of(generation));
  pendingM.push_back(std::move(arguments));
  queuedM.notifyAll();
}

PublicationLog::Arguments PublicationLog::describe(const char* operation, const std::string& deltaFile) const {
  Arguments arguments{operation, dataFileM};
  STR::FileDigests::Record record;
  if (std::string_view(operation) != "delta") {
    const bool known = STR::FileDigests::lastReading(dataFileM, record);
    addFile(arguments, dataFileM, known, record);
    return arguments;
  }
  // The data file now holds the merged data: what the rewrite wrote names the content served.
  const bool rewritten = STR::FileDigests::lastRewrite(dataFileM, record);
  addFile(arguments, dataFileM, rewritten, record);
  arguments.push_back(deltaFile);
  const bool read = !deltaFile.empty() && STR::FileDigests::lastReading(deltaFile, record);
  arguments.push_back(read ? record.digest.hex() : std::string());
  return arguments;
}

void PublicationLog::flush() {
  BAS::MutexLocker writing(writingM);
  std::deque<Arguments> lines;
  {
    BAS::MutexLocker locker(queueM);
    lines.swap(pendingM);
  }
  for (const Arguments& arguments : lines) NphostMessages::write(logM, idCM, arguments);
}

void PublicationLog::writeLoop() {
  for (;;) {
    {
      BAS::MutexLocker locker(queueM);
      while (pendingM.empty() && !closedM) queuedM.wait(queueM);
      if (pendingM.empty()) return;
    }
    flush();
  }
}

void PublicationLog::close() {
  {
    BAS::MutexLocker locker(queueM);
    closedM = true;
    queuedM.notifyAll();
  }
  if (threadM.joinable()) threadM.join();
  flush();
}

}  // namespace Host
