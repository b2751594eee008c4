// Snapshots saved on scripted processors (an Intel one with leaf 4 and leaf
// 0xb sub-leaves, an AMD one with leaf 0x80000008) are written and replayed
// exactly; a snapshot's Source holds what its tree held; and hostile shapes
// (a large CPUID dump, one dump under many names, many mounts and control
// group lines) take work in proportion to their bytes, counted as bytes
// allocated and files read, never as time.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <sstream>

#include "snapshot/snapshot_io.h"
#include "support/scripted_hardware.h"

// Every byte this program asks of operator new: the work of a reader that
// works in memory. Not inlined, so that the compiler never sees malloc's
// memory go to operator delete.
std::atomic<std::size_t> allocated{0};

__attribute__((noinline)) void* operator new(std::size_t size) {
  allocated += size;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
// The form the standard library's temporary buffers ask of, which must come
// from the same malloc as the rest, since every form is freed below.
__attribute__((noinline)) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  allocated += size;
  return std::malloc(size == 0 ? 1 : size);
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

namespace dt = xrprocdetector::detail;
namespace fs = std::filesystem;

// The bytes allocated while `work` runs.
template <class Work>
std::size_t allocatedBy(Work work) {
  const std::size_t before = allocated;
  work();
  return allocated - before;
}

using Tree = testsupport::Scratch;
using Answers = std::map<std::pair<std::uint32_t, std::uint32_t>, scripted::Registers>;

// The answers of `processor` in tables/scripted_cpuid.txt.
Answers scriptedProcessor(const std::string& processor) {
  Answers a;
  for (const auto& row : testsupport::table("tables/scripted_cpuid.txt")) {
    std::istringstream words(row.at(1) + " " + row.at(2));
    std::uint32_t leaf, sub;
    scripted::Registers r;
    EXPECT_TRUE(words >> std::hex >> leaf >> sub >> r.eax >> r.ebx >> r.ecx >> r.edx) << row[1];
    if (row[0] == processor) a[{leaf, sub}] = r;
  }
  EXPECT_GE(a.size(), 4u) << processor;
  return a;
}

// Saves this machine with the scripted processors in place of the real
// one, loads the snapshot and replays it: every question the detectors ask
// gets the scripted answer, on each processor of the affinity, and the
// sub-leaves past a terminator, never asked, answer zeros.
void roundTrip(const Answers& answers) {
  scripted::setMachine(answers, scripted::Backdoor::kFault, 0x3);
  const Tree tree;
  const fs::path dir = tree.path / "saved";
  std::string error;
  ASSERT_TRUE(xrprocdetector::saveSnapshot(dir.string(), &error)) << error;
  dt::SavedMachine snapshot;
  dt::Error why;
  ASSERT_TRUE(dt::loadSnapshot(dir.string(), &snapshot, &why)) << why.message();
  EXPECT_EQ(snapshot.cpuid.size(), 2u);
  EXPECT_EQ(snapshot.affinity, xrprocdetector::CpuSet({0, 1}));
  EXPECT_FALSE(snapshot.vmwareBackdoor);
  dt::ReplayMachine replay(snapshot);
  const dt::MachineScope scope(replay);
  for (const auto& [query, expected] : answers) {
    const bool past =
        (query.first == 4 && query.second > 4) || (query.first == 0xb && query.second > 2);
    const dt::CpuidRegisters got = dt::machine().cpuid(query.first, query.second);
    const dt::CpuidRegisters want = past ? dt::CpuidRegisters{0, 0, 0, 0} : expected;
    EXPECT_EQ(std::tie(got.eax, got.ebx, got.ecx, got.edx),
              std::tie(want.eax, want.ebx, want.ecx, want.edx))
        << std::hex << query.first << "." << query.second;
  }
}

TEST(Snapshot, SavedOnIntelAndAmdProcessorsAndReplayedExactly) {
  roundTrip(scriptedProcessor("intel"));
  roundTrip(scriptedProcessor("amd"));
}

// A dump of the same query with the same answer again and again takes work
// (bytes allocated) in proportion to its size: four times the lines, about
// four times the work, where the square would take sixteen.
TEST(Snapshot, ALargeDumpIsReadInLinearWork) {
  const auto parse = [](std::size_t bytes) {
    std::string dump;
    while (dump.size() < bytes)
      dump += "5 4 0 0 0 => 1c004121 1c0003f 3f 0\n";
    dt::CpuidDump lines;
    std::string error;
    return allocatedBy([&] { EXPECT_TRUE(dt::parseCpuidDump(dump, &lines, &error)) << error; });
  };
  const std::size_t small = parse(512u << 10);
  EXPECT_LT(parse(2u << 20), 5 * small);
  // The same leaf asked with and without its sub-leaf is two queries.
  dt::CpuidDump lines;
  std::string error;
  ASSERT_TRUE(dt::parseCpuidDump("1 4 0 0 0 => 1 2 3 4\n5 4 0 0 0 => 5 6 7 8\n", &lines, &error))
      << error;
  EXPECT_EQ(dt::dumpAnswer(lines, 4, 0).eax, 1u);  // the first line that matches
}

// One CPUID dump under many names (each processor's cpuid/puN a link to it)
// is read and parsed once: forty names take less work (bytes allocated) than
// ten names and one more copy of the dump would.
TEST(Snapshot, ADumpUnderManyNamesIsReadOnce) {
  std::string dump;
  for (unsigned leaf = 0; dump.size() < (256u << 10); ++leaf)
    dump += "1 " + std::to_string(leaf) + " 0 0 0 => 1 2 3 4\n";
  const auto load = [&dump](int names) {
    const Tree tree;
    tree.write("cpuid/dump", dump);
    for (int n = 0; n < names; ++n)
      fs::create_symlink("dump", tree.path / ("cpuid/pu" + std::to_string(n)));
    return allocatedBy([&] { EXPECT_TRUE(xrprocdetector::Source::snapshot(tree.path.string())); });
  };
  const std::size_t ten = load(10);
  EXPECT_LT(load(40), ten + dump.size());
}

// The work (bytes allocated) of the topology of a tree where cgroup2 is
// mounted `lines` times, and proc/self/cgroup has as many lines for it.
std::size_t cgroupWork(int lines) {
  const Tree tree;
  std::string mounts, groups;
  for (int i = 0; i < lines; ++i) {
    mounts += std::to_string(30 + i) + " 24 0:30 / /sys/fs/cgroup/m" + std::to_string(i) +
              " rw - cgroup2 cgroup2 rw\n";
    groups += "0::/job/step" + std::to_string(i) + "\n";
  }
  tree.write("proc/self/mountinfo", mounts);
  tree.write("proc/self/cgroup", groups);
  tree.write("sys/devices/system/cpu/online", "0-3\n");
  return allocatedBy([&] {  // the Source reads its topology when it is made
    const auto source = xrprocdetector::Source::snapshot(tree.path.string());
    EXPECT_EQ(xrprocdetector::topology(*source).usable.count(), 4u);
  });
}

// Four times the mounts and lines, at most four times the work, where
// reading each line's cgroup through each mount would take sixteen.
TEST(Snapshot, ControlGroupsAreReadInLinearWork) {
  const std::size_t small = cgroupWork(25);
  EXPECT_LE(cgroupWork(100), 4 * small);
}

// A snapshot's Source holds what its tree held when it was made: the tree
// changed (one processor fewer online, one gone), then removed, changes
// none of its answers. The fixture has 2 packages, 4 cores and 8 logical
// processors, 0-7 online.
TEST(Snapshot, ASourceKeepsWhatItsTreeHeld) {
  using namespace xrprocdetector;
  std::optional<Source> source;
  std::vector<Topology> seen;
  {
    const Tree tree;
    fs::copy(testsupport::fixture("sysroots/two-package-smt-8"), tree.path,
             fs::copy_options::recursive);
    source = Source::snapshot(tree.path.string());
    ASSERT_TRUE(source);
    seen.push_back(topology(*source));
    tree.write("sys/devices/system/cpu/online", "0-6\n");
    fs::remove_all(tree.path / "sys/devices/system/cpu/cpu7");
    seen.push_back(topology(*source));
  }
  seen.push_back(topology(*source));
  for (const Topology& t : seen)
    EXPECT_TRUE(t.online.toList() == "0-7" && t.packages.size() == 2 && t.cores.size() == 4 &&
                t.processors.size() == 8 && t.error.empty())
        << t.online.toList() << " " << t.error.message();
}

// A recording keeps what its machine said: process 1's environment cut to
// its container= entry (and the NUL that ends it), the configured count in
// its place, the VMware port's answer, and each processor's whole CPUID
// dump: leaves 0 to 0xb, leaf 4's sub-leaves to the one of cache type 0 and
// leaf 0xb's to the one of level type 0, the hypervisor range only where
// leaf 1's ECX bit 31 opens it, at most 256 extended leaves however many
// leaf 0x80000000 names, and an answer asked while pinned that the dump
// does not give. The machine it records is a replay, where a processor
// without a dump is missing (a leaf a dump lacks answers zeros, as the
// sub-leaves past a terminator in
// SavedOnIntelAndAmdProcessorsAndReplayedExactly).
TEST(Snapshot, ARecordingKeepsWhatItsMachineSaid) {
  dt::SavedMachine inner;
  inner.affinity = xrprocdetector::CpuSet({0, 1, 2});
  inner.configured = 4;
  inner.vmwareBackdoor = true;
  inner.files["proc/1/environ"] = std::string("container=podman\0TOKEN=x\0", 25);
  for (const auto& [q, r] : scriptedProcessor("recorded"))
    inner.cpuid[1].push_back({5, {q.first, 0, q.second, 0}, {r.eax, r.ebx, r.ecx, r.edx}});
  inner.cpuid[2] = inner.cpuid[1];
  inner.cpuid[2][1].out[2] = 0;  // leaf 1: no hypervisor
  inner.cpuid[2].push_back({1, {0x20}, {7, 0, 0, 0}});
  dt::ReplayMachine replay(inner);
  EXPECT_THROW(replay.cpuid(0, 0), dt::Missing);  // on processor 0 at first, which has no dump
  ASSERT_TRUE(replay.pin(xrprocdetector::CpuSet({1, 2, 3})));
  EXPECT_FALSE(replay.pin(xrprocdetector::CpuSet({3})));  // outside the saved affinity
  dt::RecordingMachine recording(replay);                 // on 1 and 2
  std::string text, why;
  recording.file("proc/1/environ", 64, &text, &why);
  EXPECT_EQ(recording.files().at("proc/1/environ"), std::string("container=podman\0", 17));
  recording.processorCount(_SC_NPROCESSORS_CONF);
  recording.backdoor();
  EXPECT_TRUE(recording.saved().configured == 4 && recording.saved().vmwareBackdoor);
  ASSERT_TRUE(recording.pin(xrprocdetector::CpuSet({2})));
  recording.cpuid(0x20, 0);
  dt::Error error;
  ASSERT_TRUE(recording.dumpEveryProcessor(&error)) << error.message();
  const auto& saved = recording.saved().cpuid;
  EXPECT_EQ(saved.at(1).size(), 10u + 2 + 3 + 2 + 256);
  EXPECT_EQ(saved.at(2).size(), 10u + 2 + 3 + 256 + 1);
  EXPECT_EQ(dt::dumpAnswer(saved.at(1), 1, 0).ecx, 1u << 31);
}

}  // namespace
