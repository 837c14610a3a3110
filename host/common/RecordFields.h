// Host::RecordFields names what `nphost run --fields` may append to each event record: the
// operator (alone, the default), the date-time from which the answering record holds, whether
// the number itself or a stored prefix answered, and the generation of the data read. The
// command line parses the list; the pipeline writes the fields in its order. Stateless.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Host {

enum class RecordField : std::uint8_t { OPERATOR, VALID_FROM, MATCH, GENERATION };

struct RecordFields {
  // In the order of the enumeration.
  static constexpr std::array<std::string_view, 4> namesCM = {"operator", "valid_from", "match", "generation"};

  // The fields of a comma-separated `list`, in its order, into `fields`. False, with a sentence
  // that names the known fields in `refusal`, for an empty list or name, an unknown name or a
  // name given twice.
  static bool parse(std::string_view list, std::vector<RecordField>& fields, std::string& refusal);
  // "operator, valid_from, match and generation", for sentences and help texts.
  static std::string knownNames();
};

}  // namespace Host
