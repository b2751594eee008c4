#include "support/scripted_hardware.h"

#include <errno.h>

#include <algorithm>
#include <csignal>

// The two instructions of platform/hardware.h, scripted.
namespace xrprocdetector::detail {

CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  ++scripted::cpuidQueries;
  const auto found = scripted::cpuid.find({leaf, subleaf});
  return found == scripted::cpuid.end() ? CpuidRegisters{0, 0, 0, 0} : found->second;
}

std::uint32_t vmwareBackdoorVersion() {
  ++scripted::backdoorQueries;
  if (scripted::backdoor == scripted::Backdoor::kMagic) return kVmwareMagic;
  if (scripted::backdoor == scripted::Backdoor::kOtherAnswer) return 0x12345678;
  std::raise(SIGSEGV);  // as the port access faults: the probe's handler must take it
  return 0;
}

}  // namespace xrprocdetector::detail

// The thread's affinity on the scripted machine, in place of the C library's
// calls (a definition here comes before the library's at link time).
extern "C" int sched_getaffinity(pid_t, size_t size, cpu_set_t* set) noexcept {
  if (scripted::affinityUnreadable) return errno = EINVAL, -1;
  std::memcpy(set, &scripted::affinity, std::min(size, sizeof(cpu_set_t)));
  return 0;
}

extern "C" int sched_setaffinity(pid_t, size_t size, const cpu_set_t* set) noexcept {
  cpu_set_t named;
  CPU_ZERO(&named);
  std::memcpy(&named, set, std::min(size, sizeof named));
  CPU_AND(&named, &named, &scripted::allowed);
  if (CPU_COUNT(&named) == 0) return errno = EINVAL, -1;
  scripted::affinity = named;
  return 0;
}
