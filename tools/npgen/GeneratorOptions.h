// NpGen::GeneratorOptions are the knobs of one npgen run. Every file of a run is a function of
// these values alone, so a data file, its delta and its events stay consistent even when they
// are written by separate runs with the same options. Filled by the command line or by tests.
#pragma once

#include "NumberingPlan.h"

#include <cstdint>
#include <string>
#include <vector>

namespace NpGen {

struct GeneratorOptions {
  std::uint64_t records = 1000;  // lines of the data file, bad ones included
  std::uint64_t seed = 1;
  double density = 0.3;   // share of a chosen sub-block's numbers that are ported
  double badShare = 0.0;  // share of the data file's lines that are unusable
  bool sparse = false;    // uniform 12-digit numbers instead of number blocks
  std::vector<std::string> countries = NumberingPlan::knownCountryCodes();  // home first
  double deltaShare = 0.01;  // delta lines per data line
  std::uint64_t eventCount = 1000;
  double hitShare = 0.6;     // events whose number has a record at the event's time
  double prefixShare = 0.2;  // events only a block prefix answers
};

}  // namespace NpGen
