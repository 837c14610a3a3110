// The work a lookup thread and the writer of Host::EventRecordPipeline do on one batch: cutting
// its lines into fields, looking them up a group at a time through the lookup interface,
// appending the operators (or the fields chosen), and reporting the rejected lines to the framework log. Apart from
// the thread handling, so that each file says one thing.
#include "host/run/EventRecordPipeline.h"

#include "BAS/DateTime.h"
#include "BAS/Log.h"
#include "BAS/Status.h"
#include "host/common/GenerationText.h"

#include <cstring>
#include <string_view>

namespace Host {

void EventRecordPipeline::lookUp(Batch& batch, Lookups& lookups) const {
  batch.output.clear();
  batch.rejected.clear();
  batch.records = 0;
  batch.found = 0;
  if (batch.piece) {
    passOn(batch);
    return;
  }
  const char* const begin = batch.input.data();
  const char* const end = begin + batch.size;
  // Today's output, as fast as before: the operator alone needs nothing else of the answer.
  const bool operatorOnly = settingsM.fields.size() == 1 && settingsM.fields.front() == RecordField::OPERATOR;
  // The lines are taken a group at a time: cut and parsed, looked up together in one call (the
  // plug-in overlaps the memory waits of a group's searches), then written out.
  for (const char* line = begin; line < end;) {
    lookups.lines.clear();
    lookups.numbers.clear();
    lookups.dateTimes.clear();
    while (line < end && lookups.lines.size() < groupCM) line = cut(line, end, batch, lookups);
    const std::size_t searched = lookups.numbers.size();
    lookupM.lookUp(lookups.numbers.data(), lookups.dateTimes.data(), searched, lookups.results.data(),
                   lookups.found.get());
    std::size_t search = 0;
    for (const Lookups::Line& cutLine : lookups.lines) {
      batch.output.append(cutLine.content);
      if (operatorOnly) {
        std::string_view found;
        if (cutLine.searched) {
          if (lookups.found[search]) {
            found = lookups.results[search].networkOperator.view();
            ++batch.found;
          }
          ++search;
        }
        batch.output.push_back(settingsM.delimiter);
        batch.output.append(found);
      } else {
        appendFields(batch.output, lookups, search, cutLine.searched);
        if (cutLine.searched) {
          if (lookups.found[search]) ++batch.found;
          ++search;
        }
      }
      // A line from a CRLF file keeps its carriage return at the end of the output line.
      if (cutLine.carriageReturn) batch.output.push_back('\r');
      batch.output.push_back('\n');
    }
    batch.records += lookups.lines.size();
  }
}

void EventRecordPipeline::appendFields(std::string& output, Lookups& lookups, std::size_t search, bool searched) const {
  using Lookup = DAT::NumberPortability::PortabilityLookup;
  const bool found = searched && lookups.found[search];
  const Lookup::Answer* answer = searched ? &lookups.results[search] : nullptr;
  for (const RecordField field : settingsM.fields) {
    output.push_back(settingsM.delimiter);
    if (field == RecordField::GENERATION) {
      // A rejected line was answered by no data.
      if (!searched) continue;
      if (answer->generation.publication != lookups.generation.publication ||
          answer->generation.publishedAtMillis != lookups.generation.publishedAtMillis ||
          lookups.generationText.empty()) {
        lookups.generation = answer->generation;
        lookups.generationText = GenerationText::of(answer->generation);
      }
      output.append(lookups.generationText);
      continue;
    }
    if (!found) continue;
    switch (field) {
      case RecordField::OPERATOR: output.append(answer->networkOperator.view()); break;
      case RecordField::VALID_FROM: {
        char digits[14];
        output.append(digits, answer->validFrom.writeCompact(digits));
        break;
      }
      case RecordField::MATCH:
        // The key's digits against the number's as looked up (normalised, under --normalize).
        if (answer->keyLength == Lookup::digitCount(lookups.numbers[search])) {
          output.append("number");
        } else {
          output.append("prefix:");
          output.append(std::to_string(answer->keyLength));
        }
        break;
      case RecordField::GENERATION: break;
    }
  }
}

void EventRecordPipeline::passOn(Batch& batch) const {
  std::string_view bytes(batch.input.data(), batch.size);
  if (!batch.endsLine) {
    batch.output.assign(bytes);
    return;
  }
  // The end of the line: written as any line is, with an empty operator (the reader kept a
  // carriage return together with the line end that follows it).
  if (bytes.ends_with('\n')) bytes.remove_suffix(1);
  const bool carriageReturn = bytes.ends_with('\r');
  if (carriageReturn) bytes.remove_suffix(1);
  batch.output.assign(bytes);
  // Every field empty: nothing was looked up.
  batch.output.append(settingsM.fields.size(), settingsM.delimiter);
  if (carriageReturn) batch.output.push_back('\r');
  batch.output.push_back('\n');
  batch.records = 1;
  batch.rejected.push_back({0, Rejection::TOO_LONG, 0, 0});
}

const char* EventRecordPipeline::cut(const char* line, const char* end, Batch& batch, Lookups& lookups) const {
  const char delimiter = settingsM.delimiter;
  const char* newline = static_cast<const char*>(std::memchr(line, '\n', static_cast<std::size_t>(end - line)));
  const char* lineEnd = newline != nullptr ? newline : end;
  const bool carriageReturn = lineEnd > line && lineEnd[-1] == '\r';
  const char* contentEnd = carriageReturn ? lineEnd - 1 : lineEnd;
  const std::size_t length = static_cast<std::size_t>(contentEnd - line);
  const auto reject = [&](Rejection reason) {
    batch.rejected.push_back({static_cast<std::uint32_t>(batch.records + lookups.lines.size()), reason,
                              static_cast<std::uint32_t>(line - batch.input.data()),
                              static_cast<std::uint32_t>(length)});
  };

  bool searched = false;
  const char* first = static_cast<const char*>(std::memchr(line, delimiter, length));
  if (static_cast<std::size_t>(lineEnd - line) > settingsM.maxLineBytes) {
    // Read whole within one read, so never held for long; the same line read over several reads
    // leaves in pieces instead.
    reject(Rejection::TOO_LONG);
  } else if (first == nullptr) {
    reject(Rejection::TOO_FEW_FIELDS);
  } else {
    const char* dateBegin = first + 1;
    const char* dateEnd = static_cast<const char*>(std::memchr(dateBegin, delimiter, static_cast<std::size_t>(contentEnd - dateBegin)));
    if (dateEnd == nullptr) dateEnd = contentEnd;
    const BAS::DateTime dateTime(std::string_view(dateBegin, static_cast<std::size_t>(dateEnd - dateBegin)));
    if (!dateTime.isValid()) {
      reject(Rejection::INVALID_DATE_TIME);
    } else {
      const std::string_view number(line, static_cast<std::size_t>(first - line));
      if (settingsM.normalize) {
        std::string& stored = lookups.normalized[lookups.numbers.size()];
        lookupM.normalize(number, stored);
        lookups.numbers.emplace_back(stored);
      } else {
        lookups.numbers.emplace_back(number);
      }
      lookups.dateTimes.push_back(dateTime);
      searched = true;
    }
  }
  lookups.lines.push_back({std::string_view(line, length), carriageReturn, searched});
  return newline != nullptr ? newline + 1 : end;
}

void EventRecordPipeline::report(const Batch& batch, std::uint64_t firstLine) const {
  const BAS::String reporter(reporterNameCM);
  const BAS::String input(settingsM.inputName);
  for (const RejectedLine& rejected : batch.rejected) {
    const std::string_view line(batch.input.data() + rejected.offset, rejected.length);
    const BAS::String lineNumber = BAS::String::decimal(firstLine + rejected.lineIndex);
    BAS::Status status;
    if (rejected.reason == Rejection::TOO_FEW_FIELDS) {
      status.set(reporter, tooFewFieldsIdCM, BAS::Status::MINOR, {lineNumber, input, BAS::String(line)});
    } else if (rejected.reason == Rejection::TOO_LONG) {
      status.set(reporter, tooLongIdCM, BAS::Status::MINOR,
                 {lineNumber, input, BAS::String::decimal(settingsM.maxLineBytes)});
    } else {
      const auto first = line.find(settingsM.delimiter);
      const auto dateTime = line.substr(first + 1, line.find(settingsM.delimiter, first + 1) - first - 1);
      status.set(reporter, invalidDateTimeIdCM, BAS::Status::MINOR, {lineNumber, input, BAS::String(dateTime)});
    }
    logM.writeStatus(status);
  }
}

}  // namespace Host
