// The entry points of detect.h, called as hosts call them: the version
// index, a save raced by a link, processor
// sets, and the reader of a system root and its parsers.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>
#include <tuple>

#include <xrprocdetector/detect.h>

#include "machine/machine.h"
#include "snapshot/snapshot.h"
#include "support/scripted_hardware.h"

namespace {

using namespace xrprocdetector;
namespace dt = xrprocdetector::detail;
namespace fs = std::filesystem;

// Two processors of one package, core ids 0 and 1, "cpu cores" 2.
const char kTwoCores[] =
    "processor\t: 0\nphysical id\t: 0\ncore id\t\t: 0\ncpu cores\t: 2\n\n"
    "processor\t: 1\nphysical id\t: 0\ncore id\t\t: 1\ncpu cores\t: 2\n\n";

using testsupport::Scratch;

// One class carries 6.0 and 6.1: index 1 selects 6.0, which 6.1 does not
// take, and 6.0 always has it.
TEST(Detect, VersionIndexAsTheConstructorsTakeIt) {
  const Source text = Source::cpuinfoText(kTwoCores);
  DetectOptions o;
  o.versionIndex = 1;
  EXPECT_EQ(detect(Generation::k61, text, o).versionIndex, 4);
  o.versionIndex = 6;
  EXPECT_EQ(detect(Generation::k60, text, o).versionIndex, 1);
  EXPECT_EQ(detect(Generation::k61, text, o).versionIndex, 6);
}

// A save that fails (the affinity cannot be read) while its directory is
// renamed and a link put in its place, round after round, removes only what
// it wrote: never the files the link leads to.
TEST(Snapshot, AFailedSaveNeverRemovesThroughALinkPutInPlaceOfItsDirectory) {
  scripted::setMachine({});
  scripted::affinityUnreadable = true;
  const Scratch scratch;
  for (const char* part : {"proc", "sys", "cpuid"})
    scratch.write(std::string("victim/") + part + "/file", "mine");
  std::atomic<int> round{0};
  std::thread swapper([&] {
    for (int r; (r = round) < 200;) {
      const std::string dir = (scratch.path / std::to_string(r)).string(), old = dir + ".old";
      if (::rename(dir.c_str(), old.c_str()) != 0) continue;
      ::symlink("victim", dir.c_str());
      ::usleep(1000);
      ::unlink(dir.c_str());
      ::rename(old.c_str(), dir.c_str());
      ::usleep(2000);
    }
  });
  for (; round < 200; ++round)
    EXPECT_FALSE(saveSnapshot((scratch.path / std::to_string(round)).string()));
  swapper.join();
  for (const char* part : {"proc", "sys", "cpuid"})
    EXPECT_EQ(testsupport::readFile((scratch.path / "victim" / part / "file").string()), "mine");
}

// With standard input closed, the next descriptor opened is 0: a file read,
// a folder listed or a root's directory may be given it, and it is open
// like any other.
TEST(Parsers, DescriptorZeroIsOpenLikeAnyOther) {
  const Scratch scratch;
  const fs::path online = scratch.path / "sys/devices/system/cpu/online";
  scratch.write("sys/devices/system/cpu/online", "0-1\n");
  const int input = ::dup(0);
  ASSERT_GE(input, 0);
  ::close(0);
  std::string text;
  std::string why;
  const dt::Read r = dt::readWholeFile(AT_FDCWD, online.string(), dt::kSmallFileCap, &text, &why);
  std::vector<std::string> names;
  const dt::Read listed = dt::listFolder(AT_FDCWD, online.parent_path().string(), &names);
  // The snapshot's root and the kernel row's are each given 0, and so is
  // this machine's /proc/cpuinfo, whose first processor names its model.
  const auto source = Source::snapshot(scratch.path.string());
  const KernelTopology k = source ? kernelTopology(*source) : KernelTopology();
  const Topology live = topology(Source::live());
  const bool zeroClosedAgain = ::fcntl(0, F_GETFD) == -1;
  ::dup2(input, 0);
  ::close(input);
  EXPECT_EQ(r, dt::Read::kOk) << why;
  EXPECT_EQ(text, "0-1\n");
  EXPECT_EQ(listed, dt::Read::kOk);
  EXPECT_EQ(names, std::vector<std::string>{"online"});
  EXPECT_EQ(k.logicalProcessors, 2) << k.missing << k.error.message();
  EXPECT_EQ(live.cpuModel.has_value(),
            testsupport::readFile("/proc/cpuinfo").find("model name") != std::string::npos);
  EXPECT_TRUE(zeroClosedAgain);
}

// A path in a saved tree is resolved inside it: ".." stops at its top, an
// absolute path or link target starts from it, links within the tree are
// followed, and nothing from outside (outside/cpu.max, 987654) is ever
// read. A link that leads nowhere in the tree, or round in a loop, is a
// broken file. The paths and their answers: tables/saved_tree_paths.txt.
TEST(Parsers, PathsInASavedTreeResolveInsideIt) {
  const Scratch scratch;
  const fs::path tree = scratch.path / "tree";
  for (const char* file : {"outside/cpu.max", "tree/sys/fs/cgroup/cpu.max", "tree/outside/cpu.max",
                           "tree/cpuid/notes"})
    scratch.write(file, file[0] == 'o' ? "987654" : "in");
  fs::create_symlink("/sys/fs/cgroup/cpu.max", tree / "rooted");
  fs::create_symlink("/outside/cpu.max", tree / "sys/fs/cgroup/rooted");
  fs::create_symlink("../../outside/cpu.max", tree / "up");
  fs::create_symlink("../cgroup", tree / "sys/fs/cgroup/self");
  fs::create_symlink(scratch.path / "outside/cpu.max", tree / "escape");
  fs::create_symlink("loop", tree / "loop");
  fs::create_hard_link(tree / "sys/fs/cgroup/cpu.max", tree / "hard");
  const auto cases = testsupport::table("tables/saved_tree_paths.txt");
  dt::SavedMachine saved;
  dt::Error error;
  // Each path read through the tree when it is loaded, then from memory.
  const auto readers = [&cases](dt::Machine& m) {
    for (const auto& c : cases) {
      std::string text, why;
      m.file(c[0], dt::kSmallFileCap, &text, &why);
    }
  };
  ASSERT_TRUE(dt::loadSnapshot(tree.string(), &saved, &error, readers)) << error.message();
  // From memory with a cap of 2, the size of "in": a file as large as its
  // cap is read whole.
  dt::ReplayMachine replay(saved);
  for (const auto& c : cases) {
    std::string text, why;
    const dt::Read r = replay.file(c[0], 2, &text, &why);
    EXPECT_EQ(r == dt::Read::kOk ? text : r == dt::Read::kAbsent ? "absent" : why, c.at(1)) << c[0];
  }
  // Without openat2 (before Linux 5.6), component by component: the same.
  const dt::Fd root(::open(tree.c_str(), O_PATH | O_DIRECTORY));
  for (const auto& c : cases) {
    std::string by[2];
    for (const bool componentwise : {false, true}) {
      const int fd = dt::openInRoot(root.get(), c[0], O_RDONLY, componentwise);
      std::string why;
      by[componentwise] = fd < 0 ? std::strerror(errno) : "";
      if (fd >= 0) dt::readOpen(fd, 0, 64, &by[componentwise], &why);
    }
    EXPECT_EQ(by[1], by[0]) << c[0];
  }
}

TEST(CpuSets, ListsReadBackAsWrittenAndSetsIntersect) {
  for (const char* list : {"", "0", "0-3,8", "1,3,5-7", "8191"})
    EXPECT_EQ(CpuSet::fromList(list).value_or(CpuSet({9})).toList(), list);
  EXPECT_EQ(CpuSet::fromList("0-3\n")->toList(), "0-3");
  for (const char* bad : {"8192", "3-1", "0,0", "a", "1,", "-1", "0-8192", "0-", ",1", "1,,2"})
    EXPECT_FALSE(CpuSet::fromList(bad)) << bad;
  const CpuSet a({5, 1, 3, 3, 8000});
  EXPECT_TRUE(a.count() == 4 && a.contains(8000) && !a.contains(2));
  EXPECT_EQ(std::vector<unsigned>(a.begin(), a.end()), (std::vector<unsigned>{1, 3, 5, 8000}));
  EXPECT_EQ((a & *CpuSet::fromList("0-4")).toList(), "1,3");
  EXPECT_TRUE((a & CpuSet()).empty() && a != CpuSet({1, 3, 5}));
  CpuSet b = a | *CpuSet::fromList("0-2");
  b.remove(8000);
  EXPECT_EQ(b.toList(), "0-3,5");
  EXPECT_EQ((b - a).toList(), "0,2");
}

// A set the files do not tell is unknown, never "no processors": without
// sys/ (a tree of CPUID dumps alone), with an empty online list, and for a
// saved /proc/cpuinfo alone, every set; on an old kernel with neither a
// present nor a possible list (online from the cpuN folders, as layouts.txt
// has it), the present and offline ones. Through C, what is not known
// counts -1, never 0.
TEST(Topology, SetsTheFilesDoNotTellAreUnknown) {
  const std::uint32_t all = XRPD_SET_ONLINE | XRPD_SET_OFFLINE | XRPD_SET_USABLE | XRPD_SET_PRESENT;
  const std::string data = XRPROCDETECTOR_TEST_DATA;
  const std::pair<std::optional<Source>, std::uint32_t> cases[] = {
      {Source::snapshot(data + "/snapshots/cpuid-only"), all},
      {Source::snapshot(data + "/sysroots/empty-online-list"), all},
      {Source::cpuinfoText(kTwoCores), all},
      {Source::snapshot(data + "/sysroots/old-kernel-core-siblings-4"),
       XRPD_SET_PRESENT | XRPD_SET_OFFLINE},
      {Source::snapshot(data + "/sysroots/offline-7"), 0}};
  for (const auto& [source, unknown] : cases) {
    ASSERT_TRUE(source);
    const Topology t = topology(*source);
    EXPECT_EQ(t.unknownSets, unknown) << source->name();
    EXPECT_EQ(t.known(TopologySet::kOffline), (unknown & XRPD_SET_OFFLINE) == 0) << source->name();
    xrpd_topology* h = xrpd_topology_read(source->handle(), nullptr);
    xrpd_topology_info i{};
    i.size = sizeof i;
    ASSERT_EQ(xrpd_topology_get(h, &i), 0);
    xrpd_topology_close(h);
    EXPECT_EQ(i.unknown_sets, unknown) << source->name();
    // The counts of the entries the C interface serves.
    EXPECT_EQ(i.caches, static_cast<std::int32_t>(t.caches.size())) << source->name();
    EXPECT_EQ(i.numa_nodes, static_cast<std::int32_t>(t.numaNodes.size())) << source->name();
    EXPECT_TRUE(unknown != all || (i.packages == -1 && i.cores == -1 && i.smt == -1 &&
                                   i.effective_processors == -1 && i.processors == 0))
        << source->name();
  }
}

// A source leaves the caches unread on request (the fixture has 26: two
// packages of four cores, each with L1d, L1i and L2, and an L3 each), and
// not where the caller's options are too short to hold `skip`; the live
// machine too.
TEST(Topology, CachesLeftUnreadOnRequest) {
  const std::tuple<xrpd_source_kind, std::size_t, std::int32_t> cases[] = {
      {XRPD_SOURCE_SNAPSHOT, sizeof(xrpd_source_options), 0},
      {XRPD_SOURCE_SNAPSHOT, sizeof(std::size_t), 26},
      {XRPD_SOURCE_LIVE, sizeof(xrpd_source_options), 0}};
  for (const auto& [kind, size, caches] : cases) {
    const xrpd_source_options o{size, XRPD_SKIP_CACHES};
    const char* dir = XRPROCDETECTOR_TEST_DATA "/sysroots/numa-two-node-smt-16";
    const std::shared_ptr<xrpd_source> s(xrpd_source_open_with(kind, dir, nullptr, 0, &o, nullptr),
                                         xrpd_source_close);
    xrpd_topology* h = xrpd_topology_read(s.get(), nullptr);
    xrpd_topology_info i{};
    i.size = sizeof i;
    EXPECT_EQ(xrpd_topology_get(h, &i), 0);
    EXPECT_EQ(i.caches, caches) << size;
    xrpd_topology_close(h);
  }
}

TEST(Parsers, MasksAndJsonStrings) {
  CpuSet cpus;
  std::string error;
  // Hexadecimal words, most significant first: every digit's bits.
  // Digit k of the 16 (from the right) is k, at bits 4k to 4k+3.
  EXPECT_TRUE(dt::parseCpuMask("fedcba98,76543210\n", &cpus, &error));
  EXPECT_EQ(cpus.toList(), "4,9,12-13,18,20,22,25-26,28-30,35-36,39,41,43-45,47,50-52,54-55,57-63");
  EXPECT_TRUE(dt::parseCpuMask("0000000A,0000000f", &cpus, &error));
  EXPECT_EQ(cpus.toList(), "0-3,33,35");
  EXPECT_FALSE(dt::parseCpuMask("0000000g", &cpus, &error));
  // Bit 8192, past the kernel's limit; leading zeros past it are no bits.
  EXPECT_FALSE(dt::parseCpuMask("1" + std::string(2048, '0'), &cpus, &error));
  EXPECT_TRUE(dt::parseCpuMask("0" + std::string(2047, '0') + "1", &cpus, &error));
  // Valid UTF-8 as it is (e9 as c3 a9, U+009B a control); each byte of what
  // is not (ff, a surrogate, U+07FF in three bytes, a character cut short)
  // as the character of its own value.
  EXPECT_EQ(dt::jsonQuoted("\xff\xc3\xa9\x1b\x7f\xc2\x9b\xed\xa0\x80\xe0\x9f\xbf\xe2\x82"),
            "\"\\u00ff\xc3\xa9\\u001b\\u007f\\u009b\\u00ed\\u00a0\\u0080\\u00e0\\u009f\\u00bf"
            "\\u00e2\\u0082\"");
}

// Two packages of four cores of two threads, each package a node and an
// L3 (processors n and n+8 share a core), whose nodes and caches
// nodes-caches.txt holds (and the Python module's test_trees, the public
// layer's): its places through the C interface (the places of each kind:
// tests/kernel); with the process's cpuset narrowed, places of usable
// processors only.
TEST(Places, OfEveryKindOnATwoNodeMachine) {
  const auto source = Source::snapshot(XRPROCDETECTOR_TEST_DATA "/sysroots/numa-two-node-smt-16");
  ASSERT_TRUE(source);
  Topology t = topology(*source);
  t.usable = *CpuSet::fromList("5-9");
  EXPECT_EQ(ompPlaces(places(t, PlaceKind::kCores)), "{5},{6},{7},{8},{9}");  // 8 and 9 apart
  EXPECT_EQ(ompPlaces(places(t, PlaceKind::kSockets)), "{5,6,7},{8,9}");
  xrpd_topology* h = xrpd_topology_read(source->handle(), nullptr);
  xrpd_cpuset second;
  EXPECT_EQ(xrpd_places(h, XRPD_PLACE_CORES, 1, &second), 8);
  EXPECT_EQ(CpuSet::fromC(second).toList(), "1,9");
  xrpd_topology_close(h);
}

// A thread bound to a set runs there; an empty set and a set of no
// processor it may use are refused, saying why, and change nothing.
TEST(Places, BindingAThreadAndCpuSetT) {
  std::thread([] {
    cpu_set_t mine;
    ASSERT_EQ(sched_getaffinity(0, sizeof mine, &mine), 0);
    const CpuSet all = CpuSet::fromCpuSetT(&mine, sizeof mine);
    const CpuSet last({*std::max_element(all.begin(), all.end())});
    EXPECT_TRUE(bindThread(last).empty());
    ASSERT_EQ(sched_getaffinity(0, sizeof mine, &mine), 0);
    EXPECT_EQ(CpuSet::fromCpuSetT(&mine, sizeof mine), last);
    EXPECT_NE(bindThread(CpuSet()).message().find("empty"), std::string::npos);
    EXPECT_NE(bindThread(CpuSet({8191})).message().find("8191"), std::string::npos);
    cpu_set_t small;
    EXPECT_FALSE(CpuSet({1, 2000}).toCpuSetT(&small, 8));
    EXPECT_EQ(CpuSet::fromCpuSetT(&small, 8).toList(), "1");
  }).join();
}

// What names a machine, on system roots and snapshots: tables/identity.txt.
// A tree that lacks a file names nothing.
TEST(Identity, OfSnapshotsAndSystemRoots) {
  for (const auto& row : testsupport::table("tables/identity.txt")) {
    SCOPED_TRACE(row[0]);
    const std::optional<Source> source = Source::snapshot(testsupport::fixture(row[0]));
    ASSERT_TRUE(source);
    const Topology t = topology(*source);
    const std::optional<std::string> got[] = {t.hostname,  t.kernelRelease,   t.cpuModel,
                                              t.cpuVendor, source->savedAt(), source->savedBy()};
    ASSERT_EQ(row.size(), 7u);
    for (std::size_t i = 0; i < 6; ++i)
      EXPECT_EQ(got[i].value_or("-"), row[i + 1]) << "field " << i + 1;
  }
  // A host built before 2.2.0 passes the struct it knows: it gets that
  // much, and its size back; this machine and a text have no save.
  xrpd_source_info old{};
  old.size = sizeof old.size;
  EXPECT_EQ(xrpd_source_get(Source::cpuinfoText(kTwoCores).handle(), &old), 0);
  EXPECT_EQ(old.size, sizeof old.size);
  EXPECT_FALSE(Source::live().savedAt());
  EXPECT_FALSE(Source::cpuinfoText(kTwoCores).savedBy());
  EXPECT_EQ(xrpd_source_get(nullptr, nullptr), -1);
}

}  // namespace
