// The snapshot readers (CPUID dumps, processor lists, the metadata file) and
// the seams through which the detectors reach the machine: CPUID, the VMware
// port, sysconf and the thread's affinity. Each seam asks the calling
// thread's XrSnapshotReplay first (one thread-local pointer test) and the
// machine otherwise.
#ifndef XRPROCDETECTOR_INTERNAL_SNAPSHOT_H
#define XRPROCDETECTOR_INTERNAL_SNAPSHOT_H

#include <sched.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "xrprocdetector/internal/hardware.h"
#include "xrprocdetector/xrprocdetector_snapshot.h"

namespace xrprocdetector {
namespace detail {

// The seams.
CpuidRegisters queryCpuid(std::uint32_t leaf, std::uint32_t subleaf);
std::uint32_t queryBackdoor();  // the port access; faults outside VMware
long querySysconf(int name);
int queryGetAffinity(cpu_set_t* set);  // sched_getaffinity(0, 128, set)
int querySetAffinity(const cpu_set_t* set);

// The readers. On failure each returns false and sets *error to a message
// that starts with "line N: " where a line is to blame.

// A CPUID dump: "mask eax ebx ecx edx => eax ebx ecx edx" in hexadecimal,
// '#' comments, blank lines. Two different answers for one query fail.
bool parseCpuidDump(std::string_view text, std::vector<XrCpuidLine>* lines, std::string* error);
// The answer a dump gives (zeros when no line does): the first line whose
// masked inputs equal the query's (EAX leaf, ECX sub-leaf, EBX = EDX = 0).
CpuidRegisters dumpAnswer(const std::vector<XrCpuidLine>& lines, std::uint32_t leaf,
                          std::uint32_t subleaf);
// A kernel processor list such as "0-3,8-11\n": sorted, no repeats, every
// number below kSnapshotMaxProcessors. An empty list is valid.
bool parseProcessorList(std::string_view text, std::vector<unsigned>* processors,
                        std::string* error);
std::string formatProcessorList(const std::vector<unsigned>& processors);

struct SnapshotMetadata {
  long configured = 0;
  long online = 0;
  std::vector<unsigned> affinity;
  bool vmwareBackdoor = false;
};
// xrprocdetect.json: one JSON object with the format, version, counts,
// affinity and VMware keys; other keys are ignored.
bool parseMetadata(std::string_view text, SnapshotMetadata* metadata, std::string* error);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_SNAPSHOT_H
