#include "report.h"

#include <algorithm>
#include <cstdio>

namespace xrprocdetect {

namespace {

const char* stateWords(int state) {
  switch (state) {
    case 0:
      return "not capable";
    case 1:
      return "disabled";
    case 2:
      return "enabled";
    case 3:
      return "enabled, over twice the cores";
    case 15:
      return "not determined";
    default:
      return "unknown value";
  }
}

const char* vmWords(const Row& row) {
  switch (row.vmState) {
    case 0:
      return "none";
    case 1:
      return "VMware";
    case 15:
      // The CPUID estimate uses 15 for a virtual machine it cannot name.
      return row.endedBy == Strategy::kCpuid ? "unknown virtual machine" : "not determined";
    default:
      return "unknown value";
  }
}

const char* strategyWords(Strategy s) {
  switch (s) {
    case Strategy::kCpuinfo:
      return "/proc/cpuinfo";
    case Strategy::kCpuid:
      return "the CPUID estimate";
    case Strategy::kLogicalOnly:
      return "the configured processor count";
    case Strategy::kNone:
      break;
  }
  return "";
}

// 6.x states its verdict in its report but leaves hyperThreadState at 15.
bool verdictNotStored(const Row& row) {
  return row.hyperThreadState == 15 && row.reportedVerdict >= 0;
}

std::string hyperThreadingColumn(const Row& row) {
  if (!row.counted) return "-";
  if (verdictNotStored(row)) return std::string(stateWords(row.reportedVerdict)) + " (not stored)";
  return stateWords(row.hyperThreadState);
}

std::string noteColumn(const Row& row) {
  if (!row.counted) return row.note;
  if (row.endedBy != Strategy::kNone) return std::string("ended by ") + strategyWords(row.endedBy);
  return "";
}

std::string sourceWords(const Source& source) {
  if (source.live) return "this machine (live)";
  if (source.snapshot) return source.file + " (a snapshot)";
  return (source.file == "-" ? std::string("standard input") : source.file) +
         " (a saved /proc/cpuinfo)";
}

std::string line(const char* label, const std::string& value) {
  char head[32];
  std::snprintf(head, sizeof head, "%-20s", label);
  return head + value + "\n";
}

std::string generationWords(const Row& row) {
  return std::string(row.generation->name) + " (" + row.generation->className + ", version index " +
         std::to_string(row.procInfoIndex) + ")";
}

// ---------------------------------------------------------------------------
// JSON

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

class JsonObject {
 public:
  explicit JsonObject(int indent) : pad_(static_cast<std::size_t>(indent), ' ') {}
  void add(const char* key, const std::string& rawValue) {
    text_ += (text_.empty() ? "" : ",\n") + pad_ + "  \"" + key + "\": " + rawValue;
  }
  void number(const char* key, long long value) { add(key, std::to_string(value)); }
  void string(const char* key, const std::string& value) { add(key, quoted(value)); }
  void null(const char* key) { add(key, "null"); }
  std::string done() const { return pad_ + "{\n" + text_ + "\n" + pad_ + "}"; }

