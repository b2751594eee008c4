// The texts of a snapshot's own files, as saving writes them: each
// processor's CPUID dump and the metadata file.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>

#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

namespace {

std::string hex(std::uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", v);
  return text;
}

}  // namespace

std::string formatDump(const CpuidDump& dump) {
  std::string out = "# mask e[abcd]x => e[abcd]x\n";
  for (const CpuidLine& l : dump) {
    for (const std::uint32_t v : {l.mask, l.in[0], l.in[1], l.in[2], l.in[3]})
      out += hex(v) + " ";
    out += "=>";
    for (const std::uint32_t v : l.out)
      out += " " + hex(v);
    out += "\n";
  }
  return out;
}

std::string formatMetadata(const SavedMachine& m, const std::string& savedBy) {
  char when[32];
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return "{\n  \"format\": \"xrprocdetect-snapshot\",\n  \"version\": 1,\n"
         "  \"configuredProcessors\": " +
         std::to_string(m.configured.value_or(-1)) +
         ",\n  \"onlineProcessors\": " + std::to_string(m.online.value_or(-1)) +
         ",\n  \"affinity\": \"" + m.affinity.value_or(CpuSet()).toList() +
         "\",\n  \"vmwareBackdoor\": " + (m.vmwareBackdoor ? "true" : "false") +
         ",\n  \"savedBy\": " + jsonQuoted(savedBy) + ",\n  \"savedAt\": \"" + when + "\"\n}\n";
}

}  // namespace detail
}  // namespace xrprocdetector
