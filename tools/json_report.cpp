// xrprocdetect's JSON: one object a generation, with the kernel row and the
// agreement with it where there is one.
#include <cstdio>
#include <string>

#include "report.h"

namespace xrprocdetect {

namespace {

const char* smtKey(Smt smt) {
  return smt == Smt::kOn ? "on" : smt == Smt::kOff ? "off" : "notsupported";
}

const char* vmKey(Hypervisor vm) {
  return vm == Hypervisor::kVmware ? "vmware" : vm == Hypervisor::kOther ? "other" : "none";
}

std::string quoted(const std::string& text) {
  return "\"" + escaped(text, true) + "\"";
}

// An object, pretty-printed at `indent`, or on one line when `indent` < 0.
class JsonObject {
 public:
  explicit JsonObject(int indent)
      : compact_(indent < 0), pad_(compact_ ? 0 : static_cast<std::size_t>(indent), ' ') {}
  void add(const char* key, const std::string& rawValue) {
    if (!text_.empty()) text_ += compact_ ? ", " : ",\n";
    text_ += (compact_ ? "\"" : pad_ + "  \"") + key + "\": " + rawValue;
  }
  void number(const char* key, long long value) { add(key, std::to_string(value)); }
  void string(const char* key, const std::string& value) { add(key, quoted(value)); }
  void null(const char* key) { add(key, "null"); }
  void stringOrNull(const char* key, bool have, const std::string& value) {
    add(key, have ? quoted(value) : "null");
  }
  template <class T, class Show>
  void maybe(const char* key, const std::optional<T>& value, Show show) {
    add(key, value ? show(*value) : "null");
  }
  // The object; `inner` leaves out the padding before its opening brace.
  std::string done(bool inner = false) const {
    if (compact_) return "{" + text_ + "}";
    return (inner ? "" : pad_) + "{\n" + text_ + "\n" + pad_ + "}";
  }

