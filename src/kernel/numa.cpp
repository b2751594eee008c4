// The NUMA nodes of a machine, from sys/devices/system/node (nodeN/cpulist,
// or on kernels before 2.6.26 the cpumap mask, meminfo and distance), or,
// where the kernel lists none, one node of the whole machine.
#include <charconv>

#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Node numbers are below MAX_NUMNODES at its largest (NODES_SHIFT 10).
constexpr unsigned kMaxNodes = 1024;

// The "MemTotal: N kB" line of a meminfo file ("Node 3 MemTotal: ..." in a
// node's), in bytes; nothing, and a failure of the file, where it has none.
std::optional<std::uint64_t> memTotal(SystemRoot& root, const std::string& path) {
  std::string text;
  if (root.text(path, &text) != Read::kOk) return std::nullopt;
  const std::size_t at = text.find("MemTotal:");
  const std::size_t from = at == std::string::npos ? at : text.find_first_not_of(' ', at + 9);
  std::uint64_t kb = 0;
  const char* end = text.data() + text.size();
  const auto r = from == std::string::npos
                     ? std::from_chars_result{end, std::errc::invalid_argument}
                     : std::from_chars(text.data() + from, end, kb);
  if (r.ec == std::errc() && std::string_view(r.ptr, end - r.ptr).substr(0, 3) == " kB" &&
      kb < (UINT64_MAX >> 10))
    return kb << 10;
  root.fail(path, "no MemTotal line such as \"MemTotal: 16318192 kB\"");
  return std::nullopt;
}

// The node numbers: the online list, or on kernels without it the nodeN
// folders.
CpuSet nodeNumbers(SystemRoot& nodes) {
  CpuSet numbers;
  if (nodes.list("online", &numbers) != Read::kAbsent) return numbers;
  std::vector<std::string> names;
  nodes.entries("", &names);
  for (const std::string& name : names) {
    unsigned n = 0;
    std::string problem;
    if (numberedName(name, "node", kMaxNodes, &n, &problem) && problem.empty()) numbers.add(n);
  }
  return numbers;
}

// One node's processors (every one it names, online or not), memory and row
// of distances.
NumaNode readNode(SystemRoot& nodes, unsigned n, CpuSet* named) {
  NumaNode node;
  node.node = static_cast<std::int32_t>(n);
  const std::string dir = "node" + std::to_string(n) + "/";
  if (nodes.list(dir + "cpulist", named) == Read::kAbsent) nodes.list(dir + "cpumap", named, true);
  node.memoryBytes = memTotal(nodes, dir + "meminfo");
  std::string row;
  nodes.text(dir + "distance", &row);
  for (std::size_t at = row.find_first_not_of(' '); at < row.size();) {
    const std::size_t end = std::min(row.find(' ', at), row.size());
    long d = 0;
    if (!wholeNumber(std::string_view(row).substr(at, end - at), 0, INT32_MAX, &d)) {
      nodes.fail(dir + "distance", "line 1: not distances such as \"10 21\"");
      node.distances.clear();
      break;
    }
    node.distances.push_back(static_cast<std::int32_t>(d));
    at = row.find_first_not_of(' ', end);
  }
  return node;
}

// Whether a table of nodes cannot be real, and why: nodes that name one
// processor twice (firmware that gives every node every processor), or
// more than one node at the same distance from every node.
const char* impossible(const std::vector<NumaNode>& nodes, const std::vector<CpuSet>& named) {
  CpuSet seen;
  std::size_t count = 0;
  for (const CpuSet& cpus : named) {
    for (const unsigned c : cpus)
      seen.add(c), ++count;
  }
  if (count != seen.count()) return "NUMA nodes that share processors";
  bool same = nodes.size() > 1;
  for (const NumaNode& node : nodes) {
    same = same && node.distances.size() == nodes.size();
    for (const std::int32_t d : node.distances)
      same = same && d == nodes[0].distances[0];
  }
  return same ? "NUMA distances all equal" : nullptr;
}

}  // namespace

void readNumaNodes(SystemRoot& root, Topology& t) {
  SystemRoot nodes(root, "sys/devices/system/node");
  std::vector<CpuSet> named;
  for (const unsigned n : nodeNumbers(nodes)) {
    named.emplace_back();
    t.numaNodes.push_back(readNode(nodes, n, &named.back()));
    t.numaNodes.back().processors = named.back() & t.online;
  }
  for (NumaNode& node : t.numaNodes) {
    if (node.distances.size() != t.numaNodes.size()) node.distances.clear();
  }
  const char* why = impossible(t.numaNodes, named);
  if (why != nullptr)
    t.missing += std::string(t.missing.empty() ? "" : ", ") + why + ", taken as one node";
  if (t.numaNodes.empty() || why != nullptr) {
    t.numaNodes.assign(1, NumaNode{0, t.online, memTotal(root, "proc/meminfo"), {}});
  }
  for (Processor& p : t.processors) {
    for (std::size_t i = 0; i < t.numaNodes.size(); ++i) {
      if (t.numaNodes[i].processors.contains(p.cpu)) p.numaNode = static_cast<std::int32_t>(i);
    }
  }
  if (t.error.empty()) t.error = nodes.error();
}

}  // namespace detail
}  // namespace xrprocdetector
