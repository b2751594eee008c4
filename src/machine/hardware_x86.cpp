// CPUID and the VMware backdoor port access, as the processor executes them.
#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  // Exactly the leaf asked for, with no highest-leaf check first. All four
  // registers are outputs, so the compiler keeps nothing of its own in them.
  CpuidRegisters r{};
  __asm__ volatile("cpuid"
                   : "=a"(r.eax), "=b"(r.ebx), "=c"(r.ecx), "=d"(r.edx)
                   : "a"(leaf), "c"(subleaf));
  return r;
}

std::uint32_t vmwareBackdoorVersion() {
  std::uint32_t eax = kVmwareMagic;
  std::uint32_t ebx = 0;
  std::uint32_t ecx = 10;      // get version
  std::uint32_t edx = 0x5658;  // "VX"
  __asm__ volatile("inl %%dx, %%eax" : "+a"(eax), "+b"(ebx), "+c"(ecx), "+d"(edx) : : "memory");
  return ebx;
}

}  // namespace detail
}  // namespace xrprocdetector
