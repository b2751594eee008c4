// The two instructions the default detector issues: CPUID and the IN of the
// VMware backdoor query. They live in hardware_x86.cpp, which the library is
// built with; the unit tests link a scripted stand-in instead, so the probes'
// logic runs on answers of any processor at no cost to the real build.
#ifndef XRPROCDETECTOR_INTERNAL_HARDWARE_H
#define XRPROCDETECTOR_INTERNAL_HARDWARE_H

#include <cstdint>

namespace xrprocdetector {
namespace detail {

struct CpuidRegisters {
  std::uint32_t eax;
  std::uint32_t ebx;
  std::uint32_t ecx;
  std::uint32_t edx;
};

// Executes CPUID with EAX = leaf and ECX = subleaf on the current processor.
// No check of the highest leaf is made.
CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf);

// The VMware backdoor "get version" query: EAX = 0x564D5868, EBX = 0,
// ECX = 10, DX = 0x5658, then a 32-bit IN from that port. Returns EBX as the
// instruction leaves it. Outside VMware the access faults (SIGSEGV), so it
// must only run under the guard of IsInsideVMware().
std::uint32_t vmwareBackdoorVersion();

constexpr std::uint32_t kVmwareMagic = 0x564D5868;  // "VMXh"

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_HARDWARE_H