 private:
  bool compact_;
  std::string pad_;
  std::string text_;
};

// The NUMA nodes and the caches, as keys of the kernel object.
void addPlacement(JsonObject& kernel, const Topology& t) {
  std::string nodes;
  for (const NumaNode& n : t.numaNodes) {
    JsonObject one(-1);
    one.number("node", n.node);
    one.string("cpus", n.processors.toList());
    n.memoryBytes ? one.add("memoryBytes", std::to_string(*n.memoryBytes))
                  : one.null("memoryBytes");
    std::string row;
    for (const std::int32_t d : n.distances)
      row += (row.empty() ? "" : ", ") + std::to_string(d);
    one.add("distances", "[" + row + "]");
    nodes += (nodes.empty() ? "[" : ", ") + one.done();
  }
  kernel.add("numaNodes", nodes.empty() ? "[]" : nodes + "]");
  std::string caches;
  for (const Cache& c : t.caches) {
    JsonObject one(-1);
    one.number("level", c.level);
    one.string("type", c.type == CacheType::kData          ? "data"
                       : c.type == CacheType::kInstruction ? "instruction"
                                                           : "unified");
    one.add("sizeBytes", std::to_string(c.sizeBytes));
    one.number("lineBytes", c.lineBytes);
    one.number("ways", c.ways);
    one.string("cpus", c.processors.toList());
    caches += (caches.empty() ? "[" : ", ") + one.done();
  }
  kernel.add("caches", caches.empty() ? "[]" : caches + "]");
}

// The topology's sets and names, as keys of the kernel object.
void addSets(JsonObject& kernel, const Topology& t) {
  const auto text = [](const std::string& v) { return quoted(v); };
  kernel.stringOrNull("onlineCpus", t.known(TopologySet::kOnline), t.online.toList());
  kernel.stringOrNull("offlineCpus", t.known(TopologySet::kOffline), t.offline.toList());
  kernel.stringOrNull("usableCpus", t.known(TopologySet::kUsable), t.usable.toList());
  kernel.maybe("hypervisorVendor", t.hypervisorVendor, text);
  kernel.maybe("virtualizationType", t.virtualizationType, text);
  kernel.maybe("container", t.container, text);
  std::string cpus;
  for (const Processor& p : t.processors) {
    JsonObject one(-1);
    one.number("cpu", p.cpu);
    for (const auto& [key, v] :
         {std::pair{"package", p.package}, {"die", p.die}, {"core", p.core}, {"thread", p.thread}})
      v < 0 ? one.null(key) : one.number(key, v);
    one.stringOrNull("kind", p.kind >= 0,
                     p.kind >= 0 ? t.coreKinds[static_cast<std::size_t>(p.kind)].kind : "");
    one.add("online", p.online ? "true" : "false");
    one.add("usable", p.usable ? "true" : "false");
    for (const auto& [key, v] :
         {std::pair{"numaNode", p.numaNode}, {"lastLevelCache", p.lastLevelCache}})
      v < 0 ? one.null(key) : one.number(key, v);
    cpus += (cpus.empty() ? "[" : ", ") + one.done();
  }
  kernel.add("cpus", cpus.empty() ? "[]" : cpus + "]");
  addPlacement(kernel, t);
}

// The kernel row and the row's agreement with it, as two keys of `o`.
void addKernel(JsonObject& o, const Detection& row, const KernelTopology& k, const Topology& t,
               int indent) {
  const int inner = indent < 0 ? -1 : indent + 2;
  const auto number = [](std::int32_t v) { return std::to_string(v); };
  const auto word = [](const char* w) { return quoted(w); };
  JsonObject kernel(inner);
  kernel.maybe("packages", k.packages, number);
  kernel.maybe("cores", k.cores, number);
  kernel.maybe("logicalProcessors", k.logicalProcessors, number);
  kernel.maybe("smt", k.smt, [&](Smt v) { return word(smtKey(v)); });
  kernel.maybe("virtualMachine", k.hypervisor, [&](Hypervisor v) { return word(vmKey(v)); });
  kernel.maybe("offlineProcessors", k.offlineProcessors, number);
  kernel.maybe("usableProcessors", k.usableProcessors, number);
  kernel.maybe("cpuQuota", k.cpuQuota, quotaText);
  kernel.maybe("effectiveProcessors", k.effectiveProcessors, number);
  std::string kinds;
  for (const CoreKind& kind : k.coreKinds) {
    JsonObject one(-1);
    one.string("kind", kind.kind);
    one.number("cores", kind.cores);
    one.number("logicalProcessors", kind.logicalProcessors);
    kinds += (kinds.empty() ? "[" : ", ") + one.done();
  }
  kernel.add("coreKinds", kinds.empty() ? "null" : kinds + "]");
  addSets(kernel, t);
  o.add("kernel", kernel.done(true));
  const Agreement a = compare(row, k);
  const auto boolean = [](Same v) {
    return std::string(v == Same::kYes ? "true" : v == Same::kNo ? "false" : "null");
  };
  JsonObject agrees(inner);
  agrees.add("packages", boolean(a.packages));
  agrees.add("cores", boolean(a.cores));
  agrees.add("logicalProcessors", boolean(a.logicalProcessors));
  agrees.add("smt", boolean(a.smt));
  agrees.add("virtualMachine", boolean(a.hypervisor));
  o.add("agreesWithKernel", agrees.done(true));
}

std::string jsonRow(const Detection& row, const Input& source, int indent, bool withSummary) {
  JsonObject o(indent);
  o.number("schemaVersion", 1);
  o.string("generation", generationName(row.generation));
  o.string("class", row.className);
  o.number("procInfoIndex", row.versionIndex);
  o.string("source", source.live ? "live" : source.snapshot ? "snapshot" : "file");
  o.stringOrNull("file", !source.live, source.file);
  o.add("counted", row.counted ? "true" : "false");
  if (row.counted) {
    o.number("result", row.result);
    o.number("logicalCount", row.logicalProcessors);
    o.number("physicalCount", row.packages);
    o.number("coreCount", row.cores);
    o.number("hyperThreadState", static_cast<int>(row.hyperThreading));
    o.number("vmState", static_cast<int>(row.vm));
  } else {
    for (const char* key :
         {"result", "logicalCount", "physicalCount", "coreCount", "hyperThreadState", "vmState"})
      o.null(key);
  }
  o.stringOrNull("reportedVerdict", row.counted && row.reportedVerdict,
                 row.reportedVerdict ? stateWords(static_cast<int>(*row.reportedVerdict)) : "");
  static const char* const kEndedBy[] = {"", "/proc/cpuinfo", "cpuid", "logical only"};
  o.stringOrNull("endedBy", row.endedBy != Strategy::kNone,
                 kEndedBy[static_cast<int>(row.endedBy)]);
  o.stringOrNull("note", !row.note.empty(), row.note);
  if (source.kernel) addKernel(o, row, *source.kernel, *source.topology, indent);
  if (withSummary) o.stringOrNull("summary", row.counted, row.summary);
  return o.done();
}

}  // namespace

std::string budgetLine(const Budget& b, bool json) {
  const std::string quota = b.cpuQuota ? quotaText(*b.cpuQuota) : "";
  if (!json)
    return "usable " + b.usable.toList() + " (" + std::to_string(b.usable.count()) +
           " processors), CPU quota " + (quota.empty() ? "none" : quota + " processors") +
           ", effective " + std::to_string(b.effectiveProcessors) +
           (b.error.empty() ? "" : "; " + escaped(b.error.message())) + "\n";
  JsonObject o(-1);
  o.string("usableCpus", b.usable.toList());
  o.number("usableProcessors", static_cast<long long>(b.usable.count()));
  o.add("cpuQuota", quota.empty() ? "null" : quota);
  o.number("effectiveProcessors", b.effectiveProcessors);
  o.stringOrNull("error", !b.error.empty(), b.error.message());
  return o.done() + "\n";
}

std::string json(const std::vector<Detection>& rows, const Input& source, bool asArray,
                 bool withSummary, bool lines) {
  if (lines) {
    std::string out;
    for (const Detection& row : rows)
      out += jsonRow(row, source, -1, withSummary) + "\n";
    return out;
  }
  if (!asArray)
    return rows.empty() ? "null\n" : jsonRow(rows.front(), source, 0, withSummary) + "\n";
  std::string out = "[\n";
  for (std::size_t i = 0; i < rows.size(); ++i)
    out += jsonRow(rows[i], source, 2, withSummary) + (i + 1 < rows.size() ? ",\n" : "\n");
  return out + "]\n";
}

}  // namespace xrprocdetect
