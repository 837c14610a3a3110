// The background worker: carries out the reload, delta load and print requests that probe
// writes post, one at a time, and reports each outcome.
#include "plugin/NumberPortabilityPlugIn.h"

#include "BAS/MutexLocker.h"

#include <cctype>

namespace DAT::NumberPortability {

namespace {

bool equalsIgnoringCase(const BAS::String& text, std::string_view upper) {
  if (text.length() != upper.size()) return false;
  for (std::size_t i = 0; i < upper.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(text[i])) != upper[i]) return false;
  }
  return true;
}

}  // namespace

void PlugIn::postRequest(RequestType type, const BAS::String& value) {
  {
    BAS::MutexLocker locker(requestLockM);
    requestTypeM = type;
    requestValueM = value;
    requestPendingM = true;
  }
  unLock();
}

void PlugIn::run() {
  BAS::Thread* self = BAS::Thread::current();
  while (true) {
    lock();
    if (self != nullptr) {
      BAS::Thread::serviceInterrupt();
      BAS::Thread::serviceCancel();
    }
    if (stopWorkerM.load()) {
      stopState(self);
      return;
    }
    std::int32_t type;
    BAS::String value;
    {
      BAS::MutexLocker locker(requestLockM);
      // A post that arrived after the previous cycle copied the slot, but before that cycle
      // ended, has already been carried out; its signal alone brings no new request.
      if (!requestPendingM) continue;
      requestPendingM = false;
      type = requestTypeM;
      value = requestValueM;
    }
    BAS::MutexLocker operation(operationLockM);
    switch (type) {
      case RELOAD_REQUEST: workReload(value); break;
      case DELTA_LOAD_REQUEST: workDeltaLoad(value); break;
      case PRINT_DATA_REQUEST: workPrint(value); break;
      default: break;
    }
  }
}

void PlugIn::stopState(BAS::Thread* self) {
  if (self == nullptr) return;
  while (true) {
    BAS::Thread::serviceInterrupt();
    BAS::Thread::serviceCancel();
    // Cut short by the cancellation request, so the thread ends promptly.
    BAS::Thread::sleepMs(500);
  }
}

void PlugIn::workReload(const BAS::String& value) {
  const bool reuseOnFailure = !equalsIgnoringCase(value, "FALSE");
  if (cacheManagerM != nullptr && cacheManagerM->cacheReload(reuseOnFailure)) {
    reportStatus("INF_NUM_NPORT_RELOADED", BAS::Status::NORMAL, BAS::String::decimal(recordCount()));
    sendEvent("EVT::RELOAD_SUCCESSFUL");
    return;
  }
  reportStatus("ERR_NUM_PORT_RELOAD", BAS::Status::MAJOR, fileIoM.fileName());
  sendEvent("EVT::RELOAD_FAILED");
}

void PlugIn::workDeltaLoad(const BAS::String& value) {
  if (cacheManagerM != nullptr) {
    const std::uint32_t before = recordCount();
    if (cacheManagerM->cacheDeltaLoad(value)) {
      const std::uint32_t after = recordCount();
      if (after != before) {
        reportStatus("INF_NUM_NPORT_ADDED", BAS::Status::NORMAL, BAS::String::decimal(after - before) + " : " + value);
      }
      sendEvent("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL");
      return;
    }
  }
  reportStatus("ERR_NUM_PORT_DELTALOAD", BAS::Status::MAJOR, value);
  sendEvent("EVT::ADD_NUM_PORT_DATA_FAILED");
}

void PlugIn::workPrint(const BAS::String& value) {
  const bool console = equalsIgnoringCase(value, "NULL");
  const BAS::String destination = console ? BAS::NULL_STRING : value;
  if (cacheManagerM != nullptr && cacheManagerM->printData(destination)) {
    reportStatus("INF_NUM_PORT_PRINT_DATA", BAS::Status::NORMAL,
                 {BAS::String::decimal(recordCount()), console ? BAS::String("Console") : "File : " + value});
    return;
  }
  reportStatus("ERR_NUM_PORT_PRINT_DATA", BAS::Status::MAJOR, value);
}

}  // namespace DAT::NumberPortability
