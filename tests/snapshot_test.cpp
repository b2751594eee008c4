// Snapshots saved on scripted processors (an Intel one with leaf 4 and leaf
// 0xb sub-leaves, an AMD one with leaf 0x80000008) are written and replayed
// exactly, and a large CPUID dump is read in time proportional to it.
#include <chrono>
#include <filesystem>

#include "snapshot/snapshot_io.h"
#include "support/scripted_hardware.h"

namespace {

namespace dt = xrprocdetector::detail;
using Answers = std::map<std::pair<std::uint32_t, std::uint32_t>, scripted::Registers>;

// Leaf 4's sub-leaves end where EAX[4:0] is 0, leaf 0xb's where ECX[15:8]
// is 0: the terminator is written, the sub-leaves after it are not.
Answers intel() {
  Answers a;
  a[{0, 0}] = scripted::vendor(0xb, "GenuineIntel");
  a[{1, 0}] = {0x906ea, 0x00100800, 0x7ffafbbf, 0xbfebfbff};
  for (std::uint32_t sub = 0; sub < 4; ++sub)
    a[{4, sub}] = {0x1c004121 + sub, 0x01c0003f, 0x3f + sub, 0};
  a[{4, 4}] = {0, 0, 0, 0};
  a[{4, 5}] = {0x1c004121, 1, 1, 1};  // past the terminator: never asked
  a[{0xb, 0}] = {1, 2, 0x100, 0};
  a[{0xb, 1}] = {4, 8, 0x201, 0};
  a[{0xb, 2}] = {0, 0, 2, 0};
  a[{0xb, 3}] = {9, 9, 0x300, 9};  // past the terminator
  a[{0x80000000, 0}] = {0x80000008, 0, 0, 0};
  a[{0x80000008, 0}] = {0x3027, 0, 0, 0};
  return a;
}

Answers amd() {
  Answers a;
  a[{0, 0}] = scripted::vendor(0xd, "AuthenticAMD");
  a[{1, 0}] = {0x830f10, 0x00080800, 0, 0x178bfbff};
  a[{0x80000000, 0}] = {0x8000001e, 0, 0, 0};
  a[{0x80000008, 0}] = {0x3030, 0, 0x7007, 0};
  return a;
}

// Saves this machine with the scripted processors in place of the real
// one, loads the snapshot and replays it: every question the detectors ask
// gets the scripted answer, on each processor of the affinity, and the
// sub-leaves past a terminator, never asked, answer zeros.
void roundTrip(const Answers& answers) {
  scripted::setMachine(answers, scripted::Backdoor::kFault, 0x3);
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("snapshot-test-" + std::to_string(getpid()));
  std::filesystem::remove_all(dir);
  std::string error;
  ASSERT_TRUE(xrprocdetector::saveSnapshot(dir.string(), &error)) << error;
  dt::SavedMachine snapshot;
  dt::Error why;
  ASSERT_TRUE(dt::loadSnapshot(dir.string(), &snapshot, &why)) << why.message();
  std::filesystem::remove_all(dir);
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

TEST(Snapshot, SavedOnAnIntelProcessorAndReplayedExactly) {
  roundTrip(intel());
}

TEST(Snapshot, SavedOnAnAmdProcessorAndReplayedExactly) {
  roundTrip(amd());
}

TEST(Snapshot, ALargeDumpIsReadInLinearTime) {
  // 2 MB of the same query with the same answer, then a different answer.
  std::string dump;
  const std::string line = "5 4 0 0 0 => 1c004121 1c0003f 3f 0\n";
  while (dump.size() < (2u << 20))
    dump += line;
  dt::CpuidDump lines;
  std::string error;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(dt::parseCpuidDump(dump, &lines, &error)) << error;
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 1.0);
  // The same leaf asked with and without its sub-leaf is two queries.
  ASSERT_TRUE(dt::parseCpuidDump("1 4 0 0 0 => 1 2 3 4\n5 4 0 0 0 => 5 6 7 8\n", &lines, &error))
      << error;
  EXPECT_EQ(dt::dumpAnswer(lines, 4, 0).eax, 1u);  // the first line that matches
}

// A leaf that a dump lacks answers zeros in every register, as a processor
// answers a leaf beyond its highest; a processor without a dump is missing.
TEST(Snapshot, WhatADumpLacksAnswersZerosAndAProcessorWithoutOneIsMissing) {
  dt::SavedMachine s;
  s.affinity = xrprocdetector::CpuSet({0, 1});
  s.cpuid[1] = {{1, {0, 0, 0, 0}, {0xd, 1, 2, 3}}};
  dt::ReplayMachine replay(s);
  EXPECT_THROW(replay.cpuid(0, 0), dt::Missing);  // on processor 0 at first, which has no dump
  ASSERT_TRUE(replay.pin(xrprocdetector::CpuSet({1, 2})));
  EXPECT_EQ(replay.cpuid(0, 0).edx, 3u);
  const dt::CpuidRegisters r = replay.cpuid(7, 0);
  EXPECT_EQ(r.eax | r.ebx | r.ecx | r.edx, 0u);
  EXPECT_FALSE(replay.pin(xrprocdetector::CpuSet({2})));  // outside the saved affinity
}

}  // namespace
