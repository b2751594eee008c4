// xrprocdetect's JSON: one object a generation, with the kernel row and the
// agreement with it where there is one.
#include <cstdio>
#include <ctime>
#include <string>

#include "report.h"

namespace xrprocdetect {

namespace {

// The states in the kernel row's words, as JSON strings.
std::string smtKey(Smt smt) {
  return quoted(smt == Smt::kOn ? "on" : smt == Smt::kOff ? "off" : "notsupported");
}

std::string vmKey(Hypervisor vm) {
  return quoted(vm == Hypervisor::kVmware ? "vmware" : vm == Hypervisor::kOther ? "other" : "none");
}

// An array of one object an item, each filled by `one`.
template <class T, class One>
std::string array(const std::vector<T>& items, One one) {
  std::string out;
  for (const T& item : items) {
    JsonObject o;
    one(o, item);
    out += (out.empty() ? "" : ", ") + o.done();
  }
  return "[" + out + "]";
}

std::string nodesArray(const Topology& t) {
  return array(t.numaNodes, [](JsonObject& one, const NumaNode& n) {
    one.number("node", n.node);
    one.string("cpus", n.processors.toList());
    one.maybe("memoryBytes", n.memoryBytes, [](std::uint64_t v) { return std::to_string(v); });
    std::string row;
    for (const std::int32_t d : n.distances)
      row += (row.empty() ? "" : ", ") + std::to_string(d);
    one.add("distances", "[" + row + "]");
  });
}

std::string cachesArray(const Topology& t) {
  return array(t.caches, [](JsonObject& one, const Cache& c) {
    one.number("level", c.level);
    static const char* const kTypes[] = {"data", "instruction", "unified"};  // by CacheType
    one.string("type", kTypes[static_cast<int>(c.type)]);
    one.add("sizeBytes", std::to_string(c.sizeBytes));
    one.number("lineBytes", c.lineBytes);
    one.number("ways", c.ways);
    one.string("cpus", c.processors.toList());
  });
}

std::string cpusArray(const Topology& t) {
  return array(t.processors, [&t](JsonObject& one, const Processor& p) {
    one.number("cpu", p.cpu);
    for (const auto& [key, v] :
         {std::pair{"package", p.package}, {"die", p.die}, {"core", p.core}, {"thread", p.thread}})
      one.add(key, v < 0 ? "null" : std::to_string(v));
    one.stringOrNull("kind", p.kind >= 0,
                     p.kind >= 0 ? t.coreKinds[static_cast<std::size_t>(p.kind)].kind : "");
    one.add("online", p.online ? "true" : "false");
    one.add("usable", p.usable ? "true" : "false");
    for (const auto& [key, v] :
         {std::pair{"numaNode", p.numaNode}, {"lastLevelCache", p.lastLevelCache}})
      one.add(key, v < 0 ? "null" : std::to_string(v));
  });
}

// The kernel row, with the topology's sets and names.
std::string kernelObject(const KernelTopology& k, const Topology& t) {
  const auto number = [](std::int32_t v) { return std::to_string(v); };
  const auto text = [](const std::string& v) { return quoted(v); };
  JsonObject kernel;
  kernel.maybe("packages", k.packages, number);
  kernel.maybe("cores", k.cores, number);
  kernel.maybe("logicalProcessors", k.logicalProcessors, number);
  kernel.maybe("smt", k.smt, smtKey);
  kernel.maybe("virtualMachine", k.hypervisor, vmKey);
  kernel.maybe("offlineProcessors", k.offlineProcessors, number);
  kernel.maybe("usableProcessors", k.usableProcessors, number);
  kernel.maybe("cpuQuota", k.cpuQuota, quotaText);
  kernel.maybe("effectiveProcessors", k.effectiveProcessors, number);
  kernel.add("coreKinds", k.coreKinds.empty()
                              ? "null"
                              : array(k.coreKinds, [](JsonObject& one, const CoreKind& kind) {
                                  one.string("kind", kind.kind);
                                  one.number("cores", kind.cores);
                                  one.number("logicalProcessors", kind.logicalProcessors);
                                }));
  kernel.stringOrNull("onlineCpus", t.known(TopologySet::kOnline), t.online.toList());
  kernel.stringOrNull("offlineCpus", t.known(TopologySet::kOffline), t.offline.toList());
  kernel.stringOrNull("usableCpus", t.known(TopologySet::kUsable), t.usable.toList());
  kernel.maybe("hypervisorVendor", t.hypervisorVendor, text);
  kernel.maybe("virtualizationType", t.virtualizationType, text);
  kernel.maybe("container", t.container, text);
  kernel.add("cpus", cpusArray(t));
  kernel.add("numaNodes", nodesArray(t));
  kernel.add("caches", cachesArray(t));
  return kernel.done();
}

// Whether each of the row's fields agrees with the kernel row's.
std::string agreement(const Detection& row, const KernelTopology& k) {
  const Agreement a = compare(row, k);
  JsonObject agrees;
  const Same same[] = {a.packages, a.cores, a.logicalProcessors, a.smt, a.hypervisor};
  const char* const keys[] = {"packages", "cores", "logicalProcessors", "smt", "virtualMachine"};
  for (int i = 0; i < 5; ++i)
    agrees.add(keys[i], same[i] == Same::kYes ? "true" : same[i] == Same::kNo ? "false" : "null");
  return agrees.done();
}

// What names the input and its machine: the keys every row of schema 2
// starts with, null where not known (a saved /proc/cpuinfo names no
// machine; only a snapshot has savedAt and savedBy).
JsonObject header(const Input& in) {
  static const std::optional<std::string> none;
  const Topology* t = in.topology ? &*in.topology : nullptr;
  JsonObject o;
  o.number("schemaVersion", 2);
  o.string("input", in.live ? "live" : in.file);
  o.string("source", in.live ? "live" : in.snapshot ? "snapshot" : "file");
  for (const auto& [key, value] : {std::pair{"hostname", t ? t->hostname : none},
                                   {"cpuModel", t ? t->cpuModel : none},
                                   {"cpuVendor", t ? t->cpuVendor : none},
                                   {"kernelRelease", t ? t->kernelRelease : none},
                                   {"savedAt", in.savedAt},
                                   {"savedBy", in.savedBy}})
    o.maybe(key, value, quoted);
  return o;
}

// A row. Schema 2: every key in every row; the counts under the kernel
// row's names, the states in its words (smt "on", "off", "notsupported";
// virtualMachine "none", "vmware", "other") with the detectors' codes
// beside them. Schema 1: the detectors' names and codes, the input as
// source and file, "kernel" and "agreesWithKernel" only with a kernel row
// and "summary" only `withSummary`.
std::string jsonRow(const Detection& row, const Input& in, bool withSummary, int schema,
                    const std::string& kernel) {
  JsonObject o = schema == 2 ? header(in) : JsonObject();
  if (schema == 1) o.number("schemaVersion", 1);
  o.string("generation", generationName(row.generation));
  o.string("class", row.className);
  o.number("procInfoIndex", row.versionIndex);
  if (schema == 1) o.string("source", in.live ? "live" : in.snapshot ? "snapshot" : "file");
  if (schema == 1) o.stringOrNull("file", !in.live, in.file);
  o.add("counted", row.counted ? "true" : "false");
  const auto count = [&row](long long v) { return row.counted ? std::to_string(v) : "null"; };
  o.add("result", count(row.result));
  o.add(schema == 1 ? "logicalCount" : "logicalProcessors", count(row.logicalProcessors));
  o.add(schema == 1 ? "physicalCount" : "packages", count(row.packages));
  o.add(schema == 1 ? "coreCount" : "cores", count(row.cores));
  if (schema == 2) o.maybe("smt", smtOf(row), smtKey);
  o.add(schema == 1 ? "hyperThreadState" : "smtCode", count(static_cast<int>(row.hyperThreading)));
  if (schema == 2) o.maybe("virtualMachine", hypervisorOf(row), vmKey);
  o.add(schema == 1 ? "vmState" : "virtualMachineCode", count(static_cast<int>(row.vm)));
  Detection verdict = row;  // what its report states
  verdict.hyperThreading = row.reportedVerdict.value_or(HyperThreading::kNotDetermined);
  if (schema == 2) o.maybe("reportedVerdict", smtOf(verdict), smtKey);
  if (schema == 1)
    o.stringOrNull("reportedVerdict", row.counted && row.reportedVerdict,
                   stateWords(static_cast<int>(verdict.hyperThreading)));
  static const char* const kEndedBy[] = {"", "/proc/cpuinfo", "cpuid", "logical only"};
  o.stringOrNull("endedBy", row.endedBy != Strategy::kNone,
                 kEndedBy[static_cast<int>(row.endedBy)]);
  o.stringOrNull("note", !row.note.empty(), row.note);
  if (schema == 2 || withSummary)
    o.stringOrNull("summary", withSummary && row.counted, row.summary);
  if (schema == 2 || in.kernel) {
    o.add("kernel", kernel);
    o.add("agreesWithKernel", in.kernel ? agreement(row, *in.kernel) : "null");
  }
  return o.done();
}

}  // namespace

std::string budgetLine(const Budget& b, bool json, const Input* in) {
  const std::string quota = b.cpuQuota ? quotaText(*b.cpuQuota) : "";
  if (!json)
    return "usable " + b.usable.toList() + " (" + std::to_string(b.usable.count()) +
           " processors), CPU quota " + (quota.empty() ? "none" : quota + " processors") +
           ", effective " + std::to_string(b.effectiveProcessors) +
           (b.error.empty() ? "" : "; " + escaped(b.error.message())) + "\n";
  JsonObject o = in ? header(*in) : JsonObject();
  char when[32];
  const std::time_t now = std::time(nullptr);
  if (in) o.string("time", {when, std::strftime(when, sizeof when, "%FT%TZ", std::gmtime(&now))});
  o.string("usableCpus", b.usable.toList());
  o.number("usableProcessors", static_cast<long long>(b.usable.count()));
  o.add("cpuQuota", quota.empty() ? "null" : quota);
  o.number("effectiveProcessors", b.effectiveProcessors);
  o.stringOrNull("error", !b.error.empty(), b.error.message());
  return o.done() + "\n";
}

std::string json(const std::vector<Detection>& rows, const Input& source, bool asArray,
                 bool withSummary, bool lines, int schema) {
  // The kernel row, the largest part of each row, made once for them all.
  const std::string kernel =
      source.kernel ? kernelObject(*source.kernel, *source.topology) : "null";
  std::string out;
  out.reserve(rows.size() * (kernel.size() + 4096));
  for (const Detection& row : rows) {
    if (!out.empty()) out += lines || schema == 2 ? "\n" : ", ";
    out += jsonRow(row, source, withSummary, schema, kernel);
  }
  if (schema == 1 && !lines && asArray) return "[" + out + "]\n";
  return out.empty() && schema == 1 && !lines ? "null\n" : out + (out.empty() ? "" : "\n");
}

std::string viewJson(const Input& in, const Options& options) {
  const Topology& t = *in.topology;
  JsonObject o = header(in);
  if (options.cpus) o.add("cpus", cpusArray(t));
  if (options.caches) o.add("caches", cachesArray(t));
  if (options.draw) o.add("kernel", kernelObject(*in.kernel, t));
  std::string sets;
  for (const CpuSet& place :
       options.places ? places(t, *placeKind(*options.places)) : std::vector<CpuSet>())
    sets += (sets.empty() ? "" : ", ") + quoted(place.toList());
  if (options.places) o.string("placeKind", *options.places);
  if (options.places) o.add("places", "[" + sets + "]");
  return o.done() + "\n";
}

}  // namespace xrprocdetect
