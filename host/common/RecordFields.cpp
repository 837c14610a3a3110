#include "host/common/RecordFields.h"

#include <algorithm>

namespace Host {

std::string RecordFields::knownNames() {
  std::string text;
  for (std::size_t i = 0; i < namesCM.size(); ++i) {
    if (i > 0) text += i + 1 == namesCM.size() ? " and " : ", ";
    text += namesCM[i];
  }
  return text;
}

bool RecordFields::parse(std::string_view list, std::vector<RecordField>& fields, std::string& refusal) {
  std::vector<RecordField> parsed;
  const auto refuse = [&refusal](const std::string& what) {
    refusal = "--fields " + what + "; the known fields are " + knownNames() + ", separated by commas.";
    return false;
  };
  for (std::size_t begin = 0;;) {
    const std::size_t comma = std::min(list.find(',', begin), list.size());
    const std::string_view name = list.substr(begin, comma - begin);
    if (name.empty()) return refuse(list.empty() ? "names no field" : "holds an empty field name in '" + std::string(list) + "'");
    const auto known = std::find(namesCM.begin(), namesCM.end(), name);
    if (known == namesCM.end()) return refuse("names the unknown field '" + std::string(name) + "'");
    const auto field = static_cast<RecordField>(known - namesCM.begin());
    if (std::find(parsed.begin(), parsed.end(), field) != parsed.end())
      return refuse("names the field '" + std::string(name) + "' twice");
    parsed.push_back(field);
    if (comma == list.size()) break;
    begin = comma + 1;
  }
  fields = std::move(parsed);
  return true;
}

}  // namespace Host
