// The replay scope, and the seams through which the detectors reach the
// machine: each tests the calling thread's replay pointer once.
#include <unistd.h>

#include "xrprocdetector/internal/snapshot.h"

namespace {
// The innermost replay of this thread; the host's own scope owns it.
thread_local XrSnapshotReplay* activeReplay = nullptr;

XrCpuinfoRedirect cpuinfoOf(const XrMachineSnapshot& snapshot) {
  // Without a text the scans see a file that cannot be opened, as a live
  // scan of an unreadable /proc/cpuinfo does.
  if (snapshot.cpuinfo) return {XrCpuinfoRedirect::kText, *snapshot.cpuinfo};
  return {XrCpuinfoRedirect::kFile, std::string()};
}
}  // namespace

XrSnapshotReplay::XrSnapshotReplay(const XrMachineSnapshot& snapshot)
    : snapshot_(snapshot), previous_(activeReplay), cpuinfo_(cpuinfoOf(snapshot)) {
  CPU_ZERO(&saved_);
  if (snapshot.affinity) {
    for (const unsigned p : *snapshot.affinity) {
      if (p < kSnapshotMaxProcessors) CPU_SET(p, &saved_);
    }
  }
  affinity_ = saved_;
  activeReplay = this;
}

XrSnapshotReplay::~XrSnapshotReplay() {
  activeReplay = previous_;
}

bool XrSnapshotReplay::setAffinity(const cpu_set_t& set) {
  cpu_set_t allowed;
  CPU_AND(&allowed, &set, &saved_);
  if (CPU_COUNT(&allowed) == 0) return false;
  affinity_ = allowed;
  return true;
}

XrSnapshotReplay* XrSnapshotReplay::active() {
  return activeReplay;
}

namespace xrprocdetector {
namespace detail {

CpuidRegisters queryCpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  const XrSnapshotReplay* replay = activeReplay;
  if (replay == nullptr) return cpuid(leaf, subleaf);
  // The processor the thread runs on: the lowest of its set.
  for (unsigned p = 0; p < kSnapshotMaxProcessors; ++p) {
    if (!CPU_ISSET(p, &replay->affinity())) continue;
    const auto& dumps = replay->snapshot().cpuid;
    const auto found = dumps.find(p);
    if (found == dumps.end()) break;
    return dumpAnswer(found->second, leaf, subleaf);
  }
  return {0, 0, 0, 0};
}

std::uint32_t queryBackdoor() {
  const XrSnapshotReplay* replay = activeReplay;
  if (replay == nullptr) return vmwareBackdoorVersion();
  // A port that faulted or answered otherwise reads as no answer.
  return replay->snapshot().vmwareBackdoor ? kVmwareMagic : 0;
}

long querySysconf(int name) {
  const XrSnapshotReplay* replay = activeReplay;
  if (replay == nullptr) return sysconf(name);
  const auto& count =
      name == _SC_NPROCESSORS_CONF ? replay->snapshot().configured : replay->snapshot().online;
  return count ? *count : -1;
}

int queryGetAffinity(cpu_set_t* set) {
  const XrSnapshotReplay* replay = activeReplay;
  if (replay == nullptr) return sched_getaffinity(0, sizeof *set, set);
  if (!replay->snapshot().affinity) return -1;
  *set = replay->affinity();
  return 0;
}

int querySetAffinity(const cpu_set_t* set) {
  XrSnapshotReplay* replay = activeReplay;
  if (replay == nullptr) return sched_setaffinity(0, sizeof *set, set);
  return replay->setAffinity(*set) ? 0 : -1;
}

}  // namespace detail
}  // namespace xrprocdetector
