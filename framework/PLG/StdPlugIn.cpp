#include "PLG/StdPlugIn.h"

namespace PLG {

StdPlugIn::StdPlugIn() = default;

StdPlugIn::StdPlugIn(const BAS::String& name, const BAS::String& version) : RegisteredObject(name), versionM(version) {}

StdPlugIn::~StdPlugIn() = default;

bool StdPlugIn::init() { return true; }

bool StdPlugIn::finalInit() { return true; }

bool StdPlugIn::shutdown() { return true; }

bool StdPlugIn::startup() { return true; }

bool StdPlugIn::install() { return true; }

bool StdPlugIn::uninstall() { return true; }

}  // namespace PLG
