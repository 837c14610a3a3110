#include "BAS/Log.h"

#include "BAS/Message.h"
#include "BAS/MessageCatalogue.h"
#include "BAS/MutexLocker.h"
#include "BAS/Status.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace BAS {

namespace {

// Length of the valid UTF-8 sequence that starts at `p`, or 0 when the byte there does not
// begin one (stray continuation bytes, overlong forms, surrogates, code points past U+10FFFF,
// truncated sequences).
std::size_t utf8SequenceLength(const unsigned char* p, std::size_t available) {
  const unsigned char lead = p[0];
  if (lead < 0x80) return 1;
  std::size_t length;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead == 0xE0) {
    length = 3, low = 0xA0;
  } else if ((lead >= 0xE1 && lead <= 0xEC) || lead == 0xEE || lead == 0xEF) {
    length = 3;
  } else if (lead == 0xED) {
    length = 3, high = 0x9F;
  } else if (lead == 0xF0) {
    length = 4, low = 0x90;
  } else if (lead >= 0xF1 && lead <= 0xF3) {
    length = 4;
  } else if (lead == 0xF4) {
    length = 4, high = 0x8F;
  } else {
    return 0;
  }
  if (available < length || p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

void appendUnicodeEscape(std::string& out, unsigned char byte) { fmt::format_to(std::back_inserter(out), "\\u{:04x}", byte); }

// Appends `text` escaped as inside a JSON string: control bytes (DEL included) and bytes that
// are not valid UTF-8 as escapes, so that neither a line end nor a broken character can get
// into a line. With `quotesToo` false, quotes and backslashes stay as they are (unquoted text).
void appendEscaped(std::string& out, std::string_view text, bool quotesToo) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    const unsigned char c = bytes[i];
    if (c >= 0x80) {
      const std::size_t length = utf8SequenceLength(bytes + i, size - i);
      if (length == 0) {
        appendUnicodeEscape(out, c);
        ++i;
      } else {
        out.append(text.data() + i, length);
        i += length;
      }
      continue;
    }
    switch (c) {
      case '"': out += quotesToo ? "\\\"" : "\""; break;
      case '\\': out += quotesToo ? "\\\\" : "\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7F) {
          appendUnicodeEscape(out, c);
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
}

void appendQuoted(std::string& out, const String& text) {
  out += '"';
  appendEscaped(out, text.view(), true);
  out += '"';
}

// A name in a text line: unquoted, but never empty, so that the columns stay countable.
void appendName(std::string& out, const String& name) {
  if (name.empty()) {
    out += "\"\"";
  } else {
    appendEscaped(out, name.view(), false);
  }
}

void appendArguments(std::string& out, const std::vector<String>& args, const char* separator) {
  out += '[';
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (i > 0) out += separator;
    appendQuoted(out, args[i]);
  }
  out += ']';
}

std::string isoTime(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto sinceEpoch = floor<milliseconds>(time).time_since_epoch().count();
  // Floor division, so that the milliseconds stay in 0..999 before 1970 as well.
  auto seconds = sinceEpoch / 1000;
  auto millis = sinceEpoch % 1000;
  if (millis < 0) millis += 1000, --seconds;
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  if (gmtime_r(&t, &utc) == nullptr) return "0000-00-00T00:00:00.000Z";
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
}

const char* severityName(int severity) {
  switch (severity) {
    case Status::NORMAL: return "NORMAL";
    case Status::MINOR: return "MINOR";
    case Status::MAJOR: return "MAJOR";
    case Status::CRITICAL: return "CRITICAL";
    default: return "SEVERITY";
  }
}

std::string textLine(const LogRecord& record) {
  std::string line = isoTime(record.time);
  line += ' ';
  if (record.kind == LogRecord::Kind::EVENT) {
    line += "EVENT ";
    appendName(line, record.sender);
    line += " -> ";
    appendName(line, record.receiver);
    line += ' ';
    appendName(line, record.id);
    line += ' ';
    appendArguments(line, record.args, ", ");
    line += record.delivered ? " delivered" : " not-delivered";
    return line;
  }
  fmt::format_to(std::back_inserter(line), "{}({}) ", severityName(record.severity), record.severity);
  appendName(line, record.object);
  line += ' ';
  appendName(line, record.id);
  line += ' ';
  appendArguments(line, record.args, ", ");
  if (!record.text.empty()) {
    line += ' ';
    appendEscaped(line, record.text.view(), false);
  }
  return line;
}

std::string jsonLine(const LogRecord& record) {
  std::string line = "{\"time\":\"" + isoTime(record.time) + "\",";
  const bool event = record.kind == LogRecord::Kind::EVENT;
  line += event ? "\"kind\":\"event\",\"sender\":" : "\"kind\":\"status\",\"object\":";
  appendQuoted(line, event ? record.sender : record.object);
  if (event) {
    line += ",\"receiver\":";
    appendQuoted(line, record.receiver);
  }
  line += ",\"id\":";
  appendQuoted(line, record.id);
  if (!event) fmt::format_to(std::back_inserter(line), ",\"severity\":{}", record.severity);
  line += ",\"args\":";
  appendArguments(line, record.args, ",");
  if (event) {
    line += record.delivered ? ",\"delivered\":true}" : ",\"delivered\":false}";
  } else {
    line += ",\"text\":";
    appendQuoted(line, record.text);
    line += '}';
  }
  return line;
}

}  // namespace