 private:
  std::string pad_;
  std::string text_;
};

std::string jsonRow(const Row& row, const Source& source, int indent, bool withSummary) {
  JsonObject o(indent);
  o.number("schemaVersion", 1);
  o.string("generation", row.generation->name);
  o.string("class", row.generation->className);
  o.number("procInfoIndex", row.procInfoIndex);
  o.string("source", source.live ? "live" : source.snapshot ? "snapshot" : "file");
  if (source.live) {
    o.null("file");
  } else {
    o.string("file", source.file);
  }
  o.add("counted", row.counted ? "true" : "false");
  if (row.counted) {
    o.number("result", row.result);
    o.number("logicalCount", row.logicalCount);
    o.number("physicalCount", row.physicalCount);
    o.number("coreCount", row.coreCount);
    o.number("hyperThreadState", row.hyperThreadState);
    o.number("vmState", row.vmState);
  } else {
    for (const char* key :
         {"result", "logicalCount", "physicalCount", "coreCount", "hyperThreadState", "vmState"})
      o.null(key);
  }
  if (row.counted && row.reportedVerdict >= 0) {
    o.string("reportedVerdict", stateWords(row.reportedVerdict));
  } else {
    o.null("reportedVerdict");
  }
  if (row.endedBy == Strategy::kNone) {
    o.null("endedBy");
  } else {
    o.string("endedBy", row.endedBy == Strategy::kCpuinfo ? "/proc/cpuinfo"
                        : row.endedBy == Strategy::kCpuid ? "cpuid"
                                                          : "logical only");
  }
  if (row.note.empty()) {
    o.null("note");
  } else {
    o.string("note", row.note);
  }
  if (withSummary) {
    if (row.counted) {
      o.string("summary", row.summary);
    } else {
      o.null("summary");
    }
  }
  return o.done();
}

}  // namespace

std::string humanReport(const Row& row, const Source& source) {
  std::string out = line("Generation", generationWords(row));
  out += line("Counted from", sourceWords(source));
  if (!row.counted) return out + line("Not counted", row.note);
  out += line("Packages", std::to_string(row.physicalCount));
  out += line("Cores", std::to_string(row.coreCount));
  out += line("Logical processors", std::to_string(row.logicalCount));
  const std::string state = " (hyperThreadState " + std::to_string(row.hyperThreadState) + ")";
  if (verdictNotStored(row)) {
    out += line("Hyper-threading", std::string(stateWords(row.reportedVerdict)) +
                                       ", as its report says; not stored" + state);
  } else {
    out += line("Hyper-threading", stateWords(row.hyperThreadState) + state);
  }
  out += line("Virtual machine",
              std::string(vmWords(row)) + " (vmState " + std::to_string(row.vmState) + ")");
  if (row.endedBy != Strategy::kNone) out += line("Ended by", strategyWords(row.endedBy));
  out += line("getProcData", std::to_string(row.result));
  return out;
}

std::string table(const std::vector<Row>& rows, const Source& source) {
  const std::vector<std::string> header = {
      "GENERATION",      "PACKAGES",        "CORES",  "LOGICAL",
      "HYPER-THREADING", "VIRTUAL MACHINE", "RESULT", "NOTE"};
  // Numbers are right-aligned, words left-aligned.
  const bool rightAligned[] = {false, true, true, true, false, false, true, false};
  std::vector<std::vector<std::string>> cells = {header};
  bool anyNotStored = false;
  for (const Row& row : rows) {
    auto number = [&row](long long v) { return row.counted ? std::to_string(v) : "-"; };
    cells.push_back({row.generation->name, number(row.physicalCount), number(row.coreCount),
                     number(row.logicalCount), hyperThreadingColumn(row),
                     row.counted ? vmWords(row) : "-", number(row.result), noteColumn(row)});
    anyNotStored = anyNotStored || (row.counted && verdictNotStored(row));
  }
  std::vector<std::size_t> width(header.size(), 0);
  for (const auto& r : cells) {
    for (std::size_t c = 0; c < r.size(); ++c)
      width[c] = std::max(width[c], r[c].size());
  }
  std::string out = "Counted from: " + sourceWords(source) + "\n\n";
  for (const auto& r : cells) {
    std::string text;
    for (std::size_t c = 0; c < r.size(); ++c) {
      const std::string pad(width[c] - r[c].size(), ' ');
      text += (c == 0 ? "" : "  ") + (rightAligned[c] ? pad + r[c] : r[c] + pad);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    out += text + "\n";
  }
  if (anyNotStored)
    out +=
        "\n(not stored): the generation's report states this verdict, but it leaves "
        "hyperThreadState at 15.\n";
  return out;
}

std::string summaries(const std::vector<Row>& rows) {
  std::string out;
  for (const Row& row : rows) {
    if (!row.counted) continue;
    out += "\nprintSummary of " + std::string(row.generation->name) + ":\n";
    out += row.summary.empty() ? "(writes nothing)\n" : row.summary;
  }
  return out;
}

std::string json(const std::vector<Row>& rows, const Source& source, bool asArray,
                 bool withSummary) {
  if (!asArray)
    return rows.empty() ? "null\n" : jsonRow(rows.front(), source, 0, withSummary) + "\n";
  std::string out = "[\n";
  for (std::size_t i = 0; i < rows.size(); ++i)
    out += jsonRow(rows[i], source, 2, withSummary) + (i + 1 < rows.size() ? ",\n" : "\n");
  return out + "]\n";
}

}  // namespace xrprocdetect
