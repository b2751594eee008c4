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

// Reads the file `name` under the directory `dirFd` (or the path itself
// with AT_FDCWD) into *text, up to 64 MiB; kAbsent when it does not exist,
// kFailed with *error saying why otherwise.
enum class Read { kOk, kAbsent, kFailed };
Read readFile(int dirFd, const std::string& name, std::string* text, std::string* error);

// "line N: message".
std::string atLine(int line, const std::string& message);
// A hexadecimal number of 1 to 8 digits, without 0x.
bool hexWord(std::string_view word, std::uint32_t* value);
// The CPUID dump of the processor the thread runs on: every standard and
// extended leaf up to the highest it names, with the sub-leaves of 4, 0xb
// and 0x1f up to their terminators.
std::string dumpThisProcessor();

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
// The text of xrprocdetect.json for `metadata`, saved now by `savedBy`.
std::string formatMetadata(const SnapshotMetadata& metadata, const std::string& savedBy);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_SNAPSHOT_H
