// Scripted CPUID, VMware backdoor and processor affinity for the unit tests:
// the main thread's machine in the unit tests (scripted_hardware.cpp), whose
// files and counts are this machine's. Each test states the machine it
// pretends to run on.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_SCRIPTED_HARDWARE_H
#define XRPROCDETECTOR_TESTS_SUPPORT_SCRIPTED_HARDWARE_H

#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

#include "machine/machine.h"
#include "support/test_support.h"

namespace scripted {

using Registers = xrprocdetector::detail::CpuidRegisters;
// What the VMware backdoor port does: fault with SIGSEGV (outside VMware),
// answer with the magic (VMware), or answer something else.
enum class Backdoor { kFault, kMagic, kOtherAnswer };

inline std::map<std::pair<std::uint32_t, std::uint32_t>, Registers> cpuid;  // by leaf, sub-leaf
inline Backdoor backdoor;
inline int cpuidQueries, backdoorQueries;
inline xrprocdetector::CpuSet allowed, affinity;
inline bool affinityUnreadable;  // sched_getaffinity fails

// The machine from now on: CPUID answers by (leaf, sub-leaf), all zeros for
// any other query; the backdoor; and the processors that the thread may be
// pinned to (a bit mask), which are also its affinity to begin with: a
// pinning that names none of them is refused, as the kernel refuses it.
// The affinity can be read. Resets the query counts and unblocks SIGSEGV.
inline void setMachine(std::map<std::pair<std::uint32_t, std::uint32_t>, Registers> answers,
                       Backdoor port = Backdoor::kFault, std::uint32_t processors = 0xF) {
  cpuid = std::move(answers);
  backdoor = port;
  cpuidQueries = backdoorQueries = 0;
  std::vector<unsigned> cpus;
  for (unsigned cpu = 0; cpu < 32; ++cpu)
    if (processors >> cpu & 1) cpus.push_back(cpu);
  affinity = allowed = xrprocdetector::CpuSet(cpus);
  affinityUnreadable = false;
  testsupport::unblockSegv();
}

// Leaf 0's registers: the highest leaf and the 12-letter vendor name.
inline Registers vendor(std::uint32_t maxLeaf, const char* name) {
  std::uint32_t words[3];
  std::memcpy(words, name, sizeof words);
  return {maxLeaf, words[0], words[2], words[1]};
}

// The thread's affinity, e.g. "0 1 2 3".
inline std::string affinityText() {
  std::string cpus;
  for (const unsigned cpu : affinity)
    cpus += (cpus.empty() ? "" : " ") + std::to_string(cpu);
  return cpus;
}

}  // namespace scripted

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_SCRIPTED_HARDWARE_H