Log::Log() = default;

Log::~Log() = default;

void Log::setFormat(Format format) {
  MutexLocker locker(mutexM);
  formatM = format;
}

Log::Format Log::format() const {
  MutexLocker locker(mutexM);
  return formatM;
}

void Log::addSink(std::shared_ptr<LogSink> sink) {
  if (sink == nullptr) return;
  MutexLocker locker(mutexM);
  sinksM.push_back(std::move(sink));
}

void Log::removeSink(const std::shared_ptr<LogSink>& sink) {
  MutexLocker locker(mutexM);
  sinksM.erase(std::remove(sinksM.begin(), sinksM.end(), sink), sinksM.end());
}

void Log::shorten(String& argument) {
  if (argument.length() <= maxArgumentBytesCM) return;
  const std::string_view text = argument.view();
  // Cut before a character, never inside one, so the kept part stays valid UTF-8.
  std::size_t cut = maxArgumentBytesCM;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  argument = String(std::string(text.substr(0, cut)) + fmt::format("... ({} bytes in all)", text.size()));
}

LogRecord Log::statusRecord(const Status& status) {
  LogRecord record;
  record.kind = LogRecord::Kind::STATUS;
  record.time = std::chrono::system_clock::now();
  record.id = status.messageId();
  record.args = status.arguments();
  for (String& argument : record.args) shorten(argument);
  record.text = MessageCatalogue::text(status.messageId(), record.args);
  record.object = status.objectName();
  record.severity = status.severity();
  return record;
}

LogRecord Log::eventRecord(const Message& message, bool delivered) {
  LogRecord record;
  record.kind = LogRecord::Kind::EVENT;
  record.time = std::chrono::system_clock::now();
  record.id = message.messageId();
  record.args = {message.argument()};
  shorten(record.args.front());
  record.sender = message.sender();
  record.receiver = message.receiver();
  record.delivered = delivered;
  return record;
}

void Log::writeStatus(const Status& status) { dispatch(statusRecord(status)); }

void Log::writeEvent(const Message& message, bool delivered) { dispatch(eventRecord(message, delivered)); }

std::string Log::formatLine(const LogRecord& record, Format format) {
  return format == Format::JSON ? jsonLine(record) : textLine(record);
}

void Log::dispatch(const LogRecord& record) {
  Format format;
  {
    MutexLocker locker(mutexM);
    if (sinksM.empty()) return;
    format = formatM;
  }
  // Formatting is the costly part and needs no lock; only the hand-over to the sinks is
  // serialised. A format change in between affects the next line.
  const std::string line = formatLine(record, format);
  MutexLocker locker(mutexM);
  for (const auto& sink : sinksM) sink->write(record, line);
}

}  // namespace BAS
