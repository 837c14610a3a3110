#include "plugin/RegistryTableCheck.h"

#include "BAS/RegistryEntry.h"
#include "plugin/NumberPortabilityPlugIn.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

namespace {

using Weight = DataFileCheckListener::Weight;

constexpr std::string_view searchMethodsCM =
    "0 (the longest stored prefix with a record at the date), 1 (the number itself only) and 2 (the shortest "
    "stored prefix)";
// A value is quoted up to here, so that one odd value cannot flood the report.
constexpr std::size_t quotedRoomCM = 60;

// `value` in single quotes, every byte that would not show as itself written as \xNN.
std::string quoted(std::string_view value) {
  std::string result = "'";
  for (std::size_t i = 0; i < value.size() && i < quotedRoomCM; ++i) {
    const unsigned char c = static_cast<unsigned char>(value[i]);
    if (c >= 0x20 && c < 0x7f && c != '\'' && c != '\\') {
      result += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      result += escaped;
    }
  }
  if (value.size() > quotedRoomCM) result += "...";
  return result + "'";
}

bool digitsOnly(std::string_view value) {
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::vector<const BAS::String*> startUpKeys() {
  return {&PlugIn::registryFileNameCM,
          &PlugIn::registryCountryCodeCM,
          &PlugIn::registryNationalAccessCodeCM,
          &PlugIn::registryInternationalAccessCodeCM,
          &PlugIn::registryInternationalAccessCodeSignCM,
          &PlugIn::registrySearchMethodCM};
}

std::vector<const BAS::String*> updateKeys() {
  return {&PlugIn::registryReloadCM, &PlugIn::registryReuseOnFailureCM, &PlugIn::registryAdditionalNumPortDataCM,
          &PlugIn::registryPrintDataCM};
}

// "A, B and C".
std::string listed(const std::vector<const BAS::String*>& keys) {
  std::string text;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    text += i == 0 ? "" : i + 1 == keys.size() ? " and " : ", ";
    text += keys[i]->str();
  }
  return text;
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Edits (a letter added, dropped or changed) between two keys, letter case aside.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> previous(b.size() + 1), current(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) previous[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    current[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = previous[j - 1] + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1);
      current[j] = std::min({previous[j] + 1, current[j - 1] + 1, changed});
    }
    std::swap(previous, current);
  }
  return previous[b.size()];
}

// The key of the plug-in that `key` was most likely meant to be, or null when none is close.
const BAS::String* likelyMeant(std::string_view key) {
  constexpr std::size_t closeCM = 2;
  const BAS::String* best = nullptr;
  std::size_t bestDistance = closeCM + 1;
  std::vector<const BAS::String*> known = startUpKeys();
  for (const BAS::String* update : updateKeys()) known.push_back(update);
  known.push_back(&PlugIn::registryDeltaFileNameCM);
  for (const BAS::String* candidate : known) {
    const std::size_t edits = distance(key, candidate->view());
    if (edits < bestDistance) {
      best = candidate;
      bestDistance = edits;
    }
  }
  return best;
}

std::string unknownKey(std::string_view key) {
  std::string text = "is not a key the plug-in reads, so it has no effect";
  if (const BAS::String* meant = likelyMeant(key)) text += "; did you mean " + meant->str() + "?";
  return text + (text.back() == '?' ? " " : ". ") + "The plug-in reads " + listed(startUpKeys()) +
         " at start, and " + listed(updateKeys()) + " in updates.";
}

// What the plug-in makes of its SearchMethod, when that is not plainly one of its methods.
std::string searchMethod(const BAS::String& value) {
  unsigned int method = 0;
  if (!value.toNum(method)) {
    return (value.empty() ? std::string("is empty") : "is " + quoted(value.view())) +
           ", not a whole number written in digits alone; the plug-in refuses it and does not start. Its search "
           "methods are " + std::string(searchMethodsCM) + ".";
  }
  if (method == PlugIn::defaultSearchMethodCM || method == NumberPortabilityTree::EXACT_MATCH ||
      method == NumberPortabilityTree::ANY_PREFIX_MATCH)
    return {};
  return "is " + quoted(value.view()) + ", which names no search method; the plug-in knows " +
         std::string(searchMethodsCM) + ", and takes any other whole number as 0, without a message.";
}

// What the plug-in makes of a dialling code that is not digits alone. Empty text when the code
// is plain digits; the weight is a note only for an empty national access code.
std::string diallingCode(const BAS::String& key, const BAS::String& value, Weight& weight) {
  weight = Weight::FINDING;
  if (!value.empty() && digitsOnly(value.view())) return {};
  const std::string is = "is " + quoted(value.view());
  if (key == PlugIn::registryCountryCodeCM) {
    if (value.empty())
      return "is empty, but a country code is one or more digits, e.g. 49: the plug-in then stores national numbers "
             "behind the international access code with no country code between.";
    return is + ", but a country code is digits only, e.g. 49: the plug-in puts it as written in front of every "
                "national number, where only its digits count.";
  }
  if (key == PlugIn::registryNationalAccessCodeCM) {
    if (value.empty()) {
      weight = Weight::NOTE;
      return "is empty, as in a country without a trunk prefix: the plug-in puts the international access code and "
             "the country code in front of every number that starts with neither the international access code "
             "nor its sign.";
    }
    return is + ", but a national access code is digits only, e.g. 0 (or empty in a country without one): the "
                "plug-in takes a number as national only when it starts with exactly these characters.";
  }
  if (value.empty())
    return "is empty, but an international access code is one or more digits, e.g. 00: the plug-in then keeps every "
           "number that does not start with the sign as it is written, so national numbers get no country code.";
  return is + ", but an international access code is digits only, e.g. 00: the plug-in puts it as written in front "
              "of every stored number, where only its digits count, and keeps a number as international only when "
              "it starts with exactly these characters.";
}

}  // namespace

void RegistryTableCheck::run(const BAS::RegistryEntry& table, DataFileCheckListener& listener) {
  const std::vector<const BAS::String*> known = [] {
    std::vector<const BAS::String*> keys = startUpKeys();
    for (const BAS::String* update : updateKeys()) keys.push_back(update);
    return keys;
  }();
  for (const auto& child : table.children()) {
    if (!child->children().empty()) continue;
    const BAS::String& key = child->name();
    const BAS::String& value = child->value();
    Weight weight = Weight::FINDING;
    std::string text;
    if (key == PlugIn::registryDeltaFileNameCM) {
      text = "has no effect: the plug-in never reads it; a delta file is named when it is loaded, by the update key " +
             PlugIn::registryAdditionalNumPortDataCM.str() + " or the probe deltaLoad.";
    } else if (std::none_of(known.begin(), known.end(), [&key](const BAS::String* k) { return *k == key; })) {
      text = unknownKey(key.view());
    } else if (key == PlugIn::registrySearchMethodCM) {
      text = searchMethod(value);
    } else if (key == PlugIn::registryCountryCodeCM || key == PlugIn::registryNationalAccessCodeCM ||
               key == PlugIn::registryInternationalAccessCodeCM) {
      text = diallingCode(key, value, weight);
    }
    if (!text.empty()) listener.setting(key, weight, BAS::String(text));
  }
}

}  // namespace DAT::NumberPortability
