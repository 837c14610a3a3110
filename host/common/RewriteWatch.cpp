#include "host/common/RewriteWatch.h"

#include "BAS/LogRecord.h"
#include "BAS/MutexLocker.h"

namespace Host {

void RewriteWatch::watch(const std::string& dataFileName) {
  BAS::MutexLocker locker(mutexM);
  dataFileM = dataFileName;
}

void RewriteWatch::write(const BAS::LogRecord& record, const std::string& /*line*/) {
  const std::thread::id thread = std::this_thread::get_id();
  BAS::MutexLocker locker(mutexM);
  if (dataFileM.empty()) return;
  if (record.kind == BAS::LogRecord::Kind::STATUS) {
    if (record.id.view() != notWrittenIdCM || record.args.empty() || record.args.front().view() != dataFileM) return;
    failedOnM.insert(thread);
    if (scopedM.contains(thread)) scopeFailedM.insert(thread);
    return;
  }
  const std::string_view event = record.id.view();
  if (event == "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL") {
    deltaM = failedOnM.contains(thread) ? Delta::UNSAVED : Delta::UNKNOWN;
  } else if (event == "EVT::ADD_NUM_PORT_DATA_FAILED") {
    deltaM = Delta::UNKNOWN;
  } else if (event == "EVT::RELOAD_SUCCESSFUL" || event == "EVT::RELOAD_FAILED") {
    // A reload reads the data file, which never held the unsaved records.
    if (deltaM == Delta::UNSAVED) deltaM = Delta::DROPPED;
  } else {
    return;
  }
  failedOnM.erase(thread);
}

RewriteWatch::Delta RewriteWatch::delta() const {
  BAS::MutexLocker locker(mutexM);
  return deltaM;
}

RewriteWatch::CommandScope::CommandScope(RewriteWatch& watch) : watchM(watch) {
  BAS::MutexLocker locker(watchM.mutexM);
  watchM.scopedM.insert(std::this_thread::get_id());
}

RewriteWatch::CommandScope::~CommandScope() {
  const std::thread::id thread = std::this_thread::get_id();
  BAS::MutexLocker locker(watchM.mutexM);
  watchM.scopedM.erase(thread);
  watchM.scopeFailedM.erase(thread);
  // Nothing is left for a thread that ends with its command (a connection's).
  watchM.failedOnM.erase(thread);
}

bool RewriteWatch::CommandScope::rewriteFailed() const {
  BAS::MutexLocker locker(watchM.mutexM);
  return watchM.scopeFailedM.contains(std::this_thread::get_id());
}

}  // namespace Host
