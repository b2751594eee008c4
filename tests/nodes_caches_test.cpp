// NUMA nodes and caches of system roots and of snapshots whose caches only
// CPUID describes, against tests/data/expected/nodes-caches.txt (each tree
// described there, its answer worked out by hand); and the cost of reading
// the cache folders, in files.
#include <sstream>

#include "kernel/kernel.h"
#include "snapshot/snapshot_io.h"
#include "support/test_support.h"

namespace {

namespace dt = xrprocdetector::detail;
using xrprocdetector::Topology;

// As nodes-caches.txt writes it.
std::string shown(const Topology& t) {
  std::string out = "nodes:";
  for (const xrprocdetector::NumaNode& n : t.numaNodes) {
    out += (n.node == t.numaNodes[0].node ? " " : "; ") + std::to_string(n.node) + ": " +
           (n.processors.empty() ? "none" : n.processors.toList()) +
           (n.memoryBytes ? " " + std::to_string(*n.memoryBytes >> 10) + " kB" : "");
    for (const std::int32_t d : n.distances)
      out += " " + std::to_string(d);
  }
  out += t.missing.empty() ? "" : "\nmissing: " + t.missing;
  std::string last;
  for (const xrprocdetector::Cache& c : t.caches) {
    const std::string head = "\nL" + std::to_string(c.level) + "diu"[static_cast<int>(c.type)] +
                             " " + std::to_string(c.sizeBytes >> 10) + "K " +
                             std::to_string(c.lineBytes) + " " + std::to_string(c.ways) + ":";
    out += (head == last ? " " : head + " ") + c.processors.toList();
    last = head;
  }
  return out + "\n";
}

// Each processor's node holds it, and its last level cache is the data or
// unified cache of the highest level that holds it.
void expectPlaces(const Topology& t, const std::string& name) {
  for (const xrprocdetector::Processor& p : t.processors) {
    std::pair<int, int> want(-1, -1);
    for (std::size_t i = 0; i < t.numaNodes.size(); ++i)
      want.first = t.numaNodes[i].processors.contains(p.cpu) ? static_cast<int>(i) : want.first;
    for (std::size_t i = 0; i < t.caches.size(); ++i) {
      const xrprocdetector::Cache& c = t.caches[i];
      if (c.type != xrprocdetector::CacheType::kInstruction && c.processors.contains(p.cpu) &&
          (want.second < 0 || c.level > t.caches[want.second].level))
        want.second = static_cast<int>(i);
    }
    EXPECT_EQ(std::make_pair(p.numaNode, p.lastLevelCache), want) << name << " cpu" << p.cpu;
  }
}

// How many files of the topology and cache folders a reader asks for,
// there or not.
struct Asking : dt::ReplayMachine {
  using dt::ReplayMachine::ReplayMachine;
  dt::Read file(const std::string& path, std::size_t cap, std::string* text,
                std::string* why) override {
    lists += path.find("/topology/") != std::string::npos;
    caches += path.find("/cache/") != std::string::npos;
    return dt::ReplayMachine::file(path, cap, text, why);
  }
  std::size_t lists = 0, caches = 0;
};

// Of the two-node tree, what is read of its 16 processors, 2 packages of 4
// cores of 2 threads, with sibling lists and no masks (each list asked for
// after the two masks). A sibling list is read once, not once for each
// processor it names, and die_id, absent, once: 8 cores' and 2 packages' 3
// names, and die_id. Each
// cache instance's sharers and size once (26: L1d, L1i and L2 of each core,
// L3 of each package), each kind's level, type, line size and ways once;
// only the first processor of each package, which holds no cache read
// before, looks for an index4 (mask and list). (A save still keeps each
// processor's own lists: snapshot.lscpu reads them.)
TEST(NodesAndCaches, OfEachTreeAsWorkedOutByHand) {
  std::istringstream blocks(testsupport::expected("nodes-caches"));
  int trees = 0;
  for (std::string block; std::getline(blocks, block, '=');) {
    if (block.empty()) continue;
    const std::string name = block.substr(1, block.find('\n') - 1);
    dt::SavedMachine saved;
    dt::Error error;
    const auto read = [](dt::Machine& m) { dt::readTopology(m); };
    ASSERT_TRUE(dt::loadSnapshot(testsupport::fixture(name), &saved, &error, read))
        << error.message();
    Asking machine(saved);
    const Topology t = dt::readTopology(machine);
    EXPECT_EQ(shown(t), block.substr(name.size() + 2)) << name;
    if (name == "sysroots/numa-two-node-smt-16") {
      EXPECT_EQ(std::make_pair(machine.lists, machine.caches),
                std::make_pair(8 * 3 + 2 * 3 + 1ul, 26 * 2 + 4 * 4 + 2 * 2ul));
      Asking unread(saved);  // no cache's file, when they are left unread
      EXPECT_EQ(dt::readTopology(unread, XRPD_SKIP_CACHES).missing, "caches left unread");
      EXPECT_EQ(std::make_pair(unread.lists, unread.caches), std::make_pair(machine.lists, 0ul));
    }
    EXPECT_EQ(t.error.message(), "") << name;
    expectPlaces(t, name);
    ++trees;
  }
  EXPECT_EQ(trees, 12);
}

}  // namespace
