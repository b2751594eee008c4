// Machine snapshots: a machine's detection inputs saved to a directory, and
// every detector generation replayed on them offline.
//
// A snapshot directory holds proc/cpuinfo (a byte copy), the processor lists
// and topology files of sys/devices/system/cpu/ (the layout that other
// topology tools read under a system root), cpuid/pu0, cpuid/pu1, ... (each
// processor's CPUID answers, one "mask eax ebx ecx edx => eax ebx ecx edx"
// line a query, in hexadecimal) and xrprocdetect.json (what no kernel file
// holds: the configured and online counts, the thread's affinity, the VMware
// probe's answer), written last. Any part but the last may be missing.
//
// While an XrSnapshotReplay lives, the detectors that run on the thread that
// created it see the snapshot instead of the machine: its /proc/cpuinfo
// text, its processor counts, its affinity (pinning to a processor succeeds
// exactly when the processor is in the saved set), the CPUID answers of the
// processor the thread is pinned to (the lowest of its current set, at first
// the lowest of the saved set) and its VMware answer. Replays nest; other
// threads are not affected; nothing is kept after the scope ends.
#ifndef XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_H
#define XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_H

#include <sched.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/cpuinfo_source.h"
#include "platform/machine.h"

// Processor numbers of a snapshot are below this: the detectors use 128-byte
// processor sets (CPU_SETSIZE).
constexpr unsigned kSnapshotMaxProcessors = 1024;

// One query of a CPUID dump and its answer. `mask` says which inputs matter:
// bit 0 EAX (the leaf), bit 1 EBX, bit 2 ECX (the sub-leaf), bit 3 EDX.
struct XrCpuidLine {
  std::uint32_t mask;
  std::uint32_t in[4];   // EAX, EBX, ECX, EDX
  std::uint32_t out[4];  // EAX, EBX, ECX, EDX
};

// A snapshot as read from its directory. Absent parts are empty.
struct XrMachineSnapshot {
  std::optional<std::string> cpuinfo;  // proc/cpuinfo
  // sysconf's configured and online counts: from xrprocdetect.json, or else
  // counted from sys/devices/system/cpu/possible and online.
  std::optional<long> configured;
  std::optional<long> online;
  // The thread's affinity, sorted: from xrprocdetect.json, or else the
  // online processors.
  std::optional<std::vector<unsigned>> affinity;
  bool vmwareBackdoor = false;  // false also when xrprocdetect.json is absent
  bool hasMetadata = false;     // xrprocdetect.json was there
  // cpuid/puN by processor number N.
  std::map<unsigned, std::vector<XrCpuidLine>> cpuid;
};

// Reads the snapshot in `dir`. Returns false, with *error naming the file
// (and the line) that is to blame, when a part that is there cannot be read
// or is malformed, when the directory holds no part of a snapshot, or when
// it is a save that did not finish. Never throws.
bool xrLoadSnapshot(const std::string& dir, XrMachineSnapshot* snapshot,
                    std::string* error) noexcept;

// Writes a snapshot of this machine into `dir` (see saveSnapshot in
// detect.h); `savedBy` is recorded in the metadata. Never throws.
bool xrSaveSnapshot(const std::string& dir, const std::string& savedBy,
                    std::string* error) noexcept;

class XrSnapshotReplay final : public xrprocdetector::detail::MachineStandIn {
 public:
  // `snapshot` must outlive the replay. Without a proc/cpuinfo the scans
  // see an unreadable /proc/cpuinfo (and, as on a live machine, never
  // return); without counts sysconf gives -1; without an affinity
  // sched_getaffinity fails; a processor without a dump answers zeros.
  explicit XrSnapshotReplay(const XrMachineSnapshot& snapshot);

  xrprocdetector::detail::CpuidRegisters cpuid(std::uint32_t leaf,
                                               std::uint32_t subleaf) const override;
  std::uint32_t backdoor() const override;
  long processorCount(int name) const override;
  int getAffinity(cpu_set_t* set) const override;
  // The new set is its part in the saved affinity; refused (-1, no change)
  // when that part is empty.
  int setAffinity(const cpu_set_t& set) override;

 private:
  const XrMachineSnapshot& snapshot_;
  cpu_set_t saved_;
  cpu_set_t affinity_;
  XrCpuinfoRedirect cpuinfo_;
};

#endif  // XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_H
