// The probe group that lets operators reload, extend and print the data of a running plug-in.
#include "plugin/NumberPortabilityPlugIn.h"

#include "BAS/InstrumentationProbeAttribute.h"
#include "OMF/InstrumentationProbeBrokerIf.h"

#include <map>

namespace DAT::NumberPortability {

namespace {

using ProbeInfos = std::map<BAS::String, BAS::InstrumentationProbe::ProbeInfo>;

// The information of an entry; one that the file lacks gets default information, which
// still carries the entry's name so that the framework can address the probe.
const BAS::InstrumentationProbe::ProbeInfo& infoOf(ProbeInfos& infos, const BAS::String& name) {
  return infos.try_emplace(name, BAS::InstrumentationProbe::ProbeInfo{name, BAS::String()}).first->second;
}

}  // namespace

bool PlugIn::initInstrumentationProbe() {
  ProbeInfos infos;
  if (!OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(this, "DAT_NumberPortability.probe", infos)) return false;
  probeGroupM = new BAS::InstrumentationProbeGroup(infoOf(infos, "numberPortabilityGroup"), 1);
  const std::pair<const char*, BAS::InstrumentationProbeValueIf*> probes[] = {
      {"reload", new ReloadProbeValue(this)},
      {"deltaLoad", new AdditionalNumPortDataValue(this)},
      {"printData", new PrintDataProbeValue(this)},
  };
  for (const auto& [name, value] : probes) {
    probeGroupM->attributes().push_back(new BAS::InstrumentationProbeAttribute(infoOf(infos, name), value, 1));
  }
  return true;
}

void PlugIn::getInstrumentationProbe(BAS::InstrumentationProbeList& list) const {
  if (probeGroupM != nullptr) list.push_back(probeGroupM);
}

PlugIn::ReloadProbeValue::~ReloadProbeValue() = default;
PlugIn::AdditionalNumPortDataValue::~AdditionalNumPortDataValue() = default;
PlugIn::PrintDataProbeValue::~PrintDataProbeValue() = default;

bool PlugIn::ReloadProbeValue::setValue(const BAS::String& value) {
  plugInM->postRequest(RELOAD_REQUEST, value);
  return true;
}

bool PlugIn::AdditionalNumPortDataValue::setValue(const BAS::String& value) {
  plugInM->postRequest(DELTA_LOAD_REQUEST, value);
  return true;
}

bool PlugIn::PrintDataProbeValue::setValue(const BAS::String& value) {
  plugInM->postRequest(PRINT_DATA_REQUEST, value);
  return true;
}

}  // namespace DAT::NumberPortability
