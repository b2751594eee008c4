// The replay: a snapshot answering in the machine's place.
#include <unistd.h>

#include "snapshot/snapshot_io.h"

namespace {
XrCpuinfoRedirect cpuinfoOf(const XrMachineSnapshot& snapshot) {
  // Without a text the scans see a file that cannot be opened, as a live
  // scan of an unreadable /proc/cpuinfo does.
  if (snapshot.cpuinfo) return XrCpuinfoRedirect(&*snapshot.cpuinfo);
  return {XrCpuinfoRedirect::kFile, std::string()};
}
}  // namespace

XrSnapshotReplay::XrSnapshotReplay(const XrMachineSnapshot& snapshot)
    : snapshot_(snapshot), cpuinfo_(cpuinfoOf(snapshot)) {
  CPU_ZERO(&saved_);
  if (snapshot.affinity) {
    for (const unsigned p : *snapshot.affinity) {
      if (p < kSnapshotMaxProcessors) CPU_SET(p, &saved_);
    }
  }
  affinity_ = saved_;
}

xrprocdetector::detail::CpuidRegisters XrSnapshotReplay::cpuid(std::uint32_t leaf,
                                                               std::uint32_t subleaf) const {
  // The processor the thread runs on: the lowest of its set.
  for (unsigned p = 0; p < kSnapshotMaxProcessors; ++p) {
    if (!CPU_ISSET(p, &affinity_)) continue;
    const auto found = snapshot_.cpuid.find(p);
    if (found == snapshot_.cpuid.end()) break;
    return xrprocdetector::detail::dumpAnswer(found->second, leaf, subleaf);
  }
  return {0, 0, 0, 0};
}

std::uint32_t XrSnapshotReplay::backdoor() const {
  // A port that faulted or answered otherwise reads as no answer.
  return snapshot_.vmwareBackdoor ? xrprocdetector::detail::kVmwareMagic : 0;
}

long XrSnapshotReplay::processorCount(int name) const {
  const auto& count = name == _SC_NPROCESSORS_CONF ? snapshot_.configured : snapshot_.online;
  return count ? *count : -1;
}

int XrSnapshotReplay::getAffinity(cpu_set_t* set) const {
  if (!snapshot_.affinity) return -1;
  *set = affinity_;
  return 0;
}

int XrSnapshotReplay::setAffinity(const cpu_set_t& set) {
  cpu_set_t allowed;
  CPU_AND(&allowed, &set, &saved_);
  if (CPU_COUNT(&allowed) == 0) return -1;
  affinity_ = allowed;
  return 0;
}
