// Scripted CPUID and VMware answers for the unit tests, linked in place of
// the real instructions. Each test states the answers of the processor it
// pretends to run on; every CPUID query is logged, so a test can also check
// which leaves were asked for, and in what order.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_SCRIPTED_HARDWARE_H
#define XRPROCDETECTOR_TESTS_SUPPORT_SCRIPTED_HARDWARE_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "xrprocdetector/internal/hardware.h"

namespace scripted {

using xrprocdetector::detail::CpuidRegisters;

struct Answer {
  std::uint32_t leaf;
  std::uint32_t subleaf;
  CpuidRegisters regs;
};

// Replaces the processor's answers and clears the query log. A (leaf,
// sub-leaf) pair given twice fails the test: a script must say what it means.
// Queries that the script does not answer return all zeros.
void setCpuid(const std::vector<Answer>& answers);

// Every CPUID query since the last setCpuid, as (leaf, sub-leaf).
std::vector<std::pair<std::uint32_t, std::uint32_t>> cpuidLog();

// Leaf 0 of a processor with the given highest leaf and 12-byte vendor string.
Answer vendor(std::uint32_t maxLeaf, const std::string& name);

// What the VMware backdoor port does: fault (SIGSEGV, as outside VMware),
// answer with the magic (VMware), or answer with something else.
enum class Backdoor { kFault, kMagic, kOtherAnswer };
void setBackdoor(Backdoor behaviour);
int backdoorQueries();

}  // namespace scripted

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_SCRIPTED_HARDWARE_H
