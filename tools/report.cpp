#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace xrprocdetect {

namespace {

// The length of the UTF-8 character that `s` starts with (1 to 4); 0 when
// its first byte starts none: a lone continuation byte, an overlong form, a
// surrogate, a code point past U+10FFFF, or a character cut short.
std::size_t utf8Length(std::string_view s) {
  const auto at = [s](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned c = at(0);
  const std::size_t n = c < 0x80 ? 1 : c < 0xC2 || c > 0xF4 ? 0 : 2 + (c >= 0xE0) + (c >= 0xF0);
  // The second byte's range leaves out overlong forms, surrogates and code
  // points past U+10FFFF.
  const unsigned low = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
  const unsigned high = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
  for (std::size_t i = 1; i < n; ++i)
    if (i >= s.size() || at(i) < (i == 1 ? low : 0x80) || at(i) > (i == 1 ? high : 0xBF)) return 0;
  return n;
}

const char* vmWords(const Detection& row) {
  if (row.vm == VmState::kNone) return "not a VMware virtual machine";
  if (row.vm == VmState::kVmware) return "a VMware virtual machine";
  if (row.vm != VmState::kNotDetermined) return "unknown value";
  // The CPUID estimate uses 15 for a virtual machine it cannot name.
  return row.endedBy == Strategy::kCpuid ? "an unknown virtual machine" : "not determined";
}

const char* strategyWords(Strategy s) {
  static const char* const kWords[] = {"", "/proc/cpuinfo", "the CPUID estimate",
                                       "the configured processor count"};
  return kWords[static_cast<int>(s)];
}

// 6.x states its verdict in its report but leaves hyperThreadState at 15.
bool verdictNotStored(const Detection& row) {
  return static_cast<int>(row.hyperThreading) == 15 && row.reportedVerdict;
}

std::string hyperThreadingColumn(const Detection& row) {
  if (!row.counted) return "-";
  if (verdictNotStored(row))
    return std::string(stateWords(static_cast<int>(*row.reportedVerdict))) + " (not stored)";
  return stateWords(static_cast<int>(row.hyperThreading));
}

std::string noteColumn(const Detection& row) {
  if (!row.counted) return row.note;
  if (row.endedBy != Strategy::kNone) return std::string("ended by ") + strategyWords(row.endedBy);
  return "";
}

std::string sourceWords(const Input& source) {
  if (source.live) return "this machine (live)";
  if (source.snapshot) return source.file + " (a snapshot)";
  return (source.file == "-" ? std::string("standard input") : source.file) +
         " (a saved /proc/cpuinfo)";
}

std::string line(const char* label, const std::string& value) {
  char head[32];
  std::snprintf(head, sizeof head, "%-22s", label);
  return head + value + "\n";
}

std::string generationWords(const Detection& row) {
  return std::string(generationName(row.generation)) + " (" + row.className + ", version index " +
         std::to_string(row.versionIndex) + ")";
}

// The kernel's states in the words of the generations' columns.
std::string kernelSmtWords(const std::optional<Smt>& smt) {
  if (!smt) return "not available";
  return *smt == Smt::kOn ? "enabled" : *smt == Smt::kOff ? "disabled" : "not capable";
}

std::string kernelVmWords(const std::optional<Hypervisor>& vm) {
  static const char* const kWords[] = {"none", "VMware", "another hypervisor"};  // by Hypervisor
  return vm ? kWords[static_cast<int>(*vm)] : "not available";
}

std::string countWords(const std::optional<std::int32_t>& n) {
  return n ? std::to_string(*n) : "not available";
}

// "yes", or "no: ..." naming each field that differs, with what the row and
// the kernel say; then the fields that could not be compared.
std::string agreementWords(const Detection& row, const KernelTopology& k) {
  if (!row.counted) return "not compared: the generation did not count";
  const Agreement a = compare(row, k);
  std::string differ;
  std::string unknown;
  const auto note = [&](Same same, const char* field, const std::string& mine,
                        const std::string& theirs) {
    if (same == Same::kUnknown) {
      unknown += (unknown.empty() ? "" : ", ") + std::string(field);
    } else if (same == Same::kNo) {
      differ += (differ.empty() ? "" : ", ") + std::string(field) + " " + mine + " (kernel " +
                theirs + ")";
    }
  };
  note(a.packages, "packages", std::to_string(row.packages), countWords(k.packages));
  note(a.cores, "cores", std::to_string(row.cores), countWords(k.cores));
  note(a.logicalProcessors, "logical processors", std::to_string(row.logicalProcessors),
       countWords(k.logicalProcessors));
  note(a.smt, "hyper-threading", kernelSmtWords(smtOf(row)), kernelSmtWords(k.smt));
  note(a.hypervisor, "virtual machine", kernelVmWords(hypervisorOf(row)),
       kernelVmWords(k.hypervisor));
  // "yes" needs the counts: a match of states alone is no agreement.
  const bool noCount = a.packages == Same::kUnknown && a.cores == Same::kUnknown &&
                       a.logicalProcessors == Same::kUnknown;
  if (noCount && a.smt == Same::kUnknown && a.hypervisor == Same::kUnknown)
    return "not compared: the kernel row has none of the row's fields";
  if (noCount && differ.empty()) return "not compared: " + unknown;
  std::string out = !differ.empty()   ? "no: " + differ
                    : unknown.empty() ? "yes"
                                      : "yes, where compared";
  if (!unknown.empty()) out += "; not compared: " + unknown;
  return out;
}

// The hypervisor's vendor in lscpu's words, else what the kernel's files
// tell of a virtual machine.
std::string hypervisorWords(const Topology& t) {
  const std::string type =
      t.virtualizationType ? " (virtualization type " + *t.virtualizationType + ")" : "";
  if (t.hypervisorVendor && *t.hypervisorVendor != "none") return *t.hypervisorVendor + type;
  if (t.hypervisor == Hypervisor::kVmware) return "VMware";
  if (t.hypervisor == Hypervisor::kOther) return "a hypervisor whose vendor is not known";
  return t.hypervisorVendor || t.hypervisor ? "none" : "not known";
}

// The machine as the kernel gives it and what this process may use of it,
// where there is a kernel row; else only where the counts came from.
std::string machineLines(const Input& source) {
  std::string out = line("Machine", sourceWords(source));
  if (!source.kernel || !source.topology) return out;
  const KernelTopology& k = *source.kernel;
  const Topology& t = *source.topology;
  // Without the online processors, the kernel's files tell none of this.
  if (k.logicalProcessors) {
    out += line("Packages", countWords(k.packages));
    out += line("Cores", countWords(k.cores));
    out += line(
        "Logical processors",
        countWords(k.logicalProcessors) +
            (k.offlineProcessors ? " online, " + std::to_string(*k.offlineProcessors) + " offline"
                                 : ""));
    out += line("Hyper-threading", kernelSmtWords(k.smt));
    out += line("NUMA nodes", std::to_string(t.numaNodes.size()));
    if (!k.coreKinds.empty()) out += line("Core kinds", coreKindsWords(k));
    out += line("Usable processors", std::to_string(t.usable.count()) +
                                         (t.usable.empty() ? "" : " (" + t.usable.toList() + ")"));
    out += line("CPU quota", k.cpuQuota ? quotaText(*k.cpuQuota) +
                                              (*k.cpuQuota == 1 ? " processor" : " processors")
                                        : "none");
    out += line("Effective processors", countWords(k.effectiveProcessors));
  }
  out += line("Hypervisor", hypervisorWords(t));
  out += line("Container", t.container.value_or("not known"));
  if (!k.missing.empty()) out += line("Missing", k.missing);
  return out;
}

const char kCodes[] = "\nThe generations and their codes: docs/generations.md\n";

}  // namespace

std::string escaped(std::string_view text, bool json) {
  std::string out;
  char code[8];
  for (std::size_t i = 0, n = 1; i < text.size(); i += n) {
    const std::size_t valid = utf8Length(text.substr(i));
    n = valid == 0 ? 1 : valid;
    // The code point of a character of one or two bytes; else the first byte.
    const unsigned c = n == 2 ? (text[i] & 0x1Fu) << 6 | (text[i + 1] & 0x3Fu)
                              : static_cast<unsigned char>(text[i]);
    if (json && (c == '"' || c == '\\' || c == '\n' || c == '\t'))
      out += {'\\', c == '\n' ? 'n' : c == '\t' ? 't' : static_cast<char>(c)};
    else if (valid != 0 && (c >= 0xA0 || (c >= 0x20 && c < 0x7F) || (c == '\n' && !json)))
      out.append(text.substr(i, n));
    else  // each byte in a text, the character in JSON
      for (std::size_t k = i; k < i + n; k += json ? n : 1)
        out.append(code, std::snprintf(code, sizeof code, json ? "\\u%04x" : "\\x%02x",
                                       json ? c : static_cast<unsigned char>(text[k])));
  }
  return out;
}

const char* stateWords(int state) {
  static const char* const kWords[] = {"not capable", "disabled", "enabled",
                                       "enabled, over twice the cores"};
  if (state >= 0 && state <= 3) return kWords[state];
  return state == 15 ? "not determined" : "unknown value";
}

std::string quotaText(double quota) {
  char text[32];
  for (int digits = 6;; ++digits) {  // the fewest from 6 that read back as the same number
    std::snprintf(text, sizeof text, "%.*g", digits, quota);
    if (digits == 17 || std::strtod(text, nullptr) == quota) return text;
  }
}

std::string coreKindsWords(const KernelTopology& k) {
  std::string out;
  for (const CoreKind& kind : k.coreKinds)
    out += (out.empty() ? "" : ", ") + std::to_string(kind.cores) + " " + kind.kind + " cores (" +
           std::to_string(kind.logicalProcessors) + " logical processors)";
  return out;
}

bool countsDiffer(const Agreement& a) {
  return a.packages == Same::kNo || a.cores == Same::kNo || a.logicalProcessors == Same::kNo;
}

bool countsAgree(const Agreement& a) {
  return a.packages == Same::kYes && a.cores == Same::kYes && a.logicalProcessors == Same::kYes;
}

std::string humanReport(const Detection& row, const Input& source) {
  std::string out = machineLines(source) + "\n" + line("Generation", generationWords(row));
  if (!row.counted) {
    out += line("Not counted", row.note);
  } else {
    out += line("Counts", "packages " + std::to_string(row.packages) + ", cores " +
                              std::to_string(row.cores) + ", logical processors " +
                              std::to_string(row.logicalProcessors));
    const std::string state =
        " (hyperThreadState " + std::to_string(static_cast<int>(row.hyperThreading)) + ")";
    out += line("Hyper-threading", verdictNotStored(row)
                                       ? stateWords(static_cast<int>(*row.reportedVerdict)) +
                                             std::string(", as its report says; not stored") + state
                                       : stateWords(static_cast<int>(row.hyperThreading)) + state);
    out += line("Virtual machine", std::string(vmWords(row)) + " (vmState " +
                                       std::to_string(static_cast<int>(row.vm)) + ")");
    if (row.endedBy != Strategy::kNone) out += line("Ended by", strategyWords(row.endedBy));
    out += line("getProcData", std::to_string(row.result));
  }
  if (source.kernel) out += line("Agrees with kernel", agreementWords(row, *source.kernel));
  return out + kCodes;
}

std::string aligned(const std::vector<std::vector<std::string>>& cells, const bool* rightAligned) {
  std::vector<std::size_t> width(cells.front().size(), 0);
  for (const auto& r : cells) {
    for (std::size_t c = 0; c < r.size(); ++c)
      width[c] = std::max(width[c], r[c].size());
  }
  std::string out;
  for (const auto& r : cells) {
    std::string text;
    for (std::size_t c = 0; c < r.size(); ++c) {
      const std::string pad(width[c] - r[c].size(), ' ');
      text += (c == 0 ? "" : "  ") +
              (rightAligned != nullptr && rightAligned[c] ? pad + r[c] : r[c] + pad);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    out += text + "\n";
  }
  return out;
}

std::string table(const std::vector<Detection>& rows, const Input& source) {
  const std::vector<std::string> header = {
      "GENERATION",      "PACKAGES",        "CORES",  "LOGICAL",
      "HYPER-THREADING", "VIRTUAL MACHINE", "RESULT", "NOTE"};
  // Numbers are right-aligned, words left-aligned.
  const bool rightAligned[] = {false, true, true, true, false, false, true, false};
  std::vector<std::vector<std::string>> cells = {header};
  bool anyNotStored = false;
  bool anyMarked = false;
  const std::optional<KernelTopology>& k = source.kernel;
  for (const Detection& row : rows) {
    const Agreement a = k ? compare(row, *k) : Agreement();
    // A field that differs from the kernel's is marked; with a kernel row,
    // the other numbers keep a blank in the mark's place.
    const auto mark = [&](Same same) {
      anyMarked = anyMarked || same == Same::kNo;
      return same == Same::kNo ? "*" : k && row.counted ? " " : "";
    };
    auto number = [&row](long long v) { return row.counted ? std::to_string(v) : "-"; };
    std::string ht = hyperThreadingColumn(row);
    std::string vm = row.counted ? vmWords(row) : "-";
    if (a.smt == Same::kNo) ht += mark(a.smt);
    if (a.hypervisor == Same::kNo) vm += mark(a.hypervisor);
    cells.push_back({generationName(row.generation), number(row.packages) + mark(a.packages),
                     number(row.cores) + mark(a.cores),
                     number(row.logicalProcessors) + mark(a.logicalProcessors), ht, vm,
                     number(row.result), noteColumn(row)});
    anyNotStored = anyNotStored || (row.counted && verdictNotStored(row));
  }
  std::string out = machineLines(source) + "\n" + aligned(cells, rightAligned);
  if (anyMarked) out += "\n*: differs from the machine above, as the kernel gives it.\n";
  if (anyNotStored)
    out +=
        "\n(not stored): the generation's report states this verdict, but it leaves "
        "hyperThreadState at 15.\n";
  return out + kCodes;
}

std::string summaries(const std::vector<Detection>& rows) {
  std::string out;
  for (const Detection& row : rows) {
    if (!row.counted) continue;
    out += "\nprintSummary of " + std::string(generationName(row.generation)) + ":\n";
    out += row.summary.empty() ? "(writes nothing)\n" : row.summary;
  }
  return out;
}

}  // namespace xrprocdetect
